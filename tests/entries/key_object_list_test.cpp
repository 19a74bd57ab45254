// The key object list: the token's keys, paired by identifier, as enumeration and lookup by name see them.
#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

using fake::Ascii;
using fake::Bytes;
using kit::Dump;
using kit::Join;
using kit::KeyName;
using kit::Line;
using kit::Number;

const char kSearchPublic[] = "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=02000000})";
const char kSearchPrivate[] = "C_FindObjectsInit(session=0x51, {CKA_TOKEN=01, CKA_CLASS=03000000})";
const char kCount[] = "C_FindObjects(session=0x51, objects=NULL, maximum=1000)";
const char kFinal[] = "C_FindObjectsFinal(session=0x51)";

class KeyObjectListTest : public kit::OpenedProviderTest {
 protected:
  std::size_t Entries() const { return providerRecord().cKeyObjects; }
  const kit::KeyRecord& Entry(std::size_t index) const { return providerRecord().pKeyObjects[index]; }
  // The lines of the building alone.
  static std::vector<Line> BuildLines() { return kit::ListLines(kit::Log::Get().Take()); }
  static std::string Fetch(std::size_t count) {
    return "C_FindObjects(session=0x51, objects=PTR, maximum=" + std::to_string(count) + ")";
  }
  static std::string Read(CK_OBJECT_HANDLE object) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "C_GetAttributeValue(session=0x51, object=0x%lx, {CKA_ID[200], CKA_LABEL[200], CKA_MODULUS_BITS[4]})",
                  object);
    return text;
  }
  static std::vector<Line> NameLines(const Bytes& id, const std::string& name) {
    return {KeyName("Converting CKA_ID to key name..."), KeyName(Dump("CKA_ID: ", id)), KeyName("KeyName: " + name),
            KeyName("Done")};
  }
  static std::vector<Line> Attributes(const Bytes& id, const Bytes& label, long bits) {
    return {KeyName(Dump("CKA_ID\t\t: ", id)), KeyName(Dump("CKA_LABEL\t: ", label)),
            Number("CKA_MODULUS_BITS: ", bits)};
  }
};

TEST_F(KeyObjectListTest, PairsPublicAndPrivateKey) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "my label", 1024);
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  const kit::KeyRecord& entry = Entry(0);
  EXPECT_EQ(entry.cbLength, sizeof(kit::KeyRecord));
  EXPECT_EQ(entry.dwMagic, kit::kKeyMagic);
  EXPECT_STREQ(entry.pszKeyName, L"Key1");
  EXPECT_EQ(entry.cbKeyName, 5u);
  EXPECT_EQ(entry.hPublicKeyObject, pair.publicKey);
  EXPECT_EQ(entry.hPrivateKeyObject, pair.privateKey);
  EXPECT_EQ(Bytes(entry.KeyId, entry.KeyId + entry.cbKeyId), Ascii("Key1"));
  EXPECT_EQ(entry.dwKeyBitLength, 1024u);
  EXPECT_EQ(entry.fFinished, 1u);
  // The rest is as a new record has it.
  EXPECT_EQ(entry.dwAlgID, 1u);
  EXPECT_EQ(entry.dwExportPolicy, 2u);
  EXPECT_EQ(entry.dwKeyUsagePolicy, 3u);
  EXPECT_EQ(entry.fOverwrite, 0u);
  EXPECT_EQ(entry.pszKeyBlobType, nullptr);
  EXPECT_EQ(entry.pbKeyFile, nullptr);
  EXPECT_EQ(entry.pbPrivateKey, nullptr);
  EXPECT_EQ(entry.pbSecurityDescr, nullptr);
  EXPECT_NE(entry.hAlgProvider, nullptr);
  EXPECT_EQ(entry.reserved1, 0u);
  EXPECT_EQ(entry.reserved2, 0u);

  EXPECT_TRUE(kit::SameLines(
      Join({{KeyName("InitializeObjectList - Entry"), KeyName("Find Token Public Keys"), Number("numPublicKeys = ", 1),
             KeyName("Find Token Private Keys "), Number("numPublicKeys = ", 1), KeyName("Get Public Key atrributes ")},
            Attributes(Ascii("Key1"), Ascii("my label"), 1024),
            NameLines(Ascii("Key1"), "Key1"),
            {KeyName("Public key created and added to object list"), KeyName("Get Private Key atrributes")},
            Attributes(Ascii("Key1"), Ascii("my label"), 1024),
            {KeyName("Private key paired with public key in object list"), KeyName("InitializeObjectList - Exit")}}),
      BuildLines()));
  ExpectCalls({kSearchPublic, kCount, kFinal, kSearchPublic, Fetch(1), kFinal, kSearchPrivate, kCount, kFinal,
               kSearchPrivate, Fetch(1), kFinal, Read(pair.publicKey), Read(pair.privateKey)});
}

