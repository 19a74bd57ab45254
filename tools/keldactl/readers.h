// The readers by the smart card service (PC/SC), and which of them a provider works with.
#pragma once

#include "cng.h"

#include <string>
#include <vector>

namespace keldactl {

struct Reader {
  std::wstring name;
  bool has_token = false;
};

// All readers, in the service's order; no reader at all is an empty list. Throws Failure when the service does not
// answer.
std::vector<Reader> ListReaders();
// The names of those that hold a token, quoted and joined; "none" when there is none.
std::wstring ReadersWithToken(const std::vector<Reader>& readers);

// Throws Failure (kNotFound) unless the service knows this reader and it holds a token. Says nothing when the service
// does not answer.
void RequireTokenIn(const std::wstring& reader);
// Throws Failure unless the open provider works with this reader.
void RequireReader(const Provider& provider, const std::wstring& reader);

}  // namespace keldactl
