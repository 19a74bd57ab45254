// The token module keldapkcs11.dll on a real SoftHSM token, called as a Windows program calls it. Run by soft_token.sh,
// which makes the tokens, lays the module beside this program and looks at the results from the Linux side.
//
// Its environment: KELDA_READERS (the reader file), KELDA_PIN, KELDA_OUT (a folder for results, as a Windows path),
// KELDA_STRICT (how strict the module is; the suites are named after it, SoftToken runs with "1" as well as without).
// The tests run in their order in one process; each leaves the token logged out and the reader file as it was.

#include <gtest/gtest.h>
#include <windows.h>

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "standins/replace_reader_file.h"

namespace {

using Bytes = std::vector<CK_BYTE>;

constexpr char kReaders[] = "Norvale Reader 0 = demo\nNorvale Reader 1 = victim\nNorvale Reader 2 =\n";

constexpr std::array<CK_BYTE, 19> kSha256Prefix = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                                   0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

using CountedLogin = CK_RV (*)(CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR*, CK_ULONG);

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : value;
}

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  std::copy(bytes.begin(), bytes.end(), std::ostreambuf_iterator<char>(file));
}

std::string Text(const CK_UTF8CHAR* text, std::size_t size) {
  return {text, text + size};
}

std::string Padded(std::string text, std::size_t size) {
  text.resize(size, ' ');
  return text;
}

class SoftToken : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (list_ != nullptr) return;
    const HMODULE module = LoadLibraryW(L"keldapkcs11.dll");
    ASSERT_NE(module, nullptr) << GetLastError();
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(reinterpret_cast<void*>(GetProcAddress(module, "C_GetFunctionList")));
    ASSERT_NE(getList, nullptr);
    ASSERT_EQ(getList(nullptr), CKR_ARGUMENTS_BAD);
    ASSERT_EQ(getList(&list_), CKR_OK);
    // Behind the 68 standard entries and six reserved ones.
    void* login = nullptr;
    std::memcpy(&login, reinterpret_cast<const char*>(list_) + sizeof(CK_VERSION) + 74 * sizeof(void*), sizeof(login));
    login_ = reinterpret_cast<CountedLogin>(login);
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, nullptr, &count), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(list_->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(list_->C_Initialize(nullptr), CKR_CRYPTOKI_ALREADY_INITIALIZED);
  }

  void SetUp() override {
    SetReaders(kReaders);
    session_ = Open(0);
  }

  void TearDown() override {
    SetReaders(kReaders);
    list_->C_Logout(session_);
    list_->C_CloseSession(session_);
  }

  // The Linux path in the variable is one of drive Z.
  static void SetReaders(const std::string& text) {
    ASSERT_TRUE(standins::ReplaceReaderFile("Z:" + Environment("KELDA_READERS"), text)) << GetLastError();
  }

  static CK_SESSION_HANDLE Open(CK_SLOT_ID slot) {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(list_->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
    return session;
  }

  static CK_RV Login(CK_SESSION_HANDLE session, std::string pin) {
    return login_(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), static_cast<CK_ULONG>(pin.size()));
  }

  void LogIn() const { ASSERT_EQ(Login(session_, Environment("KELDA_PIN")), CKR_OK); }

  static bool IsStrict() { return !Environment("KELDA_STRICT").empty() && Environment("KELDA_STRICT") != "0"; }

  std::vector<CK_OBJECT_HANDLE> Find(CK_OBJECT_CLASS objectClass, const std::string& id = {}) const {
    CK_BBOOL yes = CK_TRUE;
    std::string value = id;
    std::vector<CK_ATTRIBUTE> search{{CKA_TOKEN, &yes, 1}, {CKA_CLASS, &objectClass, sizeof(objectClass)}};
    if (!id.empty()) search.push_back({CKA_ID, value.data(), static_cast<CK_ULONG>(value.size())});
    EXPECT_EQ(list_->C_FindObjectsInit(session_, search.data(), static_cast<CK_ULONG>(search.size())), CKR_OK);
    CK_ULONG count = 0;
    EXPECT_EQ(list_->C_FindObjects(session_, nullptr, 1000, &count), CKR_OK);
    std::vector<CK_OBJECT_HANDLE> objects(count + 1);
    CK_ULONG found = 0;
    EXPECT_EQ(list_->C_FindObjects(session_, objects.data(), 1000, &found), CKR_OK);
    EXPECT_EQ(found, count);
    objects.resize(found);
    EXPECT_EQ(list_->C_FindObjects(session_, objects.data(), 1000, &found), CKR_OK);
    EXPECT_EQ(found, 0u);
    EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
    return objects;
  }

  CK_OBJECT_HANDLE FindOne(CK_OBJECT_CLASS objectClass, const std::string& id) const {
    const auto objects = Find(objectClass, id);
    EXPECT_EQ(objects.size(), 1u) << id;
    return objects.empty() ? 0 : objects[0];
  }

  Bytes Read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ATTRIBUTE attribute{type, nullptr, 0};
    EXPECT_EQ(list_->C_GetAttributeValue(session_, object, &attribute, 1), CKR_OK) << type;
    Bytes value(attribute.ulValueLen);
    attribute.pValue = value.data();
    EXPECT_EQ(list_->C_GetAttributeValue(session_, object, &attribute, 1), CKR_OK) << type;
    return value;
  }

  CK_RV Begin(CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE), CK_OBJECT_HANDLE key) const {
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    return init(session_, &mechanism, key);
  }

  Bytes Sign(CK_OBJECT_HANDLE key, Bytes data) const {
    EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_OK);
    Bytes signature(512);
    auto size = static_cast<CK_ULONG>(signature.size());
    EXPECT_EQ(list_->C_Sign(session_, data.data(), static_cast<CK_ULONG>(data.size()), signature.data(), &size),
              CKR_OK);
    signature.resize(size);
    return signature;
  }

  static inline CK_FUNCTION_LIST* list_ = nullptr;
  static inline CountedLogin login_ = nullptr;
  CK_SESSION_HANDLE session_ = 0;
};

