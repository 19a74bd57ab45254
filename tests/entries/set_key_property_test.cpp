// SetKeyProperty: what may be set and when, the certificate beside the key, and the window that owns the PIN dialog.
#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "kit/certificate.h"
#include "kit/key_entry.h"

#include <wincrypt.h>

namespace {

using fake::Ascii;
using fake::Bytes;
using fake::HexOf;
using kit::Frame;
using kit::Hex32;
using kit::Join;
using kit::Line;
using kit::Narrow;
using kit::Number;
using kit::Pointer32;

class SetKeyPropertyTest : public NewKeyTest {
 protected:
  SECURITY_STATUS Set(const wchar_t* name, Bytes input, DWORD flags = 0) {
    const auto size = static_cast<DWORD>(input.size());
    input.push_back(0);  // so that the address of an empty input is not null
    return SetRaw(name, input.data(), size, flags);
  }
  SECURITY_STATUS SetRaw(const wchar_t* name, BYTE* input, DWORD size, DWORD flags = 0) {
    input_ = input;
    size_ = size;
    flags_ = flags;
    return ksp().SetKeyProperty(provider_, key_, name, input, size, flags);
  }
  SECURITY_STATUS SetNumber(const wchar_t* name, DWORD number, DWORD flags = 0) {
    return Set(name, fake::Ulong(number), flags);
  }
  static Bytes Text(const std::wstring& text) { return kit::WideBytes(text, false); }

  std::vector<Line> Lines(const std::string& name, const std::vector<Line>& body, LONG status) const {
    return Frame(
        "KELDAKSPSetKeyProperty",
        Join({{Hex32("hProvider   : ", provider_), Hex32("hKey        : ", key_), "pszProperty : " + name,
               Pointer32("pbInput     : ", input_), Hex32("cbInput     : ", size_), Hex32("dwFlags     : ", flags_)},
              body}),
        status);
  }

  static constexpr const wchar_t* kHandled[] = {
      L"Key Usage", L"Length", L"Name", L"SmartCardKeyCertificate", L"UI Policy", L"Export Policy", L"HWND Handle"};

