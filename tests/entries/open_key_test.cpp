// OpenKey: a key is found by its name, by the hexadecimal text of its name, or behind the reader's name.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Hex32;
using kit::Join;
using kit::kBanner;
using kit::kClosingBanner;
using kit::KeyName;
using kit::kMachine;
using kit::Line;
using kit::Number;
using kit::Pointer32;

class OpenKeyTest : public kit::OpenedProviderTest {
 protected:
  void TearDown() override {
    if (key_) ksp().FreeKey(provider_, key_);
    kit::OpenedProviderTest::TearDown();
  }
  SECURITY_STATUS Open(const wchar_t* name, DWORD spec = 0, DWORD flags = 0) {
    key_ = 0;
    return ksp().OpenKey(provider_, &key_, name, spec, flags);
  }
  bool Opens(const wchar_t* name) {
    EXPECT_EQ(Open(name), 0);
    const bool found = key_ && kit::KeyOf(key_)->dwMagic == kit::kKeyMagic;
    if (found) ksp().FreeKey(provider_, key_);
    key_ = 0;
    return found;
  }
  // This entry's exit line has no colon and no blank before the status.
  std::vector<Line> Lines(const std::string& name, DWORD spec, DWORD flags, const std::vector<Line>& body,
                          LONG status) const {
    std::vector<Line> lines{kBanner,
                            "KELDAKSPOpenKey - Entry",
                            Hex32("hProvider       : ", provider_),
                            Pointer32("phKey           : ", &key_),
                            "pszKeyName      : " + name,
                            Hex32("dwLegacyKeySpec : ", spec),
                            Hex32("dwFlags         : ", flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    lines.emplace_back(Hex32("KELDAKSPOpenKey - Exit", static_cast<ULONG>(status)));
    lines.emplace_back(kClosingBanner);
    return lines;
  }
  // Lines of an entry whose labels' padding is not of interest: everything from the first body line on.
  static std::vector<Line> Body(const std::vector<Line>& all) {
    return all.size() < 7 ? std::vector<Line>{} : std::vector<Line>(all.begin() + 7, all.end());
  }
  void ExpectBody(const std::vector<Line>& body, LONG status) {
    std::vector<Line> expected = body;
    expected.emplace_back(Hex32("KELDAKSPOpenKey - Exit", static_cast<ULONG>(status)));
    expected.emplace_back(kClosingBanner);
    EXPECT_TRUE(kit::SameLines(expected, Body(kit::Log::Get().Take())));
  }
  static std::vector<Line> CopyLines() {
    return {KeyName("Key name match found"),
            KeyName("Copying key"),
            KeyName("- key name"),
            KeyName("- CKA_ID"),
            KeyName("- key handles"),
            KeyName("- provider handle"),
            KeyName("- flags"),
            KeyName("- security descriptor"),
            KeyName("- key file"),
            KeyName("Key was reconstructed"),
            KeyName("FindKELDKSPKeyfromObjectList - Exit")};
  }
  static std::vector<Line> SearchLines(const std::string& name, unsigned count) {
    return {KeyName("FindKELDKSPKeyfromObjectList - Entry"), KeyName("Looking for key with name: " + name),
            KeyName("Test KeyName pointer"), KeyName("Searching KeyName = " + name),
            Number("Starting iteration. Count: ", static_cast<long>(count))};
  }
  // Builds the list ahead, so that the lines of the lookup stand alone.
  void ListKeys() {
    BuildList();
    Forget();
  }
  // The lines of a key that is found in the list of one, opened under its name.
  std::vector<Line> FoundLines(const std::vector<Line>& search) const {
    return Join({search,
                 {KeyName("Iteration: 0x00000000"), KeyName("Compare name to: Key1")},
                 CopyLines(),
                 {Hex32("Key opened. Handle: ", key_)}});
  }

  NCRYPT_KEY_HANDLE key_ = 0;
};

TEST_F(OpenKeyTest, CopiesTheEntryIntoANewRecord) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "label", 1024);
  ListKeys();
  EXPECT_EQ(Open(L"Key1"), 0);
  ASSERT_NE(key_, 0u);
  const kit::KeyRecord& key = *kit::KeyOf(key_);
  const kit::KeyRecord& entry = providerRecord().pKeyObjects[0];
  EXPECT_NE(&key, &entry);
  EXPECT_EQ(key.cbLength, sizeof(kit::KeyRecord));
  EXPECT_EQ(key.dwMagic, kit::kKeyMagic);
  EXPECT_STREQ(key.pszKeyName, L"Key1");
  EXPECT_NE(key.pszKeyName, entry.pszKeyName);
  EXPECT_EQ(key.cbKeyName, 5u);
  EXPECT_EQ(key.dwAlgID, 1u);
  EXPECT_EQ(key.dwKeyBitLength, 1024u);
  EXPECT_EQ(key.dwExportPolicy, 2u);
  EXPECT_EQ(key.dwKeyUsagePolicy, 3u);
  EXPECT_EQ(key.fOverwrite, 0u);
  EXPECT_EQ(key.fFinished, 1u);
  EXPECT_EQ(key.hPublicKeyObject, pair.publicKey);
  EXPECT_EQ(key.hPrivateKeyObject, pair.privateKey);
  EXPECT_EQ(Bytes(key.KeyId, key.KeyId + 200), Bytes(entry.KeyId, entry.KeyId + 200));
  EXPECT_EQ(key.cbKeyId, 4u);
  EXPECT_EQ(key.hAlgProvider, entry.hAlgProvider);
  EXPECT_EQ(key.pbSecurityDescr, nullptr);
  EXPECT_EQ(key.pbKeyFile, nullptr);
  EXPECT_EQ(key.pbPrivateKey, nullptr);
  EXPECT_EQ(key.pbModulus, nullptr);

