// The token maker's PKCS#11 module, loaded once per process.
#pragma once

#include <cstdint>

#include "diag/debug_log.h"
#include "support/windows.h"
#include "support/pkcs11.h"

// The loaded module. Read-only after construction and shared by all threads; never finalised or unloaded.
class CryptokiModule {
 public:
  // Loads keldapkcs11.dll, gets its function list and initialises it, and logs which step failed. Nothing is thrown: a
  // load of this DLL that fails must leave nothing behind, and the first exception in a DLL makes the runtime library
  // allocate what it never releases.
  CryptokiModule() noexcept;
  ~CryptokiModule();
  CryptokiModule(const CryptokiModule&) = delete;
  CryptokiModule& operator=(const CryptokiModule&) = delete;

  // Whether every step succeeded; nothing else may be asked of a module that is not ready.
  bool Ready() const noexcept { return ready_; }

  // The module's table, owned by the module; or a copy of what is used of it, whose gaps are filled.
  const CK_FUNCTION_LIST& Functions() const noexcept { return *functions_; }

  // The maker's login entry: 0, a CK_RV, or 1 to 14 for a wrong PIN (tries left). pin has pinLength bytes.
  CK_RV Login(CK_SESSION_HANDLE session, const unsigned char* pin, CK_ULONG pinLength) const;

 private:
  bool LoadFunctionList() noexcept;
  // Fills the gaps of the module's list, in a copy, when it has any.
  void CompleteFunctionList() noexcept;
  bool Load() noexcept;

  HMODULE module_ = nullptr;
  std::uint32_t getListStatus_ = 0;
  CK_C_GetFunctionList getFunctionList_ = nullptr;
  const TokenFunctionList* functionList_ = nullptr;  // the module's, from where the login is taken
  const CK_FUNCTION_LIST* functions_ = nullptr;
  CK_FUNCTION_LIST completed_ = {};  // what is used of the module's list, when that has gaps
  bool ready_ = false;
  LogPointer log_;
};

// Null when there was no memory for the object at load; ready otherwise.
extern CryptokiModule* g_Cryptoki;
