// What an import makes of a caller's blob: a key record, and for a public key a token object.
#pragma once

#include "keys/private_key_blob.h"
#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"
#include "support/wipe.h"

// The caller's part of an import.
struct ImportData {
  NCRYPT_KEY_HANDLE hImportKey;            // 0 for a blob that is not encrypted
  const NCryptBufferDesc* pParameterList;  // may be null; may hold the key's name
  const BYTE* pbData;                      // cbData bytes, at least 1
  DWORD cbData;
};

// Fills the record from the caller's data; working receives the blob, decrypted with the import key on the token.
// Returns 0 or the status of what failed. Throws std::bad_alloc.
SECURITY_STATUS FillRecord(const ImportData& data, const KELDAKSP_PROVIDER* provider, KELDAKSP_KEY* key,
                           PrivateKeyBlob& blob, WipedBytes& working);

// A component as the record keeps it: as long as any setter will read, whatever the record's bit length says or the
// length property makes of it later, and zero behind its end. Throws std::bad_alloc.
WipedBytes RecordComponent(const WipedBytes& part);

// Keeps the parts of a private blob in the record. Import does not read the parts behind the primes, so that these stay
// absent. Throws std::bad_alloc.
void KeepPrivateParts(KELDAKSP_KEY* key, const PrivateKeyBlob& blob, WipedBytes working);

// Creates the public key object; the user is logged in first for a key that is to stay on the token. Returns 0, the
// login's status or NTE_INTERNAL_ERROR. Throws std::bad_alloc.
SECURITY_STATUS CreateImportedPublicKey(KELDAKSP_KEY* key, KELDAKSP_PROVIDER* provider);
