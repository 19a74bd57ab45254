// EnumKeys: the walk over the key object list and what it hands out.
#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

using fake::Ascii;
using kit::Frame;
using kit::Hex32;
using kit::KeyName;
using kit::Line;
using kit::Number;
using kit::Pointer32;

class EnumKeysTest : public kit::OpenedProviderTest {
 protected:
  void TearDown() override {
    if (name_) ksp().FreeBuffer(name_);
    if (state_) ksp().FreeBuffer(state_);
    kit::OpenedProviderTest::TearDown();
  }
  SECURITY_STATUS Next(DWORD flags = 0) { return ksp().EnumKeys(provider_, nullptr, &name_, &state_, flags); }
  std::vector<Line> Arguments(NCRYPT_PROV_HANDLE provider, const void* name, const void* state, DWORD flags) const {
    return {Hex32("hProvider   : ", provider), "pszScope    : NULL", Pointer32("ppKeyName   : ", name),
            Pointer32("ppEnumState : ", state), Hex32("dwFlags     : ", flags)};
  }
  // Both as a caller who is done with them.
  void FreeName() {
    ksp().FreeBuffer(name_);
    name_ = nullptr;
  }
  // Lines after the arguments, without the exit lines.
  static std::vector<Line> Body() {
    std::vector<Line> all = kit::Log::Get().Take();
    return all.size() < 9 ? all : std::vector<Line>(all.begin() + 7, all.end() - 2);
  }

  NCryptKeyName* name_ = nullptr;
  PVOID state_ = nullptr;
};

TEST_F(EnumKeysTest, WalksTheListInOrder) {
  token().AddKeyPair(Ascii("First"), "");
  token().AddKeyPair(Ascii("Second"), "");
  for (const wchar_t* expected : {L"First", L"Second"}) {
    ASSERT_EQ(Next(), 0);
    ASSERT_NE(name_, nullptr);
    EXPECT_STREQ(name_->pszName, expected);
    EXPECT_STREQ(name_->pszAlgid, L"RSA");
    EXPECT_EQ(name_->dwLegacyKeySpec, 0u);
    EXPECT_EQ(name_->dwFlags, 0u);
    EXPECT_EQ(ksp().FreeBuffer(name_), 0);
    name_ = nullptr;
  }
  EXPECT_EQ(static_cast<kit::EnumState*>(state_)->index, 2u);
  for (const ULONG unused : static_cast<kit::EnumState*>(state_)->unused)
    EXPECT_EQ(unused, 0u);
  EXPECT_EQ(Next(), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(name_, nullptr);
  EXPECT_NE(state_, nullptr) << "the end of an enumeration leaves the caller's state";
  EXPECT_EQ(Next(), NTE_NO_MORE_ITEMS);
}

TEST_F(EnumKeysTest, LogsTheFirstStep) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(NCRYPT_SILENT_FLAG), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  // The list is built between the lines compared here.
  ASSERT_FALSE(kit::ListLines(lines).empty());
  std::vector<Line> expected = Arguments(provider_, &name_, &state_, NCRYPT_SILENT_FLAG);
  for (const Line& line :
       {Line("EnumState is null"), KeyName("ReadKeyNameFromKeyObjectList - Entry"), Number("EnumState index = ", 0),
        KeyName("KeyName = First"), KeyName("ReadKeyNameFromKeyObjectList - Exit")}) {
    expected.push_back(line);
  }
  EXPECT_TRUE(kit::SameLines(Frame("KELDAKSPEnumKeys", expected, 0), kit::WithoutListLines(lines)));
}

TEST_F(EnumKeysTest, LaterStepsDoNotAskTheToken) {
  token().AddKeyPair(Ascii("First"), "");
  token().AddKeyPair(Ascii("Second"), "");
  ASSERT_EQ(Next(), 0);
  FreeName();
  Forget();
  ASSERT_EQ(Next(), 0);
  std::vector<Line> expected = Arguments(provider_, &name_, &state_, 0);
  for (const Line& line :
       {Line("EnumState is initialized"), KeyName("ReadKeyNameFromKeyObjectList - Entry"),
        Number("EnumState index = ", 1), KeyName("KeyName = Second"), KeyName("ReadKeyNameFromKeyObjectList - Exit")}) {
    expected.push_back(line);
  }
  ExpectLines(Frame("KELDAKSPEnumKeys", expected, 0));
  ExpectCalls({});
}

TEST_F(EnumKeysTest, EndOfTheListIsLogged) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(), 0);
  Forget();
  NCryptKeyName* const handedOut = name_;
  EXPECT_EQ(Next(), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(name_, handedOut) << "the caller's pointers are untouched";
  std::vector<Line> expected = Arguments(provider_, &name_, &state_, 0);
  for (const Line& line : {Line("EnumState is initialized"), KeyName("ReadKeyNameFromKeyObjectList - Entry"),
                           Number("EnumState index = ", 1), KeyName("NTE_NO_MORE_ITEMS"),
                           KeyName("ReadKeyNameFromKeyObjectList - Exit")}) {
    expected.push_back(line);
  }
  ExpectLines(Frame("KELDAKSPEnumKeys", expected, NTE_NO_MORE_ITEMS));
}

