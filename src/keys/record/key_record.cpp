#include "keys/record/key_record.h"

#include <atomic>
#include <new>

#include "diag/debug_log.h"
#include "provider/entry/entry_frame.h"
#include "support/bounded_copy.h"
#include "support/nt_status.h"
#include "support/text.h"
#include "support/wipe.h"

namespace {

// The one RSA algorithm handle of the process, opened by the first record that needs it.
std::atomic<BCRYPT_ALG_HANDLE> g_hRsaAlgorithm{nullptr};

SECURITY_STATUS OpenRsaAlgorithm(BCRYPT_ALG_HANDLE& algorithm) noexcept {
  algorithm = g_hRsaAlgorithm.load(std::memory_order_acquire);
  if (algorithm != nullptr) return ERROR_SUCCESS;
  const NTSTATUS status = BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RSA_ALGORITHM, nullptr, 0);
  if (status != 0) return StatusFromNtStatus(status);
  BCRYPT_ALG_HANDLE first = nullptr;
  if (!g_hRsaAlgorithm.compare_exchange_strong(first, algorithm, std::memory_order_acq_rel)) {
    BCryptCloseAlgorithmProvider(algorithm, 0);  // another thread was first
    algorithm = first;
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS SetKeyName(KELDAKSP_KEY* key, const wchar_t* name) noexcept {
  const std::size_t cchName = WideLength(name) + 1;
  if (cchName > kMaxKeyNameSize) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: Length of key name exceeds MAX_PATH");
  }
  key->pszKeyName = new (std::nothrow) wchar_t[cchName];
  if (key->pszKeyName == nullptr) return NTE_NO_MEMORY;
  BoundedCopy(key->pszKeyName, cchName, name);
  key->cbKeyName = static_cast<DWORD>(cchName);
  return ERROR_SUCCESS;
}

void WipeAndFree(BYTE*& data, std::size_t size) noexcept {
  SecureWipe(data, size);
  delete[] data;
  data = nullptr;
}

}  // namespace

KELDAKSP_KEY* KeyFromHandle(NCRYPT_KEY_HANDLE hKey) noexcept {
  auto* key = reinterpret_cast<KELDAKSP_KEY*>(hKey);
  if (key == nullptr || key->cbLength < sizeof(KELDAKSP_KEY) || key->dwMagic != BCRYPT_RSAPUBLIC_MAGIC) return nullptr;
  return key;
}

bool CheckKey(NCRYPT_KEY_HANDLE hKey, KELDAKSP_KEY*& key) noexcept {
  key = KeyFromHandle(hKey);
  if (key == nullptr) g_Log->WriteLine("NTE_INVALID_HANDLE: pKey is NULL");
  return key != nullptr;
}

SECURITY_STATUS NewKeyObject(const wchar_t* pszKeyName, KELDAKSP_KEY** ppKey) noexcept {
  *ppKey = nullptr;
  auto* key = new (std::nothrow) KELDAKSP_KEY();
  if (key == nullptr) return NTE_NO_MEMORY;
  key->cbLength = sizeof(KELDAKSP_KEY);
  key->dwMagic = BCRYPT_RSAPUBLIC_MAGIC;
  key->dwAlgID = 1;
  key->dwKeyBitLength = 2048;
  key->dwExportPolicy = NCRYPT_ALLOW_PLAINTEXT_EXPORT_FLAG;
  key->dwKeyUsagePolicy = NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG;
  ClearList(&key->PropertyList);

  SECURITY_STATUS status = ERROR_SUCCESS;
  if (pszKeyName != nullptr) status = SetKeyName(key, pszKeyName);
  if (status == ERROR_SUCCESS) status = OpenRsaAlgorithm(key->hAlgProvider);
  if (status != ERROR_SUCCESS) {
    DestroyKeyObject(key);
    return status;
  }
  *ppKey = key;
  return ERROR_SUCCESS;
}

void DeleteKeyName(KELDAKSP_KEY* key) noexcept {
  if (key->pszKeyName == nullptr) return;
  // cbKeyName is not a size in bytes, whatever it is called: the text itself tells how long it is.
  SecureWipe(key->pszKeyName, WideLength(key->pszKeyName) * sizeof(wchar_t));
  delete[] key->pszKeyName;
  key->pszKeyName = nullptr;
  key->cbKeyName = 0;
}

SECURITY_STATUS ReleaseKeyObject(KELDAKSP_KEY* key) noexcept {
  DeleteKeyName(key);
  WipeAndFree(key->pbKeyFile, key->cbKeyFile);
  WipeAndFree(key->pbSecurityDescr, key->cbSecurityDescr);
  WipeAndFree(key->pbPrivateKey, key->cbPrivateKey);
  key->hReserved1 = 0;
  key->hReserved2 = 0;
  return ERROR_SUCCESS;
}

void DestroyKeyObject(KELDAKSP_KEY* key) noexcept {
  if (key == nullptr) return;
  ReleaseKeyObject(key);
  SecureWipe(key, sizeof(*key));
  delete key;
}
