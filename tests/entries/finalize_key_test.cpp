// FinalizeKey: a record becomes a key pair on the token, generated there or made of an imported blob's parts.
#include <cstring>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using fake::HexOf;
using kit::Frame;
using kit::Hex32;
using kit::Join;
using kit::kOverwrite;
using kit::Line;
using kit::Number;

class FinalizeKeyTest : public KeyEntryTest {
 protected:
  SECURITY_STATUS Finalize(NCRYPT_KEY_HANDLE key, DWORD flags = 0) {
    key_ = key;
    flags_ = flags;
    return ksp().FinalizeKey(provider_, key, flags);
  }
  kit::KeyRecord& record() const { return *kit::KeyOf(key_); }

  std::vector<Line> Arguments() const {
    return {Hex32("hProvider : ", provider_), Hex32("hKey      : ", key_), Hex32("dwFlags   : ", flags_)};
  }
  void ExpectBody(const std::vector<Line>& body, LONG status) {
    EXPECT_TRUE(kit::SameLines(Frame("KELDAKSPFinalizeKey", Join({Arguments(), body}), status),
                               WithoutLogin(kit::Log::Get().Take())));
  }
  static std::vector<Line> LoggedIn(const std::vector<Line>& then) {
    return Join({{"Checking if key is not yet finalized", LoginLine(), "Checking if overwrite flag is set"}, then});
  }
  static std::vector<Line> Generated(long bits) {
    return LoggedIn({"Generating key pair", Number("Bit length: ", bits)});
  }
  void ExpectCallsAfterLogin(const std::vector<std::string>& expected) { ExpectCalls(CallsAfterLogin(expected)); }

  NCRYPT_KEY_HANDLE key_ = 0;
  DWORD flags_ = 0;
};

// ---- what comes before

