// The reader selection dialog.
#pragma once

#include <cstddef>

#include "support/windows.h"

// Characters of the buffer that receives the chosen reader's name, the terminator counted.
inline constexpr std::size_t kSelectedReaderSize = 1024;

// Shows the dialog and waits for the user. Returns 0 with the chosen reader's name in buffer (kSelectedReaderSize
// characters), SCARD_W_CANCELLED_BY_USER when the user gave up (buffer untouched), or NTE_FAIL when the name does not
// fit (buffer untouched). Throws std::runtime_error with a text when the readers cannot be listed.
SECURITY_STATUS SelectReader(wchar_t* buffer);
