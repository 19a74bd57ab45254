// CreatePersistedKey: an unfinished key record, after a look at the token for a key of the same label.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Frame;
using kit::Hex32;
using kit::Join;
using kit::kMachine;
using kit::kOverwrite;
using kit::kSilent;
using kit::Line;
using kit::Pointer32;

constexpr NCRYPT_KEY_HANDLE kUntouched = 0x5A5A5A5A;

class CreateKeyTest : public KeyEntryTest {
 protected:
  SECURITY_STATUS CreateKey(const wchar_t* name, DWORD spec = 0, DWORD flags = 0, const wchar_t* algorithm = L"RSA") {
    key_ = kUntouched;
    const SECURITY_STATUS status = ksp().CreatePersistedKey(provider_, &key_, algorithm, name, spec, flags);
    if (status == 0) keys_.push_back(key_);
    return status;
  }
  kit::KeyRecord& record() const { return *kit::KeyOf(key_); }

  std::vector<Line> Lines(const std::string& algorithm, const std::string& name, DWORD spec, DWORD flags,
                          const std::vector<Line>& body, LONG status) const {
    return Frame("KELDAKSPCreatePersistedKey",
                 Join({{Hex32("hProvider       : ", provider_), Pointer32("phKey           : ", &key_),
                        "pszAlgId        : " + algorithm, "pszKeyName      : " + name,
                        Hex32("dwLegacyKeySpec : ", spec), Hex32("dwFlags         : ", flags)},
                       body,
                       {Hex32("Key handle: ", key_)}}),
                 status);
  }
  static std::vector<std::string> Search(const std::string& objectClass, const std::string& label) {
    return {"C_FindObjectsInit(session=0x51, {CKA_CLASS=" + objectClass + ", CKA_LABEL=" + label + "})",
            "C_FindObjects(session=0x51, objects=PTR, maximum=1)", "C_FindObjectsFinal(session=0x51)"};
  }
  static std::vector<std::string> Texts(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const std::vector<std::string>& part : parts)
      all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  NCRYPT_KEY_HANDLE key_ = kUntouched;
};

TEST_F(CreateKeyTest, MakesAnUnfinishedRecord) {
  EXPECT_EQ(CreateKey(L"Key1"), 0);
  ASSERT_NE(key_, kUntouched);
  EXPECT_EQ(record().cbLength, sizeof(kit::KeyRecord));
  EXPECT_EQ(record().dwMagic, kit::kKeyMagic);
  EXPECT_STREQ(record().pszKeyName, L"Key1");
  EXPECT_EQ(record().cbKeyName, 5u) << "the terminator is counted";
  EXPECT_STREQ(record().pszKeyBlobType, L"RSAPRIVATEBLOB");
  EXPECT_EQ(record().dwAlgID, 0u);
  EXPECT_EQ(record().dwKeyBitLength, 2048u);
  EXPECT_EQ(record().dwExportPolicy, 2u);
  EXPECT_EQ(record().dwKeyUsagePolicy, 3u);
  EXPECT_EQ(record().fOverwrite, 0u);
  EXPECT_EQ(record().fFinished, 0u);
  EXPECT_EQ(record().pbKeyFile, nullptr);
  EXPECT_EQ(record().cbKeyFile, 0u);
  EXPECT_EQ(record().pbPrivateKey, nullptr);
  EXPECT_EQ(record().cbPrivateKey, 0u);
  EXPECT_NE(record().hAlgProvider, nullptr);
  EXPECT_EQ(record().reserved1, 0u);
  EXPECT_EQ(record().reserved2, 0u);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
  EXPECT_EQ(Bytes(record().KeyId, record().KeyId + 200), Bytes(200, 0));
  EXPECT_EQ(record().cbKeyId, 0u);
  EXPECT_EQ(record().pbSecurityDescr, nullptr);
  EXPECT_EQ(record().cbSecurityDescr, 0u);
  EXPECT_EQ(record().PropertyList.next, &record().PropertyList);
  EXPECT_EQ(record().PropertyList.previous, &record().PropertyList);
  EXPECT_EQ(Bytes(record().PublicExponent, record().PublicExponent + 4), Bytes(4, 0));
  for (const BYTE* component : {record().pbModulus, record().pbPrime1, record().pbPrime2, record().pbExponent1,
                                record().pbExponent2, record().pbCoefficient, record().pbPrivateExponent}) {
    EXPECT_EQ(component, nullptr);
  }
  ExpectLines(Lines("RSA", "Key1", 0, 0, {"Validating key file existence"}, 0));
  ExpectCalls(Search("02000000", "4b657931"));
}

