// JSON for --json, for those who make or read some.
#pragma once

#include <nlohmann/json.hpp>

#include "json_fwd.h"
#include "output.h"
#include "unicode.h"

namespace keldactl {

// The whole result of a command, on standard output. Texts in it are UTF-8 (Utf8 makes it of wide ones).
inline void SayJson(const Json& result) {
  Say(Wide(result.dump(2, ' ', false, Json::error_handler_t::replace)));
}

}  // namespace keldactl
