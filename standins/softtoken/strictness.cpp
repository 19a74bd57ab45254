#include "softtoken/strictness.h"

#include <cstdlib>
#include <string_view>

namespace softtoken {
namespace {

constexpr char kStrictVariable[] = "KELDA_STRICT";

}  // namespace

Strictness ReadStrictness() {
  const char* value = std::getenv(kStrictVariable);
  const std::string_view text = value == nullptr ? "" : value;
  if (text.empty() || text == "0") return Strictness::kForgiving;
  return text == "all" ? Strictness::kUnadapted : Strictness::kStrict;
}

}  // namespace softtoken