TEST_F(KeyObjectListTest, BothReadsUseTheSame200ByteBuffers) {
  token().AddKeyPair(Ascii("Key1"), "label");
  EXPECT_EQ(BuildList(), 0);
  std::vector<std::vector<fake::Attribute>> reads;
  for (const fake::Call& call : token().Calls()) {
    if (call.function == "C_GetAttributeValue") reads.push_back(call.templates.at(0));
  }
  ASSERT_EQ(reads.size(), 2u);
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_EQ(reads[0][i].address, reads[1][i].address);
}

TEST_F(KeyObjectListTest, PrivateKeyWithoutPublicOneHasAnEntryOfItsOwn) {
  const CK_OBJECT_HANDLE key = token().AddPrivateKey(Ascii("Lone"), "", 2048);
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPublicKeyObject, 0u);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, key);
  const std::vector<Line> lines = BuildLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Private key created and added to object list")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Number("numPublicKeys = ", 0)), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Number("numPublicKeys = ", 1)), 1);
}

TEST_F(KeyObjectListTest, SecondPublicKeyOfAnIdentifierIsSkipped) {
  const CK_OBJECT_HANDLE first = token().AddPublicKey(Ascii("Same"), "one", 1024);
  token().AddPublicKey(Ascii("Same"), "two", 2048);
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPublicKeyObject, first);
  EXPECT_EQ(Entry(0).dwKeyBitLength, 1024u);
  const std::vector<Line> lines = BuildLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Duplicate Key ID error, skip key")), 1);
}

TEST_F(KeyObjectListTest, SecondPrivateKeyOfAnIdentifierIsSkipped) {
  token().AddPublicKey(Ascii("Same"), "");
  const CK_OBJECT_HANDLE first = token().AddPrivateKey(Ascii("Same"), "");
  token().AddPrivateKey(Ascii("Same"), "");
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, first);
  const std::vector<Line> lines = BuildLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Private key paired with public key in object list")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Duplicate Key ID error, skip key")), 1);
}

TEST_F(KeyObjectListTest, PublicKeysComeBeforePrivateOnesWhateverTheTokensOrder) {
  const CK_OBJECT_HANDLE privateKey = token().AddPrivateKey(Ascii("Key"), "", 512);
  const CK_OBJECT_HANDLE publicKey = token().AddPublicKey(Ascii("Key"), "", 1024);
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPublicKeyObject, publicKey);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, privateKey);
  EXPECT_EQ(Entry(0).dwKeyBitLength, 1024u) << "the bits are those of the key that made the entry";
}

TEST_F(KeyObjectListTest, IdentifiersMatchOverTheLengthOfTheEntry) {
  // The entry's identifier is a leading part of the private key's: they pair, although they differ.
  const CK_OBJECT_HANDLE shorter = token().AddPublicKey(Ascii("Key"), "");
  const CK_OBJECT_HANDLE longer = token().AddPrivateKey(Ascii("Key1"), "");
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPublicKeyObject, shorter);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, longer);
}

