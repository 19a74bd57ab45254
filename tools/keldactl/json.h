// JSON for --json: objects keep the order in which their members are set.
#pragma once

#include <nlohmann/json.hpp>

#include "output.h"
#include "unicode.h"

#include <string_view>

namespace keldactl {

using Json = nlohmann::ordered_json;

// The whole result of a command, on standard output. Texts in it are UTF-8 (Utf8 makes it of wide ones).
inline void SayJson(const Json& result) {
  Say(Wide(result.dump(2, ' ', false, Json::error_handler_t::replace)));
}

}  // namespace keldactl
