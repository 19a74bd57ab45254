// The login gate: every operation that needs the token's private side passes it.
#pragma once

#include "provider/record/provider_record.h"
#include "support/windows.h"

// Makes sure that the provider's session is logged in as the user, with a cached PIN or through the PIN dialog.
// Returns 0; SCARD_W_CANCELLED_BY_USER; NTE_NOT_FOUND (the dialog ended with an unexpected code); NTE_INTERNAL_ERROR;
// NTE_INVALID_PARAMETER; NTE_NO_MEMORY. Never throws.
SECURITY_STATUS Login(KELDAKSP_PROVIDER* provider) noexcept;

// Logs the provider's session out and forgets the provider's cached PIN. A session that is not logged in counts as
// success. Returns 0, NTE_INVALID_PARAMETER or NTE_INTERNAL_ERROR. The PIN buffer itself is leaked; kept on purpose.
SECURITY_STATUS Logout(KELDAKSP_PROVIDER* provider);