TEST_F(KeyObjectListTest, TheFirstOfSeveralLeadingPartsIsTaken) {
  token().AddPublicKey(Ascii("Key1"), "");
  const CK_OBJECT_HANDLE second = token().AddPublicKey(Ascii("Other"), "");
  const CK_OBJECT_HANDLE privateKey = token().AddPrivateKey(Ascii("Key12"), "");
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 2u);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, privateKey);
  EXPECT_EQ(Entry(1).hPublicKeyObject, second);
  EXPECT_EQ(Entry(1).hPrivateKeyObject, 0u);
}

TEST_F(KeyObjectListTest, IdentifiersThatDifferWithinTheLengthOfTheEntryDoNotMatch) {
  token().AddPublicKey(Ascii("Key1"), "");
  token().AddPrivateKey(Ascii("Key2"), "");
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 2u);
}

TEST_F(KeyObjectListTest, LeftoverOfALongerIdentifierInTheBufferIsSeen) {
  // The buffers are zeroed once, not between keys: the second key's identifier is followed by what the first one left.
  token().AddPublicKey(Ascii("Key1"), "");
  token().AddPublicKey(Ascii("K"), "");
  EXPECT_EQ(BuildList(), 0);
  // "K" read into a buffer that held "Key1" compares equal over the four bytes of the first entry.
  EXPECT_EQ(Entries(), 1u);
}

TEST_F(KeyObjectListTest, EntryWithEmptyIdentifierMatchesEveryLaterKey) {
  token().AddPublicKey({}, "label");
  const CK_OBJECT_HANDLE privateKey = token().AddPrivateKey(Ascii("Key1"), "");
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPrivateKeyObject, privateKey);
  EXPECT_EQ(Entry(0).pszKeyName, nullptr) << "an identifier that is present but empty gives no name";
  const std::vector<Line> lines = BuildLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       KeyName("NTE_INVALID_PARAMETER: non-null CKA_ID with zero-length buffer was provided.")),
            1);
}

TEST_F(KeyObjectListTest, EmptyToken) {
  EXPECT_EQ(BuildList(), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(Entries(), 0u);
  EXPECT_TRUE(kit::SameLines(
      {KeyName("InitializeObjectList - Entry"), KeyName("Find Token Public Keys"), Number("numPublicKeys = ", 0),
       KeyName("Find Token Private Keys "), Number("numPublicKeys = ", 0), KeyName("InitializeObjectList - Exit")},
      BuildLines()));
  // The second pass runs even when the first has counted nothing.
  const std::vector<std::string> calls = token().TakeTexts();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), kSearchPublic), 2);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), kSearchPrivate), 2);
}

TEST_F(KeyObjectListTest, RebuiltByEveryNewEnumeration) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 1u);
  token().AddKeyPair(Ascii("Other"), "");
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 2u);
}

TEST_F(KeyObjectListTest, RebuildFreesTheOldArray) {
  token().AddKeyPair(Ascii("Key1"), "");
  kit::MemoryWatch watch;
  EXPECT_EQ(BuildList(), 0);
  const void* old = providerRecord().pKeyObjects;
  ASSERT_NE(old, nullptr);
  EXPECT_EQ(BuildList(), 0);
  EXPECT_TRUE(watch.WasFreed(old));
}

// Each token call of the build that fails ends it with the status of an internal error.
struct FailingCall {
  const char* function;
  std::size_t nth;
  const char* message;
};

class FailingBuild : public KeyObjectListTest, public ::testing::WithParamInterface<FailingCall> {};

