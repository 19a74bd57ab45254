// Signatures, for the commands that make them in passing too.
#pragma once

#include "cng.h"
#include "hashing.h"

namespace keldactl {

// Signs a hash with PKCS#1 v1.5 (RSA) or without padding (other families); throws Failure.
Bytes SignHash(const Key& key, const HashAlgorithm& algorithm, const Bytes& hash);

}  // namespace keldactl
