// Private keys by themselves: they are filled, and never created.
#include "token/private_key.h"

#include <memory>
#include <string>

#include "inside/freed_watch.h"
#include "inside/token_fixture.h"

namespace {

using fake::Bytes;
using kit::Counting;

class PrivateKeyTest : public TokenObjectsTest {
 protected:
  // Every part but the one named.
  PrivateKey& Filled(PrivateKey& key, const std::string& without = "") {
    Bind(key);
    if (without != "modulus") key.SetModulus(modulus_.data(), Size(modulus_));
    if (without != "public exponent") key.SetPublicExponent(exponent_.data(), 4);
    if (without != "id") key.SetId(id_.data(), 64);
    if (without != "private exponent") key.SetPrivateExponent(privateExponent_.data(), Size(privateExponent_));
    if (without != "primes") key.SetPrimes(prime1_.data(), 64, prime2_.data(), 64);
    if (without != "exponents") key.SetExponents(exponent1_.data(), 64, exponent2_.data(), 64);
    if (without != "coefficient") key.SetCoefficient(coefficient_.data(), 64);
    return key;
  }
  const Bytes modulus_ = Counting(128, 0x01);
  const Bytes privateExponent_ = Counting(128, 0x02);
  const Bytes prime1_ = Counting(64, 0x31);
  const Bytes prime2_ = Counting(64, 0x42);
  const Bytes exponent1_ = Counting(64, 0x53);
  const Bytes exponent2_ = Counting(64, 0x64);
  const Bytes coefficient_ = Counting(64, 0x75);
};

TEST_F(PrivateKeyTest, NeverCreatesAnything) {
  for (const CK_ULONG usage : {CK_ULONG{0}, CK_ULONG{1}, CK_ULONG{2}, CK_ULONG{3}}) {
    PrivateKey key;
    EXPECT_EQ(Filled(key).Create(static_cast<KeyUsage>(usage), "a", 1), kNeverCreates);
    EXPECT_EQ(key.GetObjectHandle(), 0u);
    EXPECT_EQ(key.GetClass(), CK_OBJECT_CLASS{CKO_PRIVATE_KEY});
    EXPECT_TRUE(key.IsPrivate());
    EXPECT_TRUE(key.IsToken());
    EXPECT_FALSE(key.IsExtractable());
    EXPECT_EQ(key.Create(static_cast<KeyUsage>(usage), nullptr, 0), kNeverCreates) << "and again";
    EXPECT_FALSE(key.IsToken());
  }
  ExpectCalls({});
}

struct PrivateProbe : PrivateKey {
  using CryptokiObject::object_;
};

TEST_F(PrivateKeyTest, RefusesWhatCannotBeCalled) {
  PrivateProbe onToken;
  onToken.object_ = 0x101;
  EXPECT_EQ(Filled(onToken).Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << "it has an object already";
  EXPECT_EQ(onToken.GetObjectHandle(), 0x101u);
  PrivateKey noSession;
  Filled(noSession).SetSession(0);
  EXPECT_EQ(noSession.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  PrivateKey noModule;
  Filled(noModule).SetModule(nullptr);
  EXPECT_EQ(noModule.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  EXPECT_EQ(noModule.GetClass(), 0u) << "a refused key is left as it was";
  ExpectCalls({});
}

TEST_F(PrivateKeyTest, MissingParts) {
  for (const char* part : {"public exponent", "id", "primes", "exponents", "coefficient"}) {
    PrivateKey key;
    EXPECT_EQ(Filled(key, part).Create(KeyUsage::kBoth, "a", 1), kIncomplete) << part;
  }
  PrivateKey noModulus;
  EXPECT_EQ(Filled(noModulus, "modulus").Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  PrivateKey noPrivateExponent;
  EXPECT_EQ(Filled(noPrivateExponent, "private exponent").Create(KeyUsage::kBoth, "a", 1), kNeverCreates)
      << "nobody asks for the private exponent";
}

TEST_F(PrivateKeyTest, OnlyFourModulusLengths) {
  const Bytes modulus(1024, 1);
  for (const CK_ULONG bits : {512U, 1024U, 2048U, 4096U, 8U, 520U, 1536U, 3072U, 8192U}) {
    PrivateKey key;
    Filled(key).SetModulus(modulus.data(), bits / 8);
    const bool passes = bits == 512 || bits == 1024 || bits == 2048 || bits == 4096;
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), passes ? kNeverCreates : kArgumentsBad) << bits;
  }
}

TEST_F(PrivateKeyTest, PairsAreSetBothOrNotAtAll) {
  for (int missing = 0; missing < 4; ++missing) {
    const unsigned char* first = missing == 0 ? nullptr : prime1_.data();
    const CK_ULONG firstLength = missing == 1 ? 0 : 64;
    const unsigned char* second = missing == 2 ? nullptr : prime2_.data();
    const CK_ULONG secondLength = missing == 3 ? 0 : 64;
    PrivateKey noPrimes;
    Filled(noPrimes, "primes").SetPrimes(first, firstLength, second, secondLength);
    EXPECT_EQ(noPrimes.Create(KeyUsage::kBoth, "a", 1), kIncomplete) << missing;
    PrivateKey noExponents;
    Filled(noExponents, "exponents").SetExponents(first, firstLength, second, secondLength);
    EXPECT_EQ(noExponents.Create(KeyUsage::kBoth, "a", 1), kIncomplete) << missing;
  }
}

TEST_F(PrivateKeyTest, NullAndNothingLeaveTheFieldsAsTheyAre) {
  PrivateKey empty;
  Bind(empty).SetModulus(modulus_.data(), 128);
  empty.SetPublicExponent(nullptr, 4);
  empty.SetPublicExponent(exponent_.data(), 0);
  empty.SetId(id_.data(), 64);
  empty.SetPrimes(prime1_.data(), 64, prime2_.data(), 64);
  empty.SetExponents(exponent1_.data(), 64, exponent2_.data(), 64);
  empty.SetCoefficient(coefficient_.data(), 64);
  EXPECT_EQ(empty.Create(KeyUsage::kBoth, "a", 1), kIncomplete);
  PrivateKey noCoefficient;
  Filled(noCoefficient, "coefficient").SetCoefficient(coefficient_.data(), 0);
  EXPECT_EQ(noCoefficient.Create(KeyUsage::kBoth, "a", 1), kIncomplete);

  PrivateKey full;
  Filled(full);
  const FreedWatch watch;
  full.SetModulus(nullptr, 1);
  full.SetModulus(modulus_.data(), 0);
  full.SetPublicExponent(nullptr, 4);
  full.SetId(nullptr, 64);
  full.SetId(id_.data(), 0);
  full.SetPrivateExponent(nullptr, 4);
  full.SetPrivateExponent(privateExponent_.data(), 0);
  full.SetCoefficient(nullptr, 4);
  full.SetCoefficient(coefficient_.data(), 0);
  full.SetPrimes(prime1_.data(), 64, nullptr, 64);
  full.SetExponents(exponent1_.data(), 0, exponent2_.data(), 64);
  EXPECT_EQ(watch.Cleared(128) + watch.Cleared(64) + watch.Cleared(4), 0u) << "nothing is released";
  EXPECT_EQ(full.Create(KeyUsage::kBoth, "a", 1), kNeverCreates);
}

TEST_F(PrivateKeyTest, EveryBufferIsWipedBeforeItIsReleased) {
  const FreedWatch watch;
  {
    PrivateKey key;
    Filled(key);
    // Replaced once.
    EXPECT_EQ(watch.Cleared(128), 0u);
    Filled(key);
    EXPECT_EQ(watch.Cleared(128), 3u) << "modulus, private exponent, identifier";
    EXPECT_EQ(watch.Cleared(64), 5u) << "primes, exponents, coefficient";
    EXPECT_EQ(watch.Cleared(4), 1u) << "public exponent";
  }
  EXPECT_EQ(watch.Cleared(128), 6u);
  EXPECT_EQ(watch.Cleared(64), 10u);
  EXPECT_EQ(watch.Cleared(4), 2u);
  for (const Bytes& part : {modulus_, privateExponent_, prime1_, prime2_, exponent1_, exponent2_, coefficient_, id_})
    EXPECT_FALSE(watch.Contains(Bytes(part.begin(), part.begin() + 16)));
}

TEST_F(PrivateKeyTest, IsReleasedThroughItsBase) {
  auto key = std::make_unique<PrivateKey>();
  Filled(*key);
  std::unique_ptr<CryptokiObject> base = std::move(key);
  const FreedWatch watch;
  base.reset();
  EXPECT_EQ(watch.Cleared(64), 5u);
}

}  // namespace
