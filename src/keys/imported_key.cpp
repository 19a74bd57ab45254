#include "keys/imported_key.h"

#include "diag/debug_log.h"
#include "keys/key_label.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/private_key.h"
#include "token/public_key.h"

namespace {

constexpr BYTE kZeros[kLargestComponent] = {};

// A component of an imported key; zeros when the blob did not have it.
const BYTE* Component(const BYTE* bytes) noexcept {
  return bytes != nullptr ? bytes : kZeros;
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

}  // namespace

SECURITY_STATUS WriteImportedKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider, bool& exitLines) {
  g_Log->WriteLine("Key is imported");
  const auto publicKey = NewOn<PublicKey>(*provider);
  const auto privateKey = NewOn<PrivateKey>(*provider);
  unsigned char id[kStoredIdSize] = {};
  if (g_Cryptoki->Functions().C_GenerateRandom(provider->hSession, id, sizeof(id)) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Random number generation failed");
  }
  const CK_ULONG cbWhole = key->dwKeyBitLength / 8;
  const CK_ULONG cbHalf = key->dwKeyBitLength / 16;

  g_Log->WriteLine("Initializing public key attributes");
  publicKey->SetModulus(key->pbModulus, cbWhole);
  publicKey->SetPublicExponent(key->PublicExponent, sizeof(key->PublicExponent));
  publicKey->SetId(id, sizeof(id));

  g_Log->WriteLine("Initializing private key attributes");
  privateKey->SetModulus(key->pbModulus, cbWhole);
  privateKey->SetPublicExponent(key->PublicExponent, sizeof(key->PublicExponent));
  privateKey->SetPrivateExponent(Component(key->pbPrivateExponent), cbWhole);
  privateKey->SetPrimes(Component(key->pbPrime1), cbHalf, Component(key->pbPrime2), cbHalf);
  privateKey->SetExponents(Component(key->pbExponent1), cbHalf, Component(key->pbExponent2), cbHalf);
  privateKey->SetCoefficient(Component(key->pbCoefficient), cbHalf);
  privateKey->SetId(id, sizeof(id));

  KeyUsage usage;
  if (!UsageFromAlgId(key->dwAlgID, usage)) {
    exitLines = false;
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
  // not reached: the creation always fails
  key->hPrivateKeyObject = privateKey->GetObjectHandle();
  key->hPublicKeyObject = publicKey->GetObjectHandle();
  key->fFinished = 1;
  return ERROR_SUCCESS;
}
