// SetProviderProperty: the one text that the provider keeps.
#include <algorithm>
#include <string>
#include <vector>

#include "entries/provider_properties.h"

namespace {

using fake::Bytes;
using kit::Frame;
using kit::Hex32;
using kit::kPersistOnly;
using kit::kSilent;
using kit::Line;
using kit::Narrow;
using kit::Pointer32;
using kit::WideBytes;

const wchar_t* const kReadOnly[] = {L"Impl Type", L"Max Name Length", L"Security Descr Support", L"Version", L"Name"};

class SetProviderPropertyTest : public ProviderPropertyTest {
 protected:
  std::vector<Line> SetLines(NCRYPT_PROV_HANDLE provider, const std::string& name, const void* input, DWORD cbInput,
                             DWORD flags, const std::vector<Line>& body, LONG status) const {
    const std::vector<Line> arguments{Hex32("hProvider   : ", provider), "pszProperty : " + name,
                                      Pointer32("pbInput     : ", input), Hex32("cbInput     : ", cbInput),
                                      Hex32("dwFlags     : ", flags)};
    return Frame("KELDAKSPSetProviderProperty", kit::Join({arguments, body}), status);
  }
};

TEST_F(SetProviderPropertyTest, ContextIsKeptAndReadBack) {
  Bytes text = WideBytes(L"context");
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", text.data(), 16, kSilent), 0);
  ExpectLines(SetLines(provider_, "Use Context", text.data(), 16, kSilent, {}, 0));
  ExpectCalls({});
  std::fill(text.begin(), text.end(), BYTE{0});
  BYTE output[16];
  EXPECT_EQ(Get(L"Use Context", output, 15), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(result_, 16u);
  EXPECT_EQ(Get(L"Use Context", output, 16), 0);
  EXPECT_EQ(Bytes(output, output + 16), WideBytes(L"context")) << "a copy is kept";
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), 0);
  EXPECT_EQ(result_, 16u);
}

// The copy takes twice the input's bytes, zero-filled: a text without a terminator gets one.
TEST_F(SetProviderPropertyTest, ContextWithoutATerminatorGetsOne) {
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"context", false)), 0);
  EXPECT_EQ(Context(), L"context");
  EXPECT_EQ(Set(L"Use Context", {'a', 0, 'b'}), 0);
  EXPECT_EQ(Context(), L"ab") << "half a character is filled up with zero";
  EXPECT_EQ(Set(L"Use Context", {'a'}), 0);
  EXPECT_EQ(Context(), L"a");
  EXPECT_EQ(Set(L"Use Context", {'a', 0, 0, 0, 'b', 0}), 0);
  EXPECT_EQ(Context(), L"a");
}

TEST_F(SetProviderPropertyTest, ContextOfNoBytesIsEmpty) {
  BYTE byte = 'x';
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, 0, 0), 0);
  EXPECT_EQ(Context(), L"");
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), 0);
  EXPECT_EQ(result_, 2u);
}

TEST_F(SetProviderPropertyTest, ContextTakesTwiceTheInput) {
  kit::MemoryWatch watch;
  std::vector<std::size_t> sizes;
  watch.FailWhen([&](std::size_t size, std::size_t) {
    sizes.push_back(size);
    return false;
  });
  EXPECT_EQ(Set(L"Use Context", Bytes(123, 'x')), 0);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 246u), 1);
  // Less than two bytes get room for a character and its terminator all the same.
  for (const DWORD cbInput : {DWORD{0}, DWORD{1}}) {
    BYTE byte = 'x';
    sizes.clear();
    EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, cbInput, 0), 0);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 4u), 1);
  }
}

TEST_F(SetProviderPropertyTest, NewContextReleasesTheOldOne) {
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"first")), 0);
  const void* const first = providerRecord().pContext;
  kit::MemoryWatch watch;
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"second")), 0);
  EXPECT_TRUE(watch.WasFreed(first));
  EXPECT_EQ(Context(), L"second");
}

TEST_F(SetProviderPropertyTest, ContextCanBeSetFromItself) {
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"itself")), 0);
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", static_cast<BYTE*>(providerRecord().pContext), 14, 0),
            0);
  EXPECT_EQ(Context(), L"itself");
}

TEST_F(SetProviderPropertyTest, WithoutMemoryTheOldContextStays) {
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"first")), 0);
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t size, std::size_t) { return size == 28; });
    EXPECT_EQ(Set(L"Use Context", WideBytes(L"second")), NTE_NO_MEMORY);
  }
  Forget();
  BYTE byte = 'x';
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, 0xFFFFFFFF, 0), NTE_NO_MEMORY)
      << "nothing is read from behind the caller's buffer";
  ExpectLines(SetLines(provider_, "Use Context", &byte, 0xFFFFFFFF, 0,
                       {"NTE_NO_MEMORY: Not enough memory to complete the operation"}, NTE_NO_MEMORY));
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, 0x7FFFFFFF, 0), NTE_NO_MEMORY);
  EXPECT_EQ(Context(), L"first");
}

