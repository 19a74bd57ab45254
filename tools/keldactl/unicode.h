// Between Windows' wide texts and the UTF-8 of the command line, JSON and files.
#pragma once

#include <string>
#include <string_view>

namespace keldactl {

// What has no counterpart (half a surrogate pair, a broken sequence) becomes U+FFFD.
std::string Utf8(std::wstring_view wide);
std::wstring Wide(std::string_view utf8);

}  // namespace keldactl
