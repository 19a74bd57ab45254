// What every operation with a key's objects on the token asks for before it begins.
#pragma once

#include "keys/record/key_record.h"
#include "provider/record/provider_record.h"

// The key has to be finalized and the user logged in to the token. Returns 0, NTE_BAD_KEY_STATE or the login's status,
// with its line.
SECURITY_STATUS CheckFinishedAndLogin(KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* key) noexcept;