TEST_F(CreateKeyTest, OneRsaAlgorithmHandleServesAllKeys) {
  EXPECT_EQ(CreateKey(nullptr), 0);
  void* const first = record().hAlgProvider;
  EXPECT_EQ(CreateKey(nullptr), 0);
  EXPECT_EQ(record().hAlgProvider, first);
}

TEST_F(CreateKeyTest, NamelessKeyAsksTheTokenNothing) {
  EXPECT_EQ(CreateKey(nullptr), 0);
  EXPECT_EQ(record().pszKeyName, nullptr);
  EXPECT_EQ(record().cbKeyName, 0u);
  ExpectLines(Lines("RSA", "", 0, 0, {}, 0));
  ExpectCalls({});
  EXPECT_EQ(kit::Registry::Get().TakeReads(), std::vector<std::wstring>{L"Default Key Length"});
}

TEST_F(CreateKeyTest, EmptyNameIsAName) {
  EXPECT_EQ(CreateKey(L""), 0);
  ASSERT_NE(record().pszKeyName, nullptr);
  EXPECT_STREQ(record().pszKeyName, L"");
  EXPECT_EQ(record().cbKeyName, 1u);
  ExpectCalls(Search("02000000", ""));
}

TEST_F(CreateKeyTest, NameIsACopy) {
  wchar_t name[] = L"Key1";
  EXPECT_EQ(CreateKey(name), 0);
  name[0] = L'X';
  EXPECT_STREQ(record().pszKeyName, L"Key1");
}

TEST_F(CreateKeyTest, LegacyKeySpecDecidesTheAlgorithmId) {
  EXPECT_EQ(CreateKey(nullptr, 0), 0);
  EXPECT_EQ(record().dwAlgID, 0u);
  EXPECT_EQ(CreateKey(nullptr, 1), 0);
  EXPECT_EQ(record().dwAlgID, 0xA400u);
  EXPECT_EQ(CreateKey(nullptr, 2), 0);
  EXPECT_EQ(record().dwAlgID, 0x2400u);
}

TEST_F(CreateKeyTest, LegacyKeySpecOf3AndAboveIsRefused) {
  for (const DWORD spec : {DWORD{3}, DWORD{4}, DWORD{0x80000001}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(CreateKey(L"Key1", spec), NTE_INVALID_PARAMETER);
    EXPECT_EQ(key_, kUntouched);
    ExpectLines(
        Lines("RSA", "Key1", spec, 0, {"NTE_INVALID_PARAMETER: Invalid dwLegacyKeySpec value"}, NTE_INVALID_PARAMETER));
  }
  ExpectCalls({});
}

TEST_F(CreateKeyTest, LengthComesFromTheRegistryUnchecked) {
  for (const DWORD length : {DWORD{512}, DWORD{1024}, DWORD{4096}, DWORD{0}, DWORD{1000}, DWORD{0xFFFFFFFF}}) {
    kit::Registry::Get().SetDword(kit::kProviderKey, L"Default Key Length", length);
    EXPECT_EQ(CreateKey(nullptr), 0);
    EXPECT_EQ(record().dwKeyBitLength, length);
  }
}

TEST_F(CreateKeyTest, LengthThatCannotBeReadEndsTheCreation) {
  struct Case {
    const char* what;
    DWORD type;
    std::vector<BYTE> bytes;
  };
  const Case cases[] = {{"missing", REG_NONE, {}},
                        {"text", REG_SZ, {'2', 0, 0, 0}},
                        {"bytes", REG_BINARY, {0, 8, 0, 0}},
                        {"too long", REG_QWORD, {0, 8, 0, 0, 0, 0, 0, 0}}};
  for (const Case& one : cases) {
    kit::Registry::Get().Remove(kit::kProviderKey, L"Default Key Length");
    if (!one.bytes.empty()) {
      kit::Registry::Get().SetBinary(kit::kProviderKey, L"Default Key Length", one.type, one.bytes);
    }
    const kit::MemoryWatch watch;
    EXPECT_EQ(CreateKey(L"Key1"), NTE_INTERNAL_ERROR) << one.what;
    EXPECT_EQ(key_, kUntouched);
    EXPECT_TRUE(watch.Live().empty()) << "the record is released";
    ExpectLines(Lines("RSA", "Key1", 0, 0,
                      {"Validating key file existence", "NTE_INTERNAL_ERROR: Failed to get registry key"},
                      NTE_INTERNAL_ERROR));
  }
}

TEST_F(CreateKeyTest, MachineAndSilentFlagsPassWithoutEffect) {
  // Neither is told by the message that names the acceptable flags in full: the silent flag is missing there.
  for (const DWORD flags : {kMachine, kSilent, kOverwrite, kMachine | kSilent | kOverwrite}) {
    EXPECT_EQ(CreateKey(L"Key1", 0, flags), 0);
    EXPECT_EQ(record().fOverwrite, 0u) << "there is nothing to overwrite";
    ExpectLines(Lines("RSA", "Key1", 0, flags, {"Validating key file existence"}, 0));
  }
}

TEST_F(CreateKeyTest, FlagsOutside0xE0AreRefusedOneByOne) {
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const bool accepted = (flag & 0xE0) != 0;
    EXPECT_EQ(CreateKey(nullptr, 0, flag), accepted ? 0 : NTE_BAD_FLAGS) << "bit " << bit;
    if (accepted) {
      Forget();
      continue;
    }
    EXPECT_EQ(key_, kUntouched);
    ExpectLines(Lines("RSA", "", 0, flag,
                      {"NTE_BAD_FLAGS: Only NCRYPT_MACHINE_KEY_FLAG and NCRYPT_OVERWIRTE_KEY_FLAG is acceptable."},
                      NTE_BAD_FLAGS));
  }
}

