// Key pairs by themselves: what Reset forgets, generation, and the lookup by label.
#include "token/rsa_pair.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "inside/freed_watch.h"
#include "inside/token_fixture.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Counting;

class RsaPairTest : public TokenObjectsTest {};

TEST_F(RsaPairTest, ResetForgetsSessionAndModule) {
  RSAPair pair;
  Bind(pair).Reset();
  EXPECT_EQ(pair.GetSessionHandle(), 0u);
  EXPECT_EQ(pair.GetModule(), nullptr);
  EXPECT_EQ(pair.GetObjectHandle(), 0u);
  EXPECT_EQ(pair.GetClass(), 6u);
  EXPECT_TRUE(pair.IsModifiable());
  EXPECT_TRUE(pair.IsPrivate());
  EXPECT_TRUE(pair.IsToken());
  EXPECT_FALSE(pair.IsExtractable());
  EXPECT_FALSE(pair.IsSensitive());
}

TEST_F(RsaPairTest, ResetForgetsWhatALookupRead) {
  const fake::KeyPair keys = token().AddKeyPair(Ascii("id"), "a", 1024);
  token().ObjectAttributes(keys.privateKey)[CKA_SIGN] = fake::Bool(false);
  token().ObjectAttributes(keys.privateKey)[CKA_DECRYPT] = fake::Bool(false);
  RSAPair pair;
  EXPECT_EQ(Bind(pair).FindByLabel(L"a"), NTE_EXISTS);
  const FreedWatch watch;
  pair.Reset();
  EXPECT_EQ(watch.Cleared(128), 1u) << "the modulus";
  EXPECT_EQ(watch.Cleared(3), 1u) << "the public exponent";
  EXPECT_EQ(Bind(pair).Generate(nullptr), NTE_FAIL) << "the token makes no key of 0 bits";
  const fake::Call call = token().Calls().back();
  EXPECT_EQ(call.templates[0][6].length, 0u);
  EXPECT_EQ(call.templates[0][7].value, fake::Ulong(0));
  EXPECT_EQ(call.templates[1][7].value, fake::Bool(true));
  EXPECT_EQ(call.templates[1][8].value, fake::Bool(true));
}

struct PairProbe : RSAPair {
  using CryptokiObject::extractable_;
  using CryptokiObject::modifiable_;
  using CryptokiObject::object_;
  using CryptokiObject::private_;
  using CryptokiObject::sensitive_;
  using CryptokiObject::token_;
};

TEST_F(RsaPairTest, ResetSetsEveryFlagAnew) {
  PairProbe pair;
  pair.object_ = 0x101;
  pair.extractable_ = pair.sensitive_ = CK_TRUE;
  pair.modifiable_ = pair.private_ = pair.token_ = CK_FALSE;
  pair.Reset();
  EXPECT_EQ(pair.GetObjectHandle(), 0u);
  EXPECT_FALSE(pair.IsExtractable());
  EXPECT_FALSE(pair.IsSensitive());
  EXPECT_TRUE(pair.IsModifiable());
  EXPECT_TRUE(pair.IsPrivate());
  EXPECT_TRUE(pair.IsToken());
}

TEST_F(RsaPairTest, GenerationRefusesWhatCannotBeCalled) {
  RSAPair pair;
  pair.Reset();
  EXPECT_EQ(pair.Generate("a"), NTE_INVALID_PARAMETER);
  pair.SetSession(kSession);
  EXPECT_EQ(pair.Generate("a"), NTE_INVALID_PARAMETER);
  pair.SetSession(0);
  pair.SetModule(module_);
  EXPECT_EQ(pair.Generate("a"), NTE_INVALID_PARAMETER);
  ExpectCalls({});
}