  BYTE* input_ = nullptr;
  DWORD size_ = 0;
  DWORD flags_ = 0;
};

// ---- numbers

TEST_F(SetKeyPropertyTest, KeyUsageIsStoredUnchecked) {
  for (const DWORD usage : {DWORD{0}, DWORD{1}, DWORD{2}, DWORD{0x00FFFFFF}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(SetNumber(L"Key Usage", usage), 0);
    EXPECT_EQ(record().dwKeyUsagePolicy, usage);
    ExpectLines(Lines("Key Usage", {"dwProperty = NCRYPT_KEY_USAGE_PROPERTY"}, 0));
  }
  ExpectCalls({});
}

TEST_F(SetKeyPropertyTest, NumbersHaveFourBytes) {
  const struct {
    const wchar_t* name;
    const char* line;
  } properties[] = {{L"Key Usage", "dwProperty = NCRYPT_KEY_USAGE_PROPERTY"},
                    {L"Length", "dwProperty = NCRYPT_LENGTH_PROPERTY"}};
  for (const auto& property : properties) {
    for (const std::size_t size : {0U, 1U, 3U, 5U, 8U}) {
      // The length is looked at before the state of the key.
      for (const DWORD finished : {DWORD{0}, DWORD{1}}) {
        record().fFinished = finished;
        EXPECT_EQ(Set(property.name, Bytes(size, 4)), NTE_BAD_DATA);
        ExpectLines(Lines(Narrow(property.name), {property.line, "cbInput != sizeof(DWORD)"}, NTE_BAD_DATA));
      }
    }
    BYTE small[4] = {};
    EXPECT_EQ(SetRaw(property.name, small, 0xFFFFFFFF), NTE_BAD_DATA);
    record().fFinished = 1;
    Forget();
    EXPECT_EQ(SetNumber(property.name, 1024), NTE_BAD_KEY_STATE);
    ExpectLines(Lines(Narrow(property.name), {property.line, "pKey->fFinished == TRUE"}, NTE_BAD_KEY_STATE));
    // Also a length that would be refused otherwise.
    EXPECT_EQ(SetNumber(property.name, 1000), NTE_BAD_KEY_STATE);
    record().fFinished = 0;
    Forget();
  }
  EXPECT_EQ(record().dwKeyUsagePolicy, 3u);
  EXPECT_EQ(record().dwKeyBitLength, 2048u);
}

TEST_F(SetKeyPropertyTest, LengthsFrom512To4096InStepsOf512) {
  for (DWORD length = 512; length <= 4096; length += 512) {
    EXPECT_EQ(SetNumber(L"Length", length), 0) << length;
    EXPECT_EQ(record().dwKeyBitLength, length);
    ExpectLines(Lines("Length", {"dwProperty = NCRYPT_LENGTH_PROPERTY"}, 0));
  }
  for (const DWORD length :
       {DWORD{0}, DWORD{1}, DWORD{256}, DWORD{511}, DWORD{513}, DWORD{768}, DWORD{1000}, DWORD{1023}, DWORD{1025},
        DWORD{4095}, DWORD{4097}, DWORD{4608}, DWORD{8192}, DWORD{0x80000000}, DWORD{0xFFFFFE00}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(SetNumber(L"Length", length), NTE_NOT_SUPPORTED) << length;
    EXPECT_EQ(record().dwKeyBitLength, 4096u);
    ExpectLines(
        Lines("Length", {"dwProperty = NCRYPT_LENGTH_PROPERTY", "specified length is invalid"}, NTE_NOT_SUPPORTED));
  }
}

TEST_F(SetKeyPropertyTest, LengthIsReadByteByByteWhereverItLies) {
  BYTE shifted[5] = {0xFF, 0x00, 0x06, 0x00, 0x00};
  EXPECT_EQ(SetRaw(L"Length", shifted + 1, 4), 0);
  EXPECT_EQ(record().dwKeyBitLength, 1536u);
}

TEST_F(SetKeyPropertyTest, KeyUsageLeavesItsNeighbourInTheRecord) {
  BYTE input[5] = {0x01, 0x00, 0x00, 0x00, 0xFF};
  kit::KeyRecord expected = record();
  expected.dwKeyUsagePolicy = 1;
  EXPECT_EQ(SetRaw(L"Key Usage", input, 4), 0);
  EXPECT_EQ(std::memcmp(&expected, &record(), sizeof expected), 0);
}

TEST_F(SetKeyPropertyTest, LengthOfAFinishedKeyStays) {
  token().AddKeyPair(Ascii("Key1"), "", 1024);
  key_ = Open(L"Key1");
  EXPECT_EQ(SetNumber(L"Length", 2048), NTE_BAD_KEY_STATE);
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
  EXPECT_EQ(SetNumber(L"Key Usage", 1), NTE_BAD_KEY_STATE);
  EXPECT_EQ(record().dwKeyUsagePolicy, 3u);
}

// ---- name

TEST_F(SetKeyPropertyTest, NameIsReplaced) {
  const void* old = record().pszKeyName;
  const kit::MemoryWatch watch;
  EXPECT_EQ(Set(L"Name", Text(L"Other")), 0);
  EXPECT_STREQ(record().pszKeyName, L"Other");
  EXPECT_EQ(record().cbKeyName, 5u) << "here the terminator is not counted";
  EXPECT_TRUE(WipedAndFreed(watch, old, sizeof L"Key1"));
  ExpectLines(Lines(
      "Name", {"dwProperty = NCRYPT_NAME_PROPERTY", "pKey->pszKeyName = Other", Number("pKey->cbKeyName = ", 5)}, 0));
  ExpectCalls({});
}

TEST_F(SetKeyPropertyTest, TerminatorInTheInputIsNotCountedEither) {
  EXPECT_EQ(Set(L"Name", Text(std::wstring(L"Other\0", 6))), 0);
  EXPECT_STREQ(record().pszKeyName, L"Other");
  EXPECT_EQ(record().cbKeyName, 5u);
  EXPECT_EQ(Set(L"Name", Text(std::wstring(L"AB\0CD", 5))), 0);
  EXPECT_STREQ(record().pszKeyName, L"AB");
  EXPECT_EQ(record().cbKeyName, 2u);
}

TEST_F(SetKeyPropertyTest, NothingBehindATerminatorIsLeftInReleasedMemory) {
  const std::wstring input(L"AB\0secret", 9);
  const auto renamed = [&] {
    EXPECT_EQ(Set(L"Name", Text(input)), 0);
    return static_cast<const void*>(record().pszKeyName);
  };
  const kit::MemoryWatch watch;
  const void* const first = renamed();
  EXPECT_EQ(Set(L"Name", Text(L"Other")), 0);
  EXPECT_TRUE(WipedAndFreed(watch, first, (input.size() + 1) * sizeof(wchar_t)));
  const void* const second = renamed();
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  EXPECT_TRUE(WipedAndFreed(watch, second, (input.size() + 1) * sizeof(wchar_t)));
}

TEST_F(SetKeyPropertyTest, NameOf63CharactersPassesAndOneOf64DoesNot) {
  const std::wstring longest(63, L'n');
  EXPECT_EQ(Set(L"Name", Text(longest)), 0);
  EXPECT_EQ(record().pszKeyName, longest);
  EXPECT_EQ(record().cbKeyName, 63u);
  for (const std::size_t size : {std::size_t{128}, std::size_t{129}, std::size_t{1000}}) {
    Forget();
    EXPECT_EQ(Set(L"Name", Bytes(size, 0x41)), NTE_BAD_DATA);
    ExpectLines(Lines("Name", {"dwProperty = NCRYPT_NAME_PROPERTY", "cbInput >= (KELDAKSP_MAX_NAME_LEN*sizeof(WCHAR))"},
                      NTE_BAD_DATA));
  }
  BYTE small[2] = {};
  EXPECT_EQ(SetRaw(L"Name", small, 0xFFFFFFFF), NTE_BAD_DATA);
  EXPECT_EQ(record().pszKeyName, longest);
}

TEST_F(SetKeyPropertyTest, NameHasWholeCharacters) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{3}, std::size_t{127}}) {
    EXPECT_EQ(Set(L"Name", Bytes(size, 0x41)), NTE_BAD_DATA);
    ExpectLines(Lines("Name", {"dwProperty = NCRYPT_NAME_PROPERTY", "(cbInput % 2)"}, NTE_BAD_DATA));
  }
  EXPECT_STREQ(record().pszKeyName, L"Key1");
}

TEST_F(SetKeyPropertyTest, EmptyName) {
  EXPECT_EQ(Set(L"Name", {}), 0);
  EXPECT_STREQ(record().pszKeyName, L"");
  EXPECT_EQ(record().cbKeyName, 0u);
  ExpectLines(
      Lines("Name", {"dwProperty = NCRYPT_NAME_PROPERTY", "pKey->pszKeyName = ", Number("pKey->cbKeyName = ", 0)}, 0));
}

