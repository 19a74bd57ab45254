// CNG's key storage interface: the function table that the router calls, and our exports. mingw's headers lack it.
#pragma once

#include <cstddef>

#include "support/windows.h"

// Characters of a property name at most, the terminator not counted (NCRYPT_MAX_PROPERTY_NAME).
inline constexpr std::size_t kMaxPropertyName = 64;

extern "C" {

// Returns STATUS_INVALID_PARAMETER (an NTSTATUS) for a name that is not exactly the provider's.
NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName,
                                       struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable,
                                       DWORD dwFlags) noexcept;

SECURITY_STATUS WINAPI KELDAKSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                            DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                       DWORD dwLegacyKeySpec, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                  LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                  DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                                   DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                                   DWORD cbInput, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                              PBYTE pbInput, DWORD cbInput, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) noexcept;
SECURITY_STATUS WINAPI KELDAKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) noexcept;
SECURITY_STATUS WINAPI KELDAKSPFreeBuffer(PVOID pvInput) noexcept;
SECURITY_STATUS WINAPI KELDAKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgClass, DWORD* pdwAlgCount,
                                              NCryptAlgorithmName** ppAlgList, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                        PVOID* ppEnumState, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                         LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                         NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                         NCryptBufferDesc* pParameterList, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                        PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                        DWORD* pcbResult, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                               PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                               DWORD cbSignature, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation,
                                          DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                               NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE* phSecret,
                                               DWORD dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPDeriveKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret,
                                         LPCWSTR pwszKDF, NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey,
                                         DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags) noexcept;
SECURITY_STATUS WINAPI KELDAKSPFreeSecret(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret) noexcept;

}  // extern "C"

// Interface version 1.0; the slots stand in the order in which the router indexes them.
struct NCRYPT_KEY_STORAGE_FUNCTION_TABLE {
  struct {
    USHORT MajorVersion;
    USHORT MinorVersion;
  } Version;
  decltype(&KELDAKSPOpenProvider) OpenProvider;
  decltype(&KELDAKSPOpenKey) OpenKey;
  decltype(&KELDAKSPCreatePersistedKey) CreatePersistedKey;
  decltype(&KELDAKSPGetProviderProperty) GetProviderProperty;
  decltype(&KELDAKSPGetKeyProperty) GetKeyProperty;
  decltype(&KELDAKSPSetProviderProperty) SetProviderProperty;
  decltype(&KELDAKSPSetKeyProperty) SetKeyProperty;
  decltype(&KELDAKSPFinalizeKey) FinalizeKey;
  decltype(&KELDAKSPDeleteKey) DeleteKey;
  decltype(&KELDAKSPFreeProvider) FreeProvider;
  decltype(&KELDAKSPFreeKey) FreeKey;
  decltype(&KELDAKSPFreeBuffer) FreeBuffer;
  decltype(&KELDAKSPEncrypt) Encrypt;
  decltype(&KELDAKSPDecrypt) Decrypt;
  decltype(&KELDAKSPIsAlgSupported) IsAlgSupported;
  decltype(&KELDAKSPEnumAlgorithms) EnumAlgorithms;
  decltype(&KELDAKSPEnumKeys) EnumKeys;
  decltype(&KELDAKSPImportKey) ImportKey;
  decltype(&KELDAKSPExportKey) ExportKey;
  decltype(&KELDAKSPSignHash) SignHash;
  decltype(&KELDAKSPVerifySignature) VerifySignature;
  decltype(&KELDAKSPPromptUser) PromptUser;
  decltype(&KELDAKSPNotifyChangeKey) NotifyChangeKey;
  decltype(&KELDAKSPSecretAgreement) SecretAgreement;
  decltype(&KELDAKSPDeriveKey) DeriveKey;
  decltype(&KELDAKSPFreeSecret) FreeSecret;
};

static_assert(offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, OpenProvider) == sizeof(void*));
static_assert(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) == 27 * sizeof(void*));