TEST_F(FinalizeKeyTest, RefusesForeignHandles) {
  const NCRYPT_KEY_HANDLE key = Create(nullptr);
  const NCRYPT_PROV_HANDLE good = provider_;
  for (const NCRYPT_PROV_HANDLE handle : ForeignHandles(providerRecord(), {0, key})) {
    provider_ = handle;
    EXPECT_EQ(Finalize(0, 0xFFFFFFFF), NTE_INVALID_HANDLE);
    ExpectBody({"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE);
  }
  provider_ = good;
  for (const NCRYPT_KEY_HANDLE handle : ForeignHandles(*kit::KeyOf(key), {0, provider_})) {
    EXPECT_EQ(Finalize(handle, 0xFFFFFFFF), NTE_INVALID_HANDLE);
    ExpectBody({"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE);
  }
  ExpectCalls({});
}

TEST_F(FinalizeKeyTest, FlagsOutside0x248AreRefusedOneByOne) {
  const NCRYPT_KEY_HANDLE key = Create(nullptr);
  kit::KeyOf(key)->fFinished = 1;  // flags are looked at before the state of the key
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if (flag & 0x248) {
      EXPECT_EQ(Finalize(key, flag), NTE_BAD_KEY_STATE) << "bit " << bit;
      Forget();
      continue;
    }
    EXPECT_EQ(Finalize(key, flag), NTE_BAD_FLAGS) << "bit " << bit;
    ExpectBody({"NTE_BAD_FLAGS: Only NCRYPT_NO_KEY_VALIDATION, NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG, and "
                "NCRYPT_SILENT_FLAG are acceptable flags."},
               NTE_BAD_FLAGS);
  }
  EXPECT_EQ(Finalize(key, 0x249), NTE_BAD_FLAGS);
  ExpectCalls({});
}

TEST_F(FinalizeKeyTest, FinishedKeyIsRefusedWithoutAMessage) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_EQ(Finalize(Open(L"Key1")), NTE_BAD_KEY_STATE);
  ExpectBody({"Checking if key is not yet finalized"}, NTE_BAD_KEY_STATE);
  ExpectCalls({});
}

TEST_F(FinalizeKeyTest, FailedLoginEndsIt) {
  token().Fail("C_GetTokenInfo", CKR_DEVICE_ERROR);
  EXPECT_EQ(Finalize(Create(L"Key1")), NTE_INTERNAL_ERROR);
  ExpectBody({"Checking if key is not yet finalized", LoginLine(), "Failed to login. Operation aborted"},
             NTE_INTERNAL_ERROR);
  ExpectCalls({"C_GetTokenInfo(slot=11)"});
  EXPECT_EQ(record().fFinished, 0u);
}

TEST_F(FinalizeKeyTest, CancelledLoginEndsItWithItsStatus) {
  constexpr LONG kCancelled = static_cast<LONG>(0x8010006E);
  kit::DialogRobot robot({[](kit::Dialog& dialog) { dialog.PressCancel(); }});
  // The silent flag does not suppress the dialog.
  EXPECT_EQ(Finalize(Create(L"Key1"), NCRYPT_SILENT_FLAG), kCancelled);
  EXPECT_EQ(robot.Finish(), 1u);
  ExpectBody({"Checking if key is not yet finalized", LoginLine(), "Failed to login. Operation aborted"}, kCancelled);
  EXPECT_EQ(record().fFinished, 0u);
  EXPECT_EQ(token().ObjectCount(), 0u);
}

TEST_F(FinalizeKeyTest, UserIsAskedForThePin) {
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  EXPECT_EQ(Finalize(Create(L"Key1")), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  ExpectBody(Generated(2048), 0);
  EXPECT_EQ(record().fFinished, 1u);
}

// ---- overwriting

class OverwriteTest : public FinalizeKeyTest {
 protected:
  void SetUp() override {
    FinalizeKeyTest::SetUp();
    LogIn();
    pair_ = token().AddKeyPair(Ascii("old id"), "Key1");  // 0x103 and 0x104
    key_ = Create(L"Key1", 0, kOverwrite);
  }
  fake::KeyPair pair_;
};

TEST_F(OverwriteTest, OldObjectsGoFirstThePrivateOneBeforeThePublicOne) {
  EXPECT_EQ(Finalize(key_), 0);
  ExpectBody(LoggedIn({"Overwrite flag is set.", "Generating key pair", Number("Bit length: ", 2048)}), 0);
  const std::vector<std::string> calls = token().TakeTexts();
  ASSERT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls[2], "C_DestroyObject(session=0x51, object=0x104)");
  EXPECT_EQ(calls[3], "C_DestroyObject(session=0x51, object=0x103)");
  EXPECT_EQ(calls[4], "C_GenerateRandom(session=0x51, length=20)");
  EXPECT_FALSE(token().HasObject(pair_.publicKey));
  EXPECT_FALSE(token().HasObject(pair_.privateKey));
  EXPECT_EQ(record().hPublicKeyObject, 0x105u);
  EXPECT_EQ(record().hPrivateKeyObject, 0x106u);
  EXPECT_EQ(record().fFinished, 1u);
}

TEST_F(OverwriteTest, FailingPrivateDestructionLeavesThePublicObject) {
  token().Fail("C_DestroyObject", CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(Finalize(key_), NTE_INTERNAL_ERROR);
  ExpectBody(LoggedIn({"Overwrite flag is set.",
                       "NTE_INTERNAL_ERROR: Private key deletion failed. Check PKCS logs for more information."}),
             NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({"C_DestroyObject(session=0x51, object=0x104)"});
  EXPECT_TRUE(token().HasObject(pair_.publicKey));
  EXPECT_EQ(record().fFinished, 0u);
  // It may be tried again.
  EXPECT_EQ(Finalize(key_), 0);
}

TEST_F(OverwriteTest, FailingPublicDestructionComesTooLateForThePrivateObject) {
  token().Fail("C_DestroyObject", CKR_DEVICE_ERROR, 2);
  EXPECT_EQ(Finalize(key_), NTE_INTERNAL_ERROR);
  ExpectBody(LoggedIn({"Overwrite flag is set.",
                       "NTE_INTERNAL_ERROR: Public key deletion failed. Check PKCS logs for more information."}),
             NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({"C_DestroyObject(session=0x51, object=0x104)", "C_DestroyObject(session=0x51, object=0x103)"});
  EXPECT_FALSE(token().HasObject(pair_.privateKey));
  EXPECT_TRUE(token().HasObject(pair_.publicKey));
  EXPECT_EQ(record().fFinished, 0u);
  Forget();
  // What is destroyed stays destroyed, and is in the way of the next attempt.
  EXPECT_EQ(Finalize(key_), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({"C_DestroyObject(session=0x51, object=0x104)"});
}

#ifdef _WIN64  // see the generation of keys for why
TEST_F(OverwriteTest, NothingThatTheTokenThrowsEscapes) {
  token().Before("C_DestroyObject", [](const fake::Call&) { throw CK_RV{CKR_DEVICE_ERROR}; });
  EXPECT_EQ(Finalize(key_), NTE_INTERNAL_ERROR);
  ExpectBody(
      LoggedIn({"Overwrite flag is set.", "NTE_INTERNAL_ERROR: The operation ended with an unexpected exception"}),
      NTE_INTERNAL_ERROR);
  EXPECT_EQ(record().fFinished, 0u);
}
#endif

TEST_F(OverwriteTest, WithoutTheFlagFoundHandlesAreLeftAlone) {
  record().fOverwrite = 0;
  EXPECT_EQ(Finalize(key_), 0);
  EXPECT_EQ(token().Count("C_DestroyObject"), 0u);
  EXPECT_TRUE(token().HasObject(pair_.publicKey));
}

TEST_F(OverwriteTest, MissingHandlesAreDestroyedAllTheSame) {
  record().hPrivateKeyObject = 0;
  EXPECT_EQ(Finalize(key_), NTE_INTERNAL_ERROR) << "the token knows no object 0";
  ExpectCallsAfterLogin({"C_DestroyObject(session=0x51, object=0x0)"});
}

// ---- generation

class GenerateTest : public FinalizeKeyTest {
 protected:
  void SetUp() override {
    FinalizeKeyTest::SetUp();
    LogIn();
    for (int i = 0; i < 20; ++i)
      id_.push_back(static_cast<BYTE>(0xB0 + i));
    token().SetRandom(id_);
  }
  // label: the rest of the entry, "" for no label.
  std::string GenerateCall(DWORD bits, bool onToken, const std::string& label) const {
    const std::string id = ", CKA_ID=" + HexOf(id_) + label + "}";
    const std::string token = onToken ? "01" : "00";
    return "C_GenerateKeyPair(session=0x51, CKM_RSA_PKCS_KEY_PAIR_GEN[NULL,0], {CKA_CLASS=02000000, "
           "CKA_MODIFIABLE=01, CKA_KEY_TYPE=00000000, CKA_DERIVE=00, CKA_LOCAL=01, CKA_TOKEN=" +
           token + ", CKA_MODULUS[NULL," + std::to_string(bits / 8) +
           "], CKA_MODULUS_BITS=" + HexOf(fake::Ulong(bits)) +
           ", CKA_PUBLIC_EXPONENT=010001, CKA_ENCRYPT=01, CKA_VERIFY=01, CKA_VERIFY_RECOVER=00, CKA_WRAP=00" + id +
           ", {CKA_CLASS=03000000, CKA_MODIFIABLE=01, CKA_PRIVATE=01, CKA_TOKEN=" + token +
           ", CKA_SENSITIVE=00, CKA_DERIVE=00, CKA_LOCAL=01, CKA_DECRYPT=01, CKA_SIGN=01, CKA_SIGN_RECOVER=00, "
           "CKA_UNWRAP=00" +
           id + ")";
  }
  Bytes id_;
};

TEST_F(GenerateTest, NamedKeyBecomesATokenKey) {
  EXPECT_EQ(Finalize(Create(L"Key1")), 0);
  ExpectBody(Generated(2048), 0);
  // The label goes without its terminator here.
  ExpectCallsAfterLogin(
      {"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=4b657931")});
  EXPECT_EQ(record().fFinished, 1u);
  EXPECT_EQ(record().hPublicKeyObject, 0x103u);
  EXPECT_EQ(record().hPrivateKeyObject, 0x104u);
  EXPECT_STREQ(record().pszKeyName, L"Key1");
  EXPECT_EQ(record().cbKeyId, 0u) << "the record does not learn the identifier";
  EXPECT_EQ(token().ObjectAttributes(0x103)[CKA_ID], token().ObjectAttributes(0x104)[CKA_ID]);
}

TEST_F(GenerateTest, NamelessKeyGetsSessionObjectsWithoutALabel) {
  EXPECT_EQ(Finalize(Create(nullptr)), 0);
  ExpectBody(Generated(2048), 0);
  ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, false, "")});
  EXPECT_EQ(record().fFinished, 1u);
  EXPECT_TRUE(token().HasObject(record().hPrivateKeyObject));
  const std::size_t objects = token().ObjectCount();
  ksp().FreeProvider(provider_);
  provider_ = 0;
  EXPECT_EQ(token().ObjectCount(), objects - 2) << "they go with the session";
}

TEST_F(GenerateTest, TemplatesHave15And13EntriesAndOneLessWithoutALabel) {
  EXPECT_EQ(Finalize(Create(L"Key1")), 0);
  fake::Call call = token().Calls().back();
  EXPECT_EQ(call.templates[0].size(), 15u);
  EXPECT_EQ(call.templates[1].size(), 13u);
  EXPECT_EQ(Finalize(Create(nullptr)), 0);
  call = token().Calls().back();
  EXPECT_EQ(call.templates[0].size(), 14u);
  EXPECT_EQ(call.templates[1].size(), 12u);
}

TEST_F(GenerateTest, LegacyKeySpecDoesNotMatterHere) {
  for (const DWORD spec : {DWORD{0}, DWORD{1}, DWORD{2}}) {
    token().SetRandom(id_);
    EXPECT_EQ(Finalize(Create(nullptr, spec)), 0);
    ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, false, "")});
    Forget();
  }
}

