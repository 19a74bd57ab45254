// EnumAlgorithms.
#include <string>
#include <vector>

#include "kit/key_entry.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::kSilent;
using kit::Line;
using kit::Pointer32;

class EnumAlgorithmsTest : public KeyEntryTest {
 protected:
  void TearDown() override {
    if (list_) ksp().FreeBuffer(list_);
    KeyEntryTest::TearDown();
  }
  SECURITY_STATUS Enumerate(DWORD operations, DWORD flags = 0) {
    if (list_) ksp().FreeBuffer(list_);
    list_ = nullptr;
    count_ = 0xEEEEEEEE;
    Forget();
    return ksp().EnumAlgorithms(provider_, operations, &count_, &list_, flags);
  }
  // The provider handle is not among this entry's argument lines.
  std::vector<Line> EnumLines(DWORD operations, const void* count, const void* list, DWORD flags,
                              const std::vector<Line>& body, LONG status) const {
    const std::vector<Line> arguments{Hex32("dwAlgClass  : ", operations), Pointer32("pdwAlgCount : ", count),
                                      Pointer32("ppAlgList   : ", list), Hex32("dwFlags     : ", flags),
                                      "Validating Provider Handle..."};
    return Frame("KELDAKSPEnumAlgorithms", kit::Join({arguments, body}), status);
  }

  DWORD count_ = 0;
  NCryptAlgorithmName* list_ = nullptr;
};

TEST_F(EnumAlgorithmsTest, HandsOutOneRsaEntry) {
  ASSERT_EQ(Enumerate(0, kSilent), 0);
  EXPECT_EQ(count_, 1u);
  ASSERT_NE(list_, nullptr);
  EXPECT_STREQ(list_->pszName, L"RSA");
  EXPECT_EQ(list_->dwClass, 3u);
  EXPECT_EQ(list_->dwAlgOperations, 20u);
  EXPECT_EQ(list_->dwFlags, 0u);
  ExpectLines(EnumLines(0, &count_, &list_, kSilent, {"dwAlgClass is 0"}, 0));
  ExpectCalls({});
}

// The structure takes the first 24 bytes in both widths, the text the 8 bytes behind them.
TEST_F(EnumAlgorithmsTest, EntryAndTextAreOneBlockOf32Bytes) {
  kit::MemoryWatch watch;
  ASSERT_EQ(Enumerate(0), 0);
  const auto live = watch.Live();
  ASSERT_EQ(live.count(list_), 1u);
  EXPECT_EQ(live.at(list_), 32u);
  EXPECT_EQ(reinterpret_cast<BYTE*>(list_->pszName) - reinterpret_cast<BYTE*>(list_), 24);
  EXPECT_EQ(ksp().FreeBuffer(list_), 0);
  EXPECT_TRUE(watch.WasFreed(list_));
  EXPECT_EQ(watch.Live().count(list_), 0u);
  list_ = nullptr;
}

TEST_F(EnumAlgorithmsTest, EachCallHandsOutABlockOfItsOwn) {
  ASSERT_EQ(Enumerate(0), 0);
  NCryptAlgorithmName* second = nullptr;
  ASSERT_EQ(ksp().EnumAlgorithms(provider_, 0, &count_, &second, 0), 0);
  EXPECT_NE(second, list_);
  ksp().FreeBuffer(second);
  EXPECT_STREQ(list_->pszName, L"RSA");
}

struct OperationLine {
  DWORD bit;
  const char* line;
};

constexpr OperationLine kOperations[] = {
    {0x04, "dwAlgClass is NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION"},
    {0x10, "dwAlgClass is NCRYPT_SIGNATURE_OPERATION"},
    {0x02, "dwAlgClass is NCRYPT_HASH_OPERATION"},
    {0x08, "dwAlgClass is NCRYPT_SECRET_AGREEMENT_OPERATION"},
    {0x01, "dwAlgClass is NCRYPT_CIPHER_OPERATION"},
    {0x20, "dwAlgClass is NCRYPT_RNG_OPERATION"},
};