TEST_P(FailingBuild, IsAnInternalError) {
  token().AddKeyPair(Ascii("Key1"), "");
  token().Fail(GetParam().function, CKR_DEVICE_ERROR, GetParam().nth);
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  const std::vector<std::string> calls = token().TakeTexts();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back().substr(0, calls.back().find('(')), GetParam().function)
      << "nothing is called behind a failure";
  const std::vector<Line> lines = BuildLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], KeyName(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(EachCall, FailingBuild,
                         ::testing::Values(FailingCall{"C_FindObjectsInit", 1, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjects", 1, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjectsFinal", 1, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjectsInit", 2, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjects", 2, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjectsFinal", 2, "Find Token Public Keys error"},
                                           FailingCall{"C_FindObjectsInit", 3, "Find Token Private Keys error"},
                                           FailingCall{"C_FindObjects", 3, "Find Token Private Keys error"},
                                           FailingCall{"C_FindObjectsFinal", 3, "Find Token Private Keys error"},
                                           FailingCall{"C_FindObjectsInit", 4, "Find Token Private Keys error"},
                                           FailingCall{"C_FindObjects", 4, "Find Token Private Keys error"},
                                           FailingCall{"C_FindObjectsFinal", 4, "Find Token Private Keys error"},
                                           FailingCall{"C_GetAttributeValue", 1, "Get Public Keys atrributes error"},
                                           FailingCall{"C_GetAttributeValue", 2, "Get Private Keys atrributes error"}),
                         [](const ::testing::TestParamInfo<FailingCall>& given) {
                           return std::string(given.param.function + 2) + std::to_string(given.param.nth);
                         });

TEST_F(KeyObjectListTest, FailureMidwayLeavesTheEntriesAdded) {
  token().AddKeyPair(Ascii("Key1"), "");
  token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  EXPECT_EQ(Entries(), 1u);
  EXPECT_TRUE(kit::SameLines(
      Join({{KeyName("InitializeObjectList - Entry"), KeyName("Find Token Public Keys"), Number("numPublicKeys = ", 1),
             KeyName("Find Token Private Keys "), Number("numPublicKeys = ", 1), KeyName("Get Public Key atrributes ")},
            Attributes(Ascii("Key1"), {}, 2048),
            NameLines(Ascii("Key1"), "Key1"),
            {KeyName("Public key created and added to object list"), KeyName("Get Private Key atrributes"),
             KeyName("Get Private Keys atrributes error"), KeyName("InitializeObjectList - Exit")}}),
      BuildLines()));
}

TEST_F(KeyObjectListTest, FailingRebuildHasEmptiedTheList) {
  token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_EQ(BuildList(), 0);
  token().Fail("C_FindObjectsInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  EXPECT_EQ(Entries(), 0u);
  EXPECT_EQ(providerRecord().pKeyObjects, nullptr);
}

TEST_F(KeyObjectListTest, HandleArraysAreReleasedOnEveryPath) {
  token().AddKeyPair(Ascii("Key1"), "");
  for (const bool fails : {false, true}) {
    if (fails) token().Fail("C_GetAttributeValue", CKR_DEVICE_ERROR, 2);
    token().ClearCalls();
    const kit::MemoryWatch watch;
    EXPECT_EQ(BuildList(), fails ? NTE_INTERNAL_ERROR : 0);
    const std::map<const void*, std::size_t> live = watch.Live();
    // The list and the name of its one entry are all that stays, and what FreeBuffer leaves of a name handed out.
    EXPECT_EQ(live.size(), fails ? 2u : 4u);
    EXPECT_EQ(live.count(providerRecord().pKeyObjects), 1u);
    EXPECT_EQ(live.count(Entry(0).pszKeyName), 1u);
  }
}

TEST_F(KeyObjectListTest, NamesAndIdentifiersAreWipedWithTheList) {
  for (const char* id : {"First identifier", "Second identifier", "Third identifier"})
    token().AddKeyPair(Ascii(id), "");
  const kit::MemoryWatch watch;
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 3u);
  ksp().FreeProvider(provider_);
  provider_ = 0;
  EXPECT_FALSE(watch.FreedContains("identifier"));
  EXPECT_FALSE(watch.FreedContainsWide("identifier"));
}

TEST_F(KeyObjectListTest, ListIsOneArrayWithRoomForThePublicKeysFound) {
  for (const char* id : {"A", "B", "C"})
    token().AddPublicKey(Ascii(id), "");
  const kit::MemoryWatch watch;
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 3u);
  const std::map<const void*, std::size_t> live = watch.Live();
  ASSERT_EQ(live.count(&Entry(0)), 1u);
  EXPECT_EQ(live.at(&Entry(0)), 3 * sizeof(kit::KeyRecord));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(std::wstring(Entry(i).pszKeyName), std::wstring(1, static_cast<wchar_t>(L'A' + i)));
    EXPECT_EQ(Entry(i).hPublicKeyObject, 0x101u + i);
    EXPECT_EQ(Entry(i).PropertyList.next, &Entry(i).PropertyList) << "an empty list of its own";
    EXPECT_EQ(Entry(i).PropertyList.previous, &Entry(i).PropertyList);
  }
  const std::vector<kit::FreedBlock> freed = watch.Freed();
  EXPECT_EQ(
      std::count_if(freed.begin(), freed.end(),
                    [](const kit::FreedBlock& block) { return block.contents.size() % sizeof(kit::KeyRecord) == 0; }),
      3)
      << "the record that each key was made in; the array never moved";
}

