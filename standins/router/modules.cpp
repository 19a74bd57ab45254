#include "router/modules.h"

namespace router {
namespace {

constexpr USHORT kInterfaceMajor = 1;

SECURITY_STATUS FromNtStatus(NTSTATUS status) {
  constexpr DWORD kSecurityFacility = 0x80090000;
  switch (static_cast<DWORD>(status)) {
    case 0:
      return ERROR_SUCCESS;
    case 0xC000000D:  // STATUS_INVALID_PARAMETER
      return NTE_INVALID_PARAMETER;
    case 0xC0000017:  // STATUS_NO_MEMORY
      return NTE_NO_MEMORY;
    case 0xC00000BB:  // STATUS_NOT_SUPPORTED
      return NTE_NOT_SUPPORTED;
    default:
      // Some providers answer with a SECURITY_STATUS of their own.
      return (static_cast<DWORD>(status) & 0xFFFF0000) == kSecurityFacility ? status : NTE_INTERNAL_ERROR;
  }
}

// A registration names the file alone, and it is in the system folder: nowhere else is it looked for.
std::wstring PathOf(const std::wstring& image) {
  if (image.find_first_of(L"\\/") != std::wstring::npos) return image;
  wchar_t folder[MAX_PATH];
  const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
  return length < MAX_PATH ? std::wstring(folder, length) + L"\\" + image : image;
}

}  // namespace

ProviderModule::~ProviderModule() {
  // Loading counts: a DLL that an earlier opening kept stays.
  if (module_ != nullptr) FreeLibrary(module_);
}

SECURITY_STATUS ProviderModule::Load(const Registration& registration, const KeyStorageFunctionTable** table) {
  module_ = LoadLibraryW(PathOf(registration.image).c_str());
  if (module_ == nullptr) return NTE_PROVIDER_DLL_FAIL;
  // Through a plain function pointer: FARPROC and the real type differ in everything.
  const auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
      reinterpret_cast<void*>(GetProcAddress(module_, "GetKeyStorageInterface")));
  if (getInterface == nullptr) return NTE_PROVIDER_DLL_FAIL;
  KeyStorageFunctionTable* providerTable = nullptr;
  const NTSTATUS status = getInterface(registration.name.c_str(), &providerTable, 0);
  if (status != 0) return FromNtStatus(status);
  if (providerTable == nullptr || providerTable->Version.Major != kInterfaceMajor) return NTE_BAD_PROVIDER;
  *table = providerTable;
  return ERROR_SUCCESS;
}

}  // namespace router