TEST_F(CreateKeyTest, OnlyExactlyRsa) {
  for (const std::wstring algorithm : {L"rsa", L"Rsa", L"RSA ", L" RSA", L"RS", L"RSA1", L"", L"DSA", L"RSA_SIGN"}) {
    EXPECT_EQ(CreateKey(L"Key1", 0, 0, algorithm.c_str()), NTE_NOT_SUPPORTED);
    EXPECT_EQ(key_, kUntouched);
    ExpectLines(Lines(std::string(algorithm.begin(), algorithm.end()), "Key1", 0, 0,
                      {"NTE_NOT_SUPPORTED: This KSP only supports NCRYPT_RSA_ALGORITHM"}, NTE_NOT_SUPPORTED));
  }
  ExpectCalls({});
}

TEST_F(CreateKeyTest, RefusesForeignProviderHandles) {
  std::vector<kit::ProviderRecord> broken = BrokenRecords(providerRecord());
  std::vector<NCRYPT_PROV_HANDLE> handles{0};
  for (kit::ProviderRecord& one : broken)
    handles.push_back(reinterpret_cast<NCRYPT_PROV_HANDLE>(&one));
  handles.push_back(Create(nullptr));  // a key is no provider
  const NCRYPT_PROV_HANDLE good = provider_;
  for (const NCRYPT_PROV_HANDLE handle : handles) {
    provider_ = handle;
    EXPECT_EQ(CreateKey(L"Key1"), NTE_INVALID_HANDLE);
    EXPECT_EQ(key_, kUntouched);
    ExpectLines(Lines("RSA", "Key1", 0, 0, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  }
  provider_ = good;
  ExpectCalls({});
}

TEST_F(CreateKeyTest, RefusesAMissingOutPointer) {
  EXPECT_EQ(ksp().CreatePersistedKey(provider_, nullptr, L"RSA", L"Key1", 0, 0), NTE_INVALID_PARAMETER);
  ExpectLines(Frame("KELDAKSPCreatePersistedKey",
                    {Hex32("hProvider       : ", provider_), "phKey           : 0x00000000", "pszAlgId        : RSA",
                     "pszKeyName      : Key1", "dwLegacyKeySpec : 0x00000000", "dwFlags         : 0x00000000",
                     "NTE_INVALID_PARAMETER: phKey is NULL", "Key handle: 0x00000000"},
                    NTE_INVALID_PARAMETER));
}

// Each call is wrong in all later ways as well; the last one is right.
TEST_F(CreateKeyTest, ChecksInOrder) {
  const std::wstring longName(260, L'x');
  token().AddKeyPair(Ascii("id"), "Key1");
  kit::Registry::Get().Remove(kit::kProviderKey, L"Default Key Length");
  const auto expect = [&](SECURITY_STATUS status, SECURITY_STATUS wanted, const std::vector<Line>& message) {
    EXPECT_EQ(status, wanted);
    const std::vector<Line> lines = kit::Log::Get().Take();
    ASSERT_GE(lines.size(), 11u + message.size() - 1);
    EXPECT_TRUE(kit::SameLines(
        message,
        std::vector<Line>(lines.begin() + 8, lines.begin() + 8 + static_cast<std::ptrdiff_t>(message.size()))));
  };
  expect(ksp().CreatePersistedKey(0, nullptr, nullptr, longName.c_str(), 9, 0xFFFFFFFF), NTE_INVALID_HANDLE,
         {"NTE_INVALID_HANDLE: pProvider is NULL"});
  expect(ksp().CreatePersistedKey(provider_, nullptr, nullptr, longName.c_str(), 9, 0xFFFFFFFF), NTE_INVALID_PARAMETER,
         {"NTE_INVALID_PARAMETER: phKey is NULL"});
  expect(CreateKey(longName.c_str(), 9, 0xFFFFFFFF, nullptr), NTE_INVALID_PARAMETER,
         {"NTE_INVALID_PARAMETER: pszAlgID is NULL"});
  expect(CreateKey(longName.c_str(), 9, 0xFFFFFFFF, L"rsa"), NTE_BAD_FLAGS,
         {"NTE_BAD_FLAGS: Only NCRYPT_MACHINE_KEY_FLAG and NCRYPT_OVERWIRTE_KEY_FLAG is acceptable."});
  expect(CreateKey(longName.c_str(), 9, 0, L"rsa"), NTE_NOT_SUPPORTED,
         {"NTE_NOT_SUPPORTED: This KSP only supports NCRYPT_RSA_ALGORITHM"});
  expect(CreateKey(longName.c_str(), 9), NTE_INVALID_PARAMETER,
         {"NTE_INVALID_PARAMETER: Invalid dwLegacyKeySpec value"});
  expect(CreateKey(longName.c_str()), NTE_INVALID_PARAMETER,
         {"NTE_INVALID_PARAMETER: Length of key name exceeds MAX_PATH", "Failed to create new key object"});
  ExpectCalls({});
  expect(CreateKey(L"Key1"), NTE_EXISTS,
         {"Validating key file existence", "NTE_EXISTS: A key with the same name already exists"});
  expect(CreateKey(L"Key1", 0, kOverwrite), NTE_INTERNAL_ERROR,
         {"Validating key file existence", "NTE_EXISTS: A key with same name exists and will be overwritten",
          "NTE_INTERNAL_ERROR: Failed to get registry key"});
  EXPECT_EQ(key_, kUntouched);
}

TEST_F(CreateKeyTest, NameOf259CharactersPassesAndOneOf260DoesNot) {
  const std::wstring longest(259, L'n');
  EXPECT_EQ(CreateKey(longest.c_str()), 0);
  EXPECT_EQ(record().pszKeyName, longest);
  EXPECT_EQ(record().cbKeyName, 260u);
  Forget();
  for (const std::size_t length : {std::size_t{260}, std::size_t{261}, std::size_t{100000}}) {
    const kit::MemoryWatch watch;
    const std::wstring name(length, L'n');
    EXPECT_EQ(CreateKey(name.c_str()), NTE_INVALID_PARAMETER);
    EXPECT_EQ(key_, kUntouched);
    EXPECT_TRUE(watch.Live().empty()) << "the record is released";
    // The log takes no text of more than 511 characters.
    ExpectLines(Lines("RSA", length > 511 ? "" : std::string(length, 'n'), 0, 0,
                      {"NTE_INVALID_PARAMETER: Length of key name exceeds MAX_PATH", "Failed to create new key object"},
                      NTE_INVALID_PARAMETER));
    ExpectCalls({});
  }
}

TEST_F(CreateKeyTest, ExistingKeyIsInTheWay) {
  token().AddKeyPair(Ascii("any id"), "Key1", 1024);
  {
    const kit::MemoryWatch watch;
    EXPECT_EQ(CreateKey(L"Key1"), NTE_EXISTS);
    EXPECT_TRUE(watch.Live().empty()) << "the record is released";
  }
  EXPECT_EQ(key_, kUntouched);
  ExpectLines(Lines("RSA", "Key1", 0, 0,
                    {"Validating key file existence", "NTE_EXISTS: A key with the same name already exists"},
                    NTE_EXISTS));
  ExpectCalls(Texts({Search("02000000", "4b657931"),
                     Search("03000000", "4b657931"),
                     {"C_GetAttributeValue(session=0x51, object=0x101, {CKA_MODULUS[NULL,0], CKA_MODULUS_BITS[NULL,0], "
                      "CKA_PUBLIC_EXPONENT[NULL,0]})",
                      "C_GetAttributeValue(session=0x51, object=0x101, {CKA_MODULUS[128], CKA_MODULUS_BITS[4], "
                      "CKA_PUBLIC_EXPONENT[3]})",
                      "C_GetAttributeValue(session=0x51, object=0x102, {CKA_SIGN[1], CKA_DECRYPT[1]})"}}));
}

TEST_F(CreateKeyTest, OverwriteFlagKeepsTheFoundObjectsForFinalization) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("any id"), "Key1");
  EXPECT_EQ(CreateKey(L"Key1", 2, kOverwrite), 0);
  EXPECT_EQ(record().fOverwrite, 1u);
  EXPECT_EQ(record().fFinished, 0u);
  EXPECT_EQ(record().hPublicKeyObject, pair.publicKey);
  EXPECT_EQ(record().hPrivateKeyObject, pair.privateKey);
  ExpectLines(
      Lines("RSA", "Key1", 2, kOverwrite,
            {"Validating key file existence", "NTE_EXISTS: A key with same name exists and will be overwritten"}, 0));
  EXPECT_EQ(token().ObjectCount(), 2u) << "nothing is destroyed yet";
}

