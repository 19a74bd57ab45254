// FreeProvider: what it releases, in which order, and what it leaves.
#include <algorithm>
#include <cstring>
#include <string>

#include "kit/provider.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::Line;

class FreeProviderTest : public kit::ProviderTest {
 protected:
  static std::vector<Line> Lines(NCRYPT_PROV_HANDLE handle, std::vector<Line> body, LONG status) {
    body.insert(body.begin(), Hex32("hProvider : ", handle));
    return Frame("KELDAKSPFreeProvider", body, status);
  }
  static std::vector<Line> Steps() {
    return {"Deleting PIN cache",        "Deleting key object list", "Deleting KSP name",
            "Deleting provider context", "Deleting reader name",     "Closing cryptographic session"};
  }
};

TEST_F(FreeProviderTest, ClosesTheSession) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
  ExpectLines(Lines(provider, Steps(), 0));
  ExpectCalls({"C_CloseSession(session=0x51)"});
  EXPECT_TRUE(kit::Registry::Get().TakeReads().empty());
}

TEST_F(FreeProviderTest, ReleasesWhatTheRecordOwnsAndWipesTheRecord) {
  AddReader();
  token().AddKeyPair(fake::Ascii("Key1"), "label");
  kit::MemoryWatch watch;
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const NCRYPT_KEY_HANDLE key = OpenKey(provider, L"Key1");
  ksp().FreeKey(provider, key);
  wchar_t context[] = L"context";
  EXPECT_EQ(ksp().SetProviderProperty(provider, L"Use Context", reinterpret_cast<PBYTE>(context), sizeof context, 0),
            0);
  const kit::ProviderRecord record = *kit::RecordOf(provider);
  // The room for the name behind the record is wiped with it.
  std::memset(kit::RecordOf(provider) + 1, 0xEE, record.cbLength - sizeof record);
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
  EXPECT_TRUE(watch.WasFreed(record.pszName));
  EXPECT_TRUE(watch.WasFreed(record.pszReader));
  EXPECT_TRUE(watch.WasFreed(record.pContext));
  EXPECT_TRUE(watch.WasFreed(record.pKeyObjects));
  EXPECT_FALSE(watch.WasFreed(record.pLock)) << "the lock's block is kept";
  bool wiped = false;
  for (const kit::FreedBlock& block : watch.Freed()) {
    if (block.address != kit::RecordOf(provider)) continue;
    EXPECT_GE(block.contents.size(), record.cbLength);
    const auto end = block.contents.begin() + static_cast<std::ptrdiff_t>(record.cbLength);
    wiped = std::all_of(block.contents.begin(), end, [](std::uint8_t byte) { return byte == 0; });
  }
  EXPECT_TRUE(wiped) << "the whole record is zero when it is freed";
}

TEST_F(FreeProviderTest, DeletesTheLockAfterTheSessionIsClosed) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const CRITICAL_SECTION* const lock = kit::RecordOf(provider)->pLock;
  std::vector<const CRITICAL_SECTION*> deleted;
  const kit::Hook<"DeleteCriticalSection", decltype(&DeleteCriticalSection)> hook(
      [&](auto original, LPCRITICAL_SECTION section) {
        deleted.push_back(section);
        original(section);
      });
  token().Fail("C_CloseSession", CKR_DEVICE_ERROR);
  EXPECT_EQ(ksp().FreeProvider(provider), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(deleted.empty());
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
  EXPECT_EQ(deleted, std::vector<const CRITICAL_SECTION*>{lock});
}