TEST_F(SetKeyPropertyTest, NamelessKeyGetsAName) {
  key_ = Create(nullptr);
  EXPECT_EQ(Set(L"Name", Text(L"Now")), 0);
  EXPECT_STREQ(record().pszKeyName, L"Now");
  EXPECT_EQ(record().cbKeyName, 3u);
}

TEST_F(SetKeyPropertyTest, FinishedKeyIsRenamedHereButNotOnTheToken) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "label");
  key_ = Open(L"Key1");
  EXPECT_EQ(Set(L"Name", Text(L"Other")), 0);
  EXPECT_STREQ(record().pszKeyName, L"Other");
  ExpectCalls({});
  EXPECT_EQ(token().ObjectAttributes(pair.publicKey)[CKA_LABEL], Ascii("label"));
}

// The old name goes before room for the new one is asked for.
TEST_F(SetKeyPropertyTest, NameWithoutMemoryLeavesTheKeyNameless) {
  const void* old = record().pszKeyName;
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == 2 * (63 + 1); });
  EXPECT_EQ(Set(L"Name", Text(std::wstring(63, L'n'))), NTE_NO_MEMORY);
  watch.StopFailing();
  ExpectLines(Lines("Name", {"dwProperty = NCRYPT_NAME_PROPERTY"}, NTE_NO_MEMORY));
  EXPECT_TRUE(WipedAndFreed(watch, old, sizeof L"Key1"));
  EXPECT_EQ(record().pszKeyName, nullptr);
  EXPECT_EQ(record().cbKeyName, 0u);
}

// ---- properties without effect

TEST_F(SetKeyPropertyTest, UiPolicyAndExportPolicyAreAcceptedAndIgnored) {
  const kit::KeyRecord before = record();
  const struct {
    const wchar_t* name;
    const char* line;
  } properties[] = {{L"UI Policy", "NCRYPT_UI_POLICY is not supported and will be ignored"},
                    {L"Export Policy", "NCRYPT_EXPORT_POLICY_PROPERTY is not supported and will be ignored"}};
  for (const auto& property : properties) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{4}, std::size_t{100}}) {
      for (const DWORD finished : {DWORD{0}, DWORD{1}}) {
        record().fFinished = finished;
        EXPECT_EQ(Set(property.name, Bytes(size, 0x01)), 0);
        ExpectLines(Lines(Narrow(property.name), {property.line}, 0));
      }
    }
    record().fFinished = 0;
    BYTE small[1] = {};
    EXPECT_EQ(SetRaw(property.name, small, 0xFFFFFFFF), 0) << "the input is not read";
    Forget();
  }
  EXPECT_EQ(std::memcmp(&before, &record(), sizeof before), 0);
  ExpectCalls({});
}

TEST_F(SetKeyPropertyTest, AllOthersAreNotSupported) {
  const kit::KeyRecord before = record();
  for (const wchar_t* name : {L"Security Descr", L"Unknown", L"", L"key usage", L"Key Usage ", L"Lengths",
                              L"Algorithm Name", L"Unique Name", L"Key Type", L"Block Length", L"PIN"}) {
    EXPECT_EQ(SetNumber(name, 1024), NTE_NOT_SUPPORTED);
    ExpectLines(Lines(Narrow(name), {}, NTE_NOT_SUPPORTED));
  }
  EXPECT_EQ(std::memcmp(&before, &record(), sizeof before), 0);
}

// ---- flags and other checks

TEST_F(SetKeyPropertyTest, OnlyTheTwoPersistenceFlagsPass) {
  for (const wchar_t* name : kHandled) {
    for (int bit = 0; bit < 30; ++bit) {
      EXPECT_EQ(SetNumber(name, 1024, DWORD{1} << bit), NTE_BAD_FLAGS) << "bit " << bit;
      ExpectLines(Lines(Narrow(name), {"NTE_BAD_FLAGS: dwFlags contains an invalid flag"}, NTE_BAD_FLAGS));
    }
    // Even beside a good one.
    EXPECT_EQ(SetNumber(name, 1024, 0xC0000000 | NCRYPT_SILENT_FLAG), NTE_BAD_FLAGS);
    Forget();
  }
  EXPECT_EQ(SetNumber(L"Unknown", 0, NCRYPT_SILENT_FLAG), NTE_BAD_FLAGS) << "the flags are looked at first";
  EXPECT_EQ(record().dwKeyBitLength, 2048u);
  for (const DWORD flags : {DWORD{0x40000000}, DWORD{0x80000000}, DWORD{0xC0000000}}) {
    EXPECT_EQ(SetNumber(L"Length", 1024, flags), 0);
    EXPECT_EQ(SetNumber(L"Key Usage", 1, flags), 0);
    EXPECT_EQ(SetNumber(L"Unknown", 1, flags), NTE_NOT_SUPPORTED);
  }
  EXPECT_EQ(record().dwKeyBitLength, 1024u);
}

