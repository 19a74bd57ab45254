// Under which names a new key is found. A provider may list a key under another name than the one it was created with:
// on a token that is the key's identifier.
#pragma once

#include "cng.h"

namespace keldactl {

// The table of names, hex texts and algorithms.
void SayKeys(const std::vector<ListedKey>& keys);

// Says `done` and, when the list shows the new key under another name than `name`, which one. Throws Failure when the
// list shows neither a new key nor `name`: the provider only said that it made one.
void SayNewcomers(const std::vector<ListedKey>& before, const std::vector<ListedKey>& after, const std::wstring& name,
                  const std::wstring& done);

}  // namespace keldactl
