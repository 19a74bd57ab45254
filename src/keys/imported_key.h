// An imported private key on its way to the token.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"

// Writes the record's key to the token as a public and a private key object with a random CKA_ID. The private one is
// never written, so that this always fails and leaves the public object behind; kept on purpose. Returns
// NTE_INTERNAL_ERROR, or NTE_BAD_KEYSET (an algorithm identifier that is none; exitLines is then cleared: the entry
// leaves without them). Throws std::bad_alloc.
SECURITY_STATUS WriteImportedKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider, bool& exitLines);
