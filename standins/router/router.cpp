// ncrypt.dll for machines without a key storage router: every NCrypt* function of the key storage API.
//
// Each call turns the caller's handles into an open provider and the provider's own handles, and forwards everything
// else untouched through the provider's function table. Arguments are judged by the provider, except for the ones
// that the router itself reads or writes.

#include <cstring>
#include <cwchar>
#include <new>
#include <optional>
#include <string>

#include "router/key_storage_interface.h"
#include "router/modules.h"
#include "router/objects.h"
#include "router/registration.h"

namespace router {
namespace {

// Never destroyed: callers may come in until the process has ended.
ObjectTable& Objects() {
  static auto* objects = new ObjectTable;
  return *objects;
}

BufferTable& Buffers() {
  static auto* buffers = new BufferTable;
  return *buffers;
}

// Nothing passes this DLL's boundary as an exception.
template <typename Function>
SECURITY_STATUS Guarded(Function function) noexcept {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return NTE_NO_MEMORY;
  } catch (...) {
    return NTE_INTERNAL_ERROR;
  }
}

template <typename Function>
SECURITY_STATUS WithProvider(NCRYPT_PROV_HANDLE handle, Function function) noexcept {
  return Guarded([&]() -> SECURITY_STATUS {
    const auto provider = Objects().FindProvider(handle);
    if (provider == nullptr) return NTE_INVALID_HANDLE;
    return function(provider);
  });
}

template <typename Function>
SECURITY_STATUS WithKey(NCRYPT_KEY_HANDLE handle, Function function) noexcept {
  return Guarded([&]() -> SECURITY_STATUS {
    const auto key = Objects().FindKey(handle);
    if (key == nullptr) return NTE_INVALID_HANDLE;
    return function(*key);
  });
}

// The provider's own handle of a second key: 0 stays 0, a key of another provider is refused.
std::optional<NCRYPT_KEY_HANDLE> OwnHandle(const std::shared_ptr<Provider>& provider, NCRYPT_KEY_HANDLE handle) {
  if (handle == 0) return 0;
  const auto key = Objects().FindKey(handle);
  if (key == nullptr || key->provider != provider) return std::nullopt;
  return key->handle;
}

NCRYPT_KEY_HANDLE AddKey(const std::shared_ptr<Provider>& provider, NCRYPT_KEY_HANDLE handle) {
  auto key = std::make_shared<Key>();
  key->provider = provider;
  key->handle = handle;
  return Objects().Add(std::move(key));
}

// The handle of a key's provider is the one key property that only the router can know.
SECURITY_STATUS GetProviderHandle(const Key& key, PBYTE output, DWORD outputSize, DWORD* result) {
  if (result == nullptr) return NTE_INVALID_PARAMETER;
  *result = sizeof(NCRYPT_PROV_HANDLE);
  if (output == nullptr) return ERROR_SUCCESS;
  if (outputSize < sizeof(NCRYPT_PROV_HANDLE)) return NTE_BUFFER_TOO_SMALL;
  // A handle of its own, which the caller has to free.
  const NCRYPT_PROV_HANDLE handle = Objects().Add(key.provider);
  std::memcpy(output, &handle, sizeof(handle));
  return ERROR_SUCCESS;
}

SECURITY_STATUS FreeProviderHandle(const std::shared_ptr<Provider>& provider) {
  // Keys and other handles keep the provider open; the last of them closes it.
  return provider.use_count() == 1 ? provider->Close() : ERROR_SUCCESS;
}

}  // namespace
}  // namespace router

using router::AddKey;
using router::Buffers;
using router::Guarded;
using router::Objects;
using router::OwnHandle;
using router::WithKey;
using router::WithProvider;

extern "C" {

SECURITY_STATUS WINAPI NCryptOpenStorageProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                                 DWORD dwFlags) {
  return Guarded([&]() -> SECURITY_STATUS {
    if (phProvider == nullptr) return NTE_INVALID_PARAMETER;
    const std::wstring name = pszProviderName == nullptr ? MS_KEY_STORAGE_PROVIDER : pszProviderName;
    const auto registration = router::FindRegistration(name);
    if (!registration) return NTE_NOT_FOUND;
    const router::KeyStorageFunctionTable* table = nullptr;
    router::ProviderModule module;
    if (const auto status = module.Load(*registration, &table); status != ERROR_SUCCESS) return status;
    NCRYPT_PROV_HANDLE handle = 0;
    if (const auto status = table->OpenProvider(&handle, name.c_str(), dwFlags); status != ERROR_SUCCESS) {
      return status;
    }
    module.Keep();
    *phProvider = Objects().Add(std::make_shared<router::Provider>(*table, handle));
    return ERROR_SUCCESS;
  });
}