TEST_F(GenerateTest, AnyLengthIsSentAndTheTokenJudges) {
  for (const DWORD bits : {DWORD{512}, DWORD{1024}, DWORD{1536}, DWORD{3072}, DWORD{4096}, DWORD{1000}, DWORD{0},
                           DWORD{7}, DWORD{0xFFFFFFFF}}) {
    token().SetRandom(id_);
    const NCRYPT_KEY_HANDLE key = Create(nullptr);
    kit::KeyOf(key)->dwKeyBitLength = bits;
    EXPECT_EQ(Finalize(key), 0);
    ExpectBody(Generated(static_cast<std::int32_t>(bits)), 0);
    ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(bits, false, "")});
  }
}

TEST_F(GenerateTest, FailureThatComesBackAsAStatusIsNotLookedAt) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_KEY_SIZE_RANGE, CKR_USER_NOT_LOGGED_IN}) {
    token().Fail("C_GenerateKeyPair", code);
    EXPECT_EQ(Finalize(Create(L"Key1")), 0);
    ExpectBody(Generated(2048), 0);
    EXPECT_EQ(record().fFinished, 1u);
    EXPECT_EQ(record().hPublicKeyObject, 0u);
    EXPECT_EQ(record().hPrivateKeyObject, 0u);
    EXPECT_EQ(Finalize(key_), NTE_BAD_KEY_STATE) << "the key counts as finished";
    Forget();
  }
}

