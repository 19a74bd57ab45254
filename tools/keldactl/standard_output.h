// Standard output, kept for keldactl's own results.
#pragma once

#include "platform.h"

namespace keldactl {

// What comes from now on from libraries that other people's code brings into this process (a token module that tells
// what it does, for example) goes to standard error, so that it does not stand in the middle of a result.
void KeepStandardOutput();

// Where keldactl's results go.
HANDLE StandardOutput();

}  // namespace keldactl
