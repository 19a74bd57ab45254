// The provider as its callers see it: the function table, the exported names, and the records behind the handles.
// Declared here once more, apart from the provider's own sources, so that a change there does not go unnoticed.
#pragma once

#include <windows.h>
#include <bcrypt.h>
#include <ncrypt.h>

namespace kit {

using OpenProviderFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE*, LPCWSTR, DWORD);
using OpenKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE*, LPCWSTR, DWORD, DWORD);
using CreatePersistedKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE*, LPCWSTR, LPCWSTR, DWORD,
                                                      DWORD);
using GetProviderPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD*, DWORD);
using GetKeyPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD*,
                                                  DWORD);
using SetProviderPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD);
using SetKeyPropertyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD);
using FinalizeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD);
using DeleteKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD);
using FreeProviderFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE);
using FreeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE);
using FreeBufferFn = SECURITY_STATUS(WINAPI*)(PVOID);
using CryptFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, PBYTE, DWORD, VOID*, PBYTE, DWORD,
                                         DWORD*, DWORD);
using IsAlgSupportedFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, LPCWSTR, DWORD);
using EnumAlgorithmsFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, DWORD, DWORD*, NCryptAlgorithmName**, DWORD);
using EnumKeysFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, LPCWSTR, NCryptKeyName**, PVOID*, DWORD);
using ImportKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, NCryptBufferDesc*,
                                             NCRYPT_KEY_HANDLE*, PBYTE, DWORD, DWORD);
using ExportKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR,
                                             NCryptBufferDesc*, PBYTE, DWORD, DWORD*, DWORD);
using SignHashFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID*, PBYTE, DWORD, PBYTE, DWORD,
                                            DWORD*, DWORD);
using VerifySignatureFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID*, PBYTE, DWORD, PBYTE,
                                                   DWORD, DWORD);
using PromptUserFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD);
using NotifyChangeKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, HANDLE*, DWORD);
using SecretAgreementFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE,
                                                   NCRYPT_SECRET_HANDLE*, DWORD);
using DeriveKeyFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR, NCryptBufferDesc*,
                                             PBYTE, DWORD, DWORD*, ULONG);
using FreeSecretFn = SECURITY_STATUS(WINAPI*)(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE);

struct FunctionTable {
  USHORT majorVersion;
  USHORT minorVersion;
  OpenProviderFn OpenProvider;
  OpenKeyFn OpenKey;
  CreatePersistedKeyFn CreatePersistedKey;
  GetProviderPropertyFn GetProviderProperty;
  GetKeyPropertyFn GetKeyProperty;
  SetProviderPropertyFn SetProviderProperty;
  SetKeyPropertyFn SetKeyProperty;
  FinalizeKeyFn FinalizeKey;
  DeleteKeyFn DeleteKey;
  FreeProviderFn FreeProvider;
  FreeKeyFn FreeKey;
  FreeBufferFn FreeBuffer;
  CryptFn Encrypt;
  CryptFn Decrypt;
  IsAlgSupportedFn IsAlgSupported;
  EnumAlgorithmsFn EnumAlgorithms;
  EnumKeysFn EnumKeys;
  ImportKeyFn ImportKey;
  ExportKeyFn ExportKey;
  SignHashFn SignHash;
  VerifySignatureFn VerifySignature;
  PromptUserFn PromptUser;
  NotifyChangeKeyFn NotifyChangeKey;
  SecretAgreementFn SecretAgreement;
  DeriveKeyFn DeriveKey;
  FreeSecretFn FreeSecret;
};

using GetKeyStorageInterfaceFn = LONG(WINAPI*)(LPCWSTR, FunctionTable**, DWORD);