TEST_F(RsaPairTest, TokensAnswersAreTranslated) {
  const struct {
    CK_RV code;
    SECURITY_STATUS status;
  } cases[] = {{CKR_CANCEL, ERROR_CANCELLED},
               {CKR_HOST_MEMORY, NTE_NO_MEMORY},
               {CKR_FUNCTION_FAILED, ERROR_FUNCTION_FAILED},
               {CKR_ARGUMENTS_BAD, ERROR_BAD_ARGUMENTS},
               {CKR_DEVICE_ERROR, NTE_INTERNAL_ERROR},
               {CKR_USER_NOT_LOGGED_IN, NTE_PERM},
               {CKR_TEMPLATE_INCOMPLETE, NTE_INVALID_PARAMETER},
               {CKR_SESSION_HANDLE_INVALID, NTE_INVALID_HANDLE},
               {CKR_KEY_SIZE_RANGE, NTE_FAIL}};
  for (const auto& one : cases) {
    for (const char* function : {"C_GenerateRandom", "C_GenerateKeyPair"}) {
      RSAPair pair;
      pair.Reset();
      Bind(pair).SetModulusBits(1024);
      token().Fail(function, one.code);
      EXPECT_EQ(pair.Generate("a"), one.status) << function << " " << one.code;
      EXPECT_EQ(pair.PublicKeyHandle(), 0u);
      EXPECT_EQ(pair.PrivateKeyHandle(), 0u);
    }
  }
  // Without random numbers nothing is generated.
  token().ClearCalls();
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  RSAPair pair;
  pair.Reset();
  Bind(pair).SetModulusBits(1024);
  EXPECT_EQ(pair.Generate("a"), NTE_INTERNAL_ERROR);
  ExpectCalls({"C_GenerateRandom(session=0x51, length=20)"});
}

TEST_F(RsaPairTest, EachGenerationDrawsAnIdentifierOfItsOwn) {
  RSAPair pair;
  pair.Reset();
  Bind(pair).SetModulusBits(512);
  EXPECT_EQ(pair.Generate(nullptr), ERROR_SUCCESS);
  EXPECT_EQ(pair.PublicKeyHandle(), 0x101u);
  EXPECT_EQ(pair.PrivateKeyHandle(), 0x102u);
  const fake::Call first = token().Calls().back();
  EXPECT_EQ(pair.Generate(""), ERROR_SUCCESS);
  const fake::Call second = token().Calls().back();
  EXPECT_EQ(first.templates[0].size(), 14u);
  EXPECT_EQ(first.templates[1].size(), 12u);
  EXPECT_EQ(second.templates[0].size(), 15u) << "an empty label is one";
  EXPECT_EQ(second.templates[1].size(), 13u);
  EXPECT_EQ(first.templates[0][13].length, 20u);
  EXPECT_EQ(first.templates[0][13].value, Counting(20, 1));
  EXPECT_EQ(second.templates[0][13].value, Counting(20, 21));
  EXPECT_EQ(second.templates[0][13].value, second.templates[1][11].value);
  EXPECT_EQ(second.templates[0][8].value, (Bytes{0x01, 0x00, 0x01})) << "not the 4-byte buffer of the pair";
  // A token that says yes and draws nothing does not leave the identifier of the pair before.
  token().Fail("C_GenerateRandom", CKR_OK);
  EXPECT_EQ(pair.Generate(nullptr), ERROR_SUCCESS);
  EXPECT_EQ(token().Calls().back().templates[0][13].value, Bytes(20, 0));
}

TEST_F(RsaPairTest, IdentifierIsWipedWithThePair) {
  FreedWatch watch;
  auto pair = std::make_unique<RSAPair>();
  pair->Reset();
  Bind(*pair).SetModulusBits(512);
  const Bytes id = Counting(20, 0xC0);
  token().SetRandom(id);
  EXPECT_EQ(pair->Generate("a"), ERROR_SUCCESS);
  const RSAPair* const address = pair.get();
  watch.Follow(address);
  const auto* const bytes = reinterpret_cast<const unsigned char*>(address);
  const auto holdsPartOfId = [&](const Bytes& contents) {
    return std::search(contents.begin(), contents.end(), id.begin() + 4, id.begin() + 12) != contents.end();
  };
  EXPECT_TRUE(holdsPartOfId(Bytes(bytes, bytes + sizeof *address))) << "it lies in the pair itself";
  pair.reset();
  ASSERT_TRUE(watch.Released(address));
  EXPECT_FALSE(holdsPartOfId(watch.Contents(address)));
}