// The answer does not filter by class: hash, cipher and secret agreement get the RSA entry too.
TEST_F(EnumAlgorithmsTest, EveryCombinationOfOperations) {
  for (DWORD operations = 0; operations < 128; ++operations) {
    const bool refused = operations != 0 && (operations & 0x1F) == 0;
    EXPECT_EQ(Enumerate(operations), refused ? NTE_NOT_SUPPORTED : 0) << operations;
    EXPECT_EQ(list_ != nullptr, !refused) << operations;
    EXPECT_EQ(count_, refused ? 0xEEEEEEEE : 1) << operations;
    std::vector<Line> body;
    if (operations == 0) body.emplace_back("dwAlgClass is 0");
    for (const OperationLine& operation : kOperations) {
      if (operations & operation.bit) body.emplace_back(operation.line);
    }
    if (refused) body.emplace_back("NTE_NOT_SUPPORTED: KELDA KSP currently supports RSA only.");
    ExpectLines(EnumLines(operations, &count_, &list_, 0, body, refused ? NTE_NOT_SUPPORTED : 0));
  }
}

TEST_F(EnumAlgorithmsTest, HigherBitsAloneAreRefused) {
  EXPECT_EQ(Enumerate(0xFFFFFFE0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Enumerate(0x80000000), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Enumerate(0xFFFFFFFF), 0);
}

TEST_F(EnumAlgorithmsTest, EnumChecksInOrder) {
  EXPECT_EQ(ksp().EnumAlgorithms(0, 0x20, nullptr, nullptr, 0xFFFFFFFF), NTE_INVALID_HANDLE);
  ExpectLines(
      EnumLines(0x20, nullptr, nullptr, 0xFFFFFFFF, {"NTE_INVALID_HANDLE: pProvider is NULL."}, NTE_INVALID_HANDLE));
  EXPECT_EQ(ksp().EnumAlgorithms(provider_, 0x20, nullptr, nullptr, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(EnumLines(0x20, nullptr, nullptr, 0xFFFFFFFF, {"NTE_INVALID_PARAMETER: pdwAlgCount is NULL."},
                        NTE_INVALID_PARAMETER));
  EXPECT_EQ(ksp().EnumAlgorithms(provider_, 0x20, &count_, nullptr, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(EnumLines(0x20, &count_, nullptr, 0xFFFFFFFF, {"NTE_INVALID_PARAMETER: ppAlgList is NULL."},
                        NTE_INVALID_PARAMETER));
  EXPECT_EQ(Enumerate(0x20, 0xFFFFFFFF), NTE_BAD_FLAGS);
  ExpectLines(EnumLines(0x20, &count_, &list_, 0xFFFFFFFF,
                        {"NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG or 0 is an acceptable value."}, NTE_BAD_FLAGS));
  EXPECT_EQ(count_, 0xEEEEEEEE);
  EXPECT_EQ(list_, nullptr);
}

TEST_F(EnumAlgorithmsTest, EnumRefusesEveryFlagButSilent) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    EXPECT_EQ(Enumerate(0, flag), flag == kSilent ? 0 : NTE_BAD_FLAGS) << flag;
  }
}

TEST_F(EnumAlgorithmsTest, EnumWithoutMemory) {
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == 32; });
  EXPECT_EQ(Enumerate(0x10), NTE_NO_MEMORY);
  EXPECT_EQ(count_, 0xEEEEEEEE);
  EXPECT_EQ(list_, nullptr);
  watch.StopFailing();
  ExpectLines(EnumLines(
      0x10, &count_, &list_, 0,
      {"dwAlgClass is NCRYPT_SIGNATURE_OPERATION", "NTE_NO_MEMORY: Unable to allocate enough memory for pbOutput."},
      NTE_NO_MEMORY));
}

TEST_F(EnumAlgorithmsTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    const auto handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(ksp().EnumAlgorithms(handle, 0, &count_, &list_, 0), NTE_INVALID_HANDLE);
  }
}

}  // namespace