  ExpectLines(Lines("Key1", 0, 0,
                    Join({{"Parsing key name...", "Retrieving key name", "Initializing key object",
                           "Find key with specified key name"},
                          FoundLines(SearchLines("Key1", 1))}),
                    0));
  ExpectCalls({});
}

// Whatever an entry holds is what the handle gets, also where no entry differs from a new record today.
TEST_F(OpenKeyTest, CopiesEveryFieldOfTheEntry) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  kit::KeyRecord& entry = providerRecord().pKeyObjects[0];
  entry.dwAlgID = 0x2400;
  entry.dwKeyBitLength = 0x01020304;
  entry.dwExportPolicy = 0x11;
  entry.dwKeyUsagePolicy = 0x22;
  entry.fOverwrite = 0x33;
  entry.fFinished = 0x44;
  entry.reserved1 = 0x5555555555;
  entry.reserved2 = 0x6666666666;
  entry.KeyId[4] = 0x77;
  entry.KeyId[199] = 0x88;
  entry.pszKeyBlobType = L"type";
  BYTE byte = 0;
  entry.pbModulus = &byte;
  EXPECT_EQ(Open(L"Key1"), 0);
  const kit::KeyRecord& key = *kit::KeyOf(key_);
  EXPECT_EQ(key.dwAlgID, 0x2400u);
  EXPECT_EQ(key.dwKeyBitLength, 0x01020304u);
  EXPECT_EQ(key.dwExportPolicy, 0x11u);
  EXPECT_EQ(key.dwKeyUsagePolicy, 0x22u);
  EXPECT_EQ(key.fOverwrite, 0x33u);
  EXPECT_EQ(key.fFinished, 0x44u);
  EXPECT_EQ(key.reserved1, 0x5555555555u);
  EXPECT_EQ(key.reserved2, 0x6666666666u);
  EXPECT_EQ(Bytes(key.KeyId, key.KeyId + 200), Bytes(entry.KeyId, entry.KeyId + 200)) << "beyond its length as well";
  EXPECT_EQ(key.cbKeyId, 4u);
  // These two are not copied along.
  EXPECT_EQ(key.pszKeyBlobType, nullptr);
  EXPECT_EQ(key.pbModulus, nullptr);
  EXPECT_EQ(key.PropertyList.next, &key.PropertyList) << "the record's own list, and empty";
  EXPECT_EQ(key.PropertyList.previous, &key.PropertyList);
  entry.pbModulus = nullptr;
}