TEST_F(FreeProviderTest, ReleasesInOrderAndTheRecordAfterTheSession) {
  AddReader();
  token().AddKeyPair(fake::Ascii("Key1"), "label");
  kit::MemoryWatch watch;
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  ksp().FreeKey(provider, OpenKey(provider, L"Key1"));
  BYTE context[2] = {};
  EXPECT_EQ(ksp().SetProviderProperty(provider, L"Use Context", context, sizeof context, 0), 0);
  kit::ProviderRecord* const record = kit::RecordOf(provider);
  const wchar_t pin[] = {L'1', L'2'};
  record->pPinCache = static_cast<wchar_t*>(kit::NewProviderBlock(pin, sizeof pin));
  record->cchPinCache = 2;
  const std::vector<const void*> members{record->pPinCache, record->pKeyObjects, record->pszName, record->pContext,
                                         record->pszReader};
  const std::size_t before = watch.Freed().size();
  std::vector<const void*> released;
  token().Before("C_CloseSession", [&](const fake::Call&) {
    for (const kit::FreedBlock& block : watch.Freed()) {
      if (std::count(members.begin(), members.end(), block.address) != 0) released.push_back(block.address);
    }
    EXPECT_FALSE(watch.WasFreed(record));
  });
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
  ASSERT_GE(released.size(), members.size());
  // Addresses may have been in use before; the last ones are the members'.
  released.erase(released.begin(), released.end() - static_cast<std::ptrdiff_t>(members.size()));
  EXPECT_EQ(released, members);
  EXPECT_GT(watch.Freed().size(), before + members.size());
}

TEST_F(FreeProviderTest, RefusesWhatIsNoRecord) {
  EXPECT_EQ(ksp().FreeProvider(0), NTE_INVALID_HANDLE);
  ExpectLines(Lines(0, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));

  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  kit::ProviderRecord* record = kit::RecordOf(provider);
  kit::MemoryWatch watch;
  record->signature[3] = 'B';
  EXPECT_EQ(ksp().FreeProvider(provider), NTE_INVALID_HANDLE);
  ExpectLines(Lines(provider, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  record->signature[3] = 'A';
  const ULONG length = record->cbLength;
  record->cbLength = sizeof *record - 1;
  EXPECT_EQ(ksp().FreeProvider(provider), NTE_INVALID_HANDLE);
  ExpectCalls({});
  EXPECT_FALSE(watch.WasFreed(record->pszName));
  EXPECT_FALSE(watch.WasFreed(record));
  record->cbLength = length;
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
}

TEST_F(FreeProviderTest, AcceptsALargerRecordAndOneOfExactSize) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  kit::RecordOf(provider)->cbLength = sizeof(kit::ProviderRecord);
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
}

TEST_F(FreeProviderTest, FailingCloseKeepsTheRecord) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  kit::MemoryWatch watch;
  token().Fail("C_CloseSession", CKR_DEVICE_ERROR);
  EXPECT_EQ(ksp().FreeProvider(provider), NTE_INTERNAL_ERROR);
  std::vector<Line> body = Steps();
  body.emplace_back("NTE_INTERNAL_ERROR: An internal error occured");
  ExpectLines(Lines(provider, body, NTE_INTERNAL_ERROR));
  EXPECT_FALSE(watch.WasFreed(kit::RecordOf(provider)));
  // Its name is gone as well.
  DWORD length = 0xEEEEEEEE;
  Forget();
  EXPECT_EQ(ksp().GetProviderProperty(provider, L"Name", nullptr, 0, &length, 0), NTE_INTERNAL_ERROR);
  EXPECT_EQ(length, 0u);
  // The members are gone, the record is still one: a second call tries the session again.
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
}

TEST_F(FreeProviderTest, WipesThePinCacheOfTheRecord) {
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  // Attached as the provider itself attaches it: from the allocator that all its blocks come from.
  kit::ProviderRecord* record = kit::RecordOf(provider);
  const wchar_t pin[] = {L'1', L'2', L'3', L'4'};
  record->pPinCache = static_cast<wchar_t*>(kit::NewProviderBlock(pin, sizeof pin));
  ASSERT_NE(record->pPinCache, nullptr);
  const void* block = record->pPinCache;
  record->cchPinCache = 4;
  kit::MemoryWatch watch;
  EXPECT_EQ(ksp().FreeProvider(provider), 0);
  EXPECT_TRUE(watch.WasFreed(block));
  EXPECT_FALSE(watch.FreedContainsWide("1234"));
  EXPECT_FALSE(watch.FreedContainsWide("34"));
}

}  // namespace
