// GetProviderProperty and SetProviderProperty: what the provider says about itself, and the one text it keeps.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kit/key_entry.h"

namespace {

using fake::Bytes;
using kit::Frame;
using kit::Hex32;
using kit::Line;
using kit::Pointer32;

constexpr DWORD kSilent = 0x40;
constexpr DWORD kPersistOnly = 0x40000000;

const wchar_t* const kNumbers[] = {L"Impl Type", L"Max Name Length", L"Version", L"Security Descr Support"};
const wchar_t* const kReadOnly[] = {L"Impl Type", L"Max Name Length", L"Security Descr Support", L"Version", L"Name"};

std::string Narrow(const std::wstring& text) {
  return std::string(text.begin(), text.end());
}

Bytes BytesOf(const std::wstring& text, bool terminated) {
  const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
  return Bytes(bytes, bytes + (text.size() + (terminated ? 1 : 0)) * sizeof(wchar_t));
}

class ProviderPropertiesTest : public KeyEntryTest {
 protected:
  SECURITY_STATUS Get(const wchar_t* name, BYTE* output, DWORD cbOutput, DWORD flags = 0) {
    result_ = 0xEEEEEEEE;
    return ksp().GetProviderProperty(provider_, name, output, cbOutput, &result_, flags);
  }
  SECURITY_STATUS Set(const wchar_t* name, Bytes input, DWORD flags = 0) {
    return ksp().SetProviderProperty(provider_, name, input.data(), static_cast<DWORD>(input.size()), flags);
  }
  // The text of "Use Context", or what stands for its absence.
  std::wstring Context() {
    BYTE value[512];
    if (Get(L"Use Context", value, sizeof(value)) != 0) return L"(none)";
    Forget();
    EXPECT_EQ(result_ % 2, 0u);
    std::wstring text(result_ / 2, L'#');
    std::memcpy(text.data(), value, result_);
    EXPECT_EQ(text.back(), L'\0');
    text.pop_back();
    return text;
  }