TEST_F(EnumKeysTest, EmptyTokenLeavesThePointers) {
  auto* const garbage = reinterpret_cast<NCryptKeyName*>(&state_);
  name_ = garbage;
  const kit::MemoryWatch watch;
  EXPECT_EQ(Next(), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(name_, garbage);
  EXPECT_EQ(state_, nullptr) << "the state made for an empty list is not handed out";
  EXPECT_TRUE(watch.Live().empty()) << "but released";
  name_ = nullptr;
}

TEST_F(EnumKeysTest, ScopeIsIgnored) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(ksp().EnumKeys(provider_, L"a scope", &name_, &state_, 0), 0);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("pszScope    : NULL")), 1);
}

TEST_F(EnumKeysTest, ChecksInOrder) {
  EXPECT_EQ(ksp().EnumKeys(0, nullptr, nullptr, nullptr, 0xFFFFFFFF), NTE_INVALID_HANDLE);
  std::vector<Line> expected = Arguments(0, nullptr, nullptr, 0xFFFFFFFF);
  expected.emplace_back("NTE_INVALID_HANDLE: pProvider == NULL");
  ExpectLines(Frame("KELDAKSPEnumKeys", expected, NTE_INVALID_HANDLE));

  const Line missing = "NTE_INVALID_PARAMETER: ppKeyName == NULL || ppEnumState == NULL";
  EXPECT_EQ(ksp().EnumKeys(provider_, nullptr, nullptr, &state_, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(), std::vector<Line>{missing});
  EXPECT_EQ(ksp().EnumKeys(provider_, nullptr, &name_, nullptr, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Body(), std::vector<Line>{missing});
  EXPECT_EQ(Next(0xFFFFFFFF), NTE_BAD_FLAGS);
  EXPECT_EQ(Body(),
            std::vector<Line>{"NTE_BAD_FLAGS: ((dwFlags & ~(NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG)) != 0) "});
  EXPECT_EQ(Next(0x20), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Body(), std::vector<Line>{"NTE_NOT_SUPPORTED:  (dwFlags & NCRYPT_MACHINE_KEY_FLAG) "});
  ExpectCalls({});
}

TEST_F(EnumKeysTest, FlagsOutside0x60AreRefusedOneByOne) {
  token().AddKeyPair(Ascii("First"), "");
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if (flag == NCRYPT_SILENT_FLAG) continue;
    const LONG expected = flag == 0x20 ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Next(flag), expected) << "bit " << bit;
    EXPECT_EQ(Next(flag | NCRYPT_SILENT_FLAG), expected) << "bit " << bit;
  }
  EXPECT_EQ(name_, nullptr);
  EXPECT_EQ(state_, nullptr);
  ExpectCalls({});
}

TEST_F(EnumKeysTest, FailingListIsReported) {
  token().Fail("C_FindObjectsInit", CKR_DEVICE_ERROR);
  EXPECT_EQ(Next(), NTE_INTERNAL_ERROR);
  EXPECT_EQ(state_, nullptr);
  EXPECT_EQ(name_, nullptr);
  std::vector<Line> expected = Arguments(provider_, &name_, &state_, 0);
  // The error is told by the entry itself; a lookup by name tells it with the list's other lines.
  for (const Line& line : {Line("EnumState is null"), KeyName("InitializeObjectList - Entry"),
                           KeyName("Find Token Public Keys"), KeyName("Find Token Public Keys error"),
                           KeyName("InitializeObjectList - Exit"), Line("LoadTokenKeys error ")}) {
    expected.push_back(line);
  }
  ExpectLines(Frame("KELDAKSPEnumKeys", expected, NTE_INTERNAL_ERROR));
}

TEST_F(EnumKeysTest, AllocationsComeFromTheStatedHeaps) {
  token().AddKeyPair(Ascii("First"), "");
  SIZE_T algorithmName = 0;
  HANDLE heap = nullptr;
  DWORD heapFlags = 1;
  const kit::Hook<"HeapAlloc", decltype(&HeapAlloc)> hook([&](auto original, HANDLE from, DWORD flags, SIZE_T size) {
    heap = from;
    heapFlags = flags;
    algorithmName = size;
    return original(from, flags, size);
  });
  ASSERT_EQ(Next(), 0);
  EXPECT_EQ(algorithmName, 8u);
  EXPECT_EQ(heap, GetProcessHeap());
  EXPECT_EQ(heapFlags, 0u);
}