TEST_F(KeyObjectListTest, ArrayMovesOnceForPrivateKeysOfTheirOwn) {
  for (const char* id : {"First identifier", "Second identifier"})
    token().AddKeyPair(Ascii(id), "");
  for (const char* id : {"Third identifier", "Last identifier"})
    token().AddPrivateKey(Ascii(id), "");
  const kit::MemoryWatch watch;
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 4u);
  EXPECT_EQ(watch.Live().at(&Entry(0)), 4 * sizeof(kit::KeyRecord));
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(Entry(i).PropertyList.next, &Entry(i).PropertyList) << "an empty list of its own";
    EXPECT_EQ(Entry(i).PropertyList.previous, &Entry(i).PropertyList);
    EXPECT_EQ(Entry(i).hPublicKeyObject == 0, i >= 2);
  }
  const std::vector<kit::FreedBlock> freed = watch.Freed();
  EXPECT_EQ(
      std::count_if(freed.begin(), freed.end(),
                    [](const kit::FreedBlock& block) { return block.contents.size() == 2 * sizeof(kit::KeyRecord); }),
      1);
  EXPECT_FALSE(watch.FreedContains("identifier")) << "what has moved is wiped where it was";
}

// Where there is no block for all keys there may be one for those so far and one more.
TEST_F(KeyObjectListTest, WithoutRoomForAllKeysTheArrayGrowsOneByOne) {
  for (const char* id : {"A", "B", "C", "D"})
    token().AddKeyPair(Ascii(id), "");
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) {
    return size % sizeof(kit::KeyRecord) == 0 && size > 2 * sizeof(kit::KeyRecord);
  });
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 2u) << "keys for which there is no room are left out";
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(std::wstring(Entry(i).pszKeyName), std::wstring(1, static_cast<wchar_t>(L'A' + i)));
    EXPECT_EQ(Entry(i).hPrivateKeyObject, Entry(i).hPublicKeyObject + 1);
    EXPECT_EQ(Entry(i).PropertyList.next, &Entry(i).PropertyList);
  }
  const std::vector<Line> lines = BuildLines();
  // The line is written before room is looked for; kept.
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Public key created and added to object list")), 4);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Private key created and added to object list")), 2);
}

// Random lists held against the plain rule: a key goes to the first entry whose identifier the buffer begins with, and
// the buffer keeps what longer identifiers left in it.
struct RandomList {
  unsigned seed;
  std::size_t keys;     // of each class
  std::size_t longest;  // bytes of an identifier
  bool withoutIndex;
};

class RandomLists : public KeyObjectListTest, public ::testing::WithParamInterface<RandomList> {
 protected:
  struct Key {
    CK_OBJECT_HANDLE handle;
    Bytes id;
  };
  struct Expected {
    Bytes id;
    CK_OBJECT_HANDLE publicKey = 0;
    CK_OBJECT_HANDLE privateKey = 0;
  };