TEST_F(SetProviderPropertyTest, OtherPropertiesAreReadOnly) {
  for (const wchar_t* name : kReadOnly) {
    Bytes input(4);
    EXPECT_EQ(ksp().SetProviderProperty(provider_, name, input.data(), 4, 0), NTE_NOT_SUPPORTED);
    ExpectLines(SetLines(provider_, Narrow(name), input.data(), 4, 0,
                         {"NTE_NOT_SUPPORTED: The specified property is read-only"}, NTE_NOT_SUPPORTED));
  }
  EXPECT_STREQ(providerRecord().pszName, kit::kProviderName);
}

TEST_F(SetProviderPropertyTest, UnknownPropertiesAreNotSupported) {
  for (const wchar_t* name : {L"use context", L"Use Context ", L"", L"version", L"unknown"}) {
    Bytes input(4);
    EXPECT_EQ(ksp().SetProviderProperty(provider_, name, input.data(), 4, 0), NTE_NOT_SUPPORTED);
    ExpectLines(SetLines(provider_, Narrow(name), input.data(), 4, 0,
                         {"NTE_NOT_SUPPORTED: pszProperty is not supported"}, NTE_NOT_SUPPORTED));
  }
  EXPECT_EQ(providerRecord().pContext, nullptr);
}

TEST_F(SetProviderPropertyTest, SetChecksInOrder) {
  const std::wstring longName(65, L'n');
  BYTE byte = 0;
  EXPECT_EQ(ksp().SetProviderProperty(0, nullptr, nullptr, 5, 0xFFFFFFFF), NTE_INVALID_HANDLE);
  ExpectLines(SetLines(0, "", nullptr, 5, 0xFFFFFFFF, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  EXPECT_EQ(ksp().SetProviderProperty(provider_, nullptr, nullptr, 0, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(SetLines(provider_, "", nullptr, 0, 0xFFFFFFFF, {"NTE_INVALID_PARAMETER: pszProperty is NULL"},
                       NTE_INVALID_PARAMETER));
  EXPECT_EQ(ksp().SetProviderProperty(provider_, longName.c_str(), nullptr, 0, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(SetLines(provider_, Narrow(longName), nullptr, 0, 0xFFFFFFFF,
                       {"NTE_INVALID_PARAMETER: The length of pszProperty is greater than NCRYPT_MAX_PROPERTY_NAME"},
                       NTE_INVALID_PARAMETER));
  const std::wstring longest(64, L'n');
  EXPECT_EQ(ksp().SetProviderProperty(provider_, longest.c_str(), nullptr, 0, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(SetLines(provider_, Narrow(longest), nullptr, 0, 0xFFFFFFFF, {"NTE_INVALID_PARAMETER: pbInput is NULL"},
                       NTE_INVALID_PARAMETER));
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Version", &byte, 1, 0xFFFFFFFF), NTE_NOT_SUPPORTED);
  ExpectLines(SetLines(provider_, "Version", &byte, 1, 0xFFFFFFFF,
                       {"NTE_NOT_SUPPORTED: NCRYPT_PERSIST_ONLY_FLAG is currently not supported"}, NTE_NOT_SUPPORTED));
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Version", &byte, 1, ~kPersistOnly), NTE_BAD_FLAGS);
  ExpectLines(SetLines(provider_, "Version", &byte, 1, ~kPersistOnly,
                       {"NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is currently supported"}, NTE_BAD_FLAGS));
  EXPECT_EQ(Set(longest.c_str(), {1}), NTE_NOT_SUPPORTED);
}

TEST_F(SetProviderPropertyTest, EveryFlagOfAWrite) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const SECURITY_STATUS expected = flag == kSilent ? 0 : flag == kPersistOnly ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Set(L"Use Context", {1, 0}, flag), expected) << flag;
  }
}

TEST_F(SetProviderPropertyTest, RefusedWritesLeaveTheContext) {
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"kept")), 0);
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"other"), kPersistOnly), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Set(L"Use Context", WideBytes(L"other"), 1), NTE_BAD_FLAGS);
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", nullptr, 4, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Context(), L"kept");
}

TEST_F(SetProviderPropertyTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    BYTE value[4] = {};
    const auto handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(ksp().SetProviderProperty(handle, L"Use Context", value, 4, 0), NTE_INVALID_HANDLE);
  }
  EXPECT_EQ(providerRecord().pContext, nullptr);
}

}  // namespace