SECURITY_STATUS WINAPI NCryptEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                            NCryptAlgorithmName** ppAlgList, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) {
    const auto& table = provider->table();
    const auto status = table.EnumAlgorithms(provider->handle(), dwAlgOperations, pdwAlgCount, ppAlgList, dwFlags);
    if (status == ERROR_SUCCESS && ppAlgList != nullptr && *ppAlgList != nullptr) Buffers().Add(*ppAlgList, &table);
    return status;
  });
}

SECURITY_STATUS WINAPI NCryptIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) {
    return provider->table().IsAlgSupported(provider->handle(), pszAlgId, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName** ppKeyName,
                                      PVOID* ppEnumState, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) -> SECURITY_STATUS {
    if (ppKeyName == nullptr || ppEnumState == nullptr) return NTE_INVALID_PARAMETER;
    const auto& table = provider->table();
    PVOID state = *ppEnumState;
    // A state that this provider did not hand out would be followed blindly by it.
    if (state != nullptr && !Buffers().IsOwnedBy(state, &table)) return NTE_INVALID_PARAMETER;
    NCryptKeyName* name = nullptr;
    const auto status = table.EnumKeys(provider->handle(), pszScope, &name, &state, dwFlags);
    if (state != nullptr && state != *ppEnumState) Buffers().Add(state, &table);
    *ppEnumState = state;
    if (status != ERROR_SUCCESS) return status;
    if (name != nullptr) Buffers().Add(name, &table);
    *ppKeyName = name;
    return ERROR_SUCCESS;
  });
}

SECURITY_STATUS WINAPI NCryptEnumStorageProviders(DWORD* pdwProviderCount, NCryptProviderName** ppProviderList,
                                                  DWORD /*dwFlags*/) {
  return Guarded([&]() -> SECURITY_STATUS {
    if (pdwProviderCount == nullptr || ppProviderList == nullptr) return NTE_INVALID_PARAMETER;
    const auto providers = router::RegisteredProviders();
    // One block: the records, then all texts.
    std::size_t size = providers.size() * sizeof(NCryptProviderName);
    for (const auto& provider : providers) {
      size += (provider.name.size() + 1 + provider.comment.size() + 1) * sizeof(wchar_t);
    }
    auto* list = static_cast<NCryptProviderName*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size));
    if (list == nullptr) return NTE_NO_MEMORY;
    Buffers().Add(list, nullptr);
    auto* text = reinterpret_cast<wchar_t*>(list + providers.size());
    const auto append = [&text](const std::wstring& source) {
      wchar_t* copy = text;
      std::wmemcpy(copy, source.c_str(), source.size() + 1);
      text += source.size() + 1;
      return copy;
    };
    for (std::size_t i = 0; i < providers.size(); ++i) {
      list[i].pszName = append(providers[i].name);
      list[i].pszComment = append(providers[i].comment);
    }
    *pdwProviderCount = static_cast<DWORD>(providers.size());
    *ppProviderList = list;
    return ERROR_SUCCESS;
  });
}

SECURITY_STATUS WINAPI NCryptFreeBuffer(PVOID pvInput) {
  return Guarded([&] { return Buffers().Free(pvInput); });
}

SECURITY_STATUS WINAPI NCryptOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                     DWORD dwLegacyKeySpec, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) -> SECURITY_STATUS {
    if (phKey == nullptr) return NTE_INVALID_PARAMETER;
    NCRYPT_KEY_HANDLE key = 0;
    const auto status = provider->table().OpenKey(provider->handle(), &key, pszKeyName, dwLegacyKeySpec, dwFlags);
    if (status == ERROR_SUCCESS) *phKey = AddKey(provider, key);
    return status;
  });
}

SECURITY_STATUS WINAPI NCryptCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) -> SECURITY_STATUS {
    if (phKey == nullptr) return NTE_INVALID_PARAMETER;
    NCRYPT_KEY_HANDLE key = 0;
    const auto status =
        provider->table().CreatePersistedKey(provider->handle(), &key, pszAlgId, pszKeyName, dwLegacyKeySpec, dwFlags);
    if (status == ERROR_SUCCESS) *phKey = AddKey(provider, key);
    return status;
  });
}

