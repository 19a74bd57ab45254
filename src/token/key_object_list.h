// The list of the keys found on a provider's token: one record for every RSA key, in the provider's record.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"
#include "support/windows.h"
#include "token/cryptoki_module.h"

// (Re)builds the list: public and private keys of the token paired by CKA_ID. Returns 0 or NTE_INTERNAL_ERROR or
// NTE_NO_MEMORY; a failure on the way leaves the entries made so far.
SECURITY_STATUS InitializeObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module);

// Empties the list: names and identifiers are wiped, everything is freed.
void ReleaseKeyObjectList(KELDAKSP_PROVIDER* provider) noexcept;
