// What a key storage provider and the router exchange: the function table that mingw's headers do not declare.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

namespace router {

// Version 1.0 of the key storage interface: 26 entries in this order, all of them stdcall.
struct KeyStorageFunctionTable {
  struct {
    USHORT Major;
    USHORT Minor;
  } Version;
  SECURITY_STATUS(WINAPI* OpenProvider)(NCRYPT_PROV_HANDLE* provider, LPCWSTR name, DWORD flags);
  SECURITY_STATUS(WINAPI* OpenKey)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR name, DWORD legacyKeySpec, DWORD flags);
  SECURITY_STATUS(WINAPI* CreatePersistedKey)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR algorithm, LPCWSTR name, DWORD legacyKeySpec,
   DWORD flags);
  SECURITY_STATUS(WINAPI* GetProviderProperty)
  (NCRYPT_PROV_HANDLE provider, LPCWSTR property, PBYTE output, DWORD outputSize, DWORD* result, DWORD flags);
  SECURITY_STATUS(WINAPI* GetKeyProperty)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR property, PBYTE output, DWORD outputSize, DWORD* result,
   DWORD flags);
  SECURITY_STATUS(WINAPI* SetProviderProperty)
  (NCRYPT_PROV_HANDLE provider, LPCWSTR property, PBYTE input, DWORD inputSize, DWORD flags);
  SECURITY_STATUS(WINAPI* SetKeyProperty)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR property, PBYTE input, DWORD inputSize, DWORD flags);
  SECURITY_STATUS(WINAPI* FinalizeKey)(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags);
  SECURITY_STATUS(WINAPI* DeleteKey)(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags);
  SECURITY_STATUS(WINAPI* FreeProvider)(NCRYPT_PROV_HANDLE provider);
  SECURITY_STATUS(WINAPI* FreeKey)(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key);
  SECURITY_STATUS(WINAPI* FreeBuffer)(PVOID buffer);
  SECURITY_STATUS(WINAPI* Encrypt)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize, VOID* padding, PBYTE output,
   DWORD outputSize, DWORD* result, DWORD flags);
  SECURITY_STATUS(WINAPI* Decrypt)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize, VOID* padding, PBYTE output,
   DWORD outputSize, DWORD* result, DWORD flags);
  SECURITY_STATUS(WINAPI* IsAlgSupported)(NCRYPT_PROV_HANDLE provider, LPCWSTR algorithm, DWORD flags);
  SECURITY_STATUS(WINAPI* EnumAlgorithms)
  (NCRYPT_PROV_HANDLE provider, DWORD operations, DWORD* count, NCryptAlgorithmName** list, DWORD flags);
  SECURITY_STATUS(WINAPI* EnumKeys)
  (NCRYPT_PROV_HANDLE provider, LPCWSTR scope, NCryptKeyName** name, PVOID* state, DWORD flags);
  SECURITY_STATUS(WINAPI* ImportKey)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey, LPCWSTR blobType, NCryptBufferDesc* parameters,
   NCRYPT_KEY_HANDLE* key, PBYTE data, DWORD dataSize, DWORD flags);
  SECURITY_STATUS(WINAPI* ExportKey)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey, LPCWSTR blobType,
   NCryptBufferDesc* parameters, PBYTE output, DWORD outputSize, DWORD* result, DWORD flags);
  SECURITY_STATUS(WINAPI* SignHash)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash, DWORD hashSize, PBYTE signature,
   DWORD signatureSize, DWORD* result, DWORD flags);
  SECURITY_STATUS(WINAPI* VerifySignature)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash, DWORD hashSize, PBYTE signature,
   DWORD signatureSize, DWORD flags);
  SECURITY_STATUS(WINAPI* PromptUser)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR operation, DWORD flags);
  SECURITY_STATUS(WINAPI* NotifyChangeKey)(NCRYPT_PROV_HANDLE provider, HANDLE* event, DWORD flags);
  SECURITY_STATUS(WINAPI* SecretAgreement)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE privateKey, NCRYPT_KEY_HANDLE publicKey, NCRYPT_SECRET_HANDLE* secret,
   DWORD flags);
  SECURITY_STATUS(WINAPI* DeriveKey)
  (NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret, LPCWSTR kdf, NCryptBufferDesc* parameters, PBYTE output,
   DWORD outputSize, DWORD* result, ULONG flags);
  SECURITY_STATUS(WINAPI* FreeSecret)(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret);
};

static_assert(sizeof(KeyStorageFunctionTable) == (sizeof(void*) == 8 ? 8 : 4) + 26 * sizeof(void*));

// A provider's one export. Returns an NTSTATUS; the table stays the provider's.
using GetKeyStorageInterfaceFn = NTSTATUS(WINAPI*)(LPCWSTR providerName, KeyStorageFunctionTable** table, DWORD flags);

}  // namespace router