TEST_F(GenerateTest, FailingRandomNumbersAreNotLookedAtEither) {
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  EXPECT_EQ(Finalize(Create(L"Key1")), 0);
  ExpectBody(Generated(2048), 0);
  ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)"});
  EXPECT_EQ(record().fFinished, 1u);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
}

TEST_F(GenerateTest, FoundHandlesAreReplacedAlsoByNone) {
  token().AddPublicKey(Ascii("half"), "Half");
  const NCRYPT_KEY_HANDLE key = Create(L"Half");
  EXPECT_NE(kit::KeyOf(key)->hPublicKeyObject, 0u);
  token().Fail("C_GenerateKeyPair", CKR_DEVICE_ERROR);
  EXPECT_EQ(Finalize(key), 0);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
}

// Only where the unwinder of the module that throws can walk through the provider's frames: the 64-bit build takes the
// platform's, the 32-bit one brings its own, which knows no other module's frames.
#ifdef _WIN64
TEST_F(GenerateTest, ThrownReturnValueIsAFailure) {
  for (const char* function : {"C_GenerateKeyPair", "C_GenerateRandom"}) {
    token().Before(function, [](const fake::Call&) { throw CK_RV{CKR_DEVICE_REMOVED}; });
    const NCRYPT_KEY_HANDLE key = Create(nullptr);
    EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR) << function;
    ExpectBody(LoggedIn({"Generating key pair", "NTE_INTERNAL_ERROR: GenerateKeyPair failed - 0x00000032"}),
               NTE_INTERNAL_ERROR);
    EXPECT_EQ(record().fFinished, 0u);
    token().ClearScript();
    EXPECT_EQ(Finalize(key), 0) << "it may be tried again";
    Forget();
  }
}

TEST_F(GenerateTest, NothingElseThatIsThrownEscapes) {
  token().Before("C_GenerateKeyPair", [](const fake::Call&) { throw 7; });
  EXPECT_EQ(Finalize(Create(L"Key1")), NTE_INTERNAL_ERROR);
  ExpectBody(LoggedIn({"Generating key pair", "NTE_INTERNAL_ERROR: The operation ended with an unexpected exception"}),
             NTE_INTERNAL_ERROR);
  EXPECT_EQ(record().fFinished, 0u);
}
#endif

// The pair holds a public exponent of its own, in four bytes, that the templates do not use.
TEST_F(GenerateTest, PairHasADefaultExponentWhileTheTokenGenerates) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  const kit::MemoryWatch watch;
  std::vector<Bytes> blocks;
  const void* exponent = nullptr;
  token().Before("C_GenerateKeyPair", [&](const fake::Call&) {
    for (const auto& [address, size] : watch.Live()) {
      if (size != 4) continue;
      exponent = address;
      const auto* const bytes = static_cast<const BYTE*>(address);
      blocks.emplace_back(bytes, bytes + 4);
    }
  });
  EXPECT_EQ(Finalize(key), 0);
  EXPECT_EQ(blocks, std::vector<Bytes>{(Bytes{0x00, 0x01, 0x00, 0x00})});
  EXPECT_TRUE(WipedAndFreed(watch, exponent, 4));
  EXPECT_TRUE(watch.Live().empty()) << "all goes with the pair";
}

// A module that says yes and does nothing leaves a finished key without objects, and an identifier of zeros.
TEST_F(GenerateTest, TokenThatAnswersNothing) {
  token().Fail("C_GenerateRandom", CKR_OK);
  token().Fail("C_GenerateKeyPair", CKR_OK);
  EXPECT_EQ(Finalize(Create(nullptr)), 0);
  id_ = Bytes(20, 0);
  ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, false, "")});
  EXPECT_EQ(record().fFinished, 1u);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
}

TEST_F(GenerateTest, NameOf62CharactersIsTheLongestLabel) {
  const std::wstring longest(62, L'n');
  EXPECT_EQ(Finalize(Create(longest.c_str())), 0);
  ExpectCallsAfterLogin(
      {"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=" + HexOf(Bytes(62, 'n')))});
  token().SetRandom(id_);
  // A longer name has no label, but is still a name.
  for (const std::size_t length : {std::size_t{63}, std::size_t{64}, std::size_t{259}}) {
    token().SetRandom(id_);
    EXPECT_EQ(Finalize(Create(std::wstring(length, L'n').c_str())), 0);
    ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=")});
    Forget();
  }
}

TEST_F(GenerateTest, LabelIsTheNameCharacterByCharacter) {
  EXPECT_EQ(Finalize(Create(L"\x01\x7F\x80\xE4\xFF")), 0);
  ExpectCallsAfterLogin(
      {"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=017f80e4ff")});
  token().SetRandom(id_);
  EXPECT_EQ(Finalize(Create(L"Key\x100")), 0) << "no narrow form, no label";
  ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=")});
  // Another key without a label; the one that has the empty label would be in its way.
  token().ObjectAttributes(record().hPublicKeyObject)[CKA_LABEL] = Ascii("other");
  token().SetRandom(id_);
  EXPECT_EQ(Finalize(Create(L"")), 0);
  ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, true, ", CKA_LABEL=")});
}