TEST_F(EnumKeysTest, FailingAllocationsDoNotAdvance) {
  token().AddKeyPair(Ascii("First"), "");
  token().AddKeyPair(Ascii("Second"), "");
  ASSERT_EQ(Next(), 0);
  FreeName();
  Forget();
  const auto expectLines = [&](std::initializer_list<Line> named) {
    std::vector<Line> expected = Arguments(provider_, &name_, &state_, 0);
    for (const Line& line : {Line("EnumState is initialized"), KeyName("ReadKeyNameFromKeyObjectList - Entry"),
                             Number("EnumState index = ", 1)}) {
      expected.push_back(line);
    }
    expected.insert(expected.end(), named);
    expected.push_back(KeyName("ReadKeyNameFromKeyObjectList - Exit"));
    ExpectLines(Frame("KELDAKSPEnumKeys", expected, NTE_NO_MEMORY));
  };
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(NCryptKeyName); });
    EXPECT_EQ(Next(), NTE_NO_MEMORY);
    expectLines({});
    watch.FailWhen([](std::size_t size, std::size_t) { return size == 7 * sizeof(wchar_t); });
    EXPECT_EQ(Next(), NTE_NO_MEMORY);
    expectLines({});
    watch.FailWhen([](std::size_t size, std::size_t) { return size == 8; });
    EXPECT_EQ(Next(), NTE_NO_MEMORY);
    expectLines({KeyName("KeyName = Second")});
    EXPECT_TRUE(watch.Live().empty()) << "what was there already is released";
    EXPECT_FALSE(watch.FreedContainsWide("Second")) << "the name is an identifier";
  }
  EXPECT_EQ(name_, nullptr);
  EXPECT_EQ(static_cast<kit::EnumState*>(state_)->index, 1u);
  ASSERT_EQ(Next(), 0);
  EXPECT_STREQ(name_->pszName, L"Second");
}

TEST_F(EnumKeysTest, StateThatCannotBeAllocated) {
  token().AddKeyPair(Ascii("First"), "");
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(kit::EnumState); });
  EXPECT_EQ(Next(), NTE_NO_MEMORY);
  EXPECT_EQ(name_, nullptr);
  EXPECT_EQ(state_, nullptr);
  const std::vector<Line> lines = Body();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_TRUE(
      kit::SameLines({KeyName("ReadKeyNameFromKeyObjectList - Entry"), KeyName("ReadKeyNameFromKeyObjectList - Exit")},
                     std::vector<Line>(lines.end() - 2, lines.end())));
}

TEST_F(EnumKeysTest, FirstNameThatCannotBeAllocatedLeavesNoState) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(), 0);  // the list is there when the watch begins, and is built anew under it
  ksp().FreeBuffer(name_);
  ksp().FreeBuffer(state_);
  name_ = nullptr;
  state_ = nullptr;
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(NCryptKeyName); });
  EXPECT_EQ(Next(), NTE_NO_MEMORY);
  EXPECT_EQ(name_, nullptr);
  EXPECT_EQ(state_, nullptr);
  EXPECT_EQ(watch.Live().size(), 2u) << "the list and its entry's name";
}

TEST_F(EnumKeysTest, EntryWithoutNameIsHandedOutWithAnEmptyOne) {
  token().AddPublicKey({}, "label");
  ASSERT_EQ(Next(), 0);
  EXPECT_STREQ(name_->pszName, L"");
  EXPECT_STREQ(name_->pszAlgid, L"RSA");
}

TEST_F(EnumKeysTest, NameHandedOutIsACopy) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(), 0);
  EXPECT_NE(name_->pszName, kit::RecordOf(provider_)->pKeyObjects[0].pszKeyName);
  NCryptKeyName* again = nullptr;
  PVOID state = nullptr;
  ASSERT_EQ(ksp().EnumKeys(provider_, nullptr, &again, &state, 0), 0);  // frees the list and builds it anew
  EXPECT_STREQ(name_->pszName, L"First");
  ksp().FreeBuffer(again);
  ksp().FreeBuffer(state);
}

// A state goes by the list as it is now, not as it was when the enumeration began.
TEST_F(EnumKeysTest, StateBeyondTheListIsAtItsEnd) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(), 0);
  for (const ULONG index : {ULONG{2}, ULONG{0x7FFFFFFF}, ULONG{0xFFFFFFFE}, ULONG{0xFFFFFFFF}}) {
    static_cast<kit::EnumState*>(state_)->index = index;
    EXPECT_EQ(Next(), NTE_NO_MORE_ITEMS);
    EXPECT_EQ(static_cast<kit::EnumState*>(state_)->index, index);
  }
}

TEST_F(EnumKeysTest, NamesAreThoseThatOpenKeyFinds) {
  token().AddKeyPair(Ascii("First"), "");
  ASSERT_EQ(Next(), 0);
  const NCRYPT_KEY_HANDLE key = OpenKey(provider_, name_->pszName);
  ASSERT_NE(key, 0u);
  EXPECT_EQ(kit::KeyOf(key)->dwMagic, kit::kKeyMagic);
  ksp().FreeKey(provider_, key);
}

}  // namespace
