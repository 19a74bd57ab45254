#include "keys/import_record.h"

#include <algorithm>
#include <cstring>

#include "crypto/operations/rsa_operations.h"
#include "diag/debug_log.h"
#include "keys/key_label.h"
#include "login/login.h"
#include "support/limits.h"
#include "support/text.h"
#include "token/cryptoki_module.h"
#include "token/key_names.h"
#include "token/public_key.h"

namespace {

// Bytes of a wrapped blob that go before what was encrypted.
constexpr DWORD kClearBytes = 8;

// The parameter list's key name becomes the record's.
SECURITY_STATUS TakeName(KELDAKSP_KEY* key, const NCryptBufferDesc* parameters) {
  if (parameters == nullptr) return ERROR_SUCCESS;
  WideName name;
  const SECURITY_STATUS status = ReadKeyNameFromParams(parameters, name);
  if (status != ERROR_SUCCESS) return g_Log->Refuse(status, "ReadKeyNameFromParams failed");
  if (name.empty()) return ERROR_SUCCESS;
  constexpr std::size_t kScanned = 127;
  const std::size_t length = WideLength(name.data());
  key->cbKeyName = length < kScanned ? static_cast<DWORD>(length) : 0;
  key->pszKeyName = name.Release();
  return ERROR_SUCCESS;
}

// Decrypts what follows the clear bytes with the import key on the token.
SECURITY_STATUS Unwrap(const KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* importKey, const BYTE* pbData,
                       DWORD cbData, WipedBytes& blob) {
  const DWORD cbClear = std::min(cbData, kClearBytes);
  const auto pair = NewOn<RSAPair>(*provider);
  pair->SetPrivateKeyHandle(importKey->hPrivateKeyObject);
  const BYTE* pbWrapped = pbData + cbClear;
  const DWORD cbWrapped = cbData - cbClear;  // nothing is left to decrypt of data that ends with the clear bytes
  DWORD room = 0;
  SECURITY_STATUS status = Decrypt(*pair, pbWrapped, cbWrapped, nullptr, &room);
  if (status != ERROR_SUCCESS) return status;
  // The size is the token's word: one that no plaintext has must not wrap around below.
  if (room > kLargestBlock - kClearBytes) return NTE_NO_MEMORY;
  WipedBytes working(std::size_t{room} + kClearBytes);
  std::memcpy(working.data(), pbData, cbClear);
  DWORD cbPlain = room;
  status = Decrypt(*pair, pbWrapped, cbWrapped, working.data() + kClearBytes, &cbPlain);
  if (status != ERROR_SUCCESS) return status;
  cbPlain = std::min(cbPlain, room);
  blob = WipedBytes(std::size_t{cbPlain} + kClearBytes);
  std::memcpy(blob.data(), working.data(), blob.size());
  return ERROR_SUCCESS;
}

SECURITY_STATUS ParseBlob(const WipedBytes& bytes, PrivateKeyBlob& blob) noexcept {
  const SECURITY_STATUS status = blob.Parse(bytes.data(), bytes.size());
  if (status == ERROR_SUCCESS) return ERROR_SUCCESS;
  if (status == NTE_BUFFER_TOO_SMALL) g_Log->WriteLine("NTE_INTERNAL_ERROR: cbBlobBuffer is too small");
  return NTE_INTERNAL_ERROR;
}

}  // namespace

SECURITY_STATUS FillRecord(const ImportData& data, const KELDAKSP_PROVIDER* provider, KELDAKSP_KEY* key,
                           PrivateKeyBlob& blob, WipedBytes& working) {
  const SECURITY_STATUS named = TakeName(key, data.pParameterList);
  if (named != ERROR_SUCCESS) return named;
  if (data.hImportKey != 0) {
    const KELDAKSP_KEY* importKey = KeyFromHandle(data.hImportKey);
    if (importKey == nullptr) {
      return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: hImportKey handle is invalid");
    }
    const SECURITY_STATUS unwrapped = Unwrap(provider, importKey, data.pbData, data.cbData, working);
    if (unwrapped != ERROR_SUCCESS) return unwrapped;
  } else {
    working.Assign(data.pbData, data.cbData);
  }
  const SECURITY_STATUS parsed = ParseBlob(working, blob);
  if (parsed != ERROR_SUCCESS) return parsed;

  // A private blob's magic makes a record that every later call refuses. Kept on purpose.
  const RsaBlobHeader& header = blob.Header();
  key->dwMagic = header.magic;
  key->dwKeyBitLength = header.bitLength;
  key->dwAlgID = 0;
  if (header.cbPublicExp > sizeof(key->PublicExponent)) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "Public exponent length exceeds 32 bits");
  }
  std::memset(key->PublicExponent, 0, sizeof(key->PublicExponent));
  if (header.cbPublicExp != 0) std::memcpy(key->PublicExponent, blob.PublicExponent().data(), header.cbPublicExp);
  return ERROR_SUCCESS;
}

WipedBytes RecordComponent(const WipedBytes& part) {
  WipedBytes component(kLargestComponent);
  std::copy_n(part.data(), std::min(part.size(), component.size()), component.data());
  return component;
}

void KeepPrivateParts(KELDAKSP_KEY* key, const PrivateKeyBlob& blob, WipedBytes working) {
  WipedBytes prime1 = RecordComponent(blob.Prime1());
  WipedBytes prime2 = RecordComponent(blob.Prime2());
  key->pbPrime1 = prime1.Release();
  key->pbPrime2 = prime2.Release();
  key->cbPrivateKey = static_cast<DWORD>(working.size());
  key->pbPrivateKey = working.Release();
}

SECURITY_STATUS CreateImportedPublicKey(KELDAKSP_KEY* key, KELDAKSP_PROVIDER* provider) {
  const auto publicKey = NewOn<PublicKey>(*provider);
  unsigned char id[kStoredIdSize] = {};
  if (g_Cryptoki == nullptr || g_Cryptoki->Functions().C_GenerateRandom(provider->hSession, id, sizeof(id)) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Random number generation failed");
  }
  g_Log->WriteLine("Initializing public key attributes");
  publicKey->SetModulus(key->pbModulus, key->dwKeyBitLength / 8);
  publicKey->SetPublicExponent(key->PublicExponent, sizeof(key->PublicExponent));
  publicKey->SetId(id, sizeof(id));
  g_Log->WriteLine("Creating public key");
  const KeyLabel label(key->pszKeyName);
  if (key->pszKeyName != nullptr) {
    const SECURITY_STATUS login = Login(provider);
    if (login != ERROR_SUCCESS) return g_Log->Refuse(login, "Failed to login. Operation aborted");
  }
  if (const CK_RV result = publicKey->Create(KeyUsage::kBoth, label.Text(), key->cbKeyName); result != CKR_OK) {
    g_Log->WriteInt("Public key creation failed: ", static_cast<std::int32_t>(result));
    return NTE_INTERNAL_ERROR;
  }
  key->hPublicKeyObject = publicKey->GetObjectHandle();
  key->fFinished = 1;
  return ERROR_SUCCESS;
}