TEST_F(GenerateTest, AcceptedFlagsChangeNothing) {
  for (const DWORD flags : {DWORD{0x8}, DWORD{0x40}, DWORD{0x200}, DWORD{0x248}}) {
    token().SetRandom(id_);
    EXPECT_EQ(Finalize(Create(nullptr), flags), 0);
    ExpectBody(Generated(2048), 0);
    ExpectCallsAfterLogin({"C_GenerateRandom(session=0x51, length=20)", GenerateCall(2048, false, "")});
  }
}

TEST_F(GenerateTest, SecondFinalizationIsRefused) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  EXPECT_EQ(Finalize(key), 0);
  Forget();
  EXPECT_EQ(Finalize(key), NTE_BAD_KEY_STATE);
  ExpectBody({"Checking if key is not yet finalized"}, NTE_BAD_KEY_STATE);
  ExpectCalls({});
}

TEST_F(GenerateTest, PairIsReleasedWithItsIdentifierWiped) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  const kit::MemoryWatch watch;
  EXPECT_EQ(Finalize(key), 0);
  const fake::Call call = token().Calls().back();
  const void* const id = call.templates[0][13].address;
  EXPECT_EQ(call.templates[0][13].type, CK_ATTRIBUTE_TYPE{CKA_ID});
  EXPECT_EQ(call.templates[1][11].address, id) << "both keys get the one identifier";
  EXPECT_FALSE(watch.FreedContains(std::string(id_.begin(), id_.end())));
  // The identifier lies inside the pair, which was released.
  const std::vector<kit::FreedBlock> freed = watch.Freed();
  EXPECT_TRUE(std::any_of(freed.begin(), freed.end(), [&](const kit::FreedBlock& block) {
    return block.address < id &&
           static_cast<const BYTE*>(block.address) + block.contents.size() >= static_cast<const BYTE*>(id) + 20;
  }));
}

// The whole way of a user: a created key is found under a name made of its random identifier.
TEST_F(GenerateTest, KeyIsFoundByItsIdentifierAfterwards) {
  EXPECT_EQ(Finalize(Create(L"Key1")), 0);
  NCryptKeyName* name = nullptr;
  PVOID state = nullptr;
  bool found = false;
  while (ksp().EnumKeys(provider_, nullptr, &name, &state, 0) == 0) {
    found = found || std::wstring(name->pszName) == std::wstring(id_.begin(), id_.end());
    ksp().FreeBuffer(name);
  }
  ksp().FreeBuffer(state);
  EXPECT_TRUE(found);
  const NCRYPT_KEY_HANDLE opened = Open(L"B0B1B2B3B4B5B6B7B8B9BABBBCBDBEBFC0C1C2C3");
  EXPECT_EQ(kit::KeyOf(opened)->hPrivateKeyObject, record().hPrivateKeyObject);
  NCRYPT_KEY_HANDLE again = 0;
  EXPECT_EQ(ksp().CreatePersistedKey(provider_, &again, L"RSA", L"Key1", 0, 0), NTE_EXISTS)
      << "while creation goes by the label";
}

TEST_F(GenerateTest, EveryAllocationCanFail) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  FailEachAllocation([&] { return Finalize(key); },
                     [&](SECURITY_STATUS status, std::size_t nth) {
                       EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR)
                           << "allocation " << nth << ": " << status;
                       EXPECT_EQ(record().fFinished, status == 0 ? 1u : 0u);
                       record().fFinished = 0;
                       return true;
                     });
}

// ---- imported keys

