// Translation of PKCS#11 return values into the statuses that reach CNG's callers.
#pragma once

#include <cstdint>

#include "support/status_codes.h"

// NTE codes, and plain Win32 error numbers where callers show them to the user (cancelled, wrong PIN, locked PIN).
// Whatever is not known becomes NTE_FAIL.
status::Code StatusFromCkRv(std::uint32_t ckRv) noexcept;
