// IsAlgSupported.
#include <algorithm>
#include <string>
#include <vector>

#include "kit/key_entry.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::kSilent;
using kit::Line;

class IsAlgSupportedTest : public KeyEntryTest {
 protected:
  std::vector<Line> SupportLines(NCRYPT_PROV_HANDLE provider, const std::string& name, DWORD flags, const char* line,
                                 LONG status) const {
    return Frame("KELDAKSPIsAlgSupported",
                 {Hex32("hProvider : ", provider), "pszAlgId  : " + name, Hex32("dwFlags   : ", flags), line}, status);
  }
};

// The name would have to equal all seven known names at once. RSA itself is answered as not supported; that is kept.
TEST_F(IsAlgSupportedTest, NoAlgorithmIsSupported) {
  for (const char* name : {"RSA", "RSA_SIGN", "MD5", "SHA1", "SHA256", "SHA384", "SHA512", "rsa", "AES", "DSA", ""}) {
    const std::string text = name;
    EXPECT_EQ(ksp().IsAlgSupported(provider_, std::wstring(text.begin(), text.end()).c_str(), 0), NTE_NOT_SUPPORTED);
    ExpectLines(SupportLines(provider_, text, 0,
                             ("NTE_NOT_SUPPORTED: " + text + " is not a supported algorithm").c_str(),
                             NTE_NOT_SUPPORTED));
  }
  ExpectCalls({});
}

TEST_F(IsAlgSupportedTest, SupportChecksInOrder) {
  EXPECT_EQ(ksp().IsAlgSupported(0, nullptr, 0xFFFFFFFF), NTE_INVALID_HANDLE);
  ExpectLines(SupportLines(0, "", 0xFFFFFFFF, "NTE_INVALID_HANDLE: pProvider is NULL", NTE_INVALID_HANDLE));
  EXPECT_EQ(ksp().IsAlgSupported(provider_, nullptr, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(
      SupportLines(provider_, "", 0xFFFFFFFF, "NTE_INVALID_PARAMETER: pszAlgId cannot be NULL", NTE_INVALID_PARAMETER));
  EXPECT_EQ(ksp().IsAlgSupported(provider_, L"RSA", 0xFFFFFFFF), NTE_BAD_FLAGS);
  ExpectLines(SupportLines(provider_, "RSA", 0xFFFFFFFF, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is an acceptable flag",
                           NTE_BAD_FLAGS));
}

TEST_F(IsAlgSupportedTest, SupportRefusesEveryFlagButSilent) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    EXPECT_EQ(ksp().IsAlgSupported(provider_, L"RSA", flag), flag == kSilent ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS);
  }
}

// The line has room for 255 characters; with a name that leaves too little of it the line is empty.
TEST_F(IsAlgSupportedTest, LongNames) {
  const std::string longest(207, 'n');
  EXPECT_EQ(ksp().IsAlgSupported(provider_, std::wstring(207, L'n').c_str(), 0), NTE_NOT_SUPPORTED);
  ExpectLines(SupportLines(provider_, longest, 0,
                           ("NTE_NOT_SUPPORTED: " + longest + " is not a supported algorithm").c_str(),
                           NTE_NOT_SUPPORTED));
  for (const std::size_t length : {std::size_t{208}, std::size_t{511}}) {
    EXPECT_EQ(ksp().IsAlgSupported(provider_, std::wstring(length, L'n').c_str(), 0), NTE_NOT_SUPPORTED);
    ExpectLines(SupportLines(provider_, std::string(length, 'n'), 0, "", NTE_NOT_SUPPORTED));
  }
  EXPECT_EQ(ksp().IsAlgSupported(provider_, std::wstring(100000, L'n').c_str(), 0), NTE_NOT_SUPPORTED);
  ExpectLines(SupportLines(provider_, "", 0, "", NTE_NOT_SUPPORTED));
}

TEST_F(IsAlgSupportedTest, NameWithoutANarrowFormIsEmptyInTheLine) {
  EXPECT_EQ(ksp().IsAlgSupported(provider_, L"RSA\x20AC", 0), NTE_NOT_SUPPORTED);
  ExpectLines(SupportLines(provider_, "", 0, "NTE_NOT_SUPPORTED:  is not a supported algorithm", NTE_NOT_SUPPORTED));
}

TEST_F(IsAlgSupportedTest, NameThatLooksLikeAFormatIsOnlyAName) {
  EXPECT_EQ(ksp().IsAlgSupported(provider_, L"%s%n%x", 0), NTE_NOT_SUPPORTED);
  ExpectLines(SupportLines(provider_, "%s%n%x", 0, "NTE_NOT_SUPPORTED: %s%n%x is not a supported algorithm",
                           NTE_NOT_SUPPORTED));
}

TEST_F(IsAlgSupportedTest, SupportAllocatesTheLineForTheNameAndReleasesIt) {
  kit::MemoryWatch watch;
  std::vector<std::size_t> sizes;
  watch.FailWhen([&](std::size_t size, std::size_t) {
    sizes.push_back(size);
    return false;
  });
  EXPECT_EQ(ksp().IsAlgSupported(provider_, L"RSA_SIGN", 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 8u + 256), 1);
  EXPECT_TRUE(watch.Live().empty());
}

TEST_F(IsAlgSupportedTest, SupportWithoutMemory) {
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t size, std::size_t) { return size == 3 + 256; });
  EXPECT_EQ(ksp().IsAlgSupported(provider_, L"RSA", 0), NTE_NO_MEMORY);
  ExpectLines(
      SupportLines(provider_, "RSA", 0, "NTE_NO_MEMORY: Not enough memory to complete the operation", NTE_NO_MEMORY));
}

TEST_F(IsAlgSupportedTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    EXPECT_EQ(ksp().IsAlgSupported(reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken), L"RSA", 0), NTE_INVALID_HANDLE);
  }
}

}  // namespace