  static void Add(const std::vector<Key>& keys, CK_OBJECT_HANDLE Expected::*place, Bytes& buffer,
                  std::vector<Expected>& list) {
    for (const Key& key : keys) {
      std::copy(key.id.begin(), key.id.end(), buffer.begin());
      const auto found = std::find_if(list.begin(), list.end(), [&](const Expected& entry) {
        return std::equal(entry.id.begin(), entry.id.end(), buffer.begin());
      });
      if (found == list.end()) {
        list.push_back({key.id});
        list.back().*place = key.handle;
      } else if (*found.*place == 0) {
        *found.*place = key.handle;
      }
    }
  }
};

TEST_P(RandomLists, FollowThePlainRule) {
  const RandomList& given = GetParam();
  std::mt19937 random(given.seed);
  const auto identifier = [&] {
    Bytes id(1 + random() % given.longest);
    for (std::uint8_t& byte : id)
      byte = static_cast<std::uint8_t>('A' + random() % 4);
    return id;
  };
  std::vector<Key> publicKeys;
  std::vector<Key> privateKeys;
  for (std::size_t i = 0; i < given.keys; ++i) {
    Bytes id = identifier();
    publicKeys.push_back({token().AddPublicKey(id, ""), id});
    if (random() % 3 == 0) id = identifier();
    privateKeys.push_back({token().AddPrivateKey(id, ""), id});
  }
  std::vector<Expected> expected;
  Bytes buffer(200, 0);
  Add(publicKeys, &Expected::publicKey, buffer, expected);
  Add(privateKeys, &Expected::privateKey, buffer, expected);

  kit::MemoryWatch watch;
  bool refused = false;
  watch.FailWhen([&](std::size_t size, std::size_t) {
    const bool index = given.withoutIndex && size == 256 * sizeof(std::uint32_t);
    refused = refused || index;
    return index;
  });
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(refused, given.withoutIndex);
  ASSERT_EQ(Entries(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(Bytes(Entry(i).KeyId, Entry(i).KeyId + Entry(i).cbKeyId), expected[i].id) << i;
    EXPECT_EQ(Entry(i).hPublicKeyObject, expected[i].publicKey) << i;
    EXPECT_EQ(Entry(i).hPrivateKeyObject, expected[i].privateKey) << i;
    EXPECT_EQ(Entry(i).PropertyList.next, &Entry(i).PropertyList) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Seeds, RandomLists,
    ::testing::Values(RandomList{1, 8, 3, false}, RandomList{2, 15, 6, false}, RandomList{3, 16, 4, false},
                      RandomList{4, 40, 6, false}, RandomList{5, 40, 12, false}, RandomList{6, 40, 200, false},
                      RandomList{7, 60, 5, false}, RandomList{8, 60, 7, true}, RandomList{9, 60, 200, true}),
    [](const ::testing::TestParamInfo<RandomList>& given) { return "Seed" + std::to_string(given.param.seed); });

TEST_F(KeyObjectListTest, IdentifierOf200BytesFitsOf201Fails) {
  const CK_OBJECT_HANDLE key = token().AddPublicKey(Bytes(200, 'i'), "");
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entry(0).cbKeyId, 200u);
  token().ObjectAttributes(key)[CKA_ID] = Bytes(201, 'i');
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  token().ObjectAttributes(key)[CKA_ID] = Bytes(20, 'i');
  token().ObjectAttributes(key)[CKA_LABEL] = Bytes(201, 'l');
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  token().ObjectAttributes(key)[CKA_LABEL] = Bytes(200, 'l');
  EXPECT_EQ(BuildList(), 0) << "a label of 200 bytes fits as well";
  token().ObjectAttributes(key).erase(CKA_LABEL);
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR) << "a key without label attribute cannot be read";
}