TEST_F(CreateKeyTest, ExistenceIsAQuestionOfTheLabelNotOfTheIdentifier) {
  token().AddKeyPair(Ascii("Key1"), "Other");
  EXPECT_EQ(CreateKey(L"Key1"), 0);
  EXPECT_EQ(CreateKey(L"Other"), NTE_EXISTS);
  EXPECT_EQ(CreateKey(L"other"), 0) << "labels are compared exactly";
  EXPECT_EQ(CreateKey(L"Othe"), 0);
}

TEST_F(CreateKeyTest, HalfAKeyIsNoKeyButLeavesItsHandle) {
  const CK_OBJECT_HANDLE publicKey = token().AddPublicKey(Ascii("id"), "Public");
  token().AddPrivateKey(Ascii("id"), "Private");
  EXPECT_EQ(CreateKey(L"Public"), 0);
  EXPECT_EQ(record().fOverwrite, 0u);
  EXPECT_EQ(record().hPublicKeyObject, publicKey);
  EXPECT_EQ(record().hPrivateKeyObject, 0u);
  ExpectCalls(Texts({Search("02000000", "5075626c6963"), Search("03000000", "5075626c6963")}));
  Forget();
  EXPECT_EQ(CreateKey(L"Private", 0, kOverwrite), 0);
  EXPECT_EQ(record().fOverwrite, 0u);
  EXPECT_EQ(record().hPublicKeyObject, 0u);
  EXPECT_EQ(record().hPrivateKeyObject, 0u) << "the private key is not looked for without a public one";
  ExpectCalls(Search("02000000", "50726976617465"));
}

