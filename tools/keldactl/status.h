// What the statuses of Windows' cryptography functions are called and mean.
#pragma once

#include "failure.h"

#include <string>

namespace keldactl {

// "NTE_BAD_KEYSET (0x80090016): the key does not exist". A status of which nothing is known is described by the
// system's message, or by its number alone.
std::wstring DescribeStatus(long status);

// What a process that failed with this status ends with, and what the user can do about it (empty when there is nothing
// to say that would fit every place where the status comes from).
ExitStatus ExitStatusOf(long status);
std::wstring AdviceOf(long status);

// "0x" and eight hexadecimal digits.
std::wstring Hex32(unsigned long value);

}  // namespace keldactl
