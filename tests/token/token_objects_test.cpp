// The token object classes by themselves, against the fake token: refusals, setters and operations that no entry of the
// provider reaches.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kit/certificate.h"
#include "kit/process.h"
#include "kit/provider.h"
#include "token/certificate.h"
#include "token/private_key.h"
#include "token/public_key.h"
#include "token/rsa_pair.h"
#include "inside/token_fixture.h"

namespace {

struct Freed {
  const void* address;
  std::vector<unsigned char> contents;
};

// While a watch lives: every block that operator delete is given, and the next block given at followed addresses.
struct Notes {
  void Add(const void* block, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(block);
    freed.push_back({block, std::vector<unsigned char>(bytes, bytes + size)});
    const auto found = followed.find(block);
    if (found != followed.end() && found->second.empty()) found->second = freed.back().contents;
  }

  std::vector<Freed> freed;
  std::map<const void*, std::vector<unsigned char>> followed;
};
Notes* g_notes = nullptr;
bool g_noting = false;

}  // namespace

void* operator new(std::size_t size) {
  if (void* block = std::malloc(size != 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* block) noexcept {
  if (block && g_notes && !g_noting) {
    g_noting = true;
    g_notes->Add(block, _msize(block));
    g_noting = false;
  }
  std::free(block);
}
void operator delete[](void* block) noexcept {
  operator delete(block);
}
void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace {

using fake::Ascii;
using fake::Bytes;
using fake::HexOf;

constexpr CK_RV kArgumentsBad = 7;
constexpr CK_RV kIncomplete = 208;
constexpr CK_RV kNeverCreates = 400;

class FreedWatch {
 public:
  FreedWatch() { g_notes = &notes_; }
  ~FreedWatch() { g_notes = nullptr; }
  FreedWatch(const FreedWatch&) = delete;
  FreedWatch& operator=(const FreedWatch&) = delete;

  // To be called while the block lives: its release will be known from those of later blocks at the same address.
  void Follow(const void* address) { notes_.followed[address].clear(); }
  bool Released(const void* address) const { return !notes_.followed.at(address).empty(); }
  // What the followed block held when it was released.
  const Bytes& Contents(const void* address) const { return notes_.followed.at(address); }
  bool Wiped(const void* address, std::size_t size) const {
    const Bytes& contents = Contents(address);
    return contents.size() >= size && IsZero(contents);
  }

  bool Contains(const Bytes& bytes) const {
    return std::any_of(notes_.freed.begin(), notes_.freed.end(), [&](const Freed& one) {
      return std::search(one.contents.begin(), one.contents.end(), bytes.begin(), bytes.end()) != one.contents.end();
    });
  }
  // Blocks that held nothing but zeros, by their exact size.
  std::size_t Cleared(std::size_t size) const {
    return static_cast<std::size_t>(std::count_if(notes_.freed.begin(), notes_.freed.end(), [&](const Freed& one) {
      return one.contents.size() == size && IsZero(one.contents);
    }));
  }

 private:
  static bool IsZero(const Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
  }
  Notes notes_;
};

class TokenObjectsTest : public TokenTest {
 protected:
  void ExpectCalls(const std::vector<std::string>& expected) { KIT_EXPECT_CALLS(expected); }
  static Bytes Counting(std::size_t size, unsigned char first) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
      bytes[i] = static_cast<unsigned char>(first + i);
    return bytes;
  }
  static CK_ULONG Size(const Bytes& bytes) { return static_cast<CK_ULONG>(bytes.size()); }

  const Bytes exponent_{0x01, 0x00, 0x01, 0x09};
  const Bytes id_ = Counting(64, 0x80);
};

// ---- module

std::string LoadResult() {
  return CryptokiModule().Ready() ? "loaded" : "failed";
}

TEST_F(TokenObjectsTest, FailedLoadIsNotReady) {
  EXPECT_EQ(LoadResult(), "loaded");
  token().Fail("C_Initialize", CKR_GENERAL_ERROR);
  EXPECT_EQ(LoadResult(), "failed");
  token().SetFunctionListResult(CKR_DEVICE_ERROR);
  kit::LoadTokenModule(kit::TokenModule::Working);
  EXPECT_EQ(LoadResult(), "failed");
  token().SetFunctionListResult(CKR_OK);
  kit::LoadTokenModule(kit::TokenModule::Working);
}

const kit::Scenario kMissingModule("missing_module", [] {
  kit::Print(LoadResult());
  return 0;
});

TEST_F(TokenObjectsTest, MissingModuleIsNotReady) {
  const kit::ChildResult child = kit::RunChild("missing_module");
  EXPECT_EQ(child.exitCode, 0u);
  EXPECT_EQ(child.lines, std::vector<std::string>{"failed"});
}

TEST_F(TokenObjectsTest, LoginIsTheEntryAtPosition74AndAlwaysTheUsers) {
  const Bytes pin = Ascii("1234");
  EXPECT_EQ(module_->Login(kSession, pin.data(), 4), CKR_OK);
  ExpectCalls({"VendorLogin(session=0x51, user=1, pin=31323334)"});
  for (const CK_RV code : {CK_RV{1}, CK_RV{14}, CKR_PIN_LOCKED, CKR_VENDOR_DEFINED}) {
    token().Fail("VendorLogin", code);
    EXPECT_EQ(module_->Login(kSession, pin.data(), 4), code) << "as the token answers";
  }
}

// ---- base

struct Probe : CryptokiObject {
  using CryptokiObject::class_;
  using CryptokiObject::extractable_;
  using CryptokiObject::modifiable_;
  using CryptokiObject::object_;
  using CryptokiObject::private_;
  using CryptokiObject::sensitive_;
  using CryptokiObject::token_;
};

TEST_F(TokenObjectsTest, NewObjectIsNowhereAndNothing) {
  Probe object;
  EXPECT_EQ(object.GetClass(), 0u);
  EXPECT_FALSE(object.IsModifiable());
  EXPECT_FALSE(object.IsPrivate());
  EXPECT_FALSE(object.IsToken());
  EXPECT_FALSE(object.IsExtractable());
  EXPECT_FALSE(object.IsSensitive());
  EXPECT_EQ(object.GetObjectHandle(), 0u);
  EXPECT_EQ(object.GetSessionHandle(), 0u);
  EXPECT_EQ(object.GetModule(), nullptr);
  EXPECT_EQ(object.GetName(), "");
  ExpectCalls({});
}

TEST_F(TokenObjectsTest, AccessorsTellTheFields) {
  Probe object;
  Bind(object);
  object.class_ = CKO_DATA + 5;
  object.object_ = 0x123;
  EXPECT_EQ(object.GetClass(), CK_OBJECT_CLASS{CKO_DATA + 5});
  EXPECT_EQ(object.GetObjectHandle(), 0x123u);
  EXPECT_EQ(object.GetSessionHandle(), kSession);
  EXPECT_EQ(object.GetModule(), module_);
  object.GetName() = "text";
  EXPECT_EQ(object.GetName(), "text") << "the name is handed out by reference";
}

TEST_F(TokenObjectsTest, FlagsAreComparedWithExactly1) {
  Probe object;
  const struct {
    CK_BBOOL& field;
    bool (CryptokiObject::*test)() const;
  } flags[] = {{object.modifiable_, &CryptokiObject::IsModifiable},
               {object.private_, &CryptokiObject::IsPrivate},
               {object.token_, &CryptokiObject::IsToken},
               {object.extractable_, &CryptokiObject::IsExtractable},
               {object.sensitive_, &CryptokiObject::IsSensitive}};
  for (const auto& flag : flags) {
    for (unsigned value = 0; value < 256; ++value) {
      flag.field = static_cast<CK_BBOOL>(value);
      EXPECT_EQ((object.*flag.test)(), value == 1) << value;
    }
    flag.field = 0;
  }
}

// Counts log instances by the line that their constructor sends to the debugger: as 16-bit text, or narrowed where the
// platform knows only that.
std::size_t g_logs = 0;
LONG CALLBACK CountLogs(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD kNarrow = 0x40010006;
  constexpr DWORD kWide = 0x4001000A;
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  const auto* text = reinterpret_cast<const void*>(record.ExceptionInformation[1]);
  if (record.ExceptionCode == kWide && std::wstring(static_cast<const wchar_t*>(text)) == L"DebugClass ctor - Enter") {
    ++g_logs;
  } else if (record.ExceptionCode == kNarrow &&
             std::string(static_cast<const char*>(text)) == "DebugClass ctor - Enter") {
    ++g_logs;
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

TEST_F(TokenObjectsTest, EachHasALogOfItsOwn) {
  void* const handler = AddVectoredExceptionHandler(1, &CountLogs);
  const auto constructed = [] { return std::exchange(g_logs, 0); };
  constructed();
  {
    const CryptokiObject object;
    EXPECT_EQ(constructed(), 1u);
  }
  EXPECT_EQ(constructed(), 0u);
  const PublicKey publicKey;
  EXPECT_EQ(constructed(), 2u) << "the inner object has one as well";
  const PrivateKey privateKey;
  EXPECT_EQ(constructed(), 2u);
  const Certificate certificate;
  EXPECT_EQ(constructed(), 1u);
  const RSAPair pair;
  EXPECT_EQ(constructed(), 1u);
  RemoveVectoredExceptionHandler(handler);
}

TEST_F(TokenObjectsTest, DestroyWithoutAnObjectDoesNotCallTheToken) {
  Probe object;
  Bind(object);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  object.object_ = 0x101;
  object.SetSession(0);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  object.SetSession(kSession);
  object.SetModule(nullptr);
  EXPECT_EQ(object.Destroy(), kArgumentsBad);
  EXPECT_EQ(object.GetObjectHandle(), 0x101u);
  ExpectCalls({});
}

// The handle is cleared before the call: the call names object 0, and the object stays.
TEST_F(TokenObjectsTest, DestroyNamesObject0) {
  const CK_OBJECT_HANDLE onToken = token().AddPublicKey(Ascii("id"), "label");
  Probe object;
  Bind(object).object_ = onToken;
  EXPECT_EQ(object.Destroy(), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(object.GetObjectHandle(), 0u);
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x0)"});
  EXPECT_TRUE(token().HasObject(onToken));
  // What the token answers comes back as it is.
  for (const CK_RV code : {CKR_OK, CKR_DEVICE_ERROR, CKR_VENDOR_DEFINED}) {
    object.object_ = onToken;
    token().Fail("C_DestroyObject", code);
    EXPECT_EQ(object.Destroy(), code);
  }
}

// ---- public key

class PublicKeyTest : public TokenObjectsTest {
 protected:
  PublicKey& Filled(PublicKey& key, std::size_t cbModulus = 256) {
    Bind(key);
    modulus_ = Counting(cbModulus, 0x21);
    key.SetModulus(modulus_.data(), Size(modulus_));
    key.SetPublicExponent(exponent_.data(), 4);
    key.SetId(id_.data(), 64);
    return key;
  }
  std::string Template(const std::string& onToken, const std::string& encrypt, const std::string& verify,
                       const std::string& label) const {
    return "C_CreateObject(session=0x51, {CKA_CLASS=02000000, CKA_TOKEN=" + onToken +
           ", CKA_PRIVATE=00, CKA_MODIFIABLE=01, CKA_EXTRACTABLE=01, CKA_ID=" + HexOf(id_) + HexOf(Bytes(64, 0)) +
           ", CKA_PUBLIC_EXPONENT=01000109, CKA_MODULUS=" + HexOf(modulus_) +
           ", CKA_MODULUS_BITS=" + HexOf(fake::Ulong(Size(modulus_) * 8)) + ", CKA_ENCRYPT=" + encrypt +
           ", CKA_VERIFY=" + verify + label + "})";
  }
  Bytes modulus_;
};

TEST_F(PublicKeyTest, UsageSelectsEncryptAndVerify) {
  const struct {
    CK_ULONG usage;
    const char* encrypt;
    const char* verify;
  } cases[] = {{0, "01", "00"}, {1, "00", "01"}, {2, "01", "01"}, {3, "00", "00"}, {0xFFFFFFFF, "00", "00"}};
  for (const auto& one : cases) {
    PublicKey key;
    EXPECT_EQ(Filled(key).Create(static_cast<KeyUsage>(one.usage), "abc", 3), CKR_OK);
    ExpectCalls({Template("01", one.encrypt, one.verify, ", CKA_LABEL=616263")});
    EXPECT_NE(key.GetObjectHandle(), 0u);
    EXPECT_EQ(key.GetClass(), CK_OBJECT_CLASS{CKO_PUBLIC_KEY});
    EXPECT_TRUE(key.IsToken());
    EXPECT_TRUE(key.IsModifiable());
    EXPECT_TRUE(key.IsExtractable());
    EXPECT_FALSE(key.IsPrivate());
  }
}

TEST_F(PublicKeyTest, LabelDecidesTheKindOfObject) {
  PublicKey labelled;
  EXPECT_EQ(Filled(labelled).Create(KeyUsage::kBoth, "", 0), CKR_OK);
  EXPECT_EQ(token().Calls().back().templates[0].size(), 12u);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=")});
  PublicKey without;
  EXPECT_EQ(Filled(without).Create(KeyUsage::kBoth, nullptr, 5), CKR_OK);
  EXPECT_EQ(token().Calls().back().templates[0].size(), 11u);
  ExpectCalls({Template("00", "01", "01", "")});
  EXPECT_FALSE(without.IsToken());
  // The label goes in the length that the caller says.
  PublicKey cut;
  EXPECT_EQ(Filled(cut).Create(KeyUsage::kBoth, "abcdef", 2), CKR_OK);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=6162")});
}

TEST_F(PublicKeyTest, RefusesWhatCannotBeCalled) {
  PublicKey noSession;
  Filled(noSession).SetSession(0);
  EXPECT_EQ(noSession.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  PublicKey noModule;
  Filled(noModule).SetModule(nullptr);
  EXPECT_EQ(noModule.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  ExpectCalls({});
  PublicKey twice;
  EXPECT_EQ(Filled(twice).Create(KeyUsage::kBoth, "a", 1), CKR_OK);
  token().ClearCalls();
  EXPECT_EQ(twice.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << "it has an object already";
  ExpectCalls({});
}

TEST_F(PublicKeyTest, OnlyFourModulusLengths) {
  for (const std::size_t bits : {512U, 1024U, 2048U, 4096U}) {
    PublicKey key;
    EXPECT_EQ(Filled(key, bits / 8).Create(KeyUsage::kBoth, "a", 1), CKR_OK) << bits;
  }
  token().ClearCalls();
  for (const std::size_t bits : {8U, 256U, 504U, 520U, 768U, 1536U, 2040U, 2056U, 3072U, 8192U}) {
    PublicKey key;
    EXPECT_EQ(Filled(key, bits / 8).Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << bits;
    EXPECT_EQ(key.GetObjectHandle(), 0u);
  }
  ExpectCalls({});
}

TEST_F(PublicKeyTest, MissingParts) {
  const Bytes modulus(256, 1);
  PublicKey noModulus;
  Bind(noModulus).SetPublicExponent(exponent_.data(), 4);
  noModulus.SetId(id_.data(), 64);
  EXPECT_EQ(noModulus.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << "no modulus is one of 0 bits";
  PublicKey noExponent;
  Bind(noExponent).SetModulus(modulus.data(), Size(modulus));
  noExponent.SetId(id_.data(), 64);
  EXPECT_EQ(noExponent.Create(KeyUsage::kBoth, "a", 1), kIncomplete);
  PublicKey noId;
  Bind(noId).SetModulus(modulus.data(), Size(modulus));
  noId.SetPublicExponent(exponent_.data(), 4);
  EXPECT_EQ(noId.Create(KeyUsage::kBoth, "a", 1), kIncomplete);
  // The length is judged before the parts are.
  PublicKey oddAndEmpty;
  Bind(oddAndEmpty).SetModulus(modulus.data(), 100);
  EXPECT_EQ(oddAndEmpty.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  ExpectCalls({});
}

TEST_F(PublicKeyTest, TokensAnswerComesBackUnchanged) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_TEMPLATE_INCONSISTENT, CKR_VENDOR_DEFINED}) {
    PublicKey key;
    token().Fail("C_CreateObject", code);
    EXPECT_EQ(Filled(key).Create(KeyUsage::kBoth, "a", 1), code);
    EXPECT_EQ(key.GetObjectHandle(), 0u);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK) << "the buffers are still there";
  }
}

TEST_F(PublicKeyTest, NullAndNothingLeaveTheFieldsAsTheyAre) {
  PublicKey key;
  Filled(key);
  const Bytes other(256, 0xEE);
  key.SetModulus(nullptr, 64);
  key.SetModulus(other.data(), 0);
  key.SetPublicExponent(nullptr, 4);
  key.SetPublicExponent(other.data(), 0);
  key.SetId(nullptr, 64);
  key.SetId(other.data(), 0);
  EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=61")});
}

TEST_F(PublicKeyTest, ExponentHas4BytesAndIdentifier64WhateverTheLength) {
  for (const CK_ULONG length : {CK_ULONG{1}, CK_ULONG{3}, CK_ULONG{5}, CK_ULONG{0xFFFFFFFF}}) {
    PublicKey key;
    Filled(key);
    key.SetPublicExponent(exponent_.data(), length);
    key.SetId(id_.data(), length);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=61")});
  }
}

TEST_F(PublicKeyTest, ReplacedAndLeftBuffersAreWipedBeforeTheyAreReleased) {
  FreedWatch watch;
  const auto follow = [&] {
    const fake::Call call = token().Calls().back();
    for (const std::size_t entry : {5U, 6U, 7U})
      watch.Follow(call.templates[0][entry].address);
    return call.templates[0];
  };
  std::vector<fake::Attribute> second;
  {
    PublicKey key;
    Filled(key, 64);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    const std::vector<fake::Attribute> first = follow();
    EXPECT_EQ(key.Destroy(), CKR_OBJECT_HANDLE_INVALID);  // so that it may be created once more
    EXPECT_FALSE(watch.Released(first[5].address));
    Filled(key, 128);
    EXPECT_TRUE(watch.Wiped(first[5].address, 128)) << "identifier";
    EXPECT_TRUE(watch.Wiped(first[6].address, 4)) << "exponent";
    EXPECT_TRUE(watch.Wiped(first[7].address, 64)) << "modulus";
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    second = follow();
  }
  EXPECT_TRUE(watch.Wiped(second[5].address, 128));
  EXPECT_TRUE(watch.Wiped(second[6].address, 4));
  EXPECT_TRUE(watch.Wiped(second[7].address, 128));
}

// ---- private key

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

// ---- certificate

class CertificateTest : public TokenObjectsTest {
 protected:
  void SetUp() override {
    TokenObjectsTest::SetUp();
    publicKey_ = token().AddPublicKey(Ascii("pub"), "");     // 0x101
    privateKey_ = token().AddPrivateKey(Ascii("priv"), "");  // 0x102
  }
  SECURITY_STATUS Create(Certificate& certificate) {
    return certificate.CreateFromEncoded(made_.der.data(), static_cast<DWORD>(made_.der.size()));
  }
  const kit::TestCertificate made_ = kit::MakeCertificate("Subject", "Issuer", {0x01, 0x02});
  CK_OBJECT_HANDLE publicKey_ = 0;
  CK_OBJECT_HANDLE privateKey_ = 0;
};

TEST_F(CertificateTest, RefusesWhatCannotBeCalled) {
  Certificate noSession;
  Bind(noSession).SetSession(0);
  noSession.SetPublicKeyHandle(publicKey_);
  noSession.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(noSession.FindForKey(), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Create(noSession), NTE_INVALID_PARAMETER);
  Certificate noModule;
  Bind(noModule).SetModule(nullptr);
  noModule.SetPublicKeyHandle(publicKey_);
  noModule.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(noModule.FindForKey(), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Create(noModule), NTE_INVALID_PARAMETER);
  // Before the bytes are looked at.
  EXPECT_EQ(noModule.CreateFromEncoded(nullptr, 0), NTE_INVALID_PARAMETER);
  ExpectCalls({});
}

TEST_F(CertificateTest, LookupWantsBothKeys) {
  for (int missing = 1; missing < 4; ++missing) {
    Certificate certificate;
    Bind(certificate);
    if (!(missing & 1)) certificate.SetPublicKeyHandle(publicKey_);
    if (!(missing & 2)) certificate.SetPrivateKeyHandle(privateKey_);
    EXPECT_EQ(certificate.FindForKey(), NTE_INVALID_PARAMETER);
  }
  ExpectCalls({});
}

TEST_F(CertificateTest, PrivateKeysIdentifierComesFirst) {
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_NOT_FOUND);
  ExpectCalls({"C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[NULL,0]})",
               "C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[4]})",
               "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=01000000, CKA_ID=70726976})",
               "C_FindObjects(session=0x51, objects=PTR, maximum=1)", "C_FindObjectsFinal(session=0x51)"});
  EXPECT_EQ(certificate.GetObjectHandle(), 0u);
}

TEST_F(CertificateTest, PublicKeysIdentifierServesWithoutAPrivateKey) {
  Certificate certificate;
  Bind(certificate).SetPublicKeyHandle(publicKey_);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  const std::vector<fake::Call> calls = token().Calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].text, "C_GetAttributeValue(session=0x51, object=0x101, {CKA_ID[NULL,0]})");
  EXPECT_EQ(calls[1].text, "C_GetAttributeValue(session=0x51, object=0x101, {CKA_ID[3]})");
  EXPECT_EQ(calls[2].templates[0][7].value, Ascii("pub"));
  EXPECT_EQ(calls[2].templates[0][8].value, Ascii("pub"));
  EXPECT_EQ(certificate.GetObjectHandle(), 0x103u);
  EXPECT_EQ(certificate.GetClass(), CK_OBJECT_CLASS{CKO_CERTIFICATE});
  EXPECT_TRUE(certificate.IsToken());
  EXPECT_TRUE(certificate.IsModifiable());
  EXPECT_TRUE(certificate.IsExtractable());
  EXPECT_FALSE(certificate.IsPrivate());
}

TEST_F(CertificateTest, FoundOneIsAStatusAndItsHandle) {
  const CK_OBJECT_HANDLE object = token().AddObject(
      {{CKA_CLASS, fake::Ulong(CKO_CERTIFICATE)}, {CKA_TOKEN, fake::Bool(true)}, {CKA_ID, Ascii("priv")}});
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_EXISTS);
  EXPECT_EQ(certificate.GetObjectHandle(), object);
}

TEST_F(CertificateTest, SeveralFoundAreFoundAllTheSame) {
  CK_FUNCTION_LIST& functions = token().List()->standard;
  const CK_C_FindObjects original = functions.C_FindObjects;
  functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* count) -> CK_RV {
    *objects = 0x123;
    *count = 2;
    return CKR_OK;
  };
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_EXISTS);
  functions.C_FindObjects = original;
  EXPECT_EQ(certificate.GetObjectHandle(), 0x123u);
}