TEST_F(CreateKeyTest, OnlyTheFirstOfSeveralIsTaken) {
  const fake::KeyPair first = token().AddKeyPair(Ascii("a"), "Key1");
  token().AddKeyPair(Ascii("b"), "Key1");
  EXPECT_EQ(CreateKey(L"Key1", 0, kOverwrite), 0);
  EXPECT_EQ(record().hPublicKeyObject, first.publicKey);
  EXPECT_EQ(record().hPrivateKeyObject, first.privateKey);
}

TEST_F(CreateKeyTest, EveryTokenCallOfTheLookupCanFail) {
  token().AddKeyPair(Ascii("id"), "Key1");
  struct Step {
    const char* function;
    std::size_t nth;
  };
  const Step steps[] = {{"C_FindObjectsInit", 1},   {"C_FindObjects", 1},       {"C_FindObjectsFinal", 1},
                        {"C_FindObjectsInit", 2},   {"C_FindObjects", 2},       {"C_FindObjectsFinal", 2},
                        {"C_GetAttributeValue", 1}, {"C_GetAttributeValue", 2}, {"C_GetAttributeValue", 3}};
  for (const Step& step : steps) {
    for (const DWORD flags : {DWORD{0}, kOverwrite}) {
      token().ClearScript();
      token().Fail(step.function, CKR_DEVICE_ERROR, step.nth);
      const kit::MemoryWatch watch;
      EXPECT_EQ(CreateKey(L"Key1", 0, flags), NTE_INTERNAL_ERROR) << step.function << " " << step.nth;
      EXPECT_EQ(key_, kUntouched);
      EXPECT_TRUE(watch.Live().empty());
      ExpectLines(Lines("RSA", "Key1", 0, flags,
                        {"Validating key file existence", "Failed to validate key file existence"},
                        NTE_INTERNAL_ERROR));
      // A search that the token did not end stays open; the next session of the test starts afresh.
      const std::vector<std::string> calls = token().TakeTexts();
      ASSERT_FALSE(calls.empty());
      EXPECT_EQ(calls.back().substr(0, calls.back().find('(')), step.function) << "nothing is called behind a failure";
      ksp().FreeProvider(provider_);
      provider_ = OpenProvider();
    }
  }
}

TEST_F(CreateKeyTest, KeyThatDoesNotTellItsValuesIsAFailure) {
  for (const CK_ATTRIBUTE_TYPE hidden : {CKA_MODULUS, CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_SIGN, CKA_DECRYPT}) {
    const fake::KeyPair pair = token().AddKeyPair(Ascii("id"), "Hidden " + std::to_string(hidden));
    const bool ofPublic = hidden != CKA_SIGN && hidden != CKA_DECRYPT;
    token().ObjectAttributes(ofPublic ? pair.publicKey : pair.privateKey).erase(hidden);
    EXPECT_EQ(CreateKey((L"Hidden " + std::to_wstring(hidden)).c_str()), NTE_INTERNAL_ERROR);
  }
}