// The bytes go into buffers that the new record does not have: nothing is copied, and the two never share a block.
TEST_F(OpenKeyTest, DescriptorAndKeyFileOfTheEntryStayWithIt) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  kit::KeyRecord& entry = providerRecord().pKeyObjects[0];
  // So large that nothing of what the next list asks for is given their places.
  const std::string large(1 << 20, 'x');
  entry.pbSecurityDescr = Block(large);
  entry.cbSecurityDescr = static_cast<ULONG>(large.size());
  entry.pbKeyFile = Block(large);
  entry.cbKeyFile = static_cast<ULONG>(large.size());
  EXPECT_EQ(Open(L"Key1"), 0);
  const kit::KeyRecord& key = *kit::KeyOf(key_);
  EXPECT_EQ(key.pbSecurityDescr, nullptr);
  EXPECT_EQ(key.cbSecurityDescr, 0u);
  EXPECT_EQ(key.pbKeyFile, nullptr);
  EXPECT_EQ(key.cbKeyFile, 0u);
  kit::MemoryWatch watch;
  const void* const blocks[] = {entry.pbSecurityDescr, entry.pbKeyFile};
  ListKeys();
  for (const void* block : blocks)
    EXPECT_TRUE(watch.WasFreed(block)) << "they go with the list";
}

TEST_F(OpenKeyTest, OnlyTheRecordStaysBehind) {
  token().AddKeyPair(Ascii("Some identifier"), "");
  ListKeys();
  const kit::MemoryWatch watch;
  EXPECT_EQ(Open(L"Some identifier"), 0);
  const std::map<const void*, std::size_t> live = watch.Live();
  EXPECT_EQ(live.size(), 2u);
  ASSERT_EQ(live.count(kit::KeyOf(key_)), 1u);
  EXPECT_EQ(live.at(kit::KeyOf(key_)), sizeof(kit::KeyRecord));
  ASSERT_EQ(live.count(kit::KeyOf(key_)->pszKeyName), 1u);
  EXPECT_EQ(live.at(kit::KeyOf(key_)->pszKeyName), 17 * sizeof(wchar_t)) << "one more than the name and its terminator";
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  EXPECT_EQ(watch.Live().size(), 1u) << "the record";
  EXPECT_FALSE(watch.FreedContainsWide("identifier")) << "the text that was searched is wiped as well";
  key_ = 0;
}

TEST_F(OpenKeyTest, RefusedKeyLeavesNothing) {
  token().AddPublicKey(Ascii("Pub"), "");
  ListKeys();
  const kit::MemoryWatch watch;
  EXPECT_EQ(Open(L"Pub", 2), NTE_BAD_KEYSET);
  EXPECT_TRUE(watch.Live().empty());
}

TEST_F(OpenKeyTest, BuildsTheListBetweenTheLinesOfTheLookup) {
  token().AddPublicKey(Ascii("Key1"), "");
  EXPECT_EQ(Open(L"Key1"), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  ASSERT_FALSE(kit::ListLines(lines).empty());
  std::vector<Line> search = SearchLines("Key1", 1);
  search.insert(search.begin() + 2, KeyName("Number of key objects is 0."));
  EXPECT_TRUE(kit::SameLines(Lines("Key1", 0, 0,
                                   Join({{"Parsing key name...", "Retrieving key name", "Initializing key object",
                                          "Find key with specified key name"},
                                         FoundLines(search)}),
                                   0),
                             kit::WithoutListLines(lines)));
}

TEST_F(OpenKeyTest, TokenWithoutKeys) {
  EXPECT_EQ(Open(L"Key1"), 0);
  EXPECT_EQ(kit::KeyOf(key_)->dwMagic, 0u);
  ExpectBody(
      {"Parsing key name...", "Retrieving key name", "Initializing key object", "Find key with specified key name",
       KeyName("FindKELDKSPKeyfromObjectList - Entry"), KeyName("Looking for key with name: Key1"),
       KeyName("Number of key objects is 0."), KeyName("InitializeObjectList - Entry"),
       KeyName("Find Token Public Keys"), Number("numPublicKeys = ", 0), KeyName("Find Token Private Keys "),
       Number("numPublicKeys = ", 0), KeyName("InitializeObjectList - Exit"), KeyName("Test KeyName pointer"),
       KeyName("Searching KeyName = Key1"), Number("Starting iteration. Count: ", 0),
       KeyName("Key name match not found"), KeyName("FindKELDKSPKeyfromObjectList - Exit"),
       Hex32("Key opened. Handle: ", key_)},
      0);
  key_ = 0;
}

TEST_F(OpenKeyTest, BuildsTheListOnFirstUseOnly) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_TRUE(Opens(L"Key1"));
  const std::vector<Line> first = kit::Log::Get().Take();
  EXPECT_EQ(std::count(first.begin(), first.end(), KeyName("Number of key objects is 0.")), 1);
  EXPECT_EQ(std::count(first.begin(), first.end(), KeyName("InitializeObjectList - Entry")), 1);
  token().AddKeyPair(Ascii("Later"), "");
  token().ClearCalls();
  EXPECT_FALSE(Opens(L"Later")) << "a key made later is found after the next enumeration only";
  ExpectCalls({});
  ListKeys();
  EXPECT_TRUE(Opens(L"Later"));
}

