// The five entries that do nothing but refuse. They log no arguments and look at no handle; that their lines differ
// (PromptUser's bare name, SecretAgreement's exit line, the full stops) and that two of them leave the provider cache
// alone is deliberate.
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"

SECURITY_STATUS WINAPI KELDAKSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR, NCryptBufferDesc*, PBYTE,
                                         DWORD, DWORD*, ULONG) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPDeriveKey - Entry", "KELDAKSPDeriveKey - Exit: "};
  return RunEntry(kLines, {}, []() -> SECURITY_STATUS {
    return g_Log->Refuse(NTE_NOT_SUPPORTED,
                         "NTE_NOT_SUPPORTED: This version of KELDA KSP does not support key derivation.");
  });
}

SECURITY_STATUS WINAPI KELDAKSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE) noexcept {
  constexpr EntryLines kLines = {
      .entry = "KELDAKSPFreeSecret - Entry", .exit = "KELDAKSPFreeSecret - Exit: ", .keepsProviderCache = true};
  return RunEntry(kLines, {}, []() -> SECURITY_STATUS {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: FreeSecret is not supported.");
  });
}

SECURITY_STATUS WINAPI KELDAKSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE*, DWORD) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPNotifyChangeKey - Entry", "KELDAKSPNotifyChangeKey - Exit: "};
  return RunEntry(kLines, {}, []() -> SECURITY_STATUS {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: NotifyChangeKey is not supported");
  });
}

SECURITY_STATUS WINAPI KELDAKSPPromptUser(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD) noexcept {
  constexpr EntryLines kLines = {
      .entry = "KELDAKSPPromptUser", .exit = "KELDAKSPPromptUser", .exitHasStatus = false, .keepsProviderCache = true};
  return RunEntry(kLines, {}, []() -> SECURITY_STATUS {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: PromptUser is not supported");
  });
}

SECURITY_STATUS WINAPI KELDAKSPSecretAgreement(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE,
                                               NCRYPT_SECRET_HANDLE*, DWORD) noexcept {
  constexpr EntryLines kLines = {
      .entry = "KELDAKSPSecretAgreement - Entry", .exit = "KELDAKSPSecretAgreement - Exit", .exitHasStatus = false};
  return RunEntry(kLines, {}, []() -> SECURITY_STATUS {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: SecretAgreement is not supported");
  });
}