TEST_F(CreateKeyTest, ValuesThatThereIsNoRoomForAreAFailure) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("id"), "Key1", 1024);
  token().ObjectAttributes(pair.publicKey)[CKA_MODULUS_BITS] = Bytes(555, 1);
  token().ObjectAttributes(pair.publicKey)[CKA_PUBLIC_EXPONENT] = Bytes(777, 1);
  for (const std::size_t refused : {std::size_t{128}, std::size_t{555}, std::size_t{777}}) {
    kit::MemoryWatch watch;
    watch.FailWhen([&](std::size_t size, std::size_t) { return size == refused; });
    EXPECT_EQ(CreateKey(L"Key1"), NTE_INTERNAL_ERROR) << refused;
    EXPECT_EQ(token().Count("C_GetAttributeValue"), 1u) << "the lengths only";
    EXPECT_TRUE(watch.Live().empty());
    Forget();
  }
}

TEST_F(CreateKeyTest, LookupWipesWhatItReads) {
  token().AddKeyPair(Ascii("id"), "Key1", 1024);
  const kit::MemoryWatch watch;
  EXPECT_EQ(CreateKey(L"Key1"), NTE_EXISTS);
  int checked = 0;
  for (const fake::Call& call : token().Calls()) {
    if (call.function != "C_GetAttributeValue" || call.templates[0][0].type != CKA_MODULUS) continue;
    for (const fake::Attribute& attribute : call.templates[0]) {
      if (!attribute.address) continue;
      EXPECT_TRUE(WipedAndFreed(watch, attribute.address, attribute.length));
      ++checked;
    }
  }
  EXPECT_EQ(checked, 3);
  EXPECT_FALSE(watch.FreedContains("Key1")) << "neither as label";
  EXPECT_FALSE(watch.FreedContainsWide("Key1")) << "nor as name";
}

TEST_F(CreateKeyTest, LookupTakesANameOfAnyLength) {
  const std::string label(259, 'n');
  token().AddKeyPair(Ascii("id"), label);
  EXPECT_EQ(CreateKey(std::wstring(259, L'n').c_str()), NTE_EXISTS);
}

TEST_F(CreateKeyTest, LookupNarrowsCharacterByCharacter) {
  EXPECT_EQ(CreateKey(L"\x01\x7F\x80\xFF"), 0);
  ExpectCalls(Search("02000000", "017f80ff"));
  // Without a narrow form the label is empty.
  EXPECT_EQ(CreateKey(L"Key\x100"), 0);
  ExpectCalls(Search("02000000", ""));
  EXPECT_STREQ(record().pszKeyName, L"Key\x100");
}

TEST_F(CreateKeyTest, TokenObjectOfTheLookupHasALogOfItsOwn) {
  kit::Registry::Get().RemoveKey(kit::kSdkKey);  // switched off: a constructor sends its first line only
  EXPECT_EQ(CreateKey(L"Key1"), 0);
  EXPECT_EQ(kit::Log::Get().TakeWideLines(), std::vector<std::wstring>{L"DebugClass ctor - Enter"});
  EXPECT_EQ(CreateKey(nullptr), 0);
  EXPECT_EQ(kit::Log::Get().TakeWideLines(), std::vector<std::wstring>{});
}

TEST_F(CreateKeyTest, LogOfATokenObjectHasNoStartLine) {
  const int before = kit::Log::Get().InstancesConstructed();
  EXPECT_EQ(CreateKey(L"Key1"), 0);
  EXPECT_EQ(kit::Log::Get().InstancesConstructed(), before + 1);
  EXPECT_EQ(kit::Log::Get().FileText(before + 1), "") << "and no line of any other kind";
}

