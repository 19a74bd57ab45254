// The configuration functions of bcrypt.dll that mingw's header leaves out, and statuses that go badly with windows.h.
#ifndef KELDA_STANDINS_BCRYPT_PROVIDER_CONFIGURATION_H_
#define KELDA_STANDINS_BCRYPT_PROVIDER_CONFIGURATION_H_

#include <windows.h>

#include <bcrypt.h>

extern "C" {
NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR pszProvider, ULONG dwFlags, PCRYPT_PROVIDER_REG pReg);
NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR pszProvider);
NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                 LPCWSTR pszFunction, LPCWSTR pszProvider, ULONG dwPosition);
NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                    LPCWSTR pszFunction, LPCWSTR pszProvider);
}

namespace standin {

inline constexpr NTSTATUS kStatusSuccess = 0;
inline constexpr NTSTATUS kStatusUnsuccessful = static_cast<NTSTATUS>(0xC0000001);
inline constexpr NTSTATUS kStatusInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
inline constexpr NTSTATUS kStatusNoMemory = static_cast<NTSTATUS>(0xC0000017);
inline constexpr NTSTATUS kStatusAccessDenied = static_cast<NTSTATUS>(0xC0000022);
inline constexpr NTSTATUS kStatusBufferTooSmall = static_cast<NTSTATUS>(0xC0000023);
inline constexpr NTSTATUS kStatusNameCollision = static_cast<NTSTATUS>(0xC0000035);
inline constexpr NTSTATUS kStatusNotFound = static_cast<NTSTATUS>(0xC0000225);

}  // namespace standin

#endif  // KELDA_STANDINS_BCRYPT_PROVIDER_CONFIGURATION_H_