class FinalizeImportedTest : public FinalizeKeyTest {
 protected:
  void SetUp() override {
    FinalizeKeyTest::SetUp();
    LogIn();
    id_.resize(64);
    std::iota(id_.begin(), id_.end(), BYTE{0x80});
    token().SetRandom(id_);
  }
  void TearDown() override {
    for (const NCRYPT_KEY_HANDLE key : keys_) {
      // Components of an imported key are never freed by the provider.
      kit::KeyRecord& record = *kit::KeyOf(key);
      record.pbModulus = record.pbPrime1 = record.pbPrime2 = record.pbExponent1 = record.pbExponent2 = nullptr;
      record.pbCoefficient = record.pbPrivateExponent = nullptr;
    }
    FinalizeKeyTest::TearDown();
  }
  // A record as an import leaves it behind, with every component.
  NCRYPT_KEY_HANDLE Imported(const wchar_t* name, DWORD bits, DWORD algId = 0) {
    const NCRYPT_KEY_HANDLE key = Create(name);
    kit::KeyRecord& record = *kit::KeyOf(key);
    record.dwKeyBitLength = bits;
    record.dwAlgID = algId;
    record.pbPrivateKey = Block("blob");
    record.cbPrivateKey = 4;
    const BYTE exponent[4] = {0x01, 0x00, 0x01, 0x00};
    std::memcpy(record.PublicExponent, exponent, 4);
    Fill(modulus_, bits / 8, 0x11);
    Fill(privateExponent_, bits / 8, 0x12);
    Fill(prime1_, bits / 16, 0x13);
    Fill(prime2_, bits / 16, 0x14);
    Fill(exponent1_, bits / 16, 0x15);
    Fill(exponent2_, bits / 16, 0x16);
    Fill(coefficient_, bits / 16, 0x17);
    record.pbModulus = modulus_.data();
    record.pbPrivateExponent = privateExponent_.data();
    record.pbPrime1 = prime1_.data();
    record.pbPrime2 = prime2_.data();
    record.pbExponent1 = exponent1_.data();
    record.pbExponent2 = exponent2_.data();
    record.pbCoefficient = coefficient_.data();
    return key;
  }
  static void Fill(Bytes& component, std::size_t size, BYTE first) {
    component.assign(size, 0);
    for (std::size_t i = 0; i < size; ++i)
      component[i] = static_cast<BYTE>(first + i * 16);
  }
  // label: with ", CKA_LABEL=", or "" for none.
  std::string CreateCall(DWORD bits, const std::string& encrypt, const std::string& verify,
                         const std::string& label) const {
    return std::string("C_CreateObject(session=0x51, {CKA_CLASS=02000000, CKA_TOKEN=") + (label.empty() ? "00" : "01") +
           ", CKA_PRIVATE=00, CKA_MODIFIABLE=01, CKA_EXTRACTABLE=01, CKA_ID=" + HexOf(id_) + HexOf(Bytes(64, 0)) +
           ", CKA_PUBLIC_EXPONENT=01000100, CKA_MODULUS=" + HexOf(modulus_) +
           ", CKA_MODULUS_BITS=" + HexOf(fake::Ulong(bits)) + ", CKA_ENCRYPT=" + encrypt + ", CKA_VERIFY=" + verify +
           label + "})";
  }
  static std::vector<Line> Started() {
    return LoggedIn({"Key is imported", "Initializing public key attributes", "Initializing private key attributes"});
  }
  static std::vector<Line> Failed400() {
    return Join(
        {Started(), {"Creating public key", "Creating private key", Number("Private key creation failed: ", 400)}});
  }
  static constexpr char kRandomCall[] = "C_GenerateRandom(session=0x51, length=64)";

  Bytes id_, modulus_, privateExponent_, prime1_, prime2_, exponent1_, exponent2_, coefficient_;
};

TEST_F(FinalizeImportedTest, PublicObjectIsMadeAndThenThePrivateOneFails) {
  EXPECT_EQ(Finalize(Imported(L"Key1", 2048)), NTE_INTERNAL_ERROR);
  ExpectBody(Failed400(), NTE_INTERNAL_ERROR);
  // The label goes with its terminator here.
  ExpectCallsAfterLogin({kRandomCall, CreateCall(2048, "01", "01", ", CKA_LABEL=4b65793100")});
  EXPECT_TRUE(token().HasObject(0x103)) << "the public object stays on the token";
  EXPECT_EQ(record().fFinished, 0u);
  EXPECT_EQ(record().hPublicKeyObject, 0u) << "and nobody is told";
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
}

TEST_F(FinalizeImportedTest, ItMayBeTriedAgainAndLeavesAnotherPublicObject) {
  const NCRYPT_KEY_HANDLE key = Imported(L"Key1", 1024);
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  EXPECT_EQ(token().ObjectCount(), 4u);
}

TEST_F(FinalizeImportedTest, AlgorithmIdSelectsTheUsage) {
  const struct {
    DWORD algId;
    const char* encrypt;
    const char* verify;
  } cases[] = {{0, "01", "01"}, {0x2400, "00", "01"}, {0xA400, "01", "00"}};
  for (const auto& one : cases) {
    token().SetRandom(id_);
    EXPECT_EQ(Finalize(Imported(L"Key1", 1024, one.algId)), NTE_INTERNAL_ERROR);
    ExpectCallsAfterLogin({kRandomCall, CreateCall(1024, one.encrypt, one.verify, ", CKA_LABEL=4b65793100")});
    token().ObjectAttributes(0x103)[CKA_LABEL] = Ascii("other");
    Forget();
  }
}

