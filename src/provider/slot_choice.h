// Which slot of the token module a provider works on.
#pragma once

#include "provider/record/provider_record.h"

// Decides on the provider's slot and stores it in the record with its reader's name: the only slot with a token, the
// first one for a silent caller, else the reader that the provider cache remembers or the one that the user chooses.
// Returns 0, NTE_FAIL (no slot, no token, no dialog), NTE_INTERNAL_ERROR or ERROR_CANCELLED. Throws std::bad_alloc.
SECURITY_STATUS ChooseSlot(KELDAKSP_PROVIDER* provider, bool silent);
