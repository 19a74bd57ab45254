// Copies of key and reader names into rooms of given size.
#include "support/bounded_copy.h"

#include <algorithm>

#include "target.h"

FUZZ_TARGET(bounded_copy) {
  fuzz::Parts parts(input);
  const std::size_t room = parts.Byte();
  const std::vector<wchar_t> source = parts.Text();
  std::vector<wchar_t> destination(room, L'#');
  const std::uint32_t status = BoundedCopy(destination.data(), room, source.data());
  if (room == 0) {
    FUZZ_CHECK(status == kCopyInvalidArgument);
    return;
  }
  const bool fits = source.size() <= room;
  FUZZ_CHECK(status == (fits ? 0 : kCopyInsufficientBuffer));
  const std::size_t length = fits ? source.size() - 1 : room - 1;
  FUZZ_CHECK(std::equal(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(length), destination.begin()));
  FUZZ_CHECK(destination[length] == L'\0');
}