TEST_F(CreateKeyTest, AlgorithmThatDoesNotOpen) {
  ksp().FreeProvider(provider_);
  // A fresh load has no algorithm handle yet.
  ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Tagged));
  provider_ = OpenProvider();
  struct Case {
    ULONG ntStatus;
    LONG status;
  };
  const Case cases[] = {{0xC00000BB, NTE_NOT_SUPPORTED},     {0xC0000008, NTE_INVALID_HANDLE},
                        {0xC000000D, NTE_INVALID_PARAMETER}, {0xC0000017, NTE_NO_MEMORY},
                        {0xC000009A, NTE_NO_MEMORY},         {0xC0000023, NTE_BUFFER_TOO_SMALL},
                        {0xC00000E5, NTE_INTERNAL_ERROR},    {0xC000A000, NTE_BAD_SIGNATURE},
                        {0xC0000001, NTE_INTERNAL_ERROR},    {0x00000001, NTE_INTERNAL_ERROR}};
  ULONG answer = 0;
  std::vector<std::wstring> opened;
  {
    const kit::Hook<"BCryptOpenAlgorithmProvider", decltype(&BCryptOpenAlgorithmProvider)> hook(
        [&](auto original, BCRYPT_ALG_HANDLE* handle, LPCWSTR algorithm, LPCWSTR implementation, ULONG flags) {
          opened.emplace_back(std::wstring(algorithm) + (implementation ? L" impl" : L"") + std::to_wstring(flags));
          return answer ? static_cast<NTSTATUS>(answer) : original(handle, algorithm, implementation, flags);
        });
    for (const Case& one : cases) {
      answer = one.ntStatus;
      const kit::MemoryWatch watch;
      EXPECT_EQ(CreateKey(L"Key1"), one.status);
      EXPECT_EQ(key_, kUntouched);
      EXPECT_TRUE(watch.Live().empty()) << "the record is released";
      ExpectLines(Lines("RSA", "Key1", 0, 0, {"Failed to create new key object"}, one.status));
    }
    ExpectCalls({});
    EXPECT_EQ(opened, std::vector<std::wstring>(std::size(cases), L"RSA0"));
    // The first success is the last call.
    answer = 0;
    opened.clear();
    EXPECT_EQ(CreateKey(nullptr), 0);
    EXPECT_EQ(CreateKey(nullptr), 0);
    EXPECT_EQ(opened, std::vector<std::wstring>{L"RSA0"});
  }
}

// Two threads that make the first keys of a process at once; here one comes in the middle of the other.
TEST_F(CreateKeyTest, SecondOfTwoFirstAlgorithmHandlesIsClosed) {
  ksp().FreeProvider(provider_);
  // A fresh load has no algorithm handle yet.
  ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Tagged));
  provider_ = OpenProvider();
  NCRYPT_KEY_HANDLE other = 0;
  std::vector<BCRYPT_ALG_HANDLE> opened;
  std::vector<BCRYPT_ALG_HANDLE> closed;
  const kit::Hook<"BCryptOpenAlgorithmProvider", decltype(&BCryptOpenAlgorithmProvider)> opening(
      [&](auto original, BCRYPT_ALG_HANDLE* handle, LPCWSTR algorithm, LPCWSTR implementation, ULONG flags) {
        if (opened.empty()) {
          opened.push_back(nullptr);  // the call of the key that is made in between comes here as well
          EXPECT_EQ(ksp().CreatePersistedKey(provider_, &other, L"RSA", nullptr, 0, 0), 0);
          keys_.push_back(other);
        }
        const NTSTATUS status = original(handle, algorithm, implementation, flags);
        opened.push_back(*handle);
        return status;
      });
  const kit::Hook<"BCryptCloseAlgorithmProvider", decltype(&BCryptCloseAlgorithmProvider)> closing(
      [&](auto original, BCRYPT_ALG_HANDLE handle, ULONG flags) {
        closed.push_back(handle);
        EXPECT_EQ(flags, 0u);
        return original(handle, flags);
      });
  EXPECT_EQ(CreateKey(nullptr), 0);
  ASSERT_EQ(opened.size(), 3u);
  EXPECT_EQ(kit::KeyOf(other)->hAlgProvider, opened[1]);
  EXPECT_EQ(record().hAlgProvider, opened[1]) << "the first one serves both";
  EXPECT_EQ(closed, std::vector<BCRYPT_ALG_HANDLE>{opened[2]});
}

TEST_F(CreateKeyTest, RecordOrNameThatCannotBeAllocated) {
  for (const std::size_t refused : {sizeof(kit::KeyRecord), 300 / 2 * sizeof(wchar_t)}) {
    kit::MemoryWatch watch;
    watch.FailWhen([&](std::size_t size, std::size_t) { return size == refused; });
    const std::string name(149, 'n');
    EXPECT_EQ(CreateKey(std::wstring(name.begin(), name.end()).c_str()), NTE_NO_MEMORY) << refused;
    EXPECT_EQ(key_, kUntouched);
    EXPECT_TRUE(watch.Live().empty()) << "the record is released";
    ExpectLines(Lines("RSA", name, 0, 0, {"Failed to create new key object"}, NTE_NO_MEMORY));
  }
  ExpectCalls({});
}

TEST_F(CreateKeyTest, LookupWithoutRoomForTheLabel) {
  const std::string name(149, 'n');
  kit::MemoryWatch watch;
  watch.FailWhen([&](std::size_t size, std::size_t) { return size == name.size() + 1; });
  EXPECT_EQ(CreateKey(std::wstring(name.begin(), name.end()).c_str()), NTE_NO_MEMORY);
  watch.StopFailing();
  EXPECT_EQ(key_, kUntouched);
  ExpectLines(Lines("RSA", name, 0, 0, {"Validating key file existence", "Failed to validate key file existence"},
                    NTE_NO_MEMORY));
  ExpectCalls({});
}

