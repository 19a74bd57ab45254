#include "standins/dummy_provider.h"

#include <cstring>
#include <cwchar>
#include <type_traits>

namespace {

dummy::State g_state;
router::KeyStorageFunctionTable g_table;

template <typename Value>
ULONG_PTR Number(Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    return reinterpret_cast<ULONG_PTR>(value);
  } else {
    return value;
  }
}

template <typename... Values>
SECURITY_STATUS Record(const char* name, ULONG_PTR provider, ULONG_PTR object, Values... values) {
  const auto index = static_cast<std::size_t>(InterlockedIncrement(&g_state.callCount) - 1);
  if (index < g_state.calls.size()) g_state.calls[index] = {name, provider, object, {Number(values)...}};
  return g_state.status;
}

template <typename Handle>
SECURITY_STATUS HandOut(SECURITY_STATUS status, Handle* handle) {
  if (status == ERROR_SUCCESS) *handle = g_state.newHandle;
  return status;
}

void CopyName(std::array<wchar_t, 64>& target, LPCWSTR source) {
  target = {};
  std::wcsncpy(target.data(), source, target.size() - 1);
}

SECURITY_STATUS WINAPI OpenProvider(NCRYPT_PROV_HANDLE* provider, LPCWSTR name, DWORD flags) {
  CopyName(g_state.openedName, name);
  const auto status = HandOut(Record("OpenProvider", 0, 0, flags), provider);
  if (status == ERROR_SUCCESS) InterlockedIncrement(&g_state.openProviders);
  return status;
}

SECURITY_STATUS WINAPI OpenKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR name, DWORD spec,
                               DWORD flags) {
  return HandOut(Record("OpenKey", provider, 0, name, spec, flags), key);
}

SECURITY_STATUS WINAPI CreatePersistedKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE* key, LPCWSTR algorithm,
                                          LPCWSTR name, DWORD spec, DWORD flags) {
  return HandOut(Record("CreatePersistedKey", provider, 0, algorithm, name, spec, flags), key);
}

SECURITY_STATUS WINAPI GetProviderProperty(NCRYPT_PROV_HANDLE provider, LPCWSTR property, PBYTE output, DWORD size,
                                           DWORD* result, DWORD flags) {
  return Record("GetProviderProperty", provider, 0, property, output, size, result, flags);
}

SECURITY_STATUS WINAPI GetKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR property,
                                      PBYTE output, DWORD size, DWORD* result, DWORD flags) {
  return Record("GetKeyProperty", provider, key, property, output, size, result, flags);
}

SECURITY_STATUS WINAPI SetProviderProperty(NCRYPT_PROV_HANDLE provider, LPCWSTR property, PBYTE input, DWORD size,
                                           DWORD flags) {
  return Record("SetProviderProperty", provider, 0, property, input, size, flags);
}

SECURITY_STATUS WINAPI SetKeyProperty(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR property, PBYTE input,
                                      DWORD size, DWORD flags) {
  return Record("SetKeyProperty", provider, key, property, input, size, flags);
}

SECURITY_STATUS WINAPI FinalizeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags) {
  return Record("FinalizeKey", provider, key, flags);
}

SECURITY_STATUS WINAPI DeleteKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, DWORD flags) {
  return Record("DeleteKey", provider, key, flags);
}

SECURITY_STATUS WINAPI FreeProvider(NCRYPT_PROV_HANDLE provider) {
  InterlockedDecrement(&g_state.openProviders);
  return Record("FreeProvider", provider, 0);
}

SECURITY_STATUS WINAPI FreeKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
  return Record("FreeKey", provider, key);
}

SECURITY_STATUS WINAPI FreeBuffer(PVOID buffer) {
  InterlockedIncrement(&g_state.freedBuffers);
  HeapFree(GetProcessHeap(), 0, buffer);
  return Record("FreeBuffer", 0, 0, buffer);
}

SECURITY_STATUS WINAPI Encrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize,
                               VOID* padding, PBYTE output, DWORD outputSize, DWORD* result, DWORD flags) {
  return Record("Encrypt", provider, key, input, inputSize, padding, output, outputSize, result, flags);
}

SECURITY_STATUS WINAPI Decrypt(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, PBYTE input, DWORD inputSize,
                               VOID* padding, PBYTE output, DWORD outputSize, DWORD* result, DWORD flags) {
  return Record("Decrypt", provider, key, input, inputSize, padding, output, outputSize, result, flags);
}

SECURITY_STATUS WINAPI IsAlgSupported(NCRYPT_PROV_HANDLE provider, LPCWSTR algorithm, DWORD flags) {
  return Record("IsAlgSupported", provider, 0, algorithm, flags);
}