// The table's slots in order; each function is also exported as "KELDAKSP" + slot.
inline constexpr const char* kSlots[26] = {"OpenProvider",
                                           "OpenKey",
                                           "CreatePersistedKey",
                                           "GetProviderProperty",
                                           "GetKeyProperty",
                                           "SetProviderProperty",
                                           "SetKeyProperty",
                                           "FinalizeKey",
                                           "DeleteKey",
                                           "FreeProvider",
                                           "FreeKey",
                                           "FreeBuffer",
                                           "Encrypt",
                                           "Decrypt",
                                           "IsAlgSupported",
                                           "EnumAlgorithms",
                                           "EnumKeys",
                                           "ImportKey",
                                           "ExportKey",
                                           "SignHash",
                                           "VerifySignature",
                                           "PromptUser",
                                           "NotifyChangeKey",
                                           "SecretAgreement",
                                           "DeriveKey",
                                           "FreeSecret"};

inline constexpr const wchar_t kProviderName[] = L"Norvale Token Works KSP v1.0";

// Flags of the entries.
inline constexpr DWORD kNoPadding = 0x1;
inline constexpr DWORD kPkcs1 = 0x2;
inline constexpr DWORD kOaep = 0x4;
inline constexpr DWORD kPss = 0x8;
inline constexpr DWORD kMachine = 0x20;
inline constexpr DWORD kSilent = 0x40;
inline constexpr DWORD kOverwrite = 0x80;
inline constexpr DWORD kDoNotFinalize = 0x400;
inline constexpr DWORD kPersistOnly = 0x40000000;

// Types of key blobs.
inline constexpr wchar_t kPublicBlob[] = L"RSAPUBLICBLOB";
inline constexpr wchar_t kPrivateBlob[] = L"RSAPRIVATEBLOB";
inline constexpr wchar_t kFullPrivateBlob[] = L"RSAFULLPRIVATEBLOB";

// The record behind a provider handle.
struct ProviderRecord {
  ULONG cbLength;  // bytes: the record and the provider name with its terminator
  char signature[4];
  ULONG reserved1;
  wchar_t* pszName;
  ULONGLONG reserved2;
  void* pContext;
  ULONG hSession;
  struct KeyRecord* pKeyObjects;
  ULONG cKeyObjects;
  wchar_t* pPinCache;
  ULONG cchPinCache;
  ULONGLONG loginState;
  wchar_t* pszReader;
  ULONG slotId;
  ULONGLONG hWnd;
  CRITICAL_SECTION* pLock;
};

// The record behind a key handle.
struct KeyRecord {
  ULONG cbLength;
  ULONG dwMagic;
  wchar_t* pszKeyName;
  const wchar_t* pszKeyBlobType;
  ULONG cbKeyName;  // characters, terminator counted
  ULONG dwAlgID;
  ULONG dwKeyBitLength;
  ULONG dwExportPolicy;
  ULONG dwKeyUsagePolicy;
  ULONG fOverwrite;
  ULONG fFinished;
  BYTE* pbKeyFile;
  ULONG cbKeyFile;
  BYTE* pbPrivateKey;
  ULONG cbPrivateKey;
  void* hAlgProvider;
  ULONGLONG reserved1;
  ULONGLONG reserved2;
  ULONG hPublicKeyObject;
  ULONG hPrivateKeyObject;
  BYTE KeyId[200];
  ULONG cbKeyId;
  BYTE* pbSecurityDescr;
  ULONG cbSecurityDescr;
  struct {
    void* next;
    void* previous;
  } PropertyList;
  BYTE PublicExponent[4];
  BYTE* pbModulus;
  BYTE* pbPrime1;
  BYTE* pbPrime2;
  BYTE* pbExponent1;
  BYTE* pbExponent2;
  BYTE* pbCoefficient;
  BYTE* pbPrivateExponent;
};

inline constexpr ULONG kKeyMagic = 0x31415352;  // "RSA1"

// The enumeration state of EnumKeys.
struct EnumState {
  ULONG index;
  ULONG unused[4];
};

inline ProviderRecord* RecordOf(NCRYPT_PROV_HANDLE provider) {
  return reinterpret_cast<ProviderRecord*>(provider);
}
inline KeyRecord* KeyOf(NCRYPT_KEY_HANDLE key) {
  return reinterpret_cast<KeyRecord*>(key);
}

}  // namespace kit
