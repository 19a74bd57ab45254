// GetProviderProperty: what the provider says about itself.
#include <string>
#include <vector>

#include "entries/provider_properties.h"

namespace {

using fake::Bytes;
using kit::Frame;
using kit::Hex32;
using kit::kSilent;
using kit::Line;
using kit::Narrow;
using kit::Pointer32;

const wchar_t* const kNumbers[] = {L"Impl Type", L"Max Name Length", L"Version", L"Security Descr Support"};

class GetProviderPropertyTest : public ProviderPropertyTest {
 protected:
  std::vector<Line> GetLines(NCRYPT_PROV_HANDLE provider, const std::string& name, const void* output, DWORD cbOutput,
                             const void* result, DWORD flags, const std::vector<Line>& body, LONG status) const {
    const std::vector<Line> arguments{Hex32("hProvider    : ", provider),   "pszProperty  : " + name,
                                      Pointer32("pbOutput     : ", output), Hex32("cbOutput     : ", cbOutput),
                                      Pointer32("pcbResult    : ", result), Hex32("dwFlags      : ", flags)};
    return Frame("KELDAKSPGetProviderProperty", kit::Join({arguments, body}), status);
  }
};

TEST_F(GetProviderPropertyTest, NumbersAndTheirLines) {
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

TEST_F(GetProviderPropertyTest, AskingForTheLength) {
  for (const wchar_t* name : kNumbers) {
    EXPECT_EQ(Get(name, nullptr, 0), 0);
    EXPECT_EQ(result_, 4u);
    ExpectLines(GetLines(provider_, Narrow(name), nullptr, 0, &result_, 0,
                         {"pbOutput is NULL, property length query succeeded."}, 0));
  }
  EXPECT_EQ(Get(L"Name", nullptr, 1000), 0) << "the room does not matter without a buffer";
  EXPECT_EQ(result_, 58u);
}

TEST_F(GetProviderPropertyTest, NameIsTheOneGivenToOpenProvider) {
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

TEST_F(GetProviderPropertyTest, NothingBehindTheValueIsTouched) {
  Bytes output(70, 0xEE);
  EXPECT_EQ(Get(L"Name", output.data(), 70), 0);
  EXPECT_EQ(Bytes(output.begin() + 58, output.end()), Bytes(12, 0xEE));
  output.assign(8, 0xEE);
  EXPECT_EQ(Get(L"Impl Type", output.data(), 8), 0);
  EXPECT_EQ(output, (Bytes{25, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_F(GetProviderPropertyTest, ShortBufferTellsTheLength) {
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

TEST_F(GetProviderPropertyTest, LargestRoomIsAccepted) {
  DWORD value = 0;
  EXPECT_EQ(Get(L"Version", reinterpret_cast<BYTE*>(&value), 0xFFFFFFFF), 0);
  EXPECT_EQ(value, 0x01000100u);
}

TEST_F(GetProviderPropertyTest, ContextThatWasNeverSetIsAnInternalErrorWithoutALine) {
  BYTE output[8];
  EXPECT_EQ(Get(L"Use Context", output, sizeof(output)), NTE_INTERNAL_ERROR);
  EXPECT_EQ(result_, 0u);
  ExpectLines(GetLines(provider_, "Use Context", output, sizeof(output), &result_, 0, {}, NTE_INTERNAL_ERROR));
  EXPECT_EQ(Get(L"Use Context", nullptr, 0), NTE_INTERNAL_ERROR) << "a length query as well";
}

TEST_F(GetProviderPropertyTest, NamesAreComparedExactly) {
  for (const wchar_t* name : {L"impl type", L"Impl Type ", L"Impl", L"", L"Use Contex", L"NAME", L"Provider Handle"}) {
    BYTE output[64];
    EXPECT_EQ(Get(name, output, sizeof(output)), NTE_NOT_SUPPORTED) << Narrow(name);
    EXPECT_EQ(result_, 0u);
    ExpectLines(GetLines(provider_, Narrow(name), output, sizeof(output), &result_, 0,
                         {"NTE_NOT_SUPPORTED: pszProperty is not supported"}, NTE_NOT_SUPPORTED));
  }
}

TEST_F(GetProviderPropertyTest, NamesOfSixtyFourCharactersPassTheLengthCheck) {
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

TEST_F(GetProviderPropertyTest, GetChecksInOrder) {
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

TEST_F(GetProviderPropertyTest, ResultLengthIsZeroOnEveryFailureBeforeTheNameIsResolved) {
  result_ = 0xEEEEEEEE;
  EXPECT_EQ(ksp().GetProviderProperty(0, L"Name", nullptr, 0, &result_, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(result_, 0u);
  result_ = 0xEEEEEEEE;
  EXPECT_EQ(ksp().GetProviderProperty(provider_, nullptr, nullptr, 0, &result_, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(result_, 0u);
}

TEST_F(GetProviderPropertyTest, EveryFlagButSilentIsRefused) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    const SECURITY_STATUS expected = flag == kSilent ? 0 : NTE_BAD_FLAGS;
    EXPECT_EQ(Get(L"Version", nullptr, 0, flag), expected) << flag;
    EXPECT_EQ(Get(L"Version", nullptr, 0, flag | kSilent), expected) << flag;
  }
}

TEST_F(GetProviderPropertyTest, RecordsThatAreNoProviderAreRefused) {
  for (kit::ProviderRecord& broken : BrokenRecords(providerRecord())) {
    BYTE value[4] = {};
    const auto handle = reinterpret_cast<NCRYPT_PROV_HANDLE>(&broken);
    EXPECT_EQ(ksp().GetProviderProperty(handle, L"Version", value, 4, &result_, 0), NTE_INVALID_HANDLE);
  }
}

}  // namespace
