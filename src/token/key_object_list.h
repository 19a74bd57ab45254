// The list of the keys found on a provider's token.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"
#include "support/windows.h"
#include "token/cryptoki_module.h"

// Where an enumeration stands. Allocated with new by the first read; the caller releases it through FreeBuffer.
struct KELDAKSP_ENUM_STATE {
  DWORD index;  // position of the next entry to return
  DWORD reserved[4];
};

// (Re)builds the list: one record for every RSA key on the token, public and private keys paired by CKA_ID. Returns 0
// or NTE_INTERNAL_ERROR or NTE_NO_MEMORY; a failure on the way leaves the entries made so far.
SECURITY_STATUS InitializeObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module);

// Empties the list: names and identifiers are wiped, everything is freed.
void ReleaseKeyObjectList(KELDAKSP_PROVIDER* provider) noexcept;

// Returns the next entry's name in a record that the caller releases through FreeBuffer. A null *ppState starts an
// enumeration and receives its state. Returns 0, NTE_NO_MORE_ITEMS (a name in *ppKeyName is then freed) or
// NTE_NO_MEMORY.
SECURITY_STATUS ReadKeyNameFromKeyObjectList(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                             NCryptKeyName** ppKeyName);

// Finds an entry by name, or by the hexadecimal text of its name, and copies it into target, which the caller has
// allocated and zeroed. Builds the list when it is empty. Returns 0, NTE_BAD_KEYSET (no such key) or
// NTE_INTERNAL_ERROR or NTE_NO_MEMORY.
SECURITY_STATUS FindKELDKSPKeyfromObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module,
                                             const wchar_t* keyName, KELDAKSP_KEY* target);
