// The record behind a key handle.
#pragma once

#include <cstdint>
#include <memory>

#include "support/windows.h"
#include "support/pkcs11.h"

// Characters of a key name at most, the terminator counted.
inline constexpr std::size_t kMaxKeyNameSize = 260;
// Bytes of a CKA_ID that a record holds at most.
inline constexpr std::size_t kMaxKeyIdSize = 200;

// The key handle is the record's address. Records that were handed out are never freed themselves (only what they own
// is), so that a handle used after FreeKey or DeleteKey still meets a record.
struct KELDAKSP_KEY {
  DWORD cbLength;                 // size of the record
  DWORD dwMagic;                  // BCRYPT_RSAPUBLIC_MAGIC, the bytes "RSA1"
  wchar_t* pszKeyName;            // owned; null for an ephemeral key
  const wchar_t* pszKeyBlobType;  // not owned
  DWORD cbKeyName;                // characters of the name, the terminator counted (see the writers for exceptions)
  DWORD dwAlgID;                  // 1 at allocation; then 0, CALG_RSA_KEYX or CALG_RSA_SIGN
  DWORD dwKeyBitLength;           // of the modulus
  DWORD dwExportPolicy;           // NCRYPT_ALLOW_*_EXPORT_FLAG bits
  DWORD dwKeyUsagePolicy;         // NCRYPT_ALLOW_* bits
  DWORD fOverwrite;               // an existing key of this name is to be destroyed at finalization
  DWORD fFinished;                // the key exists on the token
  BYTE* pbKeyFile;                // owned
  DWORD cbKeyFile;
  BYTE* pbPrivateKey;  // owned: the blob of an imported private key
  DWORD cbPrivateKey;
  BCRYPT_ALG_HANDLE hAlgProvider;      // shared by the whole process, never closed
  std::uint64_t hReserved1;            // 0
  std::uint64_t hReserved2;            // 0
  CK_OBJECT_HANDLE hPublicKeyObject;   // 0 for none
  CK_OBJECT_HANDLE hPrivateKeyObject;  // 0 for none
  BYTE KeyId[kMaxKeyIdSize];           // the CKA_ID
  DWORD cbKeyId;
  BYTE* pbSecurityDescr;  // owned
  DWORD cbSecurityDescr;
  LIST_ENTRY PropertyList;  // empty: both links point at the head
  BYTE PublicExponent[4];   // of an imported key, zero-padded at its end
  BYTE* pbModulus;          // components of an imported key, at least as long as dwKeyBitLength says; never freed
  BYTE* pbPrime1;
  BYTE* pbPrime2;
  BYTE* pbExponent1;
  BYTE* pbExponent2;
  BYTE* pbCoefficient;
  BYTE* pbPrivateExponent;
};

// Empties a list: both links point at the head.
inline void ClearList(LIST_ENTRY* head) noexcept {
  head->Flink = head->Blink = head;
}

// The record behind a key handle, or null when the handle is null or names no key record.
KELDAKSP_KEY* KeyFromHandle(NCRYPT_KEY_HANDLE hKey) noexcept;

// The check of a key handle: finds the record, or logs that there is none. An entry that words it differently uses
// KeyFromHandle.
bool CheckKey(NCRYPT_KEY_HANDLE hKey, KELDAKSP_KEY*& key) noexcept;

// Allocates and initialises a record for a key of the given name (zero-terminated) or of none. The caller owns the
// record. Returns 0, NTE_NO_MEMORY, NTE_INVALID_PARAMETER (name too long) or the status of opening the RSA algorithm.
SECURITY_STATUS NewKeyObject(const wchar_t* pszKeyName, KELDAKSP_KEY** ppKey) noexcept;

// Wipes and frees the record's name, if it has one.
void DeleteKeyName(KELDAKSP_KEY* key) noexcept;

// Frees what the record owns except imported components, without freeing the record. Returns 0.
SECURITY_STATUS ReleaseKeyObject(KELDAKSP_KEY* key) noexcept;

// Frees a record that was never handed out, with all that ReleaseKeyObject frees. Null is ignored.
void DestroyKeyObject(KELDAKSP_KEY* key) noexcept;

struct KeyObjectDeleter {
  void operator()(KELDAKSP_KEY* key) const noexcept { DestroyKeyObject(key); }
};
// Owns a record until it is handed out.
using KeyObjectOwner = std::unique_ptr<KELDAKSP_KEY, KeyObjectDeleter>;