TEST_F(OpenKeyTest, UnknownNameGivesAHandleThatEveryEntryRefuses) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  EXPECT_EQ(Open(L"Unknown"), 0);
  ASSERT_NE(key_, 0u);
  const auto* bytes = reinterpret_cast<const BYTE*>(kit::KeyOf(key_));
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(kit::KeyRecord), [](BYTE byte) { return byte == 0; }));
  ExpectLines(Lines("Unknown", 0, 0,
                    Join({{"Parsing key name...", "Retrieving key name", "Initializing key object",
                           "Find key with specified key name"},
                          SearchLines("Unknown", 1),
                          {KeyName("Iteration: 0x00000000"), KeyName("Compare name to: Key1"),
                           KeyName("Checking hex string equivalent of key name"), KeyName("Key name match not found"),
                           KeyName("Key name match not found"), KeyName("FindKELDKSPKeyfromObjectList - Exit"),
                           Hex32("Key opened. Handle: ", key_)}}),
                    0));
  EXPECT_EQ(ksp().FreeKey(provider_, key_), NTE_INVALID_HANDLE);
  BYTE hash[20] = {};
  DWORD length = 0;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash, 20, nullptr, 0, &length, 0), NTE_INVALID_HANDLE);
  key_ = 0;
}

TEST_F(OpenKeyTest, EmptyTokenIsAskedAgainByEveryLookup) {
  EXPECT_FALSE(Opens(L"Key1"));
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_TRUE(Opens(L"Key1"));
}

