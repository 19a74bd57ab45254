// KELDAKSPFinalizeKey: turns a key record into a key pair on the token.
#include <algorithm>
#include <memory>

#include "keys/handle_checks.h"
#include "keys/key_label.h"
#include "keys/record/key_record.h"
#include "login/login.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/private_key.h"
#include "token/public_key.h"
#include "token/rsa_pair.h"

namespace {

// A component of an imported key; zeros of the stated length when the blob did not have it.
class Component {
 public:
  Component(const BYTE* bytes, CK_ULONG length) : zeros_(bytes != nullptr ? 0 : length), bytes_(bytes) {}
  operator const BYTE*() const noexcept { return bytes_ != nullptr ? bytes_ : zeros_.data(); }

 private:
  WipedBytes zeros_;
  const BYTE* bytes_;
};

SECURITY_STATUS DestroyOverwrittenKey(const KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider) {
  g_Log->WriteLine("Overwrite flag is set.");
  const CK_FUNCTION_LIST& token = g_Cryptoki->Functions();
  if (token.C_DestroyObject(provider->hSession, key->hPrivateKeyObject) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR,
                         "NTE_INTERNAL_ERROR: Private key deletion failed. Check PKCS logs for more information.");
  }
  if (token.C_DestroyObject(provider->hSession, key->hPublicKeyObject) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR,
                         "NTE_INTERNAL_ERROR: Public key deletion failed. Check PKCS logs for more information.");
  }
  return ERROR_SUCCESS;
}

bool UsageFromAlgId(DWORD dwAlgID, KeyUsage& usage) noexcept {
  switch (dwAlgID) {
    case 0:
      usage = KeyUsage::kBoth;
      return true;
    case CALG_RSA_SIGN:
      usage = KeyUsage::kSignature;
      return true;
    case CALG_RSA_KEYX:
      usage = KeyUsage::kExchange;
      return true;
    default:
      return false;
  }
}

SECURITY_STATUS WriteImportedKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider, EntryFrame& frame) {
  g_Log->WriteLine("Key is imported");
  const auto publicKey = std::make_unique<PublicKey>();
  const auto privateKey = std::make_unique<PrivateKey>();
  unsigned char id[kStoredIdSize] = {};
  if (g_Cryptoki->Functions().C_GenerateRandom(provider->hSession, id, sizeof(id)) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Random number generation failed");
  }
  const CK_ULONG cbWhole = key->dwKeyBitLength / 8;
  const CK_ULONG cbHalf = key->dwKeyBitLength / 16;

  g_Log->WriteLine("Initializing public key attributes");
  publicKey->SetSession(provider->hSession);
  publicKey->SetModule(g_Cryptoki);
  publicKey->SetModulus(key->pbModulus, cbWhole);
  publicKey->SetPublicExponent(key->PublicExponent, sizeof(key->PublicExponent));
  publicKey->SetId(id, sizeof(id));

  g_Log->WriteLine("Initializing private key attributes");
  privateKey->SetSession(provider->hSession);
  privateKey->SetModule(g_Cryptoki);
  privateKey->SetModulus(key->pbModulus, cbWhole);
  privateKey->SetPublicExponent(key->PublicExponent, sizeof(key->PublicExponent));
  privateKey->SetPrivateExponent(Component(key->pbPrivateExponent, cbWhole), cbWhole);
  privateKey->SetPrimes(Component(key->pbPrime1, cbHalf), cbHalf, Component(key->pbPrime2, cbHalf), cbHalf);
  privateKey->SetExponents(Component(key->pbExponent1, cbHalf), cbHalf, Component(key->pbExponent2, cbHalf), cbHalf);
  privateKey->SetCoefficient(Component(key->pbCoefficient, cbHalf), cbHalf);
  privateKey->SetId(id, sizeof(id));

  KeyUsage usage;
  if (!UsageFromAlgId(key->dwAlgID, usage)) {
    frame.OmitExitLines();
    return g_Log->Refuse(NTE_BAD_KEYSET, "NTE_BAD_KEYSET: key AlgID is invalid");
  }
  const KeyLabel label(key->pszKeyName);
  g_Log->WriteLine("Creating public key");
  if (const CK_RV result = publicKey->Create(usage, label.Text(), label.Count()); result != CKR_OK) {
    g_Log->WriteInt("Public key creation failed: ", static_cast<std::int32_t>(result));
    return NTE_INTERNAL_ERROR;
  }
  // The private key's creation always fails, and the public object stays on the token. Kept on purpose.
  g_Log->WriteLine("Creating private key");
  if (const CK_RV result = privateKey->Create(usage, label.Text(), label.Count()); result != CKR_OK) {
    g_Log->WriteInt("Private key creation failed: ", static_cast<std::int32_t>(result));
    return NTE_INTERNAL_ERROR;
  }
  key->hPrivateKeyObject = privateKey->GetObjectHandle();
  key->hPublicKeyObject = publicKey->GetObjectHandle();
  key->fFinished = 1;
  return ERROR_SUCCESS;
}

SECURITY_STATUS GenerateKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider) {
  const auto pair = std::make_unique<RSAPair>();
  pair->Reset();
  pair->SetSession(provider->hSession);
  pair->SetModule(g_Cryptoki);
  pair->SetModulusBits(key->dwKeyBitLength);
  pair->SetToken(key->pszKeyName != nullptr);
  const KeyLabel label(key->pszKeyName);
  g_Log->WriteLine("Generating key pair");
  // A failure that comes back as a status is not looked at; only one that is thrown counts. Kept on purpose.
  try {
    pair->Generate(label.Text());
  } catch (const unsigned long ckRv) {  // NOLINT(google-runtime-int): the type of a CK_RV
    g_Log->WriteHex32("NTE_INTERNAL_ERROR: GenerateKeyPair failed - ", ckRv);
    return NTE_INTERNAL_ERROR;
  }
  g_Log->WriteInt("Bit length: ", static_cast<std::int32_t>(key->dwKeyBitLength));
  key->hPrivateKeyObject = pair->PrivateKeyHandle();
  key->hPublicKeyObject = pair->PublicKeyHandle();
  key->fFinished = 1;
  return ERROR_SUCCESS;
}

SECURITY_STATUS FinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags, EntryFrame& frame) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  KELDAKSP_KEY* key = KeyFromHandle(hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);
  constexpr DWORD kAccepted = BCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG;
  if ((dwFlags & ~kAccepted) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS,
                         "NTE_BAD_FLAGS: Only NCRYPT_NO_KEY_VALIDATION, NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG, and "
                         "NCRYPT_SILENT_FLAG are acceptable flags.");
  }
  g_Log->WriteLine("Checking if key is not yet finalized");
  if (key->fFinished != 0) return NTE_BAD_KEY_STATE;
  const SECURITY_STATUS login = Login(provider);
  if (login != ERROR_SUCCESS) return g_Log->Refuse(login, "Failed to login. Operation aborted");
  g_Log->WriteLine("Checking if overwrite flag is set");
  if (key->fOverwrite != 0) {
    const SECURITY_STATUS destroyed = DestroyOverwrittenKey(key, provider);
    if (destroyed != ERROR_SUCCESS) return destroyed;
  }
  return key->pbPrivateKey != nullptr ? WriteImportedKey(key, provider, frame) : GenerateKey(key, provider);
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFinalizeKey - Entry", "KELDAKSPFinalizeKey - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider : ", hProvider);
    frame.Argument("hKey      : ", hKey);
    frame.Argument("dwFlags   : ", dwFlags);
    ClearProviderCache();
    return FinalizeKey(hProvider, hKey, dwFlags, frame);
  });
}
