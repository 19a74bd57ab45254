#include "token/cryptoki_module.h"

#include <cstring>

#include "token/missing_functions.h"

CryptokiModule* g_Cryptoki = nullptr;

CryptokiModule::CryptokiModule() noexcept : log_(LogPointer::Create(-1, 0)) {
  ready_ = Load();
}

CryptokiModule::~CryptokiModule() {
  log_.Destroy();
}

bool CryptokiModule::Load() noexcept {
  module_ = LoadLibraryW(L"keldapkcs11.dll");
  if (module_ == nullptr) {
    log_->WriteLine("Failed to load PKCS#11 Library.\n");
    return false;
  }
  log_->WriteLine("PKCS#11 library loaded successfully");
  if (!LoadFunctionList()) {
    log_->WriteLine("Failed to retrieve middleware function list.");
    return false;
  }
  log_->WriteLine("PKCS#11 library function list retrieved");

  // No arguments: the module is not asked for locking. Another component of the process may have been first.
  const CK_RV result = Functions().C_Initialize(nullptr);
  if (result != CKR_OK && result != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    log_->WriteLine("Failed to intialize PKCS middleware.");
    return false;
  }
  log_->WriteLine("PKCS#11 library initialized successfully");
  // Only now: a module may put its entries in place while it is initialised.
  CompleteFunctionList();
  return true;
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
  functions_ = list;
  if (Functions().C_Initialize == nullptr) CompleteFunctionList();
  log_->WriteLine("Load Function List success");
  return true;
}

void CryptokiModule::CompleteFunctionList() noexcept {
  if (!HasMissingFunctions(*functions_)) return;
  completed_ = FillMissingFunctions(*functions_);
  functions_ = &completed_;
}

CK_RV CryptokiModule::Login(CK_SESSION_HANDLE session, const unsigned char* pin, CK_ULONG pinLength) const {
  // Only here is the maker's part of the list looked at: the list of another maker's module ends before it (that of
  // PKCS#11 v2.00 even before C_WaitForSlotEvent), and must not be read beyond its end by a load. Its version tells of
  // the standard part alone.
  const VendorLogin login = functionList_->login != nullptr ? functionList_->login : kMissingLogin;
  // PKCS#11 takes the PIN through a pointer to non-const and does not write to it.
  return login(session, CKU_USER, const_cast<unsigned char*>(pin), pinLength);
}