TEST_F(OpenKeyTest, FailingListIsLoggedAndOtherwiseIgnored) {
  token().AddKeyPair(Ascii("Key1"), "");
  token().Fail("C_FindObjectsInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(Open(L"Key1"), 0);
  EXPECT_EQ(kit::KeyOf(key_)->dwMagic, 0u);
  ExpectBody(
      {"Parsing key name...", "Retrieving key name", "Initializing key object", "Find key with specified key name",
       KeyName("FindKELDKSPKeyfromObjectList - Entry"), KeyName("Looking for key with name: Key1"),
       KeyName("Number of key objects is 0."), KeyName("InitializeObjectList - Entry"),
       KeyName("Find Token Public Keys"), KeyName("Find Token Public Keys error"),
       KeyName("InitializeObjectList - Exit"), KeyName("LoadTokenKeys error "),
       KeyName("FindKELDKSPKeyfromObjectList - Exit"), Hex32("Key opened. Handle: ", key_)},
      0);
  key_ = 0;
}

TEST_F(OpenKeyTest, FailingListIsBadKeysetForALegacyKeySpec) {
  token().AddKeyPair(Ascii("Key1"), "");
  token().Fail("C_FindObjectsInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(Open(L"Key1", 1), NTE_BAD_KEYSET) << "the status of the list is not looked at";
  EXPECT_EQ(key_, 0u);
}

TEST_F(OpenKeyTest, NamesMatchWithoutRegardToCaseOverTheStoredLength) {
  token().AddKeyPair(Ascii("ABC"), "");
  EXPECT_TRUE(Opens(L"ABC"));
  EXPECT_TRUE(Opens(L"abc"));
  EXPECT_TRUE(Opens(L"ABCD"));
  EXPECT_TRUE(Opens(L"abcdefgh"));
  EXPECT_FALSE(Opens(L"AB"));
  EXPECT_FALSE(Opens(L"xABC"));
  EXPECT_FALSE(Opens(L""));
}

TEST_F(OpenKeyTest, OnlyAToZAreFolded) {
  token().AddKeyPair({0xE4}, "");
  EXPECT_TRUE(Opens(L"\xE4"));
  EXPECT_FALSE(Opens(L"\xC4"));
}

TEST_F(OpenKeyTest, HexadecimalTextOfTheName) {
  token().AddKeyPair(Ascii("Key1"), "");
  for (const wchar_t* name : {L"4B657931", L"4b657931", L"4B65793141", L"6b657931"})
    EXPECT_TRUE(Opens(name));
  for (const wchar_t* name : {L"4B6579", L"4B65793", L"4B657932", L"G4B65793", L"4B 5793"})
    EXPECT_FALSE(Opens(name));
}

TEST_F(OpenKeyTest, HexadecimalTextFindsAnUnreadableName) {
  token().AddKeyPair({0x3F, 0x9A, 0x00, 0x12}, "");
  EXPECT_TRUE(Opens(L"3F9A"));
  EXPECT_TRUE(Opens(L"3f9a"));
}

TEST_F(OpenKeyTest, SecondCharacterOfAPairIsNotChecked) {
  token().AddKeyPair({0x04}, "");
  EXPECT_TRUE(Opens(L"4G"));
  EXPECT_TRUE(Opens(L"04"));
  EXPECT_FALSE(Opens(L"G4"));
}

TEST_F(OpenKeyTest, ZeroBytesAppendNothing) {
  token().AddKeyPair(Ascii("AB"), "");
  EXPECT_TRUE(Opens(L"410042"));
  EXPECT_TRUE(Opens(L"00414200"));
}

TEST_F(OpenKeyTest, EmptyStoredNameMatchesEverything) {
  token().AddKeyPair({0x00, 0x41}, "label");
  EXPECT_TRUE(Opens(L"whatever"));
  EXPECT_TRUE(Opens(L""));
}

TEST_F(OpenKeyTest, EntryWithoutANameMatchesNothing) {
  token().AddPublicKey({}, "label");  // an identifier that is present but empty
  EXPECT_FALSE(Opens(L"label"));
  EXPECT_FALSE(Opens(L""));
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Compare name to: ")), 2);
}

TEST_F(OpenKeyTest, FirstMatchingEntryWins) {
  const fake::KeyPair first = token().AddKeyPair(Ascii("Ke"), "");
  token().AddKeyPair(Ascii("Xy1"), "");
  ListKeys();
  EXPECT_EQ(Open(L"Key1"), 0);
  EXPECT_EQ(kit::KeyOf(key_)->hPublicKeyObject, first.publicKey);
}

TEST_F(OpenKeyTest, IterationsAreNumberedInTheLog) {
  for (int i = 0; i < 3; ++i)
    token().AddPublicKey(Ascii("Key" + std::to_string(i)), "");
  ListKeys();
  EXPECT_EQ(Open(L"Key2"), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  for (const char* text : {"Iteration: 0x00000000", "Iteration: 0x00000001", "Iteration: 0x00000002"}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName(text)), 1) << text;
  }
}

TEST_F(OpenKeyTest, ReaderNameAndOneSeparatorAreSkipped) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  EXPECT_EQ(Open(L"\\\\.\\Reader 0\\Key1"), 0);
  EXPECT_EQ(kit::KeyOf(key_)->hPublicKeyObject, pair.publicKey);
  ExpectLines(
      Lines("\\\\.\\Reader 0\\Key1", 0, 0,
            Join({{"Parsing key name...", "Reader name found on key name: Reader 0", "wstrKeyID: \\\\.\\Reader 0\\Key1",
                   Number("ReaderName length: ", 8), Number("Position: ", 4), "Retrieving key name",
                   "Initializing key object", "Find key with specified key name"},
                  FoundLines(SearchLines("Key1", 1))}),
            0));
}

TEST_F(OpenKeyTest, AnythingBeforeTheReaderNameAndAnySeparator) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_TRUE(Opens(L"xxReader 0\\Key1"));
  EXPECT_TRUE(Opens(L"Reader 0/Key1"));
  EXPECT_TRUE(Opens(L"Reader 0KKey1"));
  EXPECT_TRUE(Opens(L"Reader 0\\4B657931"));
  EXPECT_FALSE(Opens(L"Reader 0Key1"));
  EXPECT_FALSE(Opens(L"reader 0\\Key1")) << "the reader's name is searched with regard to case";
  EXPECT_FALSE(Opens(L"Reader 0\\\\Key1")) << "one separator is skipped, not two";
  EXPECT_FALSE(Opens(L"Reader 0\\Reader 0\\Key1")) << "the first occurrence decides";
}

TEST_F(OpenKeyTest, ReaderNameAloneLeavesAnEmptyKeyPart) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_FALSE(Opens(L"Reader 0"));
  Forget();
  EXPECT_FALSE(Opens(L"Reader 0\\"));
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Looking for key with name: ")), 1);
}

