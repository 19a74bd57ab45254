// Who the provider is.
#pragma once

inline constexpr wchar_t kProviderName[] = L"Norvale Token Works KSP v1.0";
inline constexpr char kProductText[] = "Norvale Token Works KSP";
inline constexpr char kVersionText[] = "4, 2, 0, 1";
inline constexpr char kPlatformText[] = "x86";  // in every build, the 64-bit one included; kept on purpose
inline constexpr char kBuildText[] = "(Release Build)";

// The provider's registration, under HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kRegistrationKey[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\Norvale Token Works KSP v1.0";
