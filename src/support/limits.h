// Limits that keep a caller's length fields from doing harm.
#pragma once

#include <cstddef>

// Bytes of the largest block that the provider allocates. No honest call comes near it (an RSA key of 4096 bits has
// parts of 512 bytes); what asks for more gets the answer "no memory".
inline constexpr std::size_t kLargestBlock = 0x03FFFFFF;