TEST_F(FinalizeImportedTest, UnknownAlgorithmIdLeavesWithoutTheExitLines) {
  for (const DWORD algId : {DWORD{1}, DWORD{2}, DWORD{0x2401}, DWORD{0xA401}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(Finalize(Imported(nullptr, 2048, algId)), NTE_BAD_KEYSET);
    EXPECT_TRUE(kit::SameLines(Join({{kit::kBanner, "KELDAKSPFinalizeKey - Entry"},
                                     Arguments(),
                                     Started(),
                                     {"NTE_BAD_KEYSET: key AlgID is invalid"}}),
                               WithoutLogin(kit::Log::Get().Take())));
    ExpectCallsAfterLogin({kRandomCall});
    EXPECT_EQ(record().fFinished, 0u);
  }
}

TEST_F(FinalizeImportedTest, NamelessKeyHasNoLabelAndIsNoTokenObject) {
  EXPECT_EQ(Finalize(Imported(nullptr, 512)), NTE_INTERNAL_ERROR);
  ExpectBody(Failed400(), NTE_INTERNAL_ERROR);
  const fake::Call call = token().Calls().back();
  EXPECT_EQ(call.templates[0].size(), 11u);
  ExpectCallsAfterLogin({kRandomCall, CreateCall(512, "01", "01", "")});
}

TEST_F(FinalizeImportedTest, LabelsUpTo62Characters) {
  EXPECT_EQ(Finalize(Imported(std::wstring(62, L'n').c_str(), 512)), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({kRandomCall, CreateCall(512, "01", "01", ", CKA_LABEL=" + HexOf(Bytes(62, 'n')) + "00")});
  for (const std::wstring& name : {std::wstring(63, L'n'), std::wstring(259, L'n'), std::wstring(L"Key\x100")}) {
    token().SetRandom(id_);
    Forget();
    EXPECT_EQ(Finalize(Imported(name.c_str(), 512)), NTE_INTERNAL_ERROR);
    ExpectCallsAfterLogin({kRandomCall, CreateCall(512, "01", "01", ", CKA_LABEL=")});
  }
  token().SetRandom(id_);
  Forget();
  EXPECT_EQ(Finalize(Imported(L"", 512)), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({kRandomCall, CreateCall(512, "01", "01", ", CKA_LABEL=00")});
}

TEST_F(FinalizeImportedTest, OnlyFourModulusLengthsPass) {
  for (const DWORD bits : {DWORD{512}, DWORD{1024}, DWORD{2048}, DWORD{4096}}) {
    EXPECT_EQ(Finalize(Imported(nullptr, bits)), NTE_INTERNAL_ERROR);
    ExpectBody(Failed400(), NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Count("C_CreateObject"), 1u);
    Forget();
  }
  for (const DWORD bits : {DWORD{1536}, DWORD{3072}, DWORD{520}, DWORD{8192}, DWORD{0}, DWORD{7}, DWORD{15}}) {
    EXPECT_EQ(Finalize(Imported(nullptr, bits)), NTE_INTERNAL_ERROR);
    ExpectBody(Join({Started(), {"Creating public key", Number("Public key creation failed: ", 7)}}),
               NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Count("C_CreateObject"), 0u) << bits;
    Forget();
  }
}

TEST_F(FinalizeImportedTest, BitsThatFillNoByteAreLost) {
  // 1031 bits have 128 whole bytes: the modulus counts as one of 1024 bits.
  const NCRYPT_KEY_HANDLE key = Imported(nullptr, 1031);
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({kRandomCall, CreateCall(1024, "01", "01", "")});
}

TEST_F(FinalizeImportedTest, TokenThatRefusesThePublicObject) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_TEMPLATE_INCONSISTENT, CKR_USER_NOT_LOGGED_IN}) {
    token().Fail("C_CreateObject", code);
    EXPECT_EQ(Finalize(Imported(nullptr, 2048)), NTE_INTERNAL_ERROR);
    ExpectBody(
        Join({Started(), {"Creating public key", Number("Public key creation failed: ", static_cast<long>(code))}}),
        NTE_INTERNAL_ERROR);
    EXPECT_EQ(record().fFinished, 0u);
  }
}