  std::vector<Line> GetLines(NCRYPT_PROV_HANDLE provider, const std::string& name, const void* output, DWORD cbOutput,
                             const void* result, DWORD flags, const std::vector<Line>& body, LONG status) const {
    std::vector<Line> lines{Hex32("hProvider    : ", provider),   "pszProperty  : " + name,
                            Pointer32("pbOutput     : ", output), Hex32("cbOutput     : ", cbOutput),
                            Pointer32("pcbResult    : ", result), Hex32("dwFlags      : ", flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPGetProviderProperty", lines, status);
  }
  std::vector<Line> SetLines(NCRYPT_PROV_HANDLE provider, const std::string& name, const void* input, DWORD cbInput,
                             DWORD flags, const std::vector<Line>& body, LONG status) const {
    std::vector<Line> lines{Hex32("hProvider   : ", provider), "pszProperty : " + name,
                            Pointer32("pbInput     : ", input), Hex32("cbInput     : ", cbInput),
                            Hex32("dwFlags     : ", flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPSetProviderProperty", lines, status);
  }

  DWORD result_ = 0;
};

// --- reading

TEST_F(ProviderPropertiesTest, NumbersAndTheirLines) {
  const DWORD expected[] = {25, 64, 0x01000100, 0};
  for (std::size_t i = 0; i < std::size(kNumbers); ++i) {
    DWORD value = 0xEEEEEEEE;
    auto* const output = reinterpret_cast<BYTE*>(&value);
    EXPECT_EQ(Get(kNumbers[i], output, 4), 0);
    EXPECT_EQ(value, expected[i]) << Narrow(kNumbers[i]);
    EXPECT_EQ(result_, 4u);
    ExpectLines(GetLines(provider_, Narrow(kNumbers[i]), output, 4, &result_, 0, {}, 0));
    ExpectCalls({});
  }
}

TEST_F(ProviderPropertiesTest, AskingForTheLength) {
  for (const wchar_t* name : kNumbers) {
    EXPECT_EQ(Get(name, nullptr, 0), 0);
    EXPECT_EQ(result_, 4u);
    ExpectLines(GetLines(provider_, Narrow(name), nullptr, 0, &result_, 0,
                         {"pbOutput is NULL, property length query succeeded."}, 0));
  }
  EXPECT_EQ(Get(L"Name", nullptr, 1000), 0) << "the room does not matter without a buffer";
  EXPECT_EQ(result_, 58u);
}

TEST_F(ProviderPropertiesTest, NameIsTheOneGivenToOpenProvider) {
  kit::Registry::Get().SetMultiString(kit::kProviderKey, L"Aliases", {L"Another Name"});
  NCRYPT_PROV_HANDLE other = 0;
  ASSERT_EQ(ksp().OpenProvider(&other, L"Another Name", kSilent), 0);
  wchar_t name[64] = {};
  DWORD length = 0;
  EXPECT_EQ(ksp().GetProviderProperty(other, L"Name", reinterpret_cast<BYTE*>(name), sizeof(name), &length, 0), 0);
  EXPECT_STREQ(name, L"Another Name");
  EXPECT_EQ(length, 26u);
  ksp().FreeProvider(other);
  EXPECT_EQ(Get(L"Name", reinterpret_cast<BYTE*>(name), 58), 0);
  EXPECT_STREQ(name, L"Norvale Token Works KSP v1.0");
  EXPECT_EQ(result_, 58u);
}

TEST_F(ProviderPropertiesTest, NothingBehindTheValueIsTouched) {
  Bytes output(70, 0xEE);
  EXPECT_EQ(Get(L"Name", output.data(), 70), 0);
  EXPECT_EQ(Bytes(output.begin() + 58, output.end()), Bytes(12, 0xEE));
  output.assign(8, 0xEE);
  EXPECT_EQ(Get(L"Impl Type", output.data(), 8), 0);
  EXPECT_EQ(output, (Bytes{25, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_F(ProviderPropertiesTest, ShortBufferTellsTheLength) {
  Bytes output(58, 0xEE);
  EXPECT_EQ(Get(L"Name", output.data(), 57), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(result_, 58u);
  EXPECT_EQ(output, Bytes(58, 0xEE));
  ExpectLines(GetLines(provider_, "Name", output.data(), 57, &result_, 0,
                       {"NTE_BUFFER_TOO_SMALL: cbOutput is less than cbResult"}, NTE_BUFFER_TOO_SMALL));
  for (const wchar_t* name : kNumbers) {
    EXPECT_EQ(Get(name, output.data(), 3), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(result_, 4u);
    EXPECT_EQ(Get(name, output.data(), 0), NTE_BUFFER_TOO_SMALL);
  }
  EXPECT_EQ(output, Bytes(58, 0xEE));
}

TEST_F(ProviderPropertiesTest, LargestRoomIsAccepted) {
  DWORD value = 0;
  EXPECT_EQ(Get(L"Version", reinterpret_cast<BYTE*>(&value), 0xFFFFFFFF), 0);
  EXPECT_EQ(value, 0x01000100u);
}

TEST_F(ProviderPropertiesTest, ContextThatWasNeverSetIsAnInternalErrorWithoutALine) {
  BYTE output[8];
  EXPECT_EQ(Get(L"Use Context", output, sizeof(output)), NTE_INTERNAL_ERROR);
  EXPECT_EQ(result_, 0u);
  ExpectLines(GetLines(provider_, "Use Context", output, sizeof(output), &result_, 0, {}, NTE_INTERNAL_ERROR));
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), NTE_INTERNAL_ERROR) << "a length query as well";
}

TEST_F(ProviderPropertiesTest, NamesAreComparedExactly) {
  for (const wchar_t* name : {L"impl type", L"Impl Type ", L"Impl", L"", L"Use Contex", L"NAME", L"Provider Handle"}) {
    BYTE output[64];
    EXPECT_EQ(Get(name, output, sizeof(output)), NTE_NOT_SUPPORTED) << Narrow(name);
    EXPECT_EQ(result_, 0u);
    ExpectLines(GetLines(provider_, Narrow(name), output, sizeof(output), &result_, 0,
                         {"NTE_NOT_SUPPORTED: pszProperty is not supported"}, NTE_NOT_SUPPORTED));
  }
}

TEST_F(ProviderPropertiesTest, NamesOfSixtyFourCharactersPassTheLengthCheck) {
  const std::wstring longest(64, L'n');
  BYTE output[4];
  EXPECT_EQ(Get(longest.c_str(), output, 4), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Get((longest + L'n').c_str(), output, 4), NTE_INVALID_PARAMETER);
  EXPECT_EQ(result_, 0u);
  Forget();
  const std::wstring endless(2000, L'n');
  EXPECT_EQ(Get(endless.c_str(), output, 4, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(GetLines(provider_, "", output, 4, &result_, 0xFFFFFFFF,
                       {"NTE_INVALID_PARAMETER: pszProperty length is greater than NCRYPT_MAX_PROPERTY_NAME"},
                       NTE_INVALID_PARAMETER));
}

TEST_F(ProviderPropertiesTest, GetChecksInOrder) {
  EXPECT_EQ(ksp().GetProviderProperty(0, nullptr, nullptr, 7, nullptr, 0xFFFFFFFF), NTE_INVALID_HANDLE);
  ExpectLines(
      GetLines(0, "", nullptr, 7, nullptr, 0xFFFFFFFF, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  EXPECT_EQ(ksp().GetProviderProperty(provider_, nullptr, nullptr, 0, nullptr, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  ExpectLines(GetLines(provider_, "", nullptr, 0, nullptr, 0xFFFFFFFF, {"NTE_INVALID_PARAMETER: pszProperty is NULL"},
                       NTE_INVALID_PARAMETER));
  const std::wstring longName(65, L'n');
  EXPECT_EQ(ksp().GetProviderProperty(provider_, longName.c_str(), nullptr, 0, nullptr, 0xFFFFFFFF),
            NTE_INVALID_PARAMETER);
  ExpectLines(GetLines(provider_, Narrow(longName), nullptr, 0, nullptr, 0xFFFFFFFF,
                       {"NTE_INVALID_PARAMETER: pcbResult is NULL"}, NTE_INVALID_PARAMETER));
  EXPECT_EQ(Get(longName.c_str(), nullptr, 0, 0xFFFFFFFF), NTE_INVALID_PARAMETER);
  Forget();
  EXPECT_EQ(Get(L"unknown", nullptr, 0, 0xFFFFFFFF), NTE_BAD_FLAGS);
  EXPECT_EQ(result_, 0u);
  ExpectLines(GetLines(provider_, "unknown", nullptr, 0, &result_, 0xFFFFFFFF,
                       {"NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is an acceptable value"}, NTE_BAD_FLAGS));
  EXPECT_EQ(Get(L"unknown", nullptr, 0, kSilent), NTE_NOT_SUPPORTED);
}

TEST_F(ProviderPropertiesTest, ResultLengthIsZeroOnEveryFailureBeforeTheNameIsResolved) {
  result_ = 0xEEEEEEEE;
  EXPECT_EQ(ksp().GetProviderProperty(0, L"Name", nullptr, 0, &result_, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(result_, 0u);
  result_ = 0xEEEEEEEE;
  EXPECT_EQ(ksp().GetProviderProperty(provider_, nullptr, nullptr, 0, &result_, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(result_, 0u);
}

TEST_F(ProviderPropertiesTest, EveryFlagButSilentIsRefused) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const SECURITY_STATUS expected = flag == kSilent ? 0 : NTE_BAD_FLAGS;
    EXPECT_EQ(Get(L"Version", nullptr, 0, flag), expected) << flag;
    EXPECT_EQ(Get(L"Version", nullptr, 0, flag | kSilent), expected) << flag;
  }
}

TEST_F(ProviderPropertiesTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    const auto handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    BYTE value[4] = {};
    EXPECT_EQ(ksp().GetProviderProperty(handle, L"Version", value, 4, &result_, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ksp().SetProviderProperty(handle, L"Use Context", value, 4, 0), NTE_INVALID_HANDLE);
  }
  EXPECT_EQ(providerRecord().pContext, nullptr);
}

// --- writing

TEST_F(ProviderPropertiesTest, ContextIsKeptAndReadBack) {
  Bytes text = BytesOf(L"context", true);
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", text.data(), 16, kSilent), 0);
  ExpectLines(SetLines(provider_, "Use Context", text.data(), 16, kSilent, {}, 0));
  ExpectCalls({});
  std::fill(text.begin(), text.end(), BYTE{0});
  BYTE output[16];
  EXPECT_EQ(Get(L"Use Context", output, 15), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(result_, 16u);
  EXPECT_EQ(Get(L"Use Context", output, 16), 0);
  EXPECT_EQ(Bytes(output, output + 16), BytesOf(L"context", true)) << "a copy is kept";
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), 0);
  EXPECT_EQ(result_, 16u);
}

// The copy takes twice the input's bytes, zero-filled: a text without a terminator gets one.
TEST_F(ProviderPropertiesTest, ContextWithoutATerminatorGetsOne) {
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"context", false)), 0);
  EXPECT_EQ(Context(), L"context");
  EXPECT_EQ(Set(L"Use Context", {'a', 0, 'b'}), 0);
  EXPECT_EQ(Context(), L"ab") << "half a character is filled up with zero";
  EXPECT_EQ(Set(L"Use Context", {'a'}), 0);
  EXPECT_EQ(Context(), L"a");
  EXPECT_EQ(Set(L"Use Context", {'a', 0, 0, 0, 'b', 0}), 0);
  EXPECT_EQ(Context(), L"a");
}

TEST_F(ProviderPropertiesTest, ContextOfNoBytesIsEmpty) {
  BYTE byte = 'x';
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, 0, 0), 0);
  EXPECT_EQ(Context(), L"");
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), 0);
  EXPECT_EQ(result_, 2u);
}

TEST_F(ProviderPropertiesTest, ContextTakesTwiceTheInput) {
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

TEST_F(ProviderPropertiesTest, NewContextReleasesTheOldOne) {
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"first", true)), 0);
  const void* const first = providerRecord().pContext;
  kit::MemoryWatch watch;
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"second", true)), 0);
  EXPECT_TRUE(watch.WasFreed(first));
  EXPECT_EQ(Context(), L"second");
}

TEST_F(ProviderPropertiesTest, ContextCanBeSetFromItself) {
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"itself", true)), 0);
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", static_cast<BYTE*>(providerRecord().pContext), 14, 0),
            0);
  EXPECT_EQ(Context(), L"itself");
}