TEST_F(OpenKeyTest, EmptyReaderNameIsFoundAtTheStart) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  wchar_t* const reader = providerRecord().pszReader;
  const wchar_t first = reader[0];
  reader[0] = L'\0';
  EXPECT_EQ(Open(L"xKey1"), 0);
  EXPECT_EQ(kit::KeyOf(key_)->dwMagic, kit::kKeyMagic) << "the first character counts as the separator";
  ExpectBody(Join({{"Parsing key name...", "Reader name found on key name: ", "wstrKeyID: xKey1",
                    Number("ReaderName length: ", 0), Number("Position: ", 0), "Retrieving key name",
                    "Initializing key object", "Find key with specified key name"},
                   FoundLines(SearchLines("Key1", 1))}),
             0);
  EXPECT_FALSE(Opens(L"Key1"));
  EXPECT_FALSE(Opens(L""));
  reader[0] = first;
}

TEST_F(OpenKeyTest, LongNamesAreNotRefused) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  for (const std::size_t length : {std::size_t{1024}, std::size_t{1025}, std::size_t{70000}}) {
    const std::wstring name = L"Key1" + std::wstring(length - 4, L'x');
    EXPECT_TRUE(Opens(name.c_str())) << length;
    const std::vector<Line> lines = kit::Log::Get().Take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Overflow!")), length > 1024 ? 1 : 0) << length;
  }
}

