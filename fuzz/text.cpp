// Comparing, finding, narrowing and widening of texts.
#include "support/text.h"

#include <algorithm>

#include "target.h"

namespace {

wchar_t Folded(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c;
}

void CheckFind(const std::vector<wchar_t>& text, const std::vector<wchar_t>& part) {
  const auto end = text.end() - 1;
  const auto found = std::search(text.begin(), end, part.begin(), part.end() - 1);
  const std::size_t position = WideFind(text.data(), part.data());
  if (found == end && part.size() > 1) {
    FUZZ_CHECK(position == kNotFound);
  } else {
    FUZZ_CHECK(position == static_cast<std::size_t>(found - text.begin()));
  }
}

void CheckCompare(const std::vector<wchar_t>& left, const std::vector<wchar_t>& right, std::size_t count) {
  FUZZ_CHECK(WideEqual(left.data(), right.data()) == (left == right));
  bool equal = true;
  for (std::size_t i = 0; equal && i < count; ++i) {
    equal = Folded(left[i]) == Folded(right[i]);
    if (left[i] == L'\0' || right[i] == L'\0') break;
  }
  FUZZ_CHECK(WideEqualIgnoringCase(left.data(), right.data(), count) == equal);
}

void CheckNarrow(const std::vector<wchar_t>& text, std::size_t room) {
  std::vector<char> narrow(room, '#');
  const std::size_t count = NarrowText(narrow.data(), room, text.data());
  const bool fits = text.size() <= room && std::all_of(text.begin(), text.end(), [](wchar_t c) { return c <= 0xFF; });
  FUZZ_CHECK(count == (fits ? text.size() : 0));
  if (room == 0) return;
  if (!fits) {
    FUZZ_CHECK(narrow[0] == '\0');
    return;
  }
  const std::vector<unsigned char> bytes(narrow.begin(), narrow.begin() + static_cast<std::ptrdiff_t>(count));
  std::vector<wchar_t> widened(bytes.size() + 1, L'#');
  FUZZ_CHECK(WidenBytes(widened.data(), bytes.data(), bytes.size()) == text.size() - 1);
  FUZZ_CHECK(WideEqual(widened.data(), text.data()));
}

}  // namespace

FUZZ_TARGET(text) {
  fuzz::Parts parts(input);
  const std::size_t count = parts.Byte();
  const std::size_t room = parts.Byte();
  const std::vector<wchar_t> first = parts.Text(parts.Byte());
  const std::vector<wchar_t> second = parts.Text();
  FUZZ_CHECK(WideLength(first.data()) == first.size() - 1);
  CheckFind(second, first);
  CheckFind(first, second);
  CheckCompare(first, second, count);
  CheckNarrow(first, room);
  CheckNarrow(second, second.size());
}