TEST_F(ProviderPropertiesTest, WithoutMemoryTheOldContextStays) {
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"first", true)), 0);
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t size, std::size_t) { return size == 28; });
    EXPECT_EQ(Set(L"Use Context", BytesOf(L"second", true)), NTE_NO_MEMORY);
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

TEST_F(ProviderPropertiesTest, OtherPropertiesAreReadOnly) {
  for (const wchar_t* name : kReadOnly) {
    Bytes input(4);
    EXPECT_EQ(ksp().SetProviderProperty(provider_, name, input.data(), 4, 0), NTE_NOT_SUPPORTED);
    ExpectLines(SetLines(provider_, Narrow(name), input.data(), 4, 0,
                         {"NTE_NOT_SUPPORTED: The specified property is read-only"}, NTE_NOT_SUPPORTED));
  }
  EXPECT_STREQ(providerRecord().pszName, kit::kProviderName);
}

TEST_F(ProviderPropertiesTest, UnknownPropertiesAreNotSupported) {
  for (const wchar_t* name : {L"use context", L"Use Context ", L"", L"version", L"unknown"}) {
    Bytes input(4);
    EXPECT_EQ(ksp().SetProviderProperty(provider_, name, input.data(), 4, 0), NTE_NOT_SUPPORTED);
    ExpectLines(SetLines(provider_, Narrow(name), input.data(), 4, 0,
                         {"NTE_NOT_SUPPORTED: pszProperty is not supported"}, NTE_NOT_SUPPORTED));
  }
  EXPECT_EQ(providerRecord().pContext, nullptr);
}

TEST_F(ProviderPropertiesTest, SetChecksInOrder) {
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

TEST_F(ProviderPropertiesTest, EveryFlagOfAWrite) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const SECURITY_STATUS expected = flag == kSilent ? 0 : flag == kPersistOnly ? NTE_NOT_SUPPORTED : NTE_BAD_FLAGS;
    EXPECT_EQ(Set(L"Use Context", {1, 0}, flag), expected) << flag;
  }
}

TEST_F(ProviderPropertiesTest, RefusedWritesLeaveTheContext) {
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"kept", true)), 0);
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"other", true), kPersistOnly), NTE_NOT_SUPPORTED);
  EXPECT_EQ(Set(L"Use Context", BytesOf(L"other", true), 1), NTE_BAD_FLAGS);
  EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", nullptr, 4, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Context(), L"kept");
}

}  // namespace