// Whatever the module says, nothing is taken from behind the buffers.
TEST_F(KeyObjectListTest, ModuleThatTellsMoreThanFitsIsNotBelieved) {
  token().AddPublicKey(Ascii("Key1"), "");
  static std::size_t tooLong;
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  functions.C_GetAttributeValue = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* entries, CK_ULONG) -> CK_RV {
    entries[tooLong].ulValueLen = 201;
    return CKR_OK;
  };
  for (tooLong = 0; tooLong < 2; ++tooLong) {
    EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
    EXPECT_EQ(Entries(), 0u);
  }
}

TEST_F(KeyObjectListTest, ModuleThatSaysYesAndWritesNothing) {
  token().AddPublicKey(Ascii("Key1"), "");
  EXPECT_EQ(BuildList(), 0);  // leaves nothing in the buffers of the next one
  token().FailAlways("C_GetAttributeValue", CKR_OK);
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).cbKeyId, 200u) << "the length that was asked for";
  EXPECT_EQ(Bytes(Entry(0).KeyId, Entry(0).KeyId + 200), Bytes(200, 0));
  EXPECT_STREQ(Entry(0).pszKeyName, L"");
  EXPECT_EQ(Entry(0).dwKeyBitLength, 0u);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName(Dump("CKA_LABEL\t: ", Bytes(200, 0)))), 1);
}

TEST_F(KeyObjectListTest, NameEndsBeforeTheFirstZeroByte) {
  token().AddPublicKey({0x3F, 0x9A, 0x00, 0x12}, "");
  EXPECT_EQ(BuildList(), 0);
  EXPECT_STREQ(Entry(0).pszKeyName, L"\x3F\x9A");
  EXPECT_EQ(Entry(0).cbKeyId, 4u);
}

TEST_F(KeyObjectListTest, IdentifierThatBeginsWithZeroGivesAnEmptyNameNotTheLabel) {
  token().AddPublicKey({0x00}, "label");
  EXPECT_EQ(BuildList(), 0);
  ASSERT_NE(Entry(0).pszKeyName, nullptr);
  EXPECT_STREQ(Entry(0).pszKeyName, L"");
  EXPECT_EQ(Entry(0).cbKeyName, 1u);
}

TEST_F(KeyObjectListTest, AnyAllocationMayFail) {
  token().AddKeyPair(Ascii("Key1"), "label");
  token().AddKeyPair(Ascii("Second"), "label");
  FailEachAllocation([&] { return BuildList(); },
                     [](SECURITY_STATUS status, std::size_t) {
                       EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_INTERNAL_ERROR ||
                                   status == NTE_NO_MORE_ITEMS)
                           << std::hex << status;
                       return false;  // the list stays
                     });
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 2u);
}

TEST_F(KeyObjectListTest, ArrayOfHandlesThatCannotBeAllocated) {
  token().AddKeyPair(Ascii("Key1"), "label");
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(CK_OBJECT_HANDLE); });
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(kit::SameLines({KeyName("InitializeObjectList - Entry"), KeyName("Find Token Public Keys"),
                              KeyName("NTE_INTERNAL_ERROR: Object memory allocation error"),
                              KeyName("Find Token Public Keys error"), KeyName("InitializeObjectList - Exit")},
                             BuildLines()));
  ExpectCalls({kSearchPublic, kCount, kFinal});
}

TEST_F(KeyObjectListTest, ArrayOfPrivateHandlesThatCannotBeAllocated) {
  token().AddPublicKey(Ascii("Key1"), "");
  token().AddPrivateKey(Ascii("Key1"), "");
  token().AddPrivateKey(Ascii("Key2"), "");
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == 2 * sizeof(CK_OBJECT_HANDLE); });
  EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(kit::SameLines(
      {KeyName("InitializeObjectList - Entry"), KeyName("Find Token Public Keys"), Number("numPublicKeys = ", 1),
       KeyName("Find Token Private Keys "), KeyName("NTE_INTERNAL_ERROR: Object memory allocation error"),
       KeyName("Find Token Private Keys error"), KeyName("InitializeObjectList - Exit")},
      BuildLines()));
  EXPECT_TRUE(watch.Live().empty()) << "the public handles are released";
}

