// The token maker's PKCS#11 module, loaded once per process.
#pragma once

#include <cstdint>

#include "diag/debug_log.h"
#include "support/windows.h"
#include "support/pkcs11.h"

// The loaded module. Read-only after construction and shared by all threads; never finalised or unloaded.
class CryptokiModule {
 public:
  // Loads keldapkcs11.dll, gets its function list and initialises it. Throws std::runtime_error with a text that tells
  // which step failed.
  CryptokiModule();
  CryptokiModule(const CryptokiModule&) = delete;
  CryptokiModule& operator=(const CryptokiModule&) = delete;

  // The module's table; owned by the module.
  const CK_FUNCTION_LIST& Functions() const noexcept { return functionList_->standard; }

  // The maker's login entry: 0, a CK_RV, or 1 to 14 for a wrong PIN (tries left). pin has pinLength bytes.
  CK_RV Login(CK_SESSION_HANDLE session, const unsigned char* pin, CK_ULONG pinLength) const;

 private:
  bool LoadFunctionList() noexcept;
  [[noreturn]] void Fail(const char* text) const;

  HMODULE module_ = nullptr;
  std::uint32_t getListStatus_ = 0;
  CK_C_GetFunctionList getFunctionList_ = nullptr;
  TokenFunctionList* functionList_ = nullptr;
  LogPointer log_;
};

// Null when there was no memory for the object at load.
extern CryptokiModule* g_Cryptoki;
