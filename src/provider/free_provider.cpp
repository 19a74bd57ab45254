// KELDAKSPFreeProvider: closes the session and releases the record.
#include <cstdlib>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/key_object_list.h"

namespace {

void DeleteText(wchar_t*& text) noexcept {
  delete[] text;
  text = nullptr;
}

// The pointers are cleared as they go: a record whose session does not close stays allocated.
void ReleaseMembers(KELDAKSP_PROVIDER* provider) noexcept {
  g_Log->WriteLine("Deleting PIN cache");
  if (provider->pPinCache != nullptr) {
    SecureWipe(provider->pPinCache, std::size_t{provider->cchPinCache} * sizeof(wchar_t));
    DeleteText(provider->pPinCache);
    provider->cchPinCache = 0;
  }
  g_Log->WriteLine("Deleting key object list");
  ReleaseKeyObjectList(provider);
  g_Log->WriteLine("Deleting KSP name");
  DeleteText(provider->pszName);
  g_Log->WriteLine("Deleting provider context");
  DeleteText(provider->pContext);
  g_Log->WriteLine("Deleting reader name");
  DeleteText(provider->pszReader);
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeProvider - Entry", "KELDAKSPFreeProvider - Exit: "};
  const EntryArgument arguments[] = {{"hProvider : ", hProvider}};
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    ReleaseMembers(provider);
    g_Log->WriteLine("Closing cryptographic session");
    if (g_Cryptoki == nullptr || g_Cryptoki->Functions().C_CloseSession(provider->hSession) != CKR_OK) {
      return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: An internal error occured");
    }
    // The section's block itself stays behind; kept on purpose (docs/kept-oddities.md).
    DeleteCriticalSection(provider->pLock);
    SecureWipe(provider, provider->cbLength);
    std::free(provider);
    return ERROR_SUCCESS;
  });
}