TEST_F(KeyObjectListTest, MoreKeysInTheSecondPassThanInTheFirst) {
  token().AddKeyPair(Ascii("Key1"), "");
  std::size_t searches = 0;
  token().Before("C_FindObjectsInit", [&](const fake::Call&) {
    if (++searches == 2) token().AddPublicKey(Ascii("Late"), "");
  });
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 1u);
}

// A module that counts two objects and hands out one: the second is no object, and is not made one of.
TEST_F(KeyObjectListTest, ModuleThatHandsOutFewerHandlesThanItCounts) {
  token().AddPublicKey(Ascii("Key1"), "");
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* count) -> CK_RV {
    if (objects) objects[0] = 0x101;
    *count = 2;
    return CKR_OK;
  };
  {
    // New memory holds anything but zeros.
    const kit::Hook<"malloc", void* (*)(std::size_t)> hook([](auto allocate, std::size_t size) {
      void* const block = allocate(size);
      if (block) std::fill_n(static_cast<BYTE*>(block), size, BYTE{0xEE});
      return block;
    });
    EXPECT_EQ(BuildList(), NTE_INTERNAL_ERROR) << "the token knows no object 0";
  }
  const std::vector<std::string> calls = token().TakeTexts();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), Read(0));
}

// ... or says at the second pass that there are more than there is room for.
TEST_F(KeyObjectListTest, ModuleThatCountsMoreThanItWasAskedFor) {
  token().AddPublicKey(Ascii("Key1"), "");
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG, CK_ULONG* count) -> CK_RV {
    if (objects) objects[0] = 0x101;
    *count = objects ? 0xFFFFFFFF : 1;
    return CKR_OK;
  };
  EXPECT_EQ(BuildList(), 0);
  EXPECT_EQ(Entries(), 1u);
}

// An entry whose public object has the handle 0 has none yet: a second public key of its identifier pairs with it.
TEST_F(KeyObjectListTest, PublicKeyPairsWithAnEntryThatHasNone) {
  const CK_OBJECT_HANDLE key = token().AddPublicKey(Ascii("Key1"), "");
  static CK_C_GetAttributeValue getAttributeValue;
  static CK_C_FindObjects findObjects;
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  getAttributeValue = functions.C_GetAttributeValue;
  findObjects = functions.C_FindObjects;
  functions.C_GetAttributeValue = [](CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* entries,
                                     CK_ULONG count) -> CK_RV {
    return getAttributeValue(session, object ? object : 0x101, entries, count);
  };
  functions.C_FindObjects = [](CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG maximum,
                               CK_ULONG* count) -> CK_RV {
    if (maximum == 0) return findObjects(session, objects, maximum, count);
    const CK_RV result = findObjects(session, objects ? objects + 1 : nullptr, maximum - 1, count);
    if (*count == 0) return result;
    if (objects) objects[0] = 0;
    ++*count;
    return result;
  };
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(Entries(), 1u);
  EXPECT_EQ(Entry(0).hPublicKeyObject, key);
  const std::vector<Line> lines = BuildLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Public key created and added to object list")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), KeyName("Public key paired with private key in object list")), 1);
}

TEST_F(KeyObjectListTest, NoMoreThan1000KeysOfAClass) {
  token().AddPublicKey(Ascii("Key1"), "");
  static CK_ULONG asked;
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  functions.C_FindObjects = [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG maximum,
                               CK_ULONG* count) -> CK_RV {
    if (objects) asked = maximum;
    *count = objects ? 0 : 0x40000001;
    return CKR_OK;
  };
  EXPECT_EQ(BuildList(), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(asked, 1000u);
}

}  // namespace
