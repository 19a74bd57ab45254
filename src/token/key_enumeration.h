// Walking over the names in a provider's key object list.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"
#include "support/windows.h"

// Where an enumeration stands. Allocated with new by the first read; the caller releases it through FreeBuffer.
struct KELDAKSP_ENUM_STATE {
  DWORD index;  // position of the next entry to return
  DWORD reserved[4];
};

// Returns the next entry's name in a record that the caller releases through FreeBuffer. A null *ppState starts an
// enumeration and receives its state. Returns 0, NTE_NO_MORE_ITEMS (a name in *ppKeyName is then freed) or
// NTE_NO_MEMORY.
SECURITY_STATUS ReadKeyNameFromKeyObjectList(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                             NCryptKeyName** ppKeyName);