template <typename Block>
Block* NewBlock() {
  return static_cast<Block*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(Block)));
}

SECURITY_STATUS WINAPI EnumAlgorithms(NCRYPT_PROV_HANDLE provider, DWORD operations, DWORD* count,
                                      NCryptAlgorithmName** list, DWORD flags) {
  const auto status = Record("EnumAlgorithms", provider, 0, operations, flags);
  if (status != ERROR_SUCCESS) return status;
  *count = 1;
  *list = NewBlock<NCryptAlgorithmName>();
  return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI EnumKeys(NCRYPT_PROV_HANDLE provider, LPCWSTR scope, NCryptKeyName** name, PVOID* state,
                                DWORD flags) {
  const auto status = Record("EnumKeys", provider, 0, scope, *state, flags);
  if (*state == nullptr) *state = NewBlock<DWORD>();
  if (status != ERROR_SUCCESS) return status;
  *name = NewBlock<NCryptKeyName>();
  return ERROR_SUCCESS;
}

SECURITY_STATUS WINAPI ImportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE importKey, LPCWSTR type,
                                 NCryptBufferDesc* parameters, NCRYPT_KEY_HANDLE* key, PBYTE data, DWORD size,
                                 DWORD flags) {
  return HandOut(Record("ImportKey", provider, importKey, type, parameters, data, size, flags), key);
}

SECURITY_STATUS WINAPI ExportKey(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE exportKey,
                                 LPCWSTR type, NCryptBufferDesc* parameters, PBYTE output, DWORD size, DWORD* result,
                                 DWORD flags) {
  return Record("ExportKey", provider, key, exportKey, type, parameters, output, size, result, flags);
}

SECURITY_STATUS WINAPI SignHash(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                                DWORD hashSize, PBYTE signature, DWORD signatureSize, DWORD* result, DWORD flags) {
  return Record("SignHash", provider, key, padding, hash, hashSize, signature, signatureSize, result, flags);
}

SECURITY_STATUS WINAPI VerifySignature(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, VOID* padding, PBYTE hash,
                                       DWORD hashSize, PBYTE signature, DWORD signatureSize, DWORD flags) {
  return Record("VerifySignature", provider, key, padding, hash, hashSize, signature, signatureSize, flags);
}

SECURITY_STATUS WINAPI PromptUser(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, LPCWSTR operation, DWORD flags) {
  return Record("PromptUser", provider, key, operation, flags);
}

SECURITY_STATUS WINAPI NotifyChangeKey(NCRYPT_PROV_HANDLE provider, HANDLE* event, DWORD flags) {
  return Record("NotifyChangeKey", provider, 0, event, flags);
}

SECURITY_STATUS WINAPI SecretAgreement(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE privateKey,
                                       NCRYPT_KEY_HANDLE publicKey, NCRYPT_SECRET_HANDLE* secret, DWORD flags) {
  return HandOut(Record("SecretAgreement", provider, privateKey, publicKey, flags), secret);
}

SECURITY_STATUS WINAPI DeriveKey(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret, LPCWSTR kdf,
                                 NCryptBufferDesc* parameters, PBYTE output, DWORD size, DWORD* result, ULONG flags) {
  return Record("DeriveKey", provider, secret, kdf, parameters, output, size, result, flags);
}

SECURITY_STATUS WINAPI FreeSecret(NCRYPT_PROV_HANDLE provider, NCRYPT_SECRET_HANDLE secret) {
  return Record("FreeSecret", provider, secret);
}

}  // namespace

extern "C" {

dummy::State* WINAPI DummyState();
NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR name, router::KeyStorageFunctionTable** table, DWORD flags);

dummy::State* WINAPI DummyState() {
  return &g_state;
}

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR name, router::KeyStorageFunctionTable** table, DWORD /*flags*/) {
  CopyName(g_state.interfaceName, name);
  if (g_state.interfaceStatus != 0) return g_state.interfaceStatus;
  g_table = {{g_state.majorVersion, 0},
             OpenProvider,
             OpenKey,
             CreatePersistedKey,
             GetProviderProperty,
             GetKeyProperty,
             SetProviderProperty,
             SetKeyProperty,
             FinalizeKey,
             DeleteKey,
             FreeProvider,
             FreeKey,
             FreeBuffer,
             Encrypt,
             Decrypt,
             IsAlgSupported,
             EnumAlgorithms,
             EnumKeys,
             ImportKey,
             ExportKey,
             SignHash,
             VerifySignature,
             PromptUser,
             NotifyChangeKey,
             SecretAgreement,
             DeriveKey,
             FreeSecret};
  *table = g_state.withoutTable ? nullptr : &g_table;
  return 0;
}

}  // extern "C"
