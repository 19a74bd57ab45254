// An ordinary CNG program on a real token: router, provider, its real dialogs, token module, SoftHSM. Run by
// provider.sh, which makes the tokens and looks at the results from the Linux side.
//
// Its environment: KELDA_READERS (the reader file), KELDA_PIN, KELDA_OUT (a folder for results, as a Windows path),
// KELDA_STRICT (how strict the token module is; docs/token-module.md tells what the provider makes of it).
// A process remembers PINs, so each test suite is run in a process of its own, with its tests in their order.

#include <gtest/gtest.h>
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>
#include <winscard.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kit/dialogs.h"
#include "standins/replace_reader_file.h"

namespace {

using Bytes = std::vector<BYTE>;
using kit::Dialog;
using kit::DialogRobot;

constexpr wchar_t kProvider[] = L"Norvale Token Works KSP v1.0";

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

bool IsStrict() {
  return Environment("KELDA_STRICT") == "1";
}

std::wstring Pin() {
  const std::string pin = Environment("KELDA_PIN");
  return {pin.begin(), pin.end()};
}

void EnterPin(const Dialog& dialog) {
  dialog.Type(kit::kPinField, Pin());
  dialog.Press(IDOK);
}

std::string OutPath(const std::string& name) {
  return Environment("KELDA_OUT") + "\\" + name;
}

void WriteOut(const std::string& name, const Bytes& bytes) {
  std::ofstream file(OutPath(name), std::ios::binary);
  std::copy(bytes.begin(), bytes.end(), std::ostreambuf_iterator<char>(file));
}

Bytes ReadOut(const std::string& name) {
  std::ifstream file(OutPath(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

DWORD Size(const Bytes& bytes) {
  return static_cast<DWORD>(bytes.size());
}

// size bytes that no other size begins with.
Bytes Pattern(std::size_t size) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), static_cast<BYTE>(size));
  return bytes;
}

// RFC 8017 9.2, note 1: the DigestInfo in front of a hash of this size.
Bytes DigestInfo(const Bytes& hash) {
  static const std::map<std::size_t, Bytes> prefixes = {
      {16,
       {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10}},
      {20, {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
      {32,
       {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04,
        0x20}},
      {64,
       {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04,
        0x40}}};
  Bytes block = prefixes.at(hash.size());
  block.insert(block.end(), hash.begin(), hash.end());
  return block;
}

// Frees a handle of the router.
class Handle {
 public:
  Handle() = default;
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() {
    if (handle_ != 0) NCryptFreeObject(handle_);
  }
  NCRYPT_HANDLE* out() { return &handle_; }
  operator NCRYPT_HANDLE() const { return handle_; }  // NOLINT(google-explicit-constructor): it stands for the handle
  NCRYPT_HANDLE release() { return std::exchange(handle_, 0); }

 private:
  NCRYPT_HANDLE handle_ = 0;
};

Handle Open(DWORD flags = 0) {
  Handle provider;
  EXPECT_EQ(NCryptOpenStorageProvider(provider.out(), kProvider, flags), ERROR_SUCCESS);
  return provider;
}

Handle OpenKey(NCRYPT_PROV_HANDLE provider, const wchar_t* name) {
  Handle key;
  // Without a key spec an unknown name would open a handle that nothing else accepts.
  // The signature spec asks for the private half, which a strict module hides before the login.
  EXPECT_EQ(NCryptOpenKey(provider, key.out(), name, IsStrict() ? AT_KEYEXCHANGE : AT_SIGNATURE, 0), ERROR_SUCCESS);
  return key;
}

SECURITY_STATUS Sign(NCRYPT_KEY_HANDLE key, Bytes hash, Bytes* signature) {
  signature->assign(512, 0);
  DWORD size = 0;
  const auto status =
      NCryptSignHash(key, nullptr, hash.data(), Size(hash), signature->data(), 512, &size, BCRYPT_PAD_PKCS1);
  signature->resize(size);
  return status;
}

SECURITY_STATUS Verify(NCRYPT_KEY_HANDLE key, Bytes block, Bytes signature) {
  return NCryptVerifySignature(key, nullptr, block.data(), Size(block), signature.data(), Size(signature),
                               BCRYPT_PAD_PKCS1);
}

std::vector<std::wstring> Names(NCRYPT_PROV_HANDLE provider) {
  std::vector<std::wstring> names;
  void* state = nullptr;
  NCryptKeyName* name = nullptr;
  SECURITY_STATUS status = ERROR_SUCCESS;
  while ((status = NCryptEnumKeys(provider, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
    EXPECT_STREQ(name->pszAlgid, L"RSA");
    names.emplace_back(name->pszName);
    EXPECT_EQ(NCryptFreeBuffer(name), ERROR_SUCCESS);
  }
  EXPECT_EQ(status, NTE_NO_MORE_ITEMS);
  if (state != nullptr) {
    EXPECT_EQ(NCryptFreeBuffer(state), ERROR_SUCCESS);
  }
  return names;
}

DWORD GetNumber(NCRYPT_KEY_HANDLE key, const wchar_t* property) {
  DWORD number = 0;
  DWORD size = 0;
  EXPECT_EQ(NCryptGetProperty(key, property, reinterpret_cast<PBYTE>(&number), sizeof(number), &size, 0),
            ERROR_SUCCESS);
  return number;
}

// The Linux path in the variable is one of drive Z.
void SetReaders(const std::string& text) {
  ASSERT_TRUE(standins::ReplaceReaderFile("Z:" + Environment("KELDA_READERS"), text)) << GetLastError();
}

constexpr char kOneToken[] = "Norvale Reader 0 = demo\n";
constexpr char kTwoTokens[] = "Norvale Reader 0 = demo\nNorvale Reader 1 = second\n";

// ---- One token, its PIN asked for once ------------------------------------------------------------------------------

class Signing : public testing::Test {
 protected:
  static void TearDownTestSuite() { loggedIn_ = Handle(); }
  void SetUp() override { SetReaders(kOneToken); }

  // A strict module shows private keys to who is logged in, and the login ends with the token's last session: from the
  // first test on, this one stays open.
  static inline Handle loggedIn_;
};

TEST_F(Signing, AsksForThePinAgainAfterAWrongOne) {
  auto provider = Open();
  EXPECT_EQ(Names(provider), (std::vector<std::wstring>{L"Key1", L"Key2"}));
  const auto key = OpenKey(provider, L"Key1");
  DialogRobot robot({[](const Dialog& dialog) {
    EXPECT_EQ(dialog.caption(), L"Enter PIN for demo");
    EXPECT_EQ(dialog.text(kit::kStatusLine), L"");
    dialog.Type(kit::kPinField, L"000000");
    EXPECT_EQ(dialog.text(kit::kPinField), L"******");
    dialog.Press(IDOK);
    ASSERT_TRUE(dialog.open());
    EXPECT_EQ(dialog.text(kit::kStatusLine), L"Incorrect PIN. Retries left: 2");
    dialog.Type(kit::kPinField, L"\b\b\b\b\b\b");
    EXPECT_EQ(dialog.text(kit::kPinField), L"");
    EnterPin(dialog);
    EXPECT_FALSE(dialog.open());
  }});
  Bytes signature;
  if (IsStrict()) {
    Handle refused;
    EXPECT_EQ(NCryptOpenKey(provider, refused.out(), L"Key1", AT_SIGNATURE, 0), NTE_BAD_KEYSET);
    // The private half was hidden when the key was opened, before the login; a new listing shows it.
    EXPECT_EQ(Sign(key, Pattern(32), &signature), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Sign(OpenKey(provider, L"Key1"), Pattern(32), &signature), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Names(provider), (std::vector<std::wstring>{L"Key1", L"Key2"}));
    EXPECT_EQ(Sign(OpenKey(provider, L"Key1"), Pattern(32), &signature), ERROR_SUCCESS);
  } else {
    EXPECT_EQ(Sign(key, Pattern(32), &signature), ERROR_SUCCESS);
  }
  EXPECT_EQ(signature.size(), 256u);
  EXPECT_EQ(robot.Finish(), 1u);
  // The PIN is remembered, for other handles as well.
  DialogRobot idle;
  const auto again = Open();
  const auto other = OpenKey(again, L"Key2");
  EXPECT_EQ(Sign(other, Pattern(20), &signature), ERROR_SUCCESS);
  EXPECT_EQ(signature.size(), 128u);
  EXPECT_EQ(idle.Finish(), 0u);
  if (IsStrict()) loggedIn_ = std::move(provider);
}

TEST_F(Signing, TakesEveryAcceptedLength) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  for (const std::size_t size : {16u, 20u, 32u, 64u, 34u, 35u, 51u, 83u, 36u}) {
    const Bytes input = Pattern(size);
    const bool isHash = size == 16 || size == 20 || size == 32 || size == 64;
    Bytes signature;
    ASSERT_EQ(Sign(key, input, &signature), ERROR_SUCCESS) << size;
    WriteOut("sign-" + std::to_string(size) + ".sig", signature);
    WriteOut("sign-" + std::to_string(size) + ".block", isHash ? DigestInfo(input) : input);
  }
  for (const std::size_t size : {0u, 15u, 17u, 28u, 48u, 82u, 84u, 256u}) {
    Bytes signature;
    Bytes input = Pattern(size);
    input.reserve(1);  // an address even without bytes
    EXPECT_EQ(Sign(key, input, &signature), NTE_INVALID_PARAMETER) << size;
  }
}

TEST_F(Signing, SignsTheHashOfAFile) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  Bytes file = ReadOut("document");
  ASSERT_FALSE(file.empty());
  const std::map<std::string, const wchar_t*> algorithms = {{"md5", BCRYPT_MD5_ALGORITHM},
                                                            {"sha1", BCRYPT_SHA1_ALGORITHM},
                                                            {"sha256", BCRYPT_SHA256_ALGORITHM},
                                                            {"sha512", BCRYPT_SHA512_ALGORITHM}};
  for (const auto& [name, algorithm] : algorithms) {
    BCRYPT_ALG_HANDLE providerOfHash = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&providerOfHash, algorithm, nullptr, 0), 0);
    ASSERT_EQ(BCryptCreateHash(providerOfHash, &hash, nullptr, 0, nullptr, 0, 0), 0);
    DWORD size = 0;
    DWORD result = 0;
    BCryptGetProperty(hash, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&size), sizeof(size), &result, 0);
    Bytes digest(size);
    BCryptHashData(hash, file.data(), Size(file), 0);
    BCryptFinishHash(hash, digest.data(), size, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(providerOfHash, 0);
    Bytes signature;
    ASSERT_EQ(Sign(key, digest, &signature), ERROR_SUCCESS) << name;
    WriteOut("document." + name, signature);
  }
}

// What a size query leaves of a provider handle on a strict module, where the token's session still has it open.
void ExpectStuck(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
  Bytes signature;
  EXPECT_EQ(Sign(key, Pattern(32), &signature), NTE_INTERNAL_ERROR);
  EXPECT_EQ(Verify(key, DigestInfo(Pattern(32)), Bytes(256)), NTE_INTERNAL_ERROR);
  NCryptKeyName* name = nullptr;
  void* state = nullptr;
  EXPECT_EQ(NCryptEnumKeys(provider, nullptr, &name, &state, 0), NTE_INTERNAL_ERROR);
  // Another handle has a session of its own.
  const auto other = Open();
  EXPECT_EQ(Sign(OpenKey(other, L"Key1"), Pattern(32), &signature), ERROR_SUCCESS);
  // A buffer that is too short does the same.
  DWORD size = 0;
  Bytes hash = Pattern(32);
  const auto again = OpenKey(other, L"Key1");
  EXPECT_EQ(NCryptSignHash(again, nullptr, hash.data(), 32, signature.data(), 255, &size, BCRYPT_PAD_PKCS1),
            NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(Sign(again, Pattern(32), &signature), NTE_INTERNAL_ERROR);
}

TEST_F(Signing, AnswersSizeQueriesAndShortBuffers) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  Bytes hash = Pattern(32);
  DWORD size = 0;
  EXPECT_EQ(NCryptSignHash(key, nullptr, hash.data(), 32, nullptr, 0, &size, BCRYPT_PAD_PKCS1), ERROR_SUCCESS);
  EXPECT_EQ(size, 256u);
  if (IsStrict()) return ExpectStuck(provider, key);
  Bytes signature(256);
  size = 0;
  EXPECT_EQ(NCryptSignHash(key, nullptr, hash.data(), 32, signature.data(), 255, &size, BCRYPT_PAD_PKCS1),
            NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 256u);
  // Neither stands in the way of listing keys or of the signature itself.
  EXPECT_EQ(NCryptSignHash(key, nullptr, hash.data(), 32, nullptr, 0, &size, BCRYPT_PAD_PKCS1), ERROR_SUCCESS);
  EXPECT_EQ(Names(provider).size(), 2u);
  EXPECT_EQ(NCryptSignHash(key, nullptr, hash.data(), 32, signature.data(), 256, &size, BCRYPT_PAD_PKCS1),
            ERROR_SUCCESS);
  EXPECT_EQ(Verify(key, DigestInfo(hash), signature), ERROR_SUCCESS);
}

TEST_F(Signing, VerifiesTheBlockAsItIsPassed) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  for (const std::size_t size : {20u, 32u}) {
    Bytes signature;
    ASSERT_EQ(Sign(key, Pattern(size), &signature), ERROR_SUCCESS);
    EXPECT_EQ(Verify(key, Pattern(size), signature), NTE_FAIL);
    EXPECT_EQ(Verify(key, DigestInfo(Pattern(size)), signature), ERROR_SUCCESS);
    signature[10] ^= 1;
    EXPECT_EQ(Verify(key, DigestInfo(Pattern(size)), signature), NTE_FAIL);
  }
  Bytes joined;
  ASSERT_EQ(Sign(key, Pattern(36), &joined), ERROR_SUCCESS);
  EXPECT_EQ(Verify(key, Pattern(36), joined), ERROR_SUCCESS);
}