TEST_F(CreateKeyTest, RefusedRecordsAreReleasedWithTheirNamesWiped) {
  const kit::MemoryWatch watch;
  token().FailAlways("C_FindObjectsInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(CreateKey(L"Some identifier"), NTE_INTERNAL_ERROR);
  EXPECT_FALSE(watch.FreedContainsWide("identifier"));
  const std::vector<kit::FreedBlock> freed = watch.Freed();
  const auto record = std::find_if(freed.begin(), freed.end(), [](const kit::FreedBlock& block) {
    return block.contents.size() == sizeof(kit::KeyRecord);
  });
  ASSERT_NE(record, freed.end());
  EXPECT_TRUE(std::all_of(record->contents.begin(), record->contents.end(), [](BYTE byte) { return byte == 0; }))
      << "a released record is no record";
}

TEST_F(CreateKeyTest, OnlyTheRecordAndItsNameStayBehind) {
  const kit::MemoryWatch watch;
  EXPECT_EQ(CreateKey(L"Key1"), 0);
  const std::map<const void*, std::size_t> live = watch.Live();
  EXPECT_EQ(live.size(), 2u);
  ASSERT_EQ(live.count(&record()), 1u);
  EXPECT_EQ(live.at(&record()), sizeof(kit::KeyRecord));
  ASSERT_EQ(live.count(record().pszKeyName), 1u);
  EXPECT_EQ(live.at(record().pszKeyName), 5 * sizeof(wchar_t)) << "exactly as many characters as are counted";
}

TEST_F(CreateKeyTest, EveryAllocationCanFail) {
  token().AddKeyPair(Ascii("id"), "Key1");
  FailEachAllocation([&] { return CreateKey(L"Key1", 0, kOverwrite); },
                     [&](SECURITY_STATUS status, std::size_t nth) {
                       if (status == 0) return false;  // a log line was lost, no more; the record is there
                       // What the token would have told counts as unreadable where there is no room for it.
                       EXPECT_TRUE(status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR) << "allocation " << nth;
                       EXPECT_EQ(key_, kUntouched);
                       return true;
                     });
}

// A module that says yes and does nothing.
TEST_F(CreateKeyTest, TokenThatAnswersNothing) {
  token().AddKeyPair(Ascii("id"), "Key1");
  token().FailAlways("C_GetAttributeValue", CKR_OK);
  EXPECT_EQ(CreateKey(L"Key1"), NTE_EXISTS);
  token().FailAlways("C_FindObjectsInit", CKR_OK);
  token().FailAlways("C_FindObjects", CKR_OK);
  token().FailAlways("C_FindObjectsFinal", CKR_OK);
  EXPECT_EQ(CreateKey(L"Key1"), 0) << "no object was counted";
  EXPECT_EQ(record().hPublicKeyObject, 0u);
}

#ifdef _WIN64  // see the generation of keys for why
TEST_F(CreateKeyTest, NothingThatTheTokenThrowsEscapes) {
  token().AddKeyPair(Ascii("id"), "Key1");
  for (const char* function : {"C_FindObjectsInit", "C_FindObjects", "C_FindObjectsFinal", "C_GetAttributeValue"}) {
    token().Before(function, [](const fake::Call&) { throw 7; });
    EXPECT_EQ(CreateKey(L"Key1"), NTE_INTERNAL_ERROR) << function;
    EXPECT_EQ(key_, kUntouched);
    // The key handle's line comes whatever the end, and directly before the exit line.
    ExpectLines(
        Lines("RSA", "Key1", 0, 0,
              {"Validating key file existence", "NTE_INTERNAL_ERROR: The operation ended with an unexpected exception"},
              NTE_INTERNAL_ERROR));
    token().ClearScript();
    ksp().FreeProvider(provider_);  // with the search that was left open
    provider_ = OpenProvider();
    Forget();
  }
}
#endif

TEST_F(CreateKeyTest, NullInEveryPointerPosition) {
  for (int missing = 0; missing < 16; ++missing) {
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status =
        ksp().CreatePersistedKey(missing & 1 ? 0 : provider_, missing & 2 ? nullptr : &key,
                                 missing & 4 ? nullptr : L"RSA", missing & 8 ? nullptr : L"Key1", 0, 0);
    const SECURITY_STATUS expected = missing & 1 ? NTE_INVALID_HANDLE : missing & 6 ? NTE_INVALID_PARAMETER : 0;
    EXPECT_EQ(status, expected) << missing;
    if (status == 0) keys_.push_back(key);
  }
}

}  // namespace
