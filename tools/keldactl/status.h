// What the statuses of Windows' cryptography functions are called and mean.
#pragma once

#include <string>

namespace keldactl {

// "NTE_BAD_KEYSET (0x80090016): the key does not exist". A status of which nothing is known is described by the
// system's message, or by its number alone.
std::wstring DescribeStatus(long status);

// "0x" and eight hexadecimal digits.
std::wstring Hex32(unsigned long value);

}  // namespace keldactl