TEST_F(Signing, OpensKeysByEveryFormOfTheirName) {
  const auto provider = Open();
  Bytes expected;
  ASSERT_EQ(Sign(OpenKey(provider, L"Key2"), Pattern(32), &expected), ERROR_SUCCESS);
  for (const wchar_t* name : {L"key2", L"KEY2 and more", L"4B657932", L"4b657932", L"\\\\.\\Norvale Reader 0\\Key2"}) {
    Bytes signature;
    EXPECT_EQ(Sign(OpenKey(provider, name), Pattern(32), &signature), ERROR_SUCCESS) << name;
    EXPECT_EQ(signature, expected) << name;
  }
  Handle nobody;
  EXPECT_EQ(NCryptOpenKey(provider, nobody.out(), L"Nobody", AT_SIGNATURE, 0), NTE_BAD_KEYSET);
  ASSERT_EQ(NCryptOpenKey(provider, nobody.out(), L"Nobody", 0, 0), ERROR_SUCCESS);
  Bytes signature;
  EXPECT_EQ(Sign(nobody, Pattern(32), &signature), NTE_INVALID_HANDLE);
}

TEST_F(Signing, SignsFromTwoThreadsAtOnce) {
  constexpr int kRounds = 15;
  Bytes expected;
  {
    const auto provider = Open();
    ASSERT_EQ(Sign(OpenKey(provider, L"Key1"), Pattern(32), &expected), ERROR_SUCCESS);
  }
  std::array<int, 2> good{};
  std::vector<std::thread> threads;
  threads.reserve(good.size());
  for (int& count : good) {
    threads.emplace_back([&] {
      Handle provider;
      if (NCryptOpenStorageProvider(provider.out(), kProvider, NCRYPT_SILENT_FLAG) != ERROR_SUCCESS) return;
      Handle key;
      if (NCryptOpenKey(provider, key.out(), L"Key1", AT_SIGNATURE, 0) != ERROR_SUCCESS) return;
      for (int i = 0; i < kRounds; ++i) {
        Bytes signature;
        if (Sign(key, Pattern(32), &signature) == ERROR_SUCCESS && signature == expected) ++count;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(good[0], kRounds);
  EXPECT_EQ(good[1], kRounds);
}

TEST_F(Signing, EncryptsAndDecrypts) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  Bytes secret = {'s', 'e', 'c', 'r', 'e', 't'};
  Bytes cipher(256);
  DWORD size = 0;
  ASSERT_EQ(NCryptEncrypt(key, secret.data(), 6, nullptr, cipher.data(), 256, &size, NCRYPT_PAD_PKCS1_FLAG),
            ERROR_SUCCESS);
  EXPECT_EQ(size, 256u);
  WriteOut("to-openssl.cipher", cipher);
  Bytes fromOpenssl = ReadOut("from-openssl.cipher");
  Bytes plain(256);
  ASSERT_EQ(NCryptDecrypt(key, fromOpenssl.data(), Size(fromOpenssl), nullptr, plain.data(), 256, &size,
                          NCRYPT_PAD_PKCS1_FLAG),
            ERROR_SUCCESS);
  plain.resize(size);
  EXPECT_EQ(plain, secret);
}

TEST_F(Signing, ExportsThePublicKey) {
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  DWORD size = 0;
  ASSERT_EQ(NCryptExportKey(key, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, nullptr, 0, &size, 0), ERROR_SUCCESS);
  ASSERT_EQ(size, 283u);
  Bytes blob(size);
  ASSERT_EQ(NCryptExportKey(key, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, blob.data(), size, &size, 0), ERROR_SUCCESS);
  WriteOut("key1.modulus", Bytes(blob.begin() + 27, blob.end()));
  EXPECT_EQ(Bytes(blob.begin() + 24, blob.begin() + 27), (Bytes{1, 0, 1}));
  EXPECT_EQ(NCryptExportKey(key, 0, BCRYPT_RSAPRIVATE_BLOB, nullptr, nullptr, 0, &size, 0), NTE_NOT_SUPPORTED);
}

// ---- The dialog without a PIN ---------------------------------------------------------------------------------------

TEST(Cancelling, EndsTheCallAndCostsNoTry) {
  SetReaders(kOneToken);
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key1");
  DialogRobot robot({[](const Dialog& dialog) { dialog.Press(IDCANCEL); },
                     [](const Dialog& dialog) {
                       dialog.Type(kit::kPinField, Pin());
                       dialog.Press(IDCANCEL);
                     },
                     [](const Dialog& dialog) { dialog.CloseBySystemMenu(); }});
  Bytes signature;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Sign(key, Pattern(32), &signature), SCARD_W_CANCELLED_BY_USER) << i;
  EXPECT_EQ(robot.Finish(), 3u);
}

TEST(Locking, TellsTheTriesLeftUntilThePinIsLocked) {
  SetReaders("Norvale Reader 0 = victim\n");
  const auto provider = Open();
  const auto key = OpenKey(provider, L"Key3");
  DialogRobot robot(
      {[](const Dialog& dialog) {
         for (const wchar_t* text : {L"Incorrect PIN. Retries left: 2", L"Incorrect PIN. Retries left: 1"}) {
           dialog.Type(kit::kPinField, L"0");
           dialog.Press(IDOK);
           EXPECT_EQ(dialog.text(kit::kStatusLine), text);
           EXPECT_TRUE(dialog.enabled(IDOK));
         }
         dialog.Type(kit::kPinField, L"0");
         dialog.Press(IDOK);
         EXPECT_EQ(dialog.text(kit::kStatusLine), L"Pin is locked");
         EXPECT_FALSE(dialog.enabled(kit::kPinField));
         EXPECT_FALSE(dialog.enabled(IDOK));
         EXPECT_TRUE(dialog.enabled(IDCANCEL));
         dialog.Press(IDCANCEL);
       },
       [](const Dialog& dialog) {
         EnterPin(dialog);
         EXPECT_EQ(dialog.text(kit::kStatusLine), L"Pin is locked");
         dialog.Press(IDCANCEL);
       }});
  Bytes signature;
  EXPECT_EQ(Sign(key, Pattern(32), &signature), SCARD_W_CANCELLED_BY_USER);
  EXPECT_EQ(Sign(key, Pattern(32), &signature), SCARD_W_CANCELLED_BY_USER);
  EXPECT_EQ(robot.Finish(), 2u);
}

// ---- Several readers ------------------------------------------------------------------------------------------------

class Readers : public testing::Test {
 protected:
  void SetUp() override { SetReaders(kTwoTokens); }

  // Ends the provider's memory of the last reader, as every call but an opening does.
  static void AnotherCall(NCRYPT_PROV_HANDLE provider) { NCryptIsAlgSupported(provider, L"RSA", 0); }

  static void Choose(const Dialog& dialog, const wchar_t* reader) {
    EXPECT_NE(dialog.Send(kit::kReaderList, CB_SELECTSTRING, static_cast<WPARAM>(-1), reinterpret_cast<LPARAM>(reader)),
              CB_ERR);
    dialog.Press(IDOK);
  }
};

TEST_F(Readers, SilenceTakesTheFirst) {
  DialogRobot robot;
  const auto provider = Open(NCRYPT_SILENT_FLAG);
  EXPECT_EQ(Names(provider), (std::vector<std::wstring>{L"Key1", L"Key2"}));
  EXPECT_EQ(robot.Finish(), 0u);
}

TEST_F(Readers, TheUserChooses) {
  DialogRobot robot({[](const Dialog& dialog) {
    EXPECT_EQ(dialog.caption(), L"Norvale Token Works KSP v4.2");
    EXPECT_EQ(dialog.Send(kit::kReaderList, CB_GETCOUNT), 2);
    EXPECT_EQ(dialog.text(kit::kReaderList), L"Norvale Reader 0");
    Choose(dialog, L"Norvale Reader 1");
  }});
  const auto provider = Open();
  // An opening that follows at once takes the same reader without asking.
  const auto next = Open();
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(Names(provider), std::vector<std::wstring>{L"Key4"});
  EXPECT_EQ(Names(next), std::vector<std::wstring>{L"Key4"});

  DialogRobot pin({EnterPin});
  Bytes signature;
  if (IsStrict()) {
    // As with one token: the login comes too late for what was listed before.
    EXPECT_EQ(Sign(OpenKey(provider, L"Key4"), Pattern(20), &signature), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Names(provider), std::vector<std::wstring>{L"Key4"});
  }
  EXPECT_EQ(Sign(OpenKey(provider, L"\\\\.\\Norvale Reader 1\\Key4"), Pattern(20), &signature), ERROR_SUCCESS);
  WriteOut("second.sig", signature);
  WriteOut("second.block", DigestInfo(Pattern(20)));
  EXPECT_EQ(pin.Finish(), 1u);
}

TEST_F(Readers, TheUserCancels) {
  AnotherCall(Open(NCRYPT_SILENT_FLAG));
  DialogRobot robot({[](const Dialog& dialog) { dialog.Press(IDCANCEL); }});
  NCRYPT_PROV_HANDLE provider = 0;
  EXPECT_EQ(NCryptOpenStorageProvider(&provider, kProvider, 0), ERROR_CANCELLED);
  EXPECT_EQ(provider, 0u);
  EXPECT_EQ(robot.Finish(), 1u);
}

TEST_F(Readers, ATokenIsInsertedWhileTheDialogIsOpen) {
  AnotherCall(Open(NCRYPT_SILENT_FLAG));
  SetReaders("Norvale Reader 0 =\n");
  NCRYPT_PROV_HANDLE none = 0;
  EXPECT_EQ(NCryptOpenStorageProvider(&none, kProvider, NCRYPT_SILENT_FLAG), NTE_FAIL);
  DialogRobot robot({[](const Dialog& dialog) {
    SetReaders("Norvale Reader 0 = second\n");
    Choose(dialog, L"Norvale Reader 0");
  }});
  const auto provider = Open();
  EXPECT_EQ(Names(provider), std::vector<std::wstring>{L"Key4"});
  EXPECT_EQ(robot.Finish(), 1u);
}

TEST_F(Readers, NoReaderAtAll) {
  SetReaders("");
  NCRYPT_PROV_HANDLE none = 0;
  EXPECT_EQ(NCryptOpenStorageProvider(&none, kProvider, 0), NTE_FAIL);
}

// ---- Keys that are made, certified and removed ----------------------------------------------------------------------

class Keys : public testing::Test {
 protected:
  void SetUp() override {
    SetReaders("Norvale Reader 0 = workshop\n");
    provider_ = Open();
  }

  Handle Create(const wchar_t* name, DWORD bits, DWORD flags = 0) const {
    Handle key;
    EXPECT_EQ(NCryptCreatePersistedKey(provider_, key.out(), L"RSA", name, 0, flags), ERROR_SUCCESS);
    EXPECT_EQ(GetNumber(key, NCRYPT_LENGTH_PROPERTY), 2048u);
    EXPECT_EQ(NCryptSetProperty(key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&bits), sizeof(bits), 0),
              ERROR_SUCCESS);
    EXPECT_EQ(NCryptFinalizeKey(key, 0), ERROR_SUCCESS);
    return key;
  }

  DialogRobot robot_{{EnterPin}};
  Handle provider_;
};

TEST_F(Keys, AreGeneratedInEveryLength) {
  for (const DWORD bits : {1024u, 2048u, 3072u, 4096u}) {
    const auto name = L"Made" + std::to_wstring(bits);
    const auto key = Create(name.c_str(), bits);
    Bytes signature;
    ASSERT_EQ(Sign(key, Pattern(32), &signature), ERROR_SUCCESS) << bits;
    EXPECT_EQ(signature.size(), bits / 8);
    const auto file = "made-" + std::to_string(bits);
    WriteOut(file + ".sig", signature);
    WriteOut(file + ".block", DigestInfo(Pattern(32)));
    EXPECT_EQ(NCryptFinalizeKey(key, 0), NTE_BAD_KEY_STATE);
  }
  EXPECT_EQ(Names(provider_).size(), 4u);
}

TEST_F(Keys, AreOverwrittenOnlyOnDemand) {
  const auto first = Create(L"Again", 1024);
  Bytes signature;
  ASSERT_EQ(Sign(first, Pattern(32), &signature), ERROR_SUCCESS);
  const auto before = Names(provider_).size();
  Handle refused;
  EXPECT_EQ(NCryptCreatePersistedKey(provider_, refused.out(), L"RSA", L"Again", 0, 0), NTE_EXISTS);
  const auto second = Create(L"Again", 1024, NCRYPT_OVERWRITE_KEY_FLAG);
  EXPECT_EQ(Names(provider_).size(), before);
  // It is another key, and the first one is gone.
  EXPECT_EQ(Verify(second, DigestInfo(Pattern(32)), signature), NTE_FAIL);
  Bytes none;
  EXPECT_EQ(Sign(first, Pattern(32), &none), NTE_INTERNAL_ERROR);
}

TEST_F(Keys, TakeOneCertificate) {
  auto key = Create(L"Certified", 1024);
  Bytes certificate = ReadOut("certificate.der");
  ASSERT_FALSE(certificate.empty());
  EXPECT_EQ(NCryptSetProperty(key, NCRYPT_CERTIFICATE_PROPERTY, certificate.data(), Size(certificate), 0),
            ERROR_SUCCESS);
  EXPECT_EQ(NCryptSetProperty(key, NCRYPT_CERTIFICATE_PROPERTY, certificate.data(), Size(certificate), 0), NTE_EXISTS);
  DWORD size = 0;
  EXPECT_EQ(NCryptGetProperty(key, NCRYPT_CERTIFICATE_PROPERTY, nullptr, 0, &size, 0), NTE_NOT_SUPPORTED);
}

TEST_F(Keys, AreDeleted) {
  auto key = Create(L"Doomed", 1024);
  const auto before = Names(provider_).size();
  ASSERT_EQ(NCryptDeleteKey(key, 0), ERROR_SUCCESS);
  EXPECT_FALSE(NCryptIsKeyHandle(key));
  key.release();
  EXPECT_EQ(Names(provider_).size(), before - 1);
}

TEST_F(Keys, ArePublicWhenImportedAsSuch) {
  const auto source = Create(L"Source", 1024);
  DWORD size = 0;
  Bytes blob(512);
  ASSERT_EQ(NCryptExportKey(source, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, blob.data(), Size(blob), &size, 0),
            ERROR_SUCCESS);
  std::wstring name = L"Imported";
  BCryptBuffer buffer{static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), NCRYPTBUFFER_PKCS_KEY_NAME, name.data()};
  NCryptBufferDesc parameters{NCRYPTBUFFER_VERSION, 1, &buffer};
  Handle key;
  ASSERT_EQ(NCryptImportKey(provider_, 0, BCRYPT_RSAPUBLIC_BLOB, &parameters, key.out(), blob.data(), size, 0),
            ERROR_SUCCESS);
  Bytes signature;
  if (IsStrict()) {
    // An import logs out at its end, and with that a strict module forgets the handles of private keys.
    EXPECT_EQ(Sign(source, Pattern(32), &signature), NTE_INTERNAL_ERROR);
    return;
  }
  ASSERT_EQ(Sign(source, Pattern(32), &signature), ERROR_SUCCESS);
  EXPECT_EQ(Verify(key, DigestInfo(Pattern(32)), signature), ERROR_SUCCESS);
  EXPECT_NE(Sign(key, Pattern(32), &signature), ERROR_SUCCESS);
}