TEST_F(FinalizeImportedTest, FailingRandomNumbersEndIt) {
  token().Fail("C_GenerateRandom", CKR_DEVICE_ERROR);
  EXPECT_EQ(Finalize(Imported(L"Key1", 2048)), NTE_INTERNAL_ERROR);
  ExpectBody(LoggedIn({"Key is imported", "NTE_INTERNAL_ERROR: Random number generation failed"}), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({kRandomCall});
}

TEST_F(FinalizeImportedTest, PartsThatTheBlobLackedCountAsZeros) {
  const NCRYPT_KEY_HANDLE key = Imported(nullptr, 2048);
  kit::KeyRecord& record = *kit::KeyOf(key);
  record.pbPrivateExponent = nullptr;
  record.pbPrime1 = nullptr;
  record.pbPrime2 = nullptr;
  record.pbExponent1 = nullptr;
  record.pbExponent2 = nullptr;
  record.pbCoefficient = nullptr;
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  ExpectBody(Failed400(), NTE_INTERNAL_ERROR);
}

TEST_F(FinalizeImportedTest, WithoutAModulusNothingIsCreated) {
  const NCRYPT_KEY_HANDLE key = Imported(nullptr, 2048);
  kit::KeyOf(key)->pbModulus = nullptr;
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  ExpectBody(Join({Started(), {"Creating public key", Number("Public key creation failed: ", 7)}}), NTE_INTERNAL_ERROR);
}

TEST_F(FinalizeImportedTest, OverwritingComesFirstHereAsWell) {
  token().AddKeyPair(Ascii("old id"), "Key1");  // 0x103 and 0x104
  const NCRYPT_KEY_HANDLE key = Imported(nullptr, 2048);
  kit::KeyRecord& record = *kit::KeyOf(key);
  record.fOverwrite = 1;
  record.hPublicKeyObject = 0x103;
  record.hPrivateKeyObject = 0x104;
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  ExpectCallsAfterLogin({"C_DestroyObject(session=0x51, object=0x104)", "C_DestroyObject(session=0x51, object=0x103)",
                         kRandomCall, CreateCall(2048, "01", "01", "")});
}

TEST_F(FinalizeImportedTest, EveryBufferOfTheTwoKeysIsWipedBeforeItIsReleased) {
  const NCRYPT_KEY_HANDLE key = Imported(L"Key1", 1024);
  const kit::MemoryWatch watch;
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  const fake::Call call = token().Calls().back();
  EXPECT_TRUE(WipedAndFreed(watch, call.templates[0][5].address, 128)) << "identifier, as long as it is declared";
  EXPECT_TRUE(WipedAndFreed(watch, call.templates[0][6].address, 4)) << "public exponent";
  EXPECT_TRUE(WipedAndFreed(watch, call.templates[0][7].address, 128)) << "modulus";
  // Of the private key's buffers only the contents are known: none of them is released as it was.
  for (const Bytes* component :
       {&modulus_, &privateExponent_, &prime1_, &prime2_, &exponent1_, &exponent2_, &coefficient_}) {
    EXPECT_FALSE(watch.FreedContains(std::string(component->begin(), component->begin() + 32)));
  }
  EXPECT_FALSE(watch.FreedContains(std::string(id_.begin(), id_.begin() + 16)));
  // They were there: two of the modulus' length and one more of the private exponent's, and at least five halves.
  const std::vector<kit::FreedBlock> freed = watch.Freed();
  const auto cleared = [&](std::size_t size) {
    return std::count_if(freed.begin(), freed.end(), [&](const kit::FreedBlock& block) {
      return block.contents.size() >= size && block.contents.size() < size + 16 &&
             std::all_of(block.contents.begin(), block.contents.end(), [](BYTE byte) { return byte == 0; });
    });
  };
  EXPECT_GE(cleared(128), 5) << "two moduli, the private exponent, two identifiers";
  EXPECT_GE(cleared(64), 5) << "primes, exponents and coefficient";
  // The record's own components are left to it.
  EXPECT_EQ(kit::KeyOf(key)->pbPrime1, prime1_.data());
  EXPECT_NE(prime1_[0], 0);
}

// The private key goes nowhere, but it is filled: its buffers are there while the public object is made.
TEST_F(FinalizeImportedTest, PrivateKeyTakesEveryComponent) {
  const NCRYPT_KEY_HANDLE key = Imported(L"Key1", 1024);
  const kit::MemoryWatch watch;
  std::map<std::string, std::ptrdiff_t> copies;
  token().Before("C_CreateObject", [&](const fake::Call&) {
    const std::map<const void*, std::size_t> live = watch.Live();
    const auto count = [&](const char* name, const Bytes& component) {
      copies[name] = std::count_if(live.begin(), live.end(), [&](const auto& block) {
        return block.second >= component.size() && std::memcmp(block.first, component.data(), component.size()) == 0;
      });
    };
    count("modulus", modulus_);
    count("public exponent", {0x01, 0x00, 0x01, 0x00});
    count("id", id_);
    count("private exponent", privateExponent_);
    count("prime 1", prime1_);
    count("prime 2", prime2_);
    count("exponent 1", exponent1_);
    count("exponent 2", exponent2_);
    count("coefficient", coefficient_);
  });
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  EXPECT_EQ(copies, (std::map<std::string, std::ptrdiff_t>{{"modulus", 2},
                                                           {"public exponent", 2},
                                                           {"id", 2},
                                                           {"private exponent", 1},
                                                           {"prime 1", 1},
                                                           {"prime 2", 1},
                                                           {"exponent 1", 1},
                                                           {"exponent 2", 1},
                                                           {"coefficient", 1}}));
}

TEST_F(FinalizeImportedTest, FourLogsForTwoKeys) {
  // Each key has an inner token object, and each object a log of its own; the PIN dialog and the cache have none here.
  const NCRYPT_KEY_HANDLE key = Imported(nullptr, 512);
  kit::Registry::Get().RemoveKey(kit::kSdkKey);  // switched off: each constructor sends its first line only
  EXPECT_EQ(Finalize(key), NTE_INTERNAL_ERROR);
  EXPECT_EQ(kit::Log::Get().TakeWideLines(), std::vector<std::wstring>(4, L"DebugClass ctor - Enter"));
}

TEST_F(FinalizeImportedTest, EveryAllocationCanFail) {
  const NCRYPT_KEY_HANDLE key = Imported(L"Key1", 512);
  FailEachAllocation([&] { return Finalize(key); },
                     [&](SECURITY_STATUS status, std::size_t nth) {
                       EXPECT_TRUE(status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR)
                           << "allocation " << nth << ": " << status;
                       EXPECT_EQ(record().fFinished, 0u);
                       return true;
                     });
}

}  // namespace