TEST_F(CertificateTest, FailedSearchIsNotEnded) {
  for (const char* function : {"C_FindObjectsInit", "C_FindObjects"}) {
    Certificate certificate;
    Bind(certificate);
    certificate.SetPublicKeyHandle(publicKey_);
    certificate.SetPrivateKeyHandle(privateKey_);
    token().ClearCalls();
    token().Fail(function, CKR_DEVICE_ERROR);
    EXPECT_EQ(certificate.FindForKey(), NTE_INTERNAL_ERROR);
    EXPECT_EQ(token().Calls().back().function, function);
  }
}

TEST_F(CertificateTest, KeyWithAnEmptyIdentifier) {
  token().ObjectAttributes(privateKey_)[CKA_ID] = {};
  Certificate certificate;
  Bind(certificate);
  certificate.SetPublicKeyHandle(publicKey_);
  certificate.SetPrivateKeyHandle(privateKey_);
  EXPECT_EQ(certificate.FindForKey(), NTE_NOT_FOUND);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  EXPECT_EQ(token().Calls().back().templates[0][7].length, 0u);
}

TEST_F(CertificateTest, SecondCreationReplacesAndWipesTheBuffers) {
  FreedWatch watch;
  Certificate certificate;
  Bind(certificate).SetPublicKeyHandle(publicKey_);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  const fake::Call first = token().Calls().back();
  const struct {
    std::size_t entry;
    std::size_t size;
  } kept[] = {{3, made_.der.size()}, {7, 3}, {10, 2}};  // encoded certificate, identifier, serial number
  for (const auto& one : kept)
    watch.Follow(first.templates[0][one.entry].address);
  EXPECT_EQ(Create(certificate), ERROR_SUCCESS);
  for (const auto& one : kept)
    EXPECT_TRUE(watch.Wiped(first.templates[0][one.entry].address, one.size)) << one.entry;
}

// ---- key pair

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