TEST_F(SetKeyPropertyTest, SecurityDescriptorHasItsOwnFlags) {
  for (const DWORD flags :
       {DWORD{0}, DWORD{1}, DWORD{4}, DWORD{NCRYPT_SILENT_FLAG}, DWORD{0x3FFFFFFF}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(SetNumber(L"Security Descr", 1, flags), NTE_NOT_SUPPORTED);
    ExpectLines(Lines("Security Descr", {}, NTE_NOT_SUPPORTED));
  }
}

TEST_F(SetKeyPropertyTest, NameOf65CharactersIsTooLong) {
  for (const std::size_t length : {std::size_t{65}, std::size_t{500}}) {
    const std::wstring name(length, L'p');
    EXPECT_EQ(SetNumber(name.c_str(), 1), NTE_INVALID_PARAMETER);
    ExpectLines(Lines(Narrow(name), {"NTE_INVALID_PARAMETER: pszProperty is exceeds NCRYPT_MAX_PROPERTY_NAME"},
                      NTE_INVALID_PARAMETER));
  }
  EXPECT_EQ(SetNumber(std::wstring(64, L'p').c_str(), 1), NTE_NOT_SUPPORTED);
}

// Each call is wrong in all later ways as well.
TEST_F(SetKeyPropertyTest, ChecksInOrder) {
  const NCRYPT_PROV_HANDLE good = provider_;
  const NCRYPT_KEY_HANDLE goodKey = key_;
  const std::wstring tooLong(65, L'p');
  provider_ = 0;
  key_ = 0;
  EXPECT_EQ(SetRaw(nullptr, nullptr, 1, 1), NTE_INVALID_HANDLE);
  ExpectLines(Lines("", {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  provider_ = good;
  EXPECT_EQ(SetRaw(nullptr, nullptr, 1, 1), NTE_INVALID_HANDLE);
  ExpectLines(Lines("", {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
  key_ = goodKey;
  EXPECT_EQ(SetRaw(nullptr, nullptr, 1, 1), NTE_INVALID_PARAMETER);
  ExpectLines(Lines("", {"NTE_INVALID_PARAMETER: pszProperty is NULL"}, NTE_INVALID_PARAMETER));
  EXPECT_EQ(SetRaw(tooLong.c_str(), nullptr, 1, 1), NTE_INVALID_PARAMETER);
  ExpectLines(Lines(Narrow(tooLong), {"NTE_INVALID_PARAMETER: pszProperty is exceeds NCRYPT_MAX_PROPERTY_NAME"},
                    NTE_INVALID_PARAMETER));
  EXPECT_EQ(SetRaw(L"Length", nullptr, 1, 1), NTE_INVALID_PARAMETER);
  ExpectLines(Lines("Length", {"NTE_INVALID_PARAMETER: pbInput is NULL"}, NTE_INVALID_PARAMETER));
  EXPECT_EQ(Set(L"Length", Bytes(1, 1), 1), NTE_BAD_FLAGS);
  ExpectLines(Lines("Length", {"NTE_BAD_FLAGS: dwFlags contains an invalid flag"}, NTE_BAD_FLAGS));
}

TEST_F(SetKeyPropertyTest, RefusesForeignHandles) {
  const NCRYPT_PROV_HANDLE good = provider_;
  const NCRYPT_KEY_HANDLE goodKey = key_;
  for (const NCRYPT_PROV_HANDLE handle : ForeignHandles(providerRecord(), {key_})) {
    provider_ = handle;
    EXPECT_EQ(SetNumber(L"Length", 1024), NTE_INVALID_HANDLE);
    ExpectLines(Lines("Length", {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  }
  provider_ = good;
  for (const NCRYPT_KEY_HANDLE handle : ForeignHandles(record(), {provider_})) {
    key_ = handle;
    EXPECT_EQ(SetNumber(L"Length", 1024), NTE_INVALID_HANDLE);
    ExpectLines(Lines("Length", {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
  }
  key_ = goodKey;
  EXPECT_EQ(record().dwKeyBitLength, 2048u);
}

TEST_F(SetKeyPropertyTest, NullInEveryPointerPosition) {
  for (const wchar_t* name : kHandled) {
    for (int missing = 1; missing < 16; ++missing) {
      BYTE input[4] = {};
      EXPECT_EQ(ksp().SetKeyProperty(missing & 1 ? 0 : provider_, missing & 2 ? 0 : key_, missing & 4 ? nullptr : name,
                                     missing & 8 ? nullptr : input, 4, 0),
                missing & 3 ? NTE_INVALID_HANDLE : NTE_INVALID_PARAMETER);
    }
  }
}

// ---- window handle

TEST_F(SetKeyPropertyTest, WindowHandleIsKeptOnTheProvider) {
  EXPECT_EQ(providerRecord().hWnd, 0u);
  EXPECT_EQ(Set(L"HWND Handle", {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}), 0);
  EXPECT_EQ(providerRecord().hWnd, 0x8877665544332211u);
  ExpectLines(Lines("HWND Handle", {"dwProperty = NCRYPT_WINDOW_HANDLE_PROPERTY", "Window handle set: 0x44332211"}, 0));
  // As many bytes as there are; the others stay.
  EXPECT_EQ(Set(L"HWND Handle", {0xA1, 0xA2, 0xA3, 0xA4}), 0);
  EXPECT_EQ(providerRecord().hWnd, 0x88776655A4A3A2A1u);
  EXPECT_EQ(Set(L"HWND Handle", {}), 0);
  EXPECT_EQ(providerRecord().hWnd, 0x88776655A4A3A2A1u);
  providerRecord().hWnd = 0;
}

TEST_F(SetKeyPropertyTest, WindowHandleHasAtMostEightBytes) {
  BYTE input[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  for (const DWORD size : {DWORD{9}, DWORD{100}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(SetRaw(L"HWND Handle", input, size), NTE_INVALID_PARAMETER);
    ExpectLines(Lines("HWND Handle",
                      {"dwProperty = NCRYPT_WINDOW_HANDLE_PROPERTY",
                       "NTE_INVALID_PARAMETER: cbInput is greater than the size of HWND"},
                      NTE_INVALID_PARAMETER));
  }
  EXPECT_EQ(providerRecord().hWnd, 0u);
}

TEST_F(SetKeyPropertyTest, WindowOwnsThePinDialog) {
  const HWND window =
      CreateWindowExW(0, L"STATIC", L"owner", WS_OVERLAPPEDWINDOW, 0, 0, 50, 50, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(SetRaw(L"HWND Handle", reinterpret_cast<BYTE*>(const_cast<HWND*>(&window)), sizeof window), 0);
  HWND owner = nullptr;
  kit::DialogRobot robot({[&](kit::Dialog& dialog) {
    owner = GetWindow(dialog.window(), GW_OWNER);
    dialog.PressCancel();
  }});
  EXPECT_EQ(ksp().FinalizeKey(provider_, key_, 0), static_cast<LONG>(0x8010006E)) << "cancelled by the user";
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_EQ(owner, window);
  providerRecord().hWnd = 0;
  DestroyWindow(window);
  Forget();
}

// ---- certificate

class KeyCertificateTest : public SetKeyPropertyTest {
 protected:
  void SetUp() override {
    SetKeyPropertyTest::SetUp();
    pair_ = token().AddKeyPair(Ascii("Key1"), "Key1");
    key_ = Open(L"Key1");
  }
  SECURITY_STATUS SetCertificate(const kit::TestCertificate& certificate) { return Set(kName, certificate.der); }
  static std::vector<Line> Attached(bool publicKey = true, bool privateKey = true) {
    std::vector<Line> lines{"dwProperty = NCRYPT_CERTIFICATE_PROPERTY", "Setting crypto interface pointer",
                            "Setting session handle"};
    if (publicKey) lines.emplace_back("Setting public key handle");
    if (privateKey) lines.emplace_back("Setting private key handle");
    lines.emplace_back("Checking if certificate already exists");
    return lines;
  }
  static std::vector<Line> Created() {
    return Join({Attached(), {"No certificate has been found for this key", "Setting certificate"}});
  }
  static std::vector<std::string> SearchCalls() {
    return {"C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[NULL,0]})",
            "C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[4]})",
            "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=01000000, CKA_ID=4b657931})",
            "C_FindObjects(session=0x51, objects=PTR, maximum=1)", "C_FindObjectsFinal(session=0x51)"};
  }
  static std::vector<std::string> CreateCalls(const kit::TestCertificate& certificate, const std::string& label,
                                              const std::string& serial) {
    std::vector<std::string> calls = SearchCalls();
    calls.emplace_back("C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[NULL,0]})");
    calls.emplace_back("C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[4]})");
    calls.push_back("C_CreateObject(session=0x51, {CKA_CLASS=01000000, CKA_TOKEN=01, CKA_LABEL=" + label +
                    ", CKA_VALUE=" + HexOf(certificate.der) +
                    ", CKA_PRIVATE=00, CKA_MODIFIABLE=01, CKA_EXTRACTABLE=01, CKA_ID=4b657931, "
                    "CKA_OBJECT_ID=4b657931, CKA_ISSUER=" +
                    HexOf(certificate.issuer) + "00, CKA_SERIAL_NUMBER=" + serial +
                    ", CKA_SUBJECT=" + HexOf(certificate.subject) + "00})");
    return calls;
  }

  static constexpr wchar_t kName[] = L"SmartCardKeyCertificate";
  static constexpr char kNarrowName[] = "SmartCardKeyCertificate";
  static constexpr char kInternal[] =
      "NTE_INTERNAL_ERROR: An internal error occured. Check PKCS logs for more information";
  const kit::TestCertificate certificate_ = kit::MakeCertificate("Subject", "Issuer", {0x01, 0x02, 0x03});
  fake::KeyPair pair_;
};

TEST_F(KeyCertificateTest, IsWrittenBesideTheKey) {
  EXPECT_EQ(SetCertificate(certificate_), 0);
  ExpectLines(Lines(kNarrowName, Created(), 0));
  // The label has its terminator, the names one zero byte more than the DER, the serial number its bytes turned round.
  ExpectCalls(CreateCalls(certificate_, "5375626a65637400", "030201"));
  EXPECT_EQ(token().ObjectCount(), 3u);
  // The certificate's object has a log instance of its own, which reads the switch.
  EXPECT_EQ(kit::Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
}

TEST_F(KeyCertificateTest, NamesAreOneByteLongerThanTheirDer) {
  EXPECT_EQ(SetCertificate(certificate_), 0);
  const fake::Call call = token().Calls().back();
  ASSERT_EQ(call.templates[0].size(), 12u) << "there is no CKA_CERTIFICATE_TYPE";
  EXPECT_EQ(call.templates[0][9].type, CK_ATTRIBUTE_TYPE{CKA_ISSUER});
  EXPECT_EQ(call.templates[0][9].length, certificate_.issuer.size() + 1);
  EXPECT_EQ(call.templates[0][9].value.back(), 0);
  EXPECT_EQ(call.templates[0][11].type, CK_ATTRIBUTE_TYPE{CKA_SUBJECT});
  EXPECT_EQ(call.templates[0][11].length, certificate_.subject.size() + 1);
  EXPECT_EQ(call.templates[0][11].value.back(), 0);
  EXPECT_EQ(call.templates[0][7].address, call.templates[0][8].address) << "CKA_OBJECT_ID is the same identifier";
}

TEST_F(KeyCertificateTest, SecondTimeThereIsOneAlready) {
  EXPECT_EQ(SetCertificate(certificate_), 0);
  Forget();
  EXPECT_EQ(SetCertificate(certificate_), NTE_EXISTS);
  ExpectLines(Lines(kNarrowName,
                    Join({Attached(), {"NTE_EXISTS: A certificate already exists for the selected key pair"}}),
                    NTE_EXISTS));
  ExpectCalls(SearchCalls());
  EXPECT_EQ(token().ObjectCount(), 3u);
}

TEST_F(KeyCertificateTest, AnotherKeysCertificateIsNotInTheWay) {
  token().AddObject(
      {{CKA_CLASS, fake::Ulong(CKO_CERTIFICATE)}, {CKA_TOKEN, fake::Bool(true)}, {CKA_ID, Ascii("Key2")}});
  token().AddObject({{CKA_CLASS, fake::Ulong(CKO_DATA)}, {CKA_TOKEN, fake::Bool(true)}, {CKA_ID, Ascii("Key1")}});
  token().AddObject(
      {{CKA_CLASS, fake::Ulong(CKO_CERTIFICATE)}, {CKA_TOKEN, fake::Bool(false)}, {CKA_ID, Ascii("Key1")}});
  EXPECT_EQ(SetCertificate(certificate_), 0);
  token().AddObject(
      {{CKA_CLASS, fake::Ulong(CKO_CERTIFICATE)}, {CKA_TOKEN, fake::Bool(true)}, {CKA_ID, Ascii("Key1")}});
  EXPECT_EQ(SetCertificate(certificate_), NTE_EXISTS);
}

// Whatever the platform makes of a serial number (sign bytes) is sent as it stands.
TEST_F(KeyCertificateTest, SerialNumberAsTheContextHoldsIt) {
  Bytes held;
  const kit::Hook<"CertCreateCertificateContext", decltype(&CertCreateCertificateContext)> hook(
      [&](auto original, DWORD encoding, const BYTE* bytes, DWORD size) {
        PCCERT_CONTEXT context = original(encoding, bytes, size);
        if (context) {
          const CRYPT_INTEGER_BLOB& serial = context->pCertInfo->SerialNumber;
          held.assign(serial.pbData, serial.pbData + serial.cbData);
        }
        return context;
      });
  CK_OBJECT_HANDLE object = pair_.privateKey;
  for (const Bytes& serial : {Bytes{0x01}, Bytes{0x00, 0x80}, Bytes{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0}}) {
    const kit::TestCertificate certificate = kit::MakeCertificate("S", "I", serial);
    EXPECT_EQ(SetCertificate(certificate), 0);
    ExpectCalls(CreateCalls(certificate, "5300", HexOf(held)));
    if (serial[0] != 0) {
      EXPECT_EQ(held, Bytes(serial.rbegin(), serial.rend())) << "least significant byte first";
    }
    token().ObjectAttributes(++object)[CKA_ID] = Ascii("not in the way of the next");
  }
}

TEST_F(KeyCertificateTest, LabelIsTheSimpleDisplayName) {
  const struct {
    const char* subject;
    const char* label;
  } cases[] = {{"A", "4100"},
               {"\xC3\xA4\xC3\xBF", "e4ff00"},
               // It ends before the first character without a narrow form (the euro sign); its length is that of all.
               {"Ab\xE2\x82\xAC"
                "cd",
                "416200000000"},
               {"", "00"}};
  CK_OBJECT_HANDLE object = pair_.privateKey;
  for (const auto& one : cases) {
    const kit::TestCertificate certificate = kit::MakeCertificate(one.subject, "Issuer", {0x05});
    EXPECT_EQ(SetCertificate(certificate), 0) << one.subject;
    ExpectCalls(CreateCalls(certificate, one.label, "05"));
    token().ObjectAttributes(++object)[CKA_ID] = Ascii("not in the way of the next");
  }
}

TEST_F(KeyCertificateTest, LabelIsAskedForTwice) {
  struct Asked {
    DWORD type;
    DWORD flags;
    void* parameter;
    bool toBuffer;
    DWORD room;
    bool operator==(const Asked&) const = default;
  };
  std::vector<Asked> asked;
  const kit::Hook<"CertGetNameStringW", decltype(&CertGetNameStringW)> hook(
      [&](auto original, PCCERT_CONTEXT context, DWORD type, DWORD flags, void* parameter, LPWSTR text, DWORD room) {
        asked.push_back({type, flags, parameter, text != nullptr, room});
        return original(context, type, flags, parameter, text, room);
      });
  EXPECT_EQ(SetCertificate(certificate_), 0);
  // First for its length, then for its text: "Subject" and the terminator.
  EXPECT_EQ(asked, (std::vector<Asked>{{CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, false, 0},
                                       {CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, true, 8}}));
}

TEST_F(KeyCertificateTest, UnfinishedKey) {
  key_ = Create(L"New");
  // Whether it has objects is not yet asked.
  for (const CK_OBJECT_HANDLE object : {CK_OBJECT_HANDLE{0}, pair_.publicKey}) {
    record().hPublicKeyObject = object;
    EXPECT_EQ(SetCertificate(certificate_), NTE_BAD_KEY_STATE);
    ExpectLines(Lines(kNarrowName,
                      {"dwProperty = NCRYPT_CERTIFICATE_PROPERTY", "Key referenced by hKey is not yet finalized."},
                      NTE_BAD_KEY_STATE));
  }
  ExpectCalls({});
}

TEST_F(KeyCertificateTest, KeyWithoutObjects) {
  record().hPublicKeyObject = 0;
  record().hPrivateKeyObject = 0;
  EXPECT_EQ(SetCertificate(certificate_), NTE_BAD_KEY_STATE);
  ExpectLines(
      Lines(kNarrowName,
            {"dwProperty = NCRYPT_CERTIFICATE_PROPERTY", "Key referenced by hKey does not contain any key handle"},
            NTE_BAD_KEY_STATE));
  ExpectCalls({});
}

TEST_F(KeyCertificateTest, HalfAKeyIsNotLookedUp) {
  record().hPublicKeyObject = 0;
  EXPECT_EQ(SetCertificate(certificate_), NTE_INVALID_PARAMETER) << "the message does not tell the status";
  ExpectLines(Lines(kNarrowName, Join({Attached(false, true), {kInternal}}), NTE_INVALID_PARAMETER));
  record().hPublicKeyObject = pair_.publicKey;
  record().hPrivateKeyObject = 0;
  EXPECT_EQ(SetCertificate(certificate_), NTE_INVALID_PARAMETER);
  ExpectLines(Lines(kNarrowName, Join({Attached(true, false), {kInternal}}), NTE_INVALID_PARAMETER));
  ExpectCalls({});
}

TEST_F(KeyCertificateTest, EveryTokenCallOfTheLookupCanFail) {
  for (const char* function : {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects"}) {
    token().Fail(function, CKR_DEVICE_ERROR);
    EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR) << function;
    ExpectLines(Lines(kNarrowName, Join({Attached(), {kInternal}}), NTE_INTERNAL_ERROR));
    EXPECT_EQ(token().Count("C_CreateObject"), 0u);
    token().ClearScript();
    token().ClearCalls();
  }
}

TEST_F(KeyCertificateTest, KeyWithoutAnIdentifierCannotBeLookedUp) {
  token().ObjectAttributes(pair_.privateKey).erase(CKA_ID);
  EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR);
}

TEST_F(KeyCertificateTest, IdentifierThatThereIsNoRoomForCannotBeReadEither) {
  token().ObjectAttributes(pair_.privateKey)[CKA_ID] = Bytes(777, 'i');
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == 777; });
  EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR);
  ExpectCalls({"C_GetAttributeValue(session=0x51, object=0x102, {CKA_ID[NULL,0]})"});
}

TEST_F(KeyCertificateTest, LookupDoesNotMindTheSecondReadNorTheEndOfTheSearch) {
  token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);
  token().Fail("C_FindObjectsFinal", CKR_DEVICE_ERROR);
  EXPECT_EQ(SetCertificate(certificate_), 0);
  const std::vector<std::string> calls = token().TakeTexts();
  ASSERT_GE(calls.size(), 3u);
  // What the second read did not deliver is searched for as zeros.
  EXPECT_EQ(calls[2], "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=01000000, CKA_ID=00000000})");
}

TEST_F(KeyCertificateTest, CreationMindsBothReadsOfTheIdentifier) {
  for (const std::size_t nth : {std::size_t{3}, std::size_t{4}}) {
    token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, nth);
    EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR);
    ExpectLines(Lines(kNarrowName, Created(), NTE_INTERNAL_ERROR));
    EXPECT_EQ(token().Count("C_CreateObject"), 0u);
    EXPECT_EQ(token().Count("C_GetAttributeValue"), nth);
    token().ClearCalls();
  }
}

TEST_F(KeyCertificateTest, TokenThatRefusesTheObject) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_USER_NOT_LOGGED_IN, CKR_DEVICE_MEMORY}) {
    token().Fail("C_CreateObject", code);
    EXPECT_EQ(SetCertificate(certificate_), NTE_FAIL);
    ExpectLines(Lines(kNarrowName, Created(), NTE_FAIL));
  }
}

// A module that says yes and does nothing.
TEST_F(KeyCertificateTest, TokenThatAnswersNothing) {
  for (const char* function : {"C_GetAttributeValue", "C_FindObjects", "C_CreateObject"})
    token().FailAlways(function, CKR_OK);
  EXPECT_EQ(SetCertificate(certificate_), 0);
  const std::vector<fake::Attribute> sent = token().Calls().back().templates[0];
  EXPECT_EQ(sent[7].length, 0u) << "an identifier of no bytes";
}

#ifdef _WIN64  // see the generation of keys for why
TEST_F(KeyCertificateTest, NothingThatTheTokenThrowsEscapes) {
  for (const char* function : {"C_GetAttributeValue", "C_FindObjectsInit", "C_FindObjects", "C_CreateObject"}) {
    token().Before(function, [](const fake::Call&) { throw 7; });
    EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR) << function;
    token().ClearScript();
    ksp().FreeProvider(provider_);  // with the search that was left open
    provider_ = OpenProvider();
  }
}
#endif

TEST_F(KeyCertificateTest, InputThatIsNoCertificate) {
  Bytes cut = certificate_.der;
  cut.pop_back();
  const std::vector<Bytes> inputs = {{}, {0x30}, {0x30, 0x00}, Ascii("-----BEGIN CERTIFICATE-----"), cut};
  for (const Bytes& input : inputs) {
    EXPECT_EQ(Set(kName, input), NTE_FAIL) << HexOf(input);
    ExpectLines(Lines(kNarrowName, Created(), NTE_FAIL));
    EXPECT_EQ(token().Count("C_GetAttributeValue"), 2u) << "the key is not read for it";
    EXPECT_EQ(token().Count("C_CreateObject"), 0u);
    token().ClearCalls();
  }
}

TEST_F(KeyCertificateTest, LargestLengthIsNoMemory) {
  BYTE small[4] = {0x30, 0x82, 0xFF, 0xFF};
  EXPECT_EQ(SetRaw(kName, small, 0xFFFFFFFF), NTE_NO_MEMORY);
  EXPECT_EQ(token().Count("C_CreateObject"), 0u);
}

TEST_F(KeyCertificateTest, WipesWhatItHeld) {
  const kit::MemoryWatch watch;
  EXPECT_EQ(SetCertificate(certificate_), 0);
  int checked = 0;
  const fake::Call creation = token().Calls().back();
  for (const fake::Attribute& attribute : creation.templates[0]) {
    if (attribute.type == CKA_CLASS || attribute.length == 1) continue;
    EXPECT_TRUE(WipedAndFreed(watch, attribute.address, attribute.length)) << attribute.type;
    ++checked;
  }
  EXPECT_EQ(checked, 7) << "label, value, both identifiers, issuer, serial number, subject";
  EXPECT_FALSE(watch.FreedContainsWide("Subject"));
  EXPECT_FALSE(watch.FreedContainsWide("Issuer"));
  EXPECT_TRUE(watch.Live().empty());
}

// Label and names are kept as 16-bit text until the object goes; the token gets the narrow label and the DER.
TEST_F(KeyCertificateTest, KeepsNamesAsWideTextWhileItIsWritten) {
  const kit::MemoryWatch watch;
  const auto blocksWith = [&](const std::wstring& text) {
    const std::map<const void*, std::size_t> live = watch.Live();
    return std::count_if(live.begin(), live.end(), [&](const auto& block) {
      const std::wstring_view contents(static_cast<const wchar_t*>(block.first), block.second / sizeof(wchar_t));
      return contents.find(text) != std::wstring_view::npos;
    });
  };
  std::ptrdiff_t subjects = 0;
  std::ptrdiff_t issuers = 0;
  token().Before("C_CreateObject", [&](const fake::Call&) {
    subjects = blocksWith(L"Subject");
    issuers = blocksWith(L"Issuer");
  });
  EXPECT_EQ(SetCertificate(certificate_), 0);
  EXPECT_EQ(subjects, 2) << "label and subject";
  EXPECT_EQ(issuers, 1);
}

TEST_F(KeyCertificateTest, TokenObjectIsDestroyedOnEveryPath) {
  const auto leavesNothing = [&](const char* function, std::size_t nth) {
    token().Fail(function, CKR_DEVICE_ERROR, nth);
    const kit::MemoryWatch watch;
    EXPECT_NE(SetCertificate(certificate_), 0) << function << nth;
    EXPECT_TRUE(watch.Live().empty()) << function << nth;
    token().ClearScript();
  };
  leavesNothing("C_GetAttributeValue", 1);
  leavesNothing("C_GetAttributeValue", 4);
  leavesNothing("C_CreateObject", 1);
  leavesNothing("C_FindObjectsInit", 1);
  const kit::MemoryWatch watch;
  EXPECT_EQ(Set(kName, {0x30, 0x00}), NTE_FAIL);
  EXPECT_TRUE(watch.Live().empty()) << "no certificate";
  EXPECT_EQ(SetCertificate(certificate_), 0);
  EXPECT_EQ(SetCertificate(certificate_), NTE_EXISTS);
  EXPECT_TRUE(watch.Live().empty()) << "one is there";
  record().hPublicKeyObject = 0;
  EXPECT_EQ(SetCertificate(certificate_), NTE_INVALID_PARAMETER);
  EXPECT_TRUE(watch.Live().empty()) << "half a key";
}

TEST_F(KeyCertificateTest, CertificateContextIsFreedOnEveryPath) {
  int created = 0;
  int freed = 0;
  const kit::Hook<"CertCreateCertificateContext", decltype(&CertCreateCertificateContext)> creation(
      [&](auto original, DWORD encoding, const BYTE* bytes, DWORD size) {
        EXPECT_EQ(encoding, 0x00010001u);
        PCCERT_CONTEXT context = original(encoding, bytes, size);
        if (context) ++created;
        return context;
      });
  const kit::Hook<"CertFreeCertificateContext", decltype(&CertFreeCertificateContext)> release(
      [&](auto original, PCCERT_CONTEXT context) {
        if (context) ++freed;
        return original(context);
      });
  token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 4);
  EXPECT_EQ(SetCertificate(certificate_), NTE_INTERNAL_ERROR);
  token().Fail("C_CreateObject", CKR_DEVICE_ERROR);
  EXPECT_EQ(SetCertificate(certificate_), NTE_FAIL);
  EXPECT_EQ(Set(kName, {0x30, 0x00}), NTE_FAIL);
  EXPECT_EQ(SetCertificate(certificate_), 0);
  EXPECT_EQ(created, 3);
  EXPECT_EQ(freed, 3);
}

TEST_F(KeyCertificateTest, EveryAllocationCanFail) {
  FailEachAllocation(
      [&] { return SetCertificate(certificate_); },
      [&](SECURITY_STATUS status, std::size_t nth) {
        // Where only a log line was lost, the certificate was written, and later ones are refused.
        // An identifier without room counts as unreadable.
        EXPECT_TRUE(status == 0 || status == NTE_EXISTS || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR)
            << "allocation " << nth << ": " << status;
        for (CK_OBJECT_HANDLE object = 0x103; token().HasObject(object); ++object)
          token().ObjectAttributes(object)[CKA_ID] = Ascii("not in the way of the next");
        return true;
      });
}

}  // namespace