TEST_F(Keys, WithoutANameLiveWithTheirSession) {
  const auto before = Names(provider_).size();
  const auto key = Create(nullptr, 1024);
  Bytes signature;
  ASSERT_EQ(Sign(key, Pattern(20), &signature), ERROR_SUCCESS);
  EXPECT_EQ(Verify(key, DigestInfo(Pattern(20)), signature), ERROR_SUCCESS);
  EXPECT_EQ(Names(provider_).size(), before);
}

// ---- A module that adapts nothing -----------------------------------------------------------------------------------

TEST(Unadapted, HasNoKeysForTheProvider) {
  SetReaders(kOneToken);
  const auto provider = Open();
  NCryptKeyName* name = nullptr;
  void* state = nullptr;
  EXPECT_EQ(NCryptEnumKeys(provider, nullptr, &name, &state, 0), NTE_INTERNAL_ERROR);
  NCRYPT_KEY_HANDLE key = 0;
  EXPECT_EQ(NCryptOpenKey(provider, &key, L"Key1", AT_KEYEXCHANGE, 0), NTE_BAD_KEYSET);
}

TEST(Unadapted, MakesNoKeysForTheProvider) {
  SetReaders("Norvale Reader 0 = workshop\n");
  const auto provider = Open();
  Handle key;
  ASSERT_EQ(NCryptCreatePersistedKey(provider, key.out(), L"RSA", L"Made", 0, 0), ERROR_SUCCESS);
  DialogRobot robot({EnterPin});
  // A generation that the token refuses still finishes the key, which then has no object on the token.
  EXPECT_EQ(NCryptFinalizeKey(key, 0), ERROR_SUCCESS);
  Bytes signature;
  EXPECT_EQ(Sign(key, Pattern(32), &signature), NTE_INVALID_PARAMETER);
  EXPECT_EQ(robot.Finish(), 1u);
}

}  // namespace