SECURITY_STATUS WINAPI NCryptGetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD dwFlags) {
  return Guarded([&]() -> SECURITY_STATUS {
    if (const auto provider = Objects().FindProvider(hObject)) {
      return provider->table().GetProviderProperty(provider->handle(), pszProperty, pbOutput, cbOutput, pcbResult,
                                                   dwFlags);
    }
    const auto key = Objects().FindKey(hObject);
    if (key == nullptr) return NTE_INVALID_HANDLE;
    if (pszProperty != nullptr && std::wcscmp(pszProperty, NCRYPT_PROVIDER_HANDLE_PROPERTY) == 0) {
      return router::GetProviderHandle(*key, pbOutput, cbOutput, pcbResult);
    }
    const auto& provider = *key->provider;
    return provider.table().GetKeyProperty(provider.handle(), key->handle, pszProperty, pbOutput, cbOutput, pcbResult,
                                           dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptSetProperty(NCRYPT_HANDLE hObject, LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                         DWORD dwFlags) {
  return Guarded([&]() -> SECURITY_STATUS {
    if (const auto provider = Objects().FindProvider(hObject)) {
      return provider->table().SetProviderProperty(provider->handle(), pszProperty, pbInput, cbInput, dwFlags);
    }
    const auto key = Objects().FindKey(hObject);
    if (key == nullptr) return NTE_INVALID_HANDLE;
    const auto& provider = *key->provider;
    return provider.table().SetKeyProperty(provider.handle(), key->handle, pszProperty, pbInput, cbInput, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptFinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    return key.provider->table().FinalizeKey(key.provider->handle(), key.handle, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptEncrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    return key.provider->table().Encrypt(key.provider->handle(), key.handle, pbInput, cbInput, pPaddingInfo, pbOutput,
                                         cbOutput, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptDecrypt(NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput, VOID* pPaddingInfo,
                                     PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    return key.provider->table().Decrypt(key.provider->handle(), key.handle, pbInput, cbInput, pPaddingInfo, pbOutput,
                                         cbOutput, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                       NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData,
                                       DWORD cbData, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) -> SECURITY_STATUS {
    if (phKey == nullptr) return NTE_INVALID_PARAMETER;
    const auto importKey = OwnHandle(provider, hImportKey);
    if (!importKey) return NTE_INVALID_HANDLE;
    NCRYPT_KEY_HANDLE key = 0;
    const auto status = provider->table().ImportKey(provider->handle(), *importKey, pszBlobType, pParameterList, &key,
                                                    pbData, cbData, dwFlags);
    if (status == ERROR_SUCCESS) *phKey = AddKey(provider, key);
    return status;
  });
}

SECURITY_STATUS WINAPI NCryptExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey, LPCWSTR pszBlobType,
                                       NCryptBufferDesc* pParameterList, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) -> SECURITY_STATUS {
    const auto exportKey = OwnHandle(key.provider, hExportKey);
    if (!exportKey) return NTE_INVALID_HANDLE;
    return key.provider->table().ExportKey(key.provider->handle(), key.handle, *exportKey, pszBlobType, pParameterList,
                                           pbOutput, cbOutput, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptSignHash(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                      PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    return key.provider->table().SignHash(key.provider->handle(), key.handle, pPaddingInfo, pbHashValue, cbHashValue,
                                          pbSignature, cbSignature, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptVerifySignature(NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo, PBYTE pbHashValue,
                                             DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    return key.provider->table().VerifySignature(key.provider->handle(), key.handle, pPaddingInfo, pbHashValue,
                                                 cbHashValue, pbSignature, cbSignature, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptDeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
  return WithKey(hKey, [&](const auto& key) {
    const auto status = key.provider->table().DeleteKey(key.provider->handle(), key.handle, dwFlags);
    // A successful deletion ends the handle as well; the provider has released what was behind it.
    router::Object object;
    if (status == ERROR_SUCCESS) Objects().Remove(hKey, &object);
    return status;
  });
}

SECURITY_STATUS WINAPI NCryptFreeObject(NCRYPT_HANDLE hObject) {
  return Guarded([&]() -> SECURITY_STATUS {
    router::Object object;
    if (!Objects().Remove(hObject, &object)) return NTE_INVALID_HANDLE;
    if (const auto* provider = std::get_if<std::shared_ptr<router::Provider>>(&object)) {
      return router::FreeProviderHandle(*provider);
    }
    if (const auto* key = std::get_if<std::shared_ptr<router::Key>>(&object)) {
      const auto& provider = *(*key)->provider;
      return provider.table().FreeKey(provider.handle(), (*key)->handle);
    }
    const auto& secret = *std::get<std::shared_ptr<router::Secret>>(object);
    return secret.provider->table().FreeSecret(secret.provider->handle(), secret.handle);
  });
}

WINBOOL WINAPI NCryptIsKeyHandle(NCRYPT_KEY_HANDLE hKey) {
  const auto status = WithKey(hKey, [](const auto&) { return ERROR_SUCCESS; });
  return status == ERROR_SUCCESS ? TRUE : FALSE;
}

SECURITY_STATUS WINAPI NCryptTranslateHandle(NCRYPT_PROV_HANDLE* /*phProvider*/, NCRYPT_KEY_HANDLE* phKey,
                                             HCRYPTPROV hLegacyProv, HCRYPTKEY /*hLegacyKey*/,
                                             DWORD /*dwLegacyKeySpec*/, DWORD /*dwFlags*/) {
  if (phKey == nullptr) return NTE_INVALID_PARAMETER;
  if (hLegacyProv == 0) return NTE_INVALID_HANDLE;
  // No CryptoAPI provider of this machine keeps its keys where a key storage provider could find them.
  return NTE_NOT_SUPPORTED;
}

SECURITY_STATUS WINAPI NCryptNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE* phEvent, DWORD dwFlags) {
  return WithProvider(hProvider, [&](const auto& provider) {
    return provider->table().NotifyChangeKey(provider->handle(), phEvent, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptSecretAgreement(NCRYPT_KEY_HANDLE hPrivKey, NCRYPT_KEY_HANDLE hPubKey,
                                             NCRYPT_SECRET_HANDLE* phAgreedSecret, DWORD dwFlags) {
  return WithKey(hPrivKey, [&](const auto& key) -> SECURITY_STATUS {
    if (phAgreedSecret == nullptr) return NTE_INVALID_PARAMETER;
    const auto publicKey = OwnHandle(key.provider, hPubKey);
    if (!publicKey || *publicKey == 0) return NTE_INVALID_HANDLE;
    NCRYPT_SECRET_HANDLE handle = 0;
    const auto status =
        key.provider->table().SecretAgreement(key.provider->handle(), key.handle, *publicKey, &handle, dwFlags);
    if (status != ERROR_SUCCESS) return status;
    auto secret = std::make_shared<router::Secret>();
    secret->provider = key.provider;
    secret->handle = handle;
    *phAgreedSecret = Objects().Add(std::move(secret));
    return ERROR_SUCCESS;
  });
}

SECURITY_STATUS WINAPI NCryptDeriveKey(NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                       NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                       DWORD* pcbResult, ULONG dwFlags) {
  return Guarded([&]() -> SECURITY_STATUS {
    const auto secret = Objects().FindSecret(hSharedSecret);
    if (secret == nullptr) return NTE_INVALID_HANDLE;
    return secret->provider->table().DeriveKey(secret->provider->handle(), secret->handle, pwszKDF, pParameterList,
                                               pbDerivedKey, cbDerivedKey, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI NCryptKeyDerivation(NCRYPT_KEY_HANDLE hKey, NCryptBufferDesc* pParameterList,
                                           PUCHAR pbDerivedKey, DWORD cbDerivedKey, DWORD* pcbResult, ULONG dwFlags);

SECURITY_STATUS WINAPI NCryptKeyDerivation(NCRYPT_KEY_HANDLE hKey, NCryptBufferDesc* /*pParameterList*/,
                                           PUCHAR /*pbDerivedKey*/, DWORD /*cbDerivedKey*/, DWORD* /*pcbResult*/,
                                           ULONG /*dwFlags*/) {
  // Tables of version 1 have no entry for it.
  return WithKey(hKey, [](const auto&) -> SECURITY_STATUS { return NTE_NOT_SUPPORTED; });
}

}  // extern "C"
