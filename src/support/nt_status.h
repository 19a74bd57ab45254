// Translation of the statuses of the platform's primitive cryptography functions (BCrypt*).
#pragma once

#include <cstdint>

#include "support/status_codes.h"

// Turns an NTSTATUS into the status that the provider returns for it; 0 stays 0, whatever is not known becomes
// NTE_INTERNAL_ERROR.
status::Code StatusFromNtStatus(std::int32_t ntStatus) noexcept;