TEST_F(RsaPairTest, LookupRefusesWhatCannotBeCalled) {
  RSAPair pair;
  EXPECT_EQ(pair.FindByLabel(L"a"), NTE_INVALID_PARAMETER);
  pair.SetSession(kSession);
  EXPECT_EQ(pair.FindByLabel(L"a"), NTE_INVALID_PARAMETER);
  pair.SetModule(module_);
  EXPECT_EQ(pair.FindByLabel(nullptr), NTE_INVALID_PARAMETER);
  pair.SetSession(0);
  EXPECT_EQ(pair.FindByLabel(L"a"), NTE_INVALID_PARAMETER);
  ExpectCalls({});
}

TEST_F(RsaPairTest, LookupKeepsWhatItRead) {
  const fake::KeyPair keys = token().AddKeyPair(Ascii("id"), "a", 1024);
  token().ObjectAttributes(keys.privateKey)[CKA_SIGN] = fake::Bool(false);
  RSAPair pair;
  pair.Reset();
  EXPECT_EQ(Bind(pair).FindByLabel(L"a"), NTE_EXISTS);
  EXPECT_EQ(pair.PublicKeyHandle(), keys.publicKey);
  EXPECT_EQ(pair.PrivateKeyHandle(), keys.privateKey);
  EXPECT_EQ(pair.Generate("b"), ERROR_SUCCESS);
  const fake::Call call = token().Calls().back();
  EXPECT_EQ(call.templates[0][7].value, fake::Ulong(1024)) << "the length of the modulus";
  EXPECT_EQ(call.templates[1][8].value, fake::Bool(false)) << "whether it signs";
  EXPECT_EQ(call.templates[1][7].value, fake::Bool(true)) << "whether it decrypts";
}

TEST_F(RsaPairTest, LookupTakesFourBytesOfModulusBitsAtMost) {
  const fake::KeyPair keys = token().AddKeyPair(Ascii("id"), "a", 1024);
  const struct {
    Bytes told;
    CK_ULONG bits;
  } cases[] = {{{0x00, 0x04}, 1024}, {Bytes(64, 0x02), 0x02020202}, {{}, 0}};
  for (const auto& one : cases) {
    token().ObjectAttributes(keys.publicKey)[CKA_MODULUS_BITS] = one.told;
    RSAPair pair;
    pair.Reset();
    EXPECT_EQ(Bind(pair).FindByLabel(L"a"), NTE_EXISTS);
    pair.Generate("b");
    EXPECT_EQ(token().Calls().back().templates[0][7].value, fake::Ulong(one.bits));
  }
}

TEST_F(RsaPairTest, LookupReplacesAnEarlierModulusWiped) {
  token().AddKeyPair(Ascii("id"), "a", 1024);
  FreedWatch watch;
  RSAPair pair;
  const auto look = [&] {
    token().ClearCalls();
    EXPECT_EQ(Bind(pair).FindByLabel(L"a"), NTE_EXISTS);
    const std::vector<fake::Call> calls = token().Calls();
    const void* const modulus = calls.at(7).templates[0][0].address;
    watch.Follow(modulus);
    return modulus;
  };
  const void* const first = look();
  EXPECT_FALSE(watch.Released(first)) << "the pair keeps it";
  const void* const second = look();
  EXPECT_TRUE(watch.Wiped(first, 128));
  EXPECT_FALSE(watch.Released(second));
  pair.Reset();
  EXPECT_TRUE(watch.Wiped(second, 128)) << "Reset lets it go";
}

}  // namespace
