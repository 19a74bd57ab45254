// The flags of signing and verification.
#pragma once

#include "diag/debug_log.h"
#include "support/windows.h"

// No padding flag at all is accepted and means PKCS#1 v1.5, the one padding that is offered. Returns 0, NTE_BAD_FLAGS
// or NTE_NOT_SUPPORTED, with its line.
inline SECURITY_STATUS CheckSignatureFlags(DWORD dwFlags) noexcept {
  if ((dwFlags & ~DWORD{BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS | NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((dwFlags & BCRYPT_PAD_PSS) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: PSS padding scheme is currently not supported.");
  }
  return ERROR_SUCCESS;
}
