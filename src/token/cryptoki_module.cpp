#include "token/cryptoki_module.h"

#include <cstring>
#include <stdexcept>

CryptokiModule* g_Cryptoki = nullptr;

CryptokiModule::CryptokiModule() : log_(LogPointer::Create(-1, 0)) {
  // cppcheck-suppress useInitializationList ; the log has to be there before the module is loaded
  module_ = LoadLibraryW(L"keldapkcs11.dll");
  if (module_ == nullptr) {
    log_->WriteLine("Failed to load PKCS#11 Library.\n");
    throw std::runtime_error("Failed to load PKCS#11 Library.");
  }
  log_->WriteLine("PKCS#11 library loaded successfully");
  if (!LoadFunctionList()) Fail("Failed to retrieve middleware function list.");
  log_->WriteLine("PKCS#11 library function list retrieved");

  // No arguments: the module is not asked for locking. Another component of the process may have been first.
  const CK_RV result = Functions().C_Initialize(nullptr);
  if (result != CKR_OK && result != CKR_CRYPTOKI_ALREADY_INITIALIZED) Fail("Failed to intialize PKCS middleware.");
  log_->WriteLine("PKCS#11 library initialized successfully");
}

bool CryptokiModule::LoadFunctionList() noexcept {
  const FARPROC address = GetProcAddress(module_, "C_GetFunctionList");
  static_assert(sizeof(address) == sizeof(getFunctionList_));
  std::memcpy(&getFunctionList_, &address, sizeof(address));
  if (getFunctionList_ == nullptr) {
    log_->WriteLine("Failed to get function list");
    return false;
  }
  log_->WriteLine("Get Function List success");
  CK_FUNCTION_LIST* list = nullptr;
  getListStatus_ = static_cast<std::uint32_t>(getFunctionList_(&list));
  // A module that reports success and hands out no list has failed all the same.
  if (getListStatus_ != CKR_OK || list == nullptr) {
    log_->WriteLine("Failed to load function list");
    return false;
  }
  functionList_ = reinterpret_cast<TokenFunctionList*>(list);
  log_->WriteLine("Load Function List success");
  return true;
}

void CryptokiModule::Fail(const char* text) const {
  log_->WriteLine(text);
  throw std::runtime_error(text);
}

CK_RV CryptokiModule::Login(CK_SESSION_HANDLE session, const unsigned char* pin, CK_ULONG pinLength) const {
  // PKCS#11 takes the PIN through a pointer to non-const and does not write to it.
  return functionList_->login(session, CKU_USER, const_cast<unsigned char*>(pin), pinLength);
}
