// Finding a key by name in a provider's key object list.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"
#include "support/windows.h"
#include "token/cryptoki_module.h"

// Finds an entry by name, or by the hexadecimal text of its name, and copies it into target, which the caller has
// allocated and zeroed. Builds the list when it is empty. Returns 0, NTE_BAD_KEYSET (no such key) or
// NTE_INTERNAL_ERROR or NTE_NO_MEMORY.
SECURITY_STATUS FindKELDKSPKeyfromObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module,
                                             const wchar_t* keyName, KELDAKSP_KEY* target);
