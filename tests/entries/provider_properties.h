// The base of the tests of the provider's properties.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "kit/key_entry.h"

class ProviderPropertyTest : public KeyEntryTest {
 protected:
  SECURITY_STATUS Get(const wchar_t* name, BYTE* output, DWORD cbOutput, DWORD flags = 0) {
    result_ = 0xEEEEEEEE;
    return ksp().GetProviderProperty(provider_, name, output, cbOutput, &result_, flags);
  }
  SECURITY_STATUS Set(const wchar_t* name, fake::Bytes input, DWORD flags = 0) {
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

  DWORD result_ = 0;
};
