// Status values for code that includes no Windows header. The values are those of winerror.h and ntstatus.h
// (support/status_check.cpp holds them against the platform's headers in the Windows build).
#pragma once

#include <cstdint>

namespace status {

using Code = std::int32_t;

constexpr Code FromBits(std::uint32_t bits) noexcept {
  return static_cast<Code>(bits);
}

inline constexpr Code kSuccess = 0;
inline constexpr Code kBadSignature = FromBits(0x80090006);      // NTE_BAD_SIGNATURE
inline constexpr Code kNoMemory = FromBits(0x8009000E);          // NTE_NO_MEMORY
inline constexpr Code kPermission = FromBits(0x80090010);        // NTE_PERM
inline constexpr Code kFail = FromBits(0x80090020);              // NTE_FAIL
inline constexpr Code kInvalidHandle = FromBits(0x80090026);     // NTE_INVALID_HANDLE
inline constexpr Code kInvalidParameter = FromBits(0x80090027);  // NTE_INVALID_PARAMETER
inline constexpr Code kBufferTooSmall = FromBits(0x80090028);    // NTE_BUFFER_TOO_SMALL
inline constexpr Code kNotSupported = FromBits(0x80090029);      // NTE_NOT_SUPPORTED
inline constexpr Code kInternalError = FromBits(0x8009002D);     // NTE_INTERNAL_ERROR

inline constexpr Code kErrorBadArguments = 160;      // ERROR_BAD_ARGUMENTS
inline constexpr Code kErrorCancelled = 1223;        // ERROR_CANCELLED
inline constexpr Code kErrorLogonFailure = 1326;     // ERROR_LOGON_FAILURE
inline constexpr Code kErrorAccountDisabled = 1331;  // ERROR_ACCOUNT_DISABLED
inline constexpr Code kErrorFunctionFailed = 1627;   // ERROR_FUNCTION_FAILED

}  // namespace status
