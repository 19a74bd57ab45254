// KELDAKSPFreeProvider: closes the session and releases the record.
#include <cstdlib>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "provider/record/provider_record.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/key_object_list.h"

namespace {

SECURITY_STATUS FreeProvider(NCRYPT_PROV_HANDLE hProvider) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL");

  // The pointers are cleared as they go: a record whose session does not close stays allocated.
  g_Log->WriteLine("Deleting PIN cache");
  if (provider->pPinCache != nullptr) {
    SecureWipe(provider->pPinCache, std::size_t{provider->cchPinCache} * sizeof(wchar_t));
    delete[] provider->pPinCache;
    provider->pPinCache = nullptr;
    provider->cchPinCache = 0;
  }
  g_Log->WriteLine("Deleting key object list");
  ReleaseKeyObjectList(provider);
  g_Log->WriteLine("Deleting KSP name");
  delete[] provider->pszName;
  provider->pszName = nullptr;
  g_Log->WriteLine("Deleting provider context");
  delete[] provider->pContext;
  provider->pContext = nullptr;
  g_Log->WriteLine("Deleting reader name");
  delete[] provider->pszReader;
  provider->pszReader = nullptr;
  g_Log->WriteLine("Closing cryptographic session");
  if (g_Cryptoki == nullptr || g_Cryptoki->Functions().C_CloseSession(provider->hSession) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: An internal error occured");
  }
  // The section's block itself stays behind; kept on purpose (docs/kept-oddities.md).
  DeleteCriticalSection(provider->pLock);
  SecureWipe(provider, provider->cbLength);
  std::free(provider);
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeProvider - Entry", "KELDAKSPFreeProvider - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider : ", hProvider);
    ClearProviderCache();
    return FreeProvider(hProvider);
  });
}
