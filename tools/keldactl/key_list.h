// The provider's list of keys: how it is shown, what it hides, and under which names a new key is found. A provider may
// list a key under another name than the one it was created with: on a token that is the key's identifier.
#pragma once

#include "cng.h"
#include "json_fwd.h"

namespace keldactl {

// The table of names, hex texts and algorithms, and the same in JSON.
void SayKeys(const std::vector<ListedKey>& keys);
Json KeysInJson(const std::vector<ListedKey>& keys);

// What is wrong with a list that has a key without a name, and the way out; empty when all is well. Such a key answers
// to every name, so that those behind it cannot be reached.
std::wstring NamelessAdvice(const std::vector<ListedKey>& keys);
// The same as a warning.
void WarnOfNameless(const std::vector<ListedKey>& keys);

// The keys of `after` that `before` lacks.
std::vector<ListedKey> Newcomers(const std::vector<ListedKey>& before, const std::vector<ListedKey>& after);

// The list as it is before a key is made, to tell the newcomer by. Nothing when a provider that keeps its keys
// elsewhere than on a token lists none: its keys are found by the names they were made with. Throws Failure otherwise.
std::optional<std::vector<ListedKey>> KeysBefore(const Provider& provider);

// Says `done` and, when the list shows the new key under another name than `name`, which one. Throws Failure when the
// list shows neither a new key nor `name`: the provider only said that it made one.
void SayNewcomers(const Provider& provider, const std::optional<std::vector<ListedKey>>& before,
                  const std::wstring& name, const std::wstring& done);

}  // namespace keldactl
