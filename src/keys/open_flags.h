// The flags of the entries that look for keys.
#pragma once

#include "diag/debug_log.h"
#include "support/windows.h"

// Only the silent flag passes. Returns 0, NTE_BAD_FLAGS or NTE_NOT_SUPPORTED, with its line.
inline SECURITY_STATUS CheckOpenFlags(DWORD dwFlags) noexcept {
  if ((dwFlags & ~DWORD{NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS,
                         "NTE_BAD_FLAGS: ((dwFlags & ~(NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG)) != 0) ");
  }
  if ((dwFlags & NCRYPT_MACHINE_KEY_FLAG) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED:  (dwFlags & NCRYPT_MACHINE_KEY_FLAG) ");
  }
  return ERROR_SUCCESS;
}