class ForgivingToken : public SoftToken {};
class StrictToken : public SoftToken {};
class UnadaptedToken : public SoftToken {};

TEST_F(SoftToken, ReadersAreSlots) {
  CK_ULONG count = 0;
  ASSERT_EQ(list_->C_GetSlotList(CK_FALSE, nullptr, &count), CKR_OK);
  ASSERT_EQ(count, 3u);
  std::array<CK_SLOT_ID, 3> slots{};
  count = 2;
  EXPECT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(count, 3u);
  ASSERT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_OK);
  EXPECT_EQ(slots, (std::array<CK_SLOT_ID, 3>{0, 1, 2}));
  ASSERT_EQ(list_->C_GetSlotList(CK_TRUE, slots.data(), &count), CKR_OK);
  EXPECT_EQ(count, 2u);

  CK_SLOT_INFO info{};
  ASSERT_EQ(list_->C_GetSlotInfo(2, &info), CKR_OK);
  EXPECT_EQ(Text(info.slotDescription, 64), Padded("Norvale Reader 2", 64));
  EXPECT_EQ(info.flags, CKF_REMOVABLE_DEVICE | CKF_HW_SLOT);
  ASSERT_EQ(list_->C_GetSlotInfo(0, &info), CKR_OK);
  EXPECT_EQ(Text(info.slotDescription, 64), Padded("Norvale Reader 0", 64));
  EXPECT_EQ(info.flags, CKF_REMOVABLE_DEVICE | CKF_HW_SLOT | CKF_TOKEN_PRESENT);
  EXPECT_EQ(list_->C_GetSlotInfo(3, &info), CKR_SLOT_ID_INVALID);

  CK_TOKEN_INFO token{};
  EXPECT_EQ(list_->C_GetTokenInfo(2, &token), CKR_TOKEN_NOT_PRESENT);
  CK_SESSION_HANDLE session = 0;
  EXPECT_EQ(list_->C_OpenSession(2, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_TOKEN_NOT_PRESENT);
}

TEST_F(SoftToken, TokenTellsLabelAndSerial) {
  CK_TOKEN_INFO demo{};
  CK_TOKEN_INFO victim{};
  ASSERT_EQ(list_->C_GetTokenInfo(0, &demo), CKR_OK);
  ASSERT_EQ(list_->C_GetTokenInfo(1, &victim), CKR_OK);
  EXPECT_EQ(Text(demo.label, 32), Padded("demo", 32));
  EXPECT_EQ(Text(victim.label, 32), Padded("victim", 32));
  EXPECT_NE(Text(demo.serialNumber, 16), Text(victim.serialNumber, 16));
  EXPECT_NE(demo.flags & CKF_LOGIN_REQUIRED, 0u);
  EXPECT_EQ(demo.flags & (CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED), 0u);
  EXPECT_EQ(demo.ulMinPinLen, 4u);
}

TEST_F(SoftToken, TokensComeAndGo) {
  SetReaders("Norvale Reader 2 = demo\nNew reader\n");
  CK_ULONG count = 4;
  std::array<CK_SLOT_ID, 4> slots{};
  ASSERT_EQ(list_->C_GetSlotList(CK_FALSE, slots.data(), &count), CKR_OK);
  // A reader keeps its number; a new one gets a new number.
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(slots[0], 2u);
  EXPECT_EQ(slots[1], 3u);
  EXPECT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_DEVICE_REMOVED);
  EXPECT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_SESSION_HANDLE_INVALID);
  const auto moved = Open(2);
  EXPECT_EQ(list_->C_CloseSession(moved), CKR_OK);
  EXPECT_EQ(list_->C_CloseSession(moved), CKR_SESSION_HANDLE_INVALID);
}