TEST_F(OpenKeyTest, RefusesForeignProviderHandles) {
  EXPECT_EQ(ksp().OpenKey(0, &key_, L"Key1", 0, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(key_, 0u);
  ExpectBody({"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE);
  kit::ProviderRecord foreign{};
  foreign.cbLength = sizeof foreign;
  EXPECT_EQ(ksp().OpenKey(reinterpret_cast<NCRYPT_PROV_HANDLE>(&foreign), &key_, L"Key1", 0, 0), NTE_INVALID_HANDLE);
  ExpectBody({"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE);
}

TEST_F(OpenKeyTest, ChecksInOrder) {
  EXPECT_EQ(ksp().OpenKey(provider_, nullptr, nullptr, 9, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectBody({"NTE_INVALID_PARAMETER: phKey is NULL"}, NTE_INVALID_PARAMETER);
  EXPECT_EQ(ksp().OpenKey(provider_, &key_, nullptr, 9, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectBody({"NTE_INVALID_PARAMETER: pszKeyName is NULL"}, NTE_INVALID_PARAMETER);
  EXPECT_EQ(Open(L"Key1", 4, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectBody({"NTE_INVALID_PARAMETER: ((dwLegacyKeySpec & ~(AT_KEYEXCHANGE | AT_SIGNATURE)) != 0) "},
             NTE_INVALID_PARAMETER);
  EXPECT_EQ(Open(L"Key1", 3, 0xFFFFFFFF), NTE_BAD_FLAGS);
  ExpectBody({"NTE_BAD_FLAGS: ((dwFlags & ~(NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG)) != 0) "}, NTE_BAD_FLAGS);
  EXPECT_EQ(Open(L"Key1", 3, kMachine), NTE_NOT_SUPPORTED);
  ExpectBody({"NTE_NOT_SUPPORTED:  (dwFlags & NCRYPT_MACHINE_KEY_FLAG) "}, NTE_NOT_SUPPORTED);
  EXPECT_EQ(key_, 0u);
  ExpectCalls({});
}

TEST_F(OpenKeyTest, FlagsOutside0x60AreRefusedOneByOne) {
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const LONG expected = flag == NCRYPT_SILENT_FLAG ? 0 : flag == kMachine ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Open(L"Key1", 0, flag), expected) << "bit " << bit;
  }
  key_ = 0;
}

TEST_F(OpenKeyTest, KeySpecExchangeWantsThePublicObject) {
  token().AddPrivateKey(Ascii("Lone"), "");
  token().AddPublicKey(Ascii("Pub"), "");
  ListKeys();
  EXPECT_EQ(Open(L"Lone", 1), NTE_BAD_KEYSET);
  EXPECT_EQ(key_, 0u);
  ExpectLines(Lines("Lone", 1, 0,
                    Join({{"Parsing key name...", "Retrieving key name", "Initializing key object",
                           "Find key with specified key name"},
                          SearchLines("Lone", 2),
                          {KeyName("Iteration: 0x00000000"), KeyName("Compare name to: Pub"),
                           KeyName("Checking hex string equivalent of key name"), KeyName("Key name match not found"),
                           KeyName("Iteration: 0x00000001"), KeyName("Compare name to: Lone")},
                          CopyLines(),
                          {"NTE_BAD_KEYSET: AT_KEYEXCHANGE key not found"}}),
                    NTE_BAD_KEYSET));
  EXPECT_EQ(Open(L"Lone", 2), 0);
  EXPECT_EQ(Open(L"Pub", 1), 0);
  Forget();
  EXPECT_EQ(Open(L"Pub", 2), NTE_BAD_KEYSET);
  std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_BAD_KEYSET: AT_SIGNATURE Key not found")), 1);
  // Both halves: the exchange test comes first.
  EXPECT_EQ(Open(L"Pub", 3), NTE_BAD_KEYSET);
  lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_BAD_KEYSET: AT_SIGNATURE Key not found")), 1);
  EXPECT_EQ(Open(L"Unknown", 3), NTE_BAD_KEYSET);
  lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_BAD_KEYSET: AT_KEYEXCHANGE key not found")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_BAD_KEYSET: AT_SIGNATURE Key not found")), 0);
  EXPECT_EQ(Open(L"Lone", 3), NTE_BAD_KEYSET);
  lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_BAD_KEYSET: AT_KEYEXCHANGE key not found")), 1);
}

TEST_F(OpenKeyTest, KeySpecAbove3IsRefused) {
  for (const DWORD spec : {DWORD{4}, DWORD{5}, DWORD{0x80000000}, DWORD{0xFFFFFFFF}}) {
    EXPECT_EQ(Open(L"Key1", spec), NTE_INVALID_PARAMETER);
    ExpectBody({"NTE_INVALID_PARAMETER: ((dwLegacyKeySpec & ~(AT_KEYEXCHANGE | AT_SIGNATURE)) != 0) "},
               NTE_INVALID_PARAMETER);
  }
  ExpectCalls({});
}

TEST_F(OpenKeyTest, KeySpecThreeWithBothHalves) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_EQ(Open(L"Key1", 3, NCRYPT_SILENT_FLAG), 0);
}

TEST_F(OpenKeyTest, AlgorithmHandleIsSharedByAllRecords) {
  token().AddKeyPair(Ascii("Key1"), "");
  token().AddKeyPair(Ascii("Other"), "");
  int opened = 0;
  int closed = 0;
  const kit::Hook<"BCryptOpenAlgorithmProvider", decltype(&BCryptOpenAlgorithmProvider)> open(
      [&](auto original, BCRYPT_ALG_HANDLE* handle, LPCWSTR id, LPCWSTR implementation, ULONG flags) {
        ++opened;
        EXPECT_STREQ(id, L"RSA");
        EXPECT_EQ(implementation, nullptr);
        EXPECT_EQ(flags, 0u);
        return original(handle, id, implementation, flags);
      });
  const kit::Hook<"BCryptCloseAlgorithmProvider", NTSTATUS(WINAPI*)(BCRYPT_ALG_HANDLE, ULONG)> close(
      [&](auto original, BCRYPT_ALG_HANDLE handle, ULONG flags) {
        ++closed;
        return original(handle, flags);
      });
  ListKeys();
  const kit::KeyRecord* entries = providerRecord().pKeyObjects;
  EXPECT_EQ(entries[0].hAlgProvider, entries[1].hAlgProvider);
  EXPECT_LE(opened, 1) << "opened by the first record of the process";
  EXPECT_EQ(closed, 0);
}

TEST_F(OpenKeyTest, RecordThatCannotBeAllocated) {
  token().AddKeyPair(Ascii("Key1"), "");
  ListKeys();
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(kit::KeyRecord); });
  EXPECT_EQ(Open(L"Key1"), NTE_NO_MEMORY);
  EXPECT_EQ(key_, 0u);
  ExpectBody({"Parsing key name...", "Retrieving key name", "Initializing key object",
              "Not enough memory to initialize key object"},
             NTE_NO_MEMORY);
}

TEST_F(OpenKeyTest, AnyAllocationMayFail) {
  token().AddKeyPair(Ascii("Key1"), "");
  FailEachAllocation([&] { return Open(L"Key1"); },
                     [&](SECURITY_STATUS status, std::size_t) {
                       EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR)
                           << std::hex << status;
                       if (status == 0) ksp().FreeKey(provider_, key_);
                       key_ = 0;
                       return false;  // the list stays, and so does the record
                     });
}

}  // namespace
