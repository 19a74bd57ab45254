// A key's public part, as the provider exports it.
#pragma once

#include "cng.h"
#include "encoding.h"

namespace keldactl {

// Throw Failure when the provider does not export it.
Bytes ExportPublicBlob(const Key& key);
RsaPublicKey PublicKeyOf(const Key& key);

}  // namespace keldactl