TEST_F(SoftToken, CountsWrongPins) {
  const std::string pin = Environment("KELDA_PIN");
  EXPECT_EQ(Login(session_, "000000"), 2u);
  CK_TOKEN_INFO info{};
  ASSERT_EQ(list_->C_GetTokenInfo(0, &info), CKR_OK);
  EXPECT_NE(info.flags & CKF_USER_PIN_COUNT_LOW, 0u);
  EXPECT_EQ(Login(session_, "1"), 1u);
  ASSERT_EQ(list_->C_GetTokenInfo(0, &info), CKR_OK);
  EXPECT_NE(info.flags & CKF_USER_PIN_FINAL_TRY, 0u);
  EXPECT_EQ(login_(session_, CKU_SO, nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Login(session_ + 100, pin), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(Login(session_, pin), CKR_OK);
  EXPECT_EQ(Login(session_, "000000"), CKR_USER_ALREADY_LOGGED_IN);
  EXPECT_EQ(list_->C_Logout(session_), CKR_OK);
  EXPECT_EQ(list_->C_Logout(session_), CKR_USER_NOT_LOGGED_IN);
  // The right PIN has given all tries back.
  EXPECT_EQ(Login(session_, "000000"), 2u);
  EXPECT_EQ(Login(session_, pin), CKR_OK);
}

// The script gives "victim" four tries, uses up one in a process before this one, and looks for the lock afterwards.
TEST_F(SoftToken, LocksAtTheLastTry) {
  const auto victim = Open(1);
  EXPECT_EQ(Login(victim, "000000"), 2u);
  EXPECT_EQ(list_->C_Login(victim, CKU_USER, nullptr, 0), CKR_ARGUMENTS_BAD);
  std::string wrong = "000000";
  EXPECT_EQ(list_->C_Login(victim, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(wrong.data()), 6), CKR_PIN_INCORRECT);
  EXPECT_EQ(Login(victim, "000000"), CKR_PIN_LOCKED);
  EXPECT_EQ(Login(victim, Environment("KELDA_PIN")), CKR_PIN_LOCKED);
  CK_TOKEN_INFO info{};
  ASSERT_EQ(list_->C_GetTokenInfo(1, &info), CKR_OK);
  EXPECT_NE(info.flags & CKF_USER_PIN_LOCKED, 0u);
  EXPECT_EQ(list_->C_CloseSession(victim), CKR_OK);
}

// Run on its own, in a process before all others.
TEST_F(SoftToken, UsesOneTryOfFour) {
  const auto victim = Open(1);
  EXPECT_EQ(Login(victim, "000000"), 3u);
  EXPECT_EQ(list_->C_CloseSession(victim), CKR_OK);
}

// Run on its own, in a process after all others.
TEST_F(SoftToken, StaysLocked) {
  const auto victim = Open(1);
  EXPECT_EQ(Login(victim, Environment("KELDA_PIN")), CKR_PIN_LOCKED);
  EXPECT_EQ(list_->C_CloseSession(victim), CKR_OK);
}

TEST_F(ForgivingToken, ShowsPrivateKeysToEverybodyAndGuardsTheirUse) {
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  EXPECT_EQ(Read(key, CKA_ID), (Bytes{'K', 'e', 'y', '1'}));
  EXPECT_EQ(Read(key, CKA_LABEL), (Bytes{'K', 'e', 'y', '1'}));
  EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(Begin(list_->C_DecryptInit, key), CKR_USER_NOT_LOGGED_IN);
  EXPECT_EQ(list_->C_DestroyObject(session_, key), CKR_USER_NOT_LOGGED_IN);
  LogIn();
  // The handle is the same before, during and after a login.
  EXPECT_EQ(FindOne(CKO_PRIVATE_KEY, "Key1"), key);
  EXPECT_EQ(Sign(key, Bytes(20, 1)).size(), 256u);
  EXPECT_EQ(list_->C_Logout(session_), CKR_OK);
  EXPECT_EQ(FindOne(CKO_PRIVATE_KEY, "Key1"), key);
  EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_USER_NOT_LOGGED_IN);
  LogIn();
  EXPECT_EQ(Sign(key, Bytes(20, 1)).size(), 256u);
}

TEST_F(ForgivingToken, TellsTwinsApart) {
  // The script made two keys with the same identifier and label.
  const auto twins = Find(CKO_PRIVATE_KEY, "Twin");
  ASSERT_EQ(twins.size(), 2u);
  EXPECT_NE(twins[0], twins[1]);
  const auto first = Read(twins[0], CKA_MODULUS);
  EXPECT_NE(first, Read(twins[1], CKA_MODULUS));
  for (int i = 0; i < 3; ++i) {
    LogIn();
    EXPECT_EQ(Read(twins[0], CKA_MODULUS), first);
    EXPECT_EQ(list_->C_Logout(session_), CKR_OK);
    EXPECT_EQ(Read(twins[0], CKA_MODULUS), first);
  }
}

TEST_F(SoftToken, SearchesInSteps) {
  CK_OBJECT_CLASS publicKey = CKO_PUBLIC_KEY;
  CK_ATTRIBUTE search{CKA_CLASS, &publicKey, sizeof(publicKey)};
  const auto all = Find(CKO_PUBLIC_KEY);
  ASSERT_GE(all.size(), 3u);
  // In one order in every process: that of identifiers.
  std::vector<Bytes> identifiers;
  identifiers.reserve(all.size());
  for (const auto key : all)
    identifiers.push_back(Read(key, CKA_ID));
  EXPECT_TRUE(std::is_sorted(identifiers.begin(), identifiers.end()));
  CK_OBJECT_HANDLE object = 0;
  CK_ULONG count = 0;
  EXPECT_EQ(list_->C_FindObjects(session_, &object, 1, &count), CKR_OPERATION_NOT_INITIALIZED);
  ASSERT_EQ(list_->C_FindObjectsInit(session_, &search, 1), CKR_OK);
  EXPECT_EQ(list_->C_FindObjectsInit(session_, &search, 1), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(list_->C_FindObjects(session_, nullptr, 1000, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_FindObjects(session_, nullptr, 2, &count), CKR_OK);
  EXPECT_EQ(count, 2u);
  for (const auto expected : all) {
    EXPECT_EQ(list_->C_FindObjects(session_, &object, 1, &count), CKR_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(object, expected);
  }
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_TRUE(Find(CKO_PUBLIC_KEY, "nobody").empty());
}

TEST_F(SoftToken, KeepsTheRulesForAttributeLengths) {
  const auto key = FindOne(CKO_PUBLIC_KEY, "Key1");
  std::array<CK_BYTE, 200> id{};
  std::array<CK_BYTE, 200> label{};
  CK_ULONG bits = 0;
  std::array<CK_ATTRIBUTE, 3> read{
      {{CKA_ID, id.data(), 200}, {CKA_LABEL, label.data(), 200}, {CKA_MODULUS_BITS, &bits, 4}}};
  ASSERT_EQ(list_->C_GetAttributeValue(session_, key, read.data(), 3), CKR_OK);
  EXPECT_EQ(read[0].ulValueLen, 4u);
  EXPECT_EQ(Text(id.data(), 4), "Key1");
  EXPECT_EQ(read[1].ulValueLen, 4u);
  EXPECT_EQ(read[2].ulValueLen, 4u);
  EXPECT_EQ(bits, 2048u);

  read = {{{CKA_ID, nullptr, 0}, {CKA_CLASS, nullptr, 0}, {CKA_MODULUS_BITS, nullptr, 0}}};
  ASSERT_EQ(list_->C_GetAttributeValue(session_, key, read.data(), 3), CKR_OK);
  EXPECT_EQ(read[0].ulValueLen, 4u);
  EXPECT_EQ(read[1].ulValueLen, 4u);
  EXPECT_EQ(read[2].ulValueLen, 4u);

  // Too little room, a value of another class, and a good one beside them.
  bits = 0;
  read = {{{CKA_ID, id.data(), 3}, {CKA_CERTIFICATE_TYPE, nullptr, 0}, {CKA_MODULUS_BITS, &bits, 4}}};
  EXPECT_NE(list_->C_GetAttributeValue(session_, key, read.data(), 3), CKR_OK);
  EXPECT_EQ(read[0].ulValueLen, 0xFFFFFFFFu);
  EXPECT_EQ(read[1].ulValueLen, 0xFFFFFFFFu);
  EXPECT_EQ(read[2].ulValueLen, 4u);
  EXPECT_EQ(bits, 2048u);
  read[0] = {CKA_MODULUS_BITS, &bits, 3};
  EXPECT_EQ(list_->C_GetAttributeValue(session_, key, read.data(), 1), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(read[0].ulValueLen, 0xFFFFFFFFu);

  // The length of private keys is told as well.
  if (IsStrict()) LogIn();
  const auto privateKey = FindOne(CKO_PRIVATE_KEY, "Key1");
  for (const CK_ULONG room : {CK_ULONG{4}, CK_ULONG{8}}) {
    std::array<CK_ULONG, 2> value{};
    read[0] = {CKA_MODULUS_BITS, value.data(), room};
    ASSERT_EQ(list_->C_GetAttributeValue(session_, privateKey, read.data(), 1), CKR_OK);
    EXPECT_EQ(read[0].ulValueLen, 4u);
    EXPECT_EQ(value, (std::array<CK_ULONG, 2>{2048, 0}));
  }
  read = {{{CKA_ID, id.data(), 200}, {CKA_MODULUS_BITS, nullptr, 0}, {CKA_CERTIFICATE_TYPE, nullptr, 0}}};
  EXPECT_EQ(list_->C_GetAttributeValue(session_, privateKey, read.data(), 2), CKR_OK);
  EXPECT_EQ(read[1].ulValueLen, 4u);
  EXPECT_EQ(list_->C_GetAttributeValue(session_, privateKey, read.data(), 3), CKR_ATTRIBUTE_TYPE_INVALID);
  EXPECT_EQ(read[1].ulValueLen, 4u);
  EXPECT_EQ(read[2].ulValueLen, 0xFFFFFFFFu);
  std::array<CK_BYTE, 4> narrow = {9, 9, 9, 9};
  read[0] = {CKA_MODULUS_BITS, narrow.data(), 3};
  EXPECT_EQ(list_->C_GetAttributeValue(session_, privateKey, read.data(), 1), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(read[0].ulValueLen, 0xFFFFFFFFu);
  EXPECT_EQ(narrow, (std::array<CK_BYTE, 4>{9, 9, 9, 9}));

  if (!IsStrict()) LogIn();
  read[0] = {CKA_PRIVATE_EXPONENT, nullptr, 0};
  EXPECT_EQ(list_->C_GetAttributeValue(session_, privateKey, read.data(), 1), CKR_ATTRIBUTE_SENSITIVE);
  EXPECT_EQ(read[0].ulValueLen, 0xFFFFFFFFu);
  EXPECT_EQ(list_->C_GetAttributeValue(session_, 0, read.data(), 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(SoftToken, SignsWhatLinuxVerifies) {
  LogIn();
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  // The digest of nothing, wrapped; the script verifies the signature over an empty file.
  Bytes digestInfo(kSha256Prefix.begin(), kSha256Prefix.end());
  const Bytes digest = {0xe3, 0xb0, 0xc4, 0x42, 0x98, 0xfc, 0x1c, 0x14, 0x9a, 0xfb, 0xf4, 0xc8, 0x99, 0x6f, 0xb9, 0x24,
                        0x27, 0xae, 0x41, 0xe4, 0x64, 0x9b, 0x93, 0x4c, 0xa4, 0x95, 0x99, 0x1b, 0x78, 0x52, 0xb8, 0x55};
  digestInfo.insert(digestInfo.end(), digest.begin(), digest.end());
  auto signature = Sign(key, digestInfo);
  WriteFile(Environment("KELDA_OUT") + "\\empty.sig", signature);

  const auto publicKey = FindOne(CKO_PUBLIC_KEY, "Key1");
  const auto size = static_cast<CK_ULONG>(signature.size());
  const auto dataSize = static_cast<CK_ULONG>(digestInfo.size());
  ASSERT_EQ(Begin(list_->C_VerifyInit, publicKey), CKR_OK);
  EXPECT_EQ(list_->C_Verify(session_, digestInfo.data(), dataSize, signature.data(), size), CKR_OK);
  ASSERT_EQ(Begin(list_->C_VerifyInit, publicKey), CKR_OK);
  signature[0] ^= 1;
  EXPECT_EQ(list_->C_Verify(session_, digestInfo.data(), dataSize, signature.data(), size), CKR_SIGNATURE_INVALID);
  EXPECT_EQ(list_->C_Verify(session_, digestInfo.data(), dataSize, signature.data(), size),
            CKR_OPERATION_NOT_INITIALIZED);
}

TEST_F(ForgivingToken, ANewOperationReplacesAnUnfinishedOne) {
  LogIn();
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  const auto publicKey = FindOne(CKO_PUBLIC_KEY, "Key1");
  Bytes data(20, 7);
  Bytes output(256);
  CK_ULONG size = 0;
  // Size queries and short buffers leave the operation open...
  ASSERT_EQ(Begin(list_->C_SignInit, key), CKR_OK);
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, nullptr, &size), CKR_OK);
  EXPECT_EQ(size, 256u);
  size = 255;
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, output.data(), &size), CKR_BUFFER_TOO_SMALL);
  EXPECT_EQ(size, 256u);
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, output.data(), &size), CKR_OK);
  // ...and are given up for the next one, of whatever kind.
  const auto init = {list_->C_SignInit, list_->C_DecryptInit, list_->C_SignInit};
  for (const auto begin : init)
    ASSERT_EQ(Begin(begin, key), CKR_OK);
  // Meanwhile the token can be searched and read.
  ASSERT_EQ(Begin(list_->C_EncryptInit, publicKey), CKR_OK);
  EXPECT_EQ(FindOne(CKO_PRIVATE_KEY, "Key1"), key);
  EXPECT_EQ(Read(key, CKA_LABEL).size(), 4u);
  EXPECT_EQ(list_->C_Encrypt(session_, data.data(), 20, nullptr, &size), CKR_OK);
  ASSERT_EQ(Begin(list_->C_VerifyInit, publicKey), CKR_OK);
  ASSERT_EQ(Begin(list_->C_EncryptInit, publicKey), CKR_OK);
  ASSERT_EQ(Begin(list_->C_DecryptInit, key), CKR_OK);
  EXPECT_EQ(list_->C_Decrypt(session_, output.data(), 256, nullptr, &size), CKR_OK);
  EXPECT_EQ(Sign(key, data).size(), 256u);
}

TEST_F(SoftToken, EncryptsAndDecrypts) {
  LogIn();
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  ASSERT_EQ(Begin(list_->C_EncryptInit, FindOne(CKO_PUBLIC_KEY, "Key1")), CKR_OK);
  Bytes plain = {'s', 'e', 'c', 'r', 'e', 't'};
  Bytes cipher(256);
  CK_ULONG size = 256;
  ASSERT_EQ(list_->C_Encrypt(session_, plain.data(), 6, cipher.data(), &size), CKR_OK);
  ASSERT_EQ(size, 256u);
  Bytes again(256);
  ASSERT_EQ(Begin(list_->C_DecryptInit, key), CKR_OK);
  ASSERT_EQ(list_->C_Decrypt(session_, cipher.data(), 256, again.data(), &size), CKR_OK);
  again.resize(size);
  EXPECT_EQ(again, plain);
  CK_MECHANISM withParameter{CKM_RSA_PKCS, plain.data(), 1};
  EXPECT_EQ(list_->C_DecryptInit(session_, &withParameter, key), CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(Begin(list_->C_DecryptInit, key + 1000), CKR_KEY_HANDLE_INVALID);
}

// The templates are those of a program that lets the module fill in and ignore what the token knows better.
TEST_F(SoftToken, GeneratesAPairFromAGenerousTemplate) {
  LogIn();
  CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
  CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
  CK_KEY_TYPE type = CKK_RSA;
  CK_BBOOL yes = CK_TRUE;
  CK_BBOOL no = CK_FALSE;
  CK_ULONG bits = 1024;
  std::array<CK_BYTE, 3> exponent = {1, 0, 1};
  std::string id = "Made here, 20 bytes.";
  std::string label = "Made";
  std::vector<CK_ATTRIBUTE> publicValues{
      {CKA_CLASS, &publicClass, 4}, {CKA_MODIFIABLE, &yes, 1},    {CKA_KEY_TYPE, &type, 4},
      {CKA_DERIVE, &no, 1},         {CKA_LOCAL, &yes, 1},         {CKA_TOKEN, &yes, 1},
      {CKA_MODULUS, nullptr, 128},  {CKA_MODULUS_BITS, &bits, 4}, {CKA_PUBLIC_EXPONENT, exponent.data(), 3},
      {CKA_ENCRYPT, &yes, 1},       {CKA_VERIFY, &yes, 1},        {CKA_VERIFY_RECOVER, &no, 1},
      {CKA_WRAP, &no, 1},           {CKA_ID, id.data(), 20},      {CKA_LABEL, label.data(), 4}};
  std::vector<CK_ATTRIBUTE> privateValues{
      {CKA_CLASS, &privateClass, 4}, {CKA_MODIFIABLE, &yes, 1},  {CKA_PRIVATE, &yes, 1}, {CKA_TOKEN, &yes, 1},
      {CKA_SENSITIVE, &no, 1},       {CKA_DERIVE, &no, 1},       {CKA_LOCAL, &yes, 1},   {CKA_DECRYPT, &yes, 1},
      {CKA_SIGN, &yes, 1},           {CKA_SIGN_RECOVER, &no, 1}, {CKA_UNWRAP, &no, 1},   {CKA_ID, id.data(), 20},
      {CKA_LABEL, label.data(), 4}};
  CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = 0;
  CK_OBJECT_HANDLE privateKey = 0;
  ASSERT_EQ(list_->C_GenerateKeyPair(session_, &mechanism, publicValues.data(), 15, privateValues.data(), 13,
                                     &publicKey, &privateKey),
            CKR_OK);
  EXPECT_EQ(FindOne(CKO_PUBLIC_KEY, id), publicKey);
  EXPECT_EQ(FindOne(CKO_PRIVATE_KEY, id), privateKey);
  EXPECT_EQ(Read(publicKey, CKA_MODULUS).size(), 128u);
  EXPECT_EQ(Sign(privateKey, Bytes(35, 3)).size(), 128u);
  EXPECT_EQ(list_->C_Logout(session_), CKR_OK);
  // Public keys are everybody's to see.
  EXPECT_EQ(FindOne(CKO_PUBLIC_KEY, id), publicKey);
}

TEST_F(SoftToken, CreatesPublicKeysAndCertificatesFromGenerousTemplates) {
  LogIn();
  const auto source = FindOne(CKO_PUBLIC_KEY, "Key1");
  auto modulus = Read(source, CKA_MODULUS);
  CK_OBJECT_CLASS keyClass = CKO_PUBLIC_KEY;
  CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
  CK_BBOOL yes = CK_TRUE;
  CK_BBOOL no = CK_FALSE;
  CK_ULONG bits = 2048;
  std::array<CK_BYTE, 4> exponent = {1, 0, 1, 0};
  Bytes id(128, 0);
  std::fill(id.begin(), id.begin() + 64, CK_BYTE{0x5A});
  std::string label = "Copy";
  std::vector<CK_ATTRIBUTE> values{{CKA_CLASS, &keyClass, 4},
                                   {CKA_TOKEN, &yes, 1},
                                   {CKA_PRIVATE, &no, 1},
                                   {CKA_MODIFIABLE, &yes, 1},
                                   {CKA_EXTRACTABLE, &yes, 1},
                                   {CKA_ID, id.data(), 128},
                                   {CKA_PUBLIC_EXPONENT, exponent.data(), 4},
                                   {CKA_MODULUS, modulus.data(), 256},
                                   {CKA_MODULUS_BITS, &bits, 4},
                                   {CKA_ENCRYPT, &yes, 1},
                                   {CKA_VERIFY, &yes, 1},
                                   {CKA_LABEL, label.data(), 4}};
  CK_OBJECT_HANDLE key = 0;
  ASSERT_EQ(list_->C_CreateObject(session_, values.data(), 12, &key), CKR_OK);
  EXPECT_EQ(Read(key, CKA_ID), id);
  EXPECT_EQ(Read(key, CKA_PUBLIC_EXPONENT), (Bytes{1, 0, 1}));

  std::ifstream file(Environment("KELDA_OUT") + "\\certificate.der", std::ios::binary);
  Bytes encoded((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(encoded.empty());
  Bytes name = {0x30, 0x00, 0x00};
  Bytes serial = {0x01};
  std::string certificateId = "Key1";
  std::vector<CK_ATTRIBUTE> certificate{{CKA_CLASS, &certificateClass, 4},
                                        {CKA_TOKEN, &yes, 1},
                                        {CKA_LABEL, label.data(), 4},
                                        {CKA_VALUE, encoded.data(), static_cast<CK_ULONG>(encoded.size())},
                                        {CKA_PRIVATE, &no, 1},
                                        {CKA_MODIFIABLE, &yes, 1},
                                        {CKA_EXTRACTABLE, &yes, 1},
                                        {CKA_ID, certificateId.data(), 4},
                                        {CKA_OBJECT_ID, certificateId.data(), 4},
                                        {CKA_ISSUER, name.data(), 3},
                                        {CKA_SERIAL_NUMBER, serial.data(), 1},
                                        {CKA_SUBJECT, name.data(), 3}};
  CK_OBJECT_HANDLE object = 0;
  ASSERT_EQ(list_->C_CreateObject(session_, certificate.data(), 12, &object), CKR_OK);
  EXPECT_EQ(FindOne(CKO_CERTIFICATE, "Key1"), object);
  EXPECT_EQ(Read(object, CKA_VALUE), encoded);
  // A number of the wrong length is the caller's mistake.
  values[0].ulValueLen = 3;
  EXPECT_EQ(list_->C_CreateObject(session_, values.data(), 12, &key), CKR_ATTRIBUTE_VALUE_INVALID);
}

TEST_F(SoftToken, DestroysObjects) {
  LogIn();
  const auto publicKey = FindOne(CKO_PUBLIC_KEY, "Doomed");
  const auto privateKey = FindOne(CKO_PRIVATE_KEY, "Doomed");
  EXPECT_EQ(list_->C_DestroyObject(session_, privateKey), CKR_OK);
  EXPECT_EQ(list_->C_DestroyObject(session_, publicKey), CKR_OK);
  EXPECT_EQ(list_->C_DestroyObject(session_, privateKey), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(list_->C_DestroyObject(session_, 0), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_TRUE(Find(CKO_PUBLIC_KEY, "Doomed").empty());
  EXPECT_TRUE(Find(CKO_PRIVATE_KEY, "Doomed").empty());
}

TEST_F(SoftToken, DrawsRandomBytesAndRefusesTheRest) {
  Bytes first(64);
  Bytes second(64);
  EXPECT_EQ(list_->C_GenerateRandom(session_, first.data(), 64), CKR_OK);
  EXPECT_EQ(list_->C_GenerateRandom(session_, second.data(), 64), CKR_OK);
  EXPECT_NE(first, second);
  EXPECT_EQ(list_->C_GenerateRandom(0, first.data(), 64), CKR_SESSION_HANDLE_INVALID);
  EXPECT_EQ(list_->C_SeedRandom(session_, first.data(), 64), CKR_FUNCTION_NOT_SUPPORTED);
  EXPECT_EQ(list_->C_WaitForSlotEvent(0, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  CK_SESSION_INFO info{};
  ASSERT_EQ(list_->C_GetSessionInfo(session_, &info), CKR_OK);
  EXPECT_EQ(info.slotID, 0u);
  EXPECT_EQ(info.state, CKS_RW_PUBLIC_SESSION);
}

// ---- What a strict module refuses -----------------------------------------------------------------------------------

TEST_F(StrictToken, AnOpenOperationKeepsOthersOut) {
  LogIn();
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  const auto publicKey = FindOne(CKO_PUBLIC_KEY, "Key1");
  Bytes data(20, 7);
  Bytes output(256);
  CK_ULONG size = 0;
  const auto expectClosedDoors = [&] {
    EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(list_->C_DecryptInit, key), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(list_->C_VerifyInit, publicKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(list_->C_EncryptInit, publicKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_OPERATION_ACTIVE);
  };
  ASSERT_EQ(Begin(list_->C_SignInit, key), CKR_OK);
  expectClosedDoors();
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, nullptr, &size), CKR_OK);
  EXPECT_EQ(size, 256u);
  expectClosedDoors();
  size = 255;
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, output.data(), &size), CKR_BUFFER_TOO_SMALL);
  expectClosedDoors();
  // Another session has its own operations.
  const auto other = Open(0);
  CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(list_->C_SignInit(other, &mechanism, key), CKR_OK);
  EXPECT_EQ(list_->C_CloseSession(other), CKR_OK);
  // The operation that is open goes on, and its end opens the doors.
  EXPECT_EQ(list_->C_Decrypt(session_, output.data(), 256, output.data(), &size), CKR_OPERATION_NOT_INITIALIZED);
  EXPECT_EQ(list_->C_Sign(session_, data.data(), 20, output.data(), &size), CKR_OK);
  EXPECT_EQ(Sign(key, data), output);
  // So does a failure.
  ASSERT_EQ(Begin(list_->C_SignInit, key), CKR_OK);
  EXPECT_EQ(list_->C_Sign(session_, nullptr, 20, output.data(), &size), CKR_ARGUMENTS_BAD);
  ASSERT_EQ(Begin(list_->C_SignInit, key), CKR_OK);
  EXPECT_EQ(list_->C_Sign(session_, output.data(), 246, output.data(), &size), CKR_DATA_LEN_RANGE);
  ASSERT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
}

TEST_F(StrictToken, HidesPrivateObjectsWhileNobodyIsLoggedIn) {
  EXPECT_TRUE(Find(CKO_PRIVATE_KEY).empty());
  EXPECT_FALSE(Find(CKO_PUBLIC_KEY).empty());
  LogIn();
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  EXPECT_EQ(Sign(key, Bytes(20, 1)).size(), 256u);
  EXPECT_EQ(list_->C_Logout(session_), CKR_OK);
  EXPECT_TRUE(Find(CKO_PRIVATE_KEY).empty());
  // Its handle stays void, whoever logs in.
  EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(list_->C_DestroyObject(session_, key), CKR_OBJECT_HANDLE_INVALID);
  LogIn();
  EXPECT_EQ(Begin(list_->C_SignInit, key), CKR_KEY_HANDLE_INVALID);
  const auto again = FindOne(CKO_PRIVATE_KEY, "Key1");
  EXPECT_NE(again, key);
  EXPECT_EQ(Sign(again, Bytes(20, 1)).size(), 256u);
  // The token's last session takes the login with it.
  EXPECT_EQ(list_->C_CloseSession(session_), CKR_OK);
  session_ = Open(0);
  EXPECT_TRUE(Find(CKO_PRIVATE_KEY).empty());
  LogIn();
  EXPECT_EQ(Begin(list_->C_SignInit, again), CKR_KEY_HANDLE_INVALID);
}

TEST_F(StrictToken, RefusesASearchForNothing) {
  CK_OBJECT_HANDLE object = 0;
  CK_ULONG count = 77;
  ASSERT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(list_->C_FindObjects(session_, &object, 0, &count), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(list_->C_FindObjects(session_, &object, 1, &count), CKR_OK);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
}

TEST_F(StrictToken, RefusesWrongLengthsAndUnknownMechanisms) {
  LogIn();
  CK_ULONG yes = CK_TRUE;
  CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
  for (CK_ATTRIBUTE bad : {CK_ATTRIBUTE{CKA_TOKEN, &yes, 4}, CK_ATTRIBUTE{CKA_TOKEN, nullptr, 0},
                           CK_ATTRIBUTE{CKA_CLASS, &publicClass, 3}, CK_ATTRIBUTE{CKA_CLASS, &publicClass, 0}}) {
    EXPECT_EQ(list_->C_FindObjectsInit(session_, &bad, 1), CKR_ATTRIBUTE_VALUE_INVALID) << bad.type;
    CK_OBJECT_HANDLE object = 0;
    EXPECT_EQ(list_->C_CreateObject(session_, &bad, 1, &object), CKR_ATTRIBUTE_VALUE_INVALID) << bad.type;
  }
  const auto key = FindOne(CKO_PRIVATE_KEY, "Key1");
  CK_MECHANISM unknown{0x80000001, nullptr, 0};
  EXPECT_EQ(list_->C_SignInit(session_, &unknown, key), CKR_MECHANISM_INVALID);
  EXPECT_EQ(list_->C_SignInit(session_, nullptr, key), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Sign(key, Bytes(20, 1)).size(), 256u);
}

// ---- What a module that adapts nothing refuses
// -----------------------------------------------------------------------

TEST_F(UnadaptedToken, DoesNotCountWithoutAnArray) {
  CK_ULONG count = 0;
  ASSERT_EQ(list_->C_FindObjectsInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(list_->C_FindObjects(session_, nullptr, 1000, &count), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
}

TEST_F(UnadaptedToken, DoesNotTellTheLengthOfPrivateKeys) {
  LogIn();
  CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE search{CKA_CLASS, &privateClass, sizeof(privateClass)};
  CK_OBJECT_HANDLE key = 0;
  CK_ULONG count = 0;
  ASSERT_EQ(list_->C_FindObjectsInit(session_, &search, 1), CKR_OK);
  ASSERT_EQ(list_->C_FindObjects(session_, &key, 1, &count), CKR_OK);
  EXPECT_EQ(list_->C_FindObjectsFinal(session_), CKR_OK);
  ASSERT_EQ(count, 1u);
  CK_ULONG bits = 0;
  CK_ATTRIBUTE read{CKA_MODULUS_BITS, &bits, sizeof(bits)};
  EXPECT_EQ(list_->C_GetAttributeValue(session_, key, &read, 1), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(UnadaptedToken, TakesNoAttributeThatIsTheTokensToSet) {
  LogIn();
  CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
  CK_KEY_TYPE type = CKK_RSA;
  CK_BBOOL yes = CK_TRUE;
  CK_ULONG bits = 1024;
  std::array<CK_BYTE, 128> modulus{0x80};
  std::array<CK_BYTE, 3> exponent = {1, 0, 1};
  CK_MECHANISM mechanism{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicKey = 0;
  CK_OBJECT_HANDLE privateKey = 0;
  for (const CK_ATTRIBUTE& extra : {CK_ATTRIBUTE{CKA_LOCAL, &yes, 1}, CK_ATTRIBUTE{CKA_MODULUS, nullptr, 128}}) {
    std::array<CK_ATTRIBUTE, 3> values{
        {{CKA_MODULUS_BITS, &bits, 4}, {CKA_PUBLIC_EXPONENT, exponent.data(), 3}, extra}};
    EXPECT_NE(list_->C_GenerateKeyPair(session_, &mechanism, values.data(), 3, nullptr, 0, &publicKey, &privateKey),
              CKR_OK)
        << extra.type;
    EXPECT_EQ(list_->C_GenerateKeyPair(session_, &mechanism, values.data(), 2, nullptr, 0, &publicKey, &privateKey),
              CKR_OK);
  }
  std::array<CK_ATTRIBUTE, 5> values{{{CKA_CLASS, &publicClass, 4},
                                      {CKA_MODULUS, modulus.data(), 128},
                                      {CKA_PUBLIC_EXPONENT, exponent.data(), 3},
                                      {CKA_KEY_TYPE, &type, 4},
                                      {CKA_EXTRACTABLE, &yes, 1}}};
  EXPECT_NE(list_->C_CreateObject(session_, values.data(), 5, &publicKey), CKR_OK);
  EXPECT_EQ(list_->C_CreateObject(session_, values.data(), 4, &publicKey), CKR_OK);
  EXPECT_NE(list_->C_CreateObject(session_, values.data(), 3, &publicKey), CKR_OK);
}

}  // namespace
