// Argument checks that several entries share.
#pragma once

#include <cstddef>

inline constexpr char kProviderIsNull[] = "NTE_INVALID_HANDLE: pProvider is NULL";
inline constexpr char kKeyIsNull[] = "NTE_INVALID_HANDLE: pKey is NULL";
inline constexpr char kOpenBadFlags[] =
    "NTE_BAD_FLAGS: ((dwFlags & ~(NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG)) != 0) ";
inline constexpr char kOpenMachineKey[] = "NTE_NOT_SUPPORTED:  (dwFlags & NCRYPT_MACHINE_KEY_FLAG) ";

// Characters of a property name, the terminator not counted (NCRYPT_MAX_PROPERTY_NAME).
inline constexpr std::size_t kMaxPropertyName = 64;
