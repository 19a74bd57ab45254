// The entry export and the constant table that it hands out.
#include <atomic>
#include <cstdio>

#include "provider/entry/entry_frame.h"
#include "provider/entry/identity.h"
#include "provider/entry/key_storage_interface.h"
#include "support/text.h"

namespace {

constexpr NTSTATUS kStatusInvalidParameter = static_cast<NTSTATUS>(0xC000000Du);

constexpr NCRYPT_KEY_STORAGE_FUNCTION_TABLE kFunctionTable = {
    {1, 0},
    KELDAKSPOpenProvider,
    KELDAKSPOpenKey,
    KELDAKSPCreatePersistedKey,
    KELDAKSPGetProviderProperty,
    KELDAKSPGetKeyProperty,
    KELDAKSPSetProviderProperty,
    KELDAKSPSetKeyProperty,
    KELDAKSPFinalizeKey,
    KELDAKSPDeleteKey,
    KELDAKSPFreeProvider,
    KELDAKSPFreeKey,
    KELDAKSPFreeBuffer,
    KELDAKSPEncrypt,
    KELDAKSPDecrypt,
    KELDAKSPIsAlgSupported,
    KELDAKSPEnumAlgorithms,
    KELDAKSPEnumKeys,
    KELDAKSPImportKey,
    KELDAKSPExportKey,
    KELDAKSPSignHash,
    KELDAKSPVerifySignature,
    KELDAKSPPromptUser,
    KELDAKSPNotifyChangeKey,
    KELDAKSPSecretAgreement,
    KELDAKSPDeriveKey,
    KELDAKSPFreeSecret,
};

// A list head that each retrieval of the table empties; nothing else uses it.
struct ListHead {
  std::atomic<ListHead*> next;
  std::atomic<ListHead*> previous;
};
ListHead g_listHead;

}  // namespace

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                       DWORD dwFlags) noexcept {
  // Not an entry of the table: the provider cache is none of its business.
  constexpr EntryLines kLines = {
      .entry = "GetKeyStorageInterface - Entry", .exit = "GetKeyStorageInterface - Exit: ", .keepsProviderCache = true};
  const EntryArgument arguments[] = {
      {"pszProviderName : ", pszProviderName},
      {"ppFunctionTable : ", ppFunctionTable},
      {"dwFlags         : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    if (ppFunctionTable == nullptr) {
      return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: ppFunctionTable pointer is NULL");
    }
    if (!WideEqual(pszProviderName, kProviderName)) {
      // An NTSTATUS, unlike everything that the table's entries return: the router expects one here.
      return g_Log->Refuse(kStatusInvalidParameter, "STATUS_INVALID_PARAMETER: Provider name mismatch.");
    }
    g_listHead.next.store(&g_listHead, std::memory_order_relaxed);
    g_listHead.previous.store(&g_listHead, std::memory_order_relaxed);
    // The router takes the table through a pointer to non-const and never writes to it.
    *ppFunctionTable = const_cast<NCRYPT_KEY_STORAGE_FUNCTION_TABLE*>(&kFunctionTable);
    char line[200];
    std::snprintf(line, sizeof(line), "Function table retrieved - %s %s %s %s", kProductText, kVersionText,
                  kPlatformText, kBuildText);
    g_Log->WriteLine(line);
    return ERROR_SUCCESS;
  });
}
