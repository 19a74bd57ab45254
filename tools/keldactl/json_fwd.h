// The name of JSON, for headers that only hand some on.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace keldactl {

// Objects keep the order in which their members are set.
using Json = nlohmann::ordered_json;

}  // namespace keldactl
