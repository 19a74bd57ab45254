#include "keys/key_existence.h"

#include <memory>
#include <new>

#include "token/rsa_pair.h"

SECURITY_STATUS CheckKeyExists(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider) {
  std::unique_ptr<RSAPair> pair;
  SECURITY_STATUS status = NTE_NO_MEMORY;
  try {
    pair = NewOn<RSAPair>(*provider);
    status = pair->FindByLabel(key->pszKeyName);
  } catch (const std::bad_alloc&) {
    // the status says it
  }
  if (pair == nullptr) return status;
  key->hPrivateKeyObject = pair->PrivateKeyHandle();
  key->hPublicKeyObject = pair->PublicKeyHandle();
  return status;
}
