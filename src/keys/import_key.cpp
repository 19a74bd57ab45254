// KELDAKSPImportKey: an RSA key blob becomes a key record, and a public key at once a token object.
#include <algorithm>
#include <cstring>
#include <memory>

#include "keys/handle_checks.h"
#include "keys/key_label.h"
#include "keys/record/key_record.h"
#include "keys/private_key_blob.h"
#include "login/login.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "support/limits.h"
#include "support/text.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/key_names.h"
#include "token/public_key.h"
#include "token/rsa_pair.h"

namespace {

constexpr DWORD kDoNotFinalize = 0x400;  // NCRYPT_DO_NOT_FINALIZE_FLAG
constexpr DWORD kUnsupportedFlags = NCRYPT_MACHINE_KEY_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG;
// The overwrite flag passes and does nothing here.
constexpr DWORD kAcceptedFlags =
    BCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG | kUnsupportedFlags | kDoNotFinalize;

// Bytes of the largest component that the length property can ask a record for later (4096 bits).
constexpr std::size_t kLargestComponent = 512;
// Bytes of a wrapped blob that go before what was encrypted.
constexpr DWORD kClearBytes = 8;

// A component as the record keeps it: at least as long as the record's bit length may ever say, zero behind its end.
WipedBytes RecordComponent(const WipedBytes& part, std::size_t needed) {
  WipedBytes component(std::max({part.size(), needed, kLargestComponent}));
  if (part.size() != 0) std::memcpy(component.data(), part.data(), part.size());
  return component;
}

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
  const auto pair = std::make_unique<RSAPair>();
  pair->SetSession(provider->hSession);
  pair->SetModule(g_Cryptoki);
  pair->SetPrivateKeyHandle(importKey->hPrivateKeyObject);
  const BYTE* pbWrapped = pbData + cbClear;
  const DWORD cbWrapped = cbData - cbClear;  // nothing is left to decrypt of data that ends with the clear bytes
  DWORD room = 0;
  SECURITY_STATUS status = pair->Decrypt(pbWrapped, cbWrapped, nullptr, &room);
  if (status != ERROR_SUCCESS) return status;
  // The size is the token's word: one that no plaintext has must not wrap around below.
  if (room > kLargestBlock - kClearBytes) return NTE_NO_MEMORY;
  WipedBytes working(std::size_t{room} + kClearBytes);
  std::memcpy(working.data(), pbData, cbClear);
  DWORD cbPlain = room;
  status = pair->Decrypt(pbWrapped, cbWrapped, working.data() + kClearBytes, &cbPlain);
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

// Creates the public key object; the user is logged in first for a key that is to stay on the token.
SECURITY_STATUS CreatePublicKey(KELDAKSP_KEY* key, KELDAKSP_PROVIDER* provider) {
  const auto publicKey = std::make_unique<PublicKey>();
  unsigned char id[kStoredIdSize] = {};
  if (g_Cryptoki == nullptr || g_Cryptoki->Functions().C_GenerateRandom(provider->hSession, id, sizeof(id)) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Random number generation failed");
  }
  g_Log->WriteLine("Initializing public key attributes");
  publicKey->SetSession(provider->hSession);
  publicKey->SetModule(g_Cryptoki);
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

// Keeps the parts of a private blob in the record. Import does not read the parts behind the primes, so that these stay
// absent.
void KeepPrivateParts(KELDAKSP_KEY* key, const PrivateKeyBlob& blob, WipedBytes working) {
  const std::size_t cbHalf = key->dwKeyBitLength / 16;
  WipedBytes prime1 = RecordComponent(blob.Prime1(), cbHalf);
  WipedBytes prime2 = RecordComponent(blob.Prime2(), cbHalf);
  key->pbPrime1 = prime1.Release();
  key->pbPrime2 = prime2.Release();
  key->cbPrivateKey = static_cast<DWORD>(working.size());
  key->pbPrivateKey = working.Release();
}

struct ImportArguments {
  NCRYPT_PROV_HANDLE hProvider;
  NCRYPT_KEY_HANDLE hImportKey;
  const wchar_t* pszBlobType;
  const NCryptBufferDesc* pParameterList;
  NCRYPT_KEY_HANDLE* phKey;
  const BYTE* pbData;
  DWORD cbData;
  DWORD dwFlags;
};

// Fills the record from the caller's data; working receives the blob.
SECURITY_STATUS FillRecord(const ImportArguments& arguments, const KELDAKSP_PROVIDER* provider, KELDAKSP_KEY* key,
                           PrivateKeyBlob& blob, WipedBytes& working) {
  const SECURITY_STATUS named = TakeName(key, arguments.pParameterList);
  if (named != ERROR_SUCCESS) return named;
  if (arguments.hImportKey != 0) {
    const KELDAKSP_KEY* importKey = KeyFromHandle(arguments.hImportKey);
    if (importKey == nullptr) {
      return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: hImportKey handle is invalid");
    }
    const SECURITY_STATUS unwrapped = Unwrap(provider, importKey, arguments.pbData, arguments.cbData, working);
    if (unwrapped != ERROR_SUCCESS) return unwrapped;
  } else {
    working.Assign(arguments.pbData, arguments.cbData);
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

SECURITY_STATUS ImportKey(const ImportArguments& arguments) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(arguments.hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  const bool isPublic = WideEqual(arguments.pszBlobType, BCRYPT_RSAPUBLIC_BLOB);
  if (!isPublic && !WideEqual(arguments.pszBlobType, BCRYPT_RSAPRIVATE_BLOB)) {
    // Message and status differ here, on purpose.
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_INVALID_PARAMETER: Only RSA BLOBs are currently supported");
  }
  if (arguments.phKey == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phKey is NULL");
  if (arguments.pbData == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbData is NULL");
  if (arguments.cbData == 0) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: cbData is 0");
  if ((arguments.dwFlags & ~kAcceptedFlags) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((arguments.dwFlags & kUnsupportedFlags) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED,
                         "NTE_NOT_SUPPORTED: NCRYPT_MACHINE_KEY_FLAG and NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG are not "
                         "supported flags.");
  }
  KELDAKSP_KEY* record = nullptr;
  const SECURITY_STATUS created = NewKeyObject(nullptr, &record);
  if (created != ERROR_SUCCESS) return created;
  KeyObjectOwner key(record);
  PrivateKeyBlob blob;
  WipedBytes working;
  SECURITY_STATUS status = FillRecord(arguments, provider, key.get(), blob, working);
  if (status != ERROR_SUCCESS) return status;

  WipedBytes modulus = RecordComponent(blob.Modulus(), key->dwKeyBitLength / 8);
  key->pbModulus = modulus.data();
  if (isPublic) {
    status = CreatePublicKey(key.get(), provider);
    if (status != ERROR_SUCCESS) return status;
  } else {
    KeepPrivateParts(key.get(), blob, std::move(working));
  }
  key->pbModulus = modulus.Release();
  if (!isPublic && (arguments.dwFlags & kDoNotFinalize) == 0) {
    g_Log->WriteLine("Finalizing key...");
    // Whatever comes of it, the record is handed out.
    KELDAKSPFinalizeKey(arguments.hProvider, reinterpret_cast<NCRYPT_KEY_HANDLE>(key.get()), 0);
  }
  *arguments.phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
  Logout(provider);
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                         LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                         NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPImportKey - Entry", "KELDAKSPImportKey - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider      : ", hProvider);
    frame.Argument("hImportKey     : ", hImportKey);
    frame.WideArgument("pszBlobType    : ", pszBlobType);
    frame.Argument("pParameterList : ", pParameterList);
    frame.Argument("phKey          : ", phKey);
    frame.Argument("pbData         : ", pbData);
    frame.Argument("cbData         : ", cbData);
    frame.Argument("dwFlags        : ", dwFlags);
    ClearProviderCache();
    return ImportKey({hProvider, hImportKey, pszBlobType, pParameterList, phKey, pbData, cbData, dwFlags});
  });
}
