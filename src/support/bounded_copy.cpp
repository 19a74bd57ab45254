#include "support/bounded_copy.h"

std::uint32_t BoundedCopy(wchar_t* destination, std::size_t cchDestination, const wchar_t* source) noexcept {
  constexpr std::size_t kMaxCharacters = 0x7FFFFFFF;
  if (destination == nullptr || cchDestination == 0 || cchDestination > kMaxCharacters) return kCopyInvalidArgument;
  if (source == nullptr) source = L"";
  std::size_t i = 0;
  while (source[i] != L'\0' && i + 1 < cchDestination) {
    destination[i] = source[i];
    ++i;
  }
  destination[i] = L'\0';
  return source[i] == L'\0' ? 0 : kCopyInsufficientBuffer;
}
