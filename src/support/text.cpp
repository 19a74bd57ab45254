#include "support/text.h"

#include <cstring>

namespace {

wchar_t FoldCase(wchar_t c) noexcept {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

}  // namespace

std::size_t WideLength(const wchar_t* text) noexcept {
  std::size_t length = 0;
  if (text != nullptr) {
    while (text[length] != L'\0')
      ++length;
  }
  return length;
}

bool WideEqual(const wchar_t* left, const wchar_t* right) noexcept {
  if (left == nullptr || right == nullptr) return false;
  while (*left == *right) {
    if (*left == L'\0') return true;
    ++left;
    ++right;
  }
  return false;
}

bool WideEqualIgnoringCase(const wchar_t* left, const wchar_t* right, std::size_t count) noexcept {
  if (left == nullptr || right == nullptr) return false;
  for (std::size_t i = 0; i < count; ++i) {
    if (FoldCase(left[i]) != FoldCase(right[i])) return false;
    if (left[i] == L'\0') return true;
  }
  return true;
}

std::size_t WideFind(const wchar_t* text, const wchar_t* part) noexcept {
  if (text == nullptr || part == nullptr) return kNotFound;
  for (std::size_t position = 0;; ++position) {
    std::size_t i = 0;
    while (part[i] != L'\0' && text[position + i] == part[i])
      ++i;
    if (part[i] == L'\0') return position;
    if (text[position] == L'\0') return kNotFound;
  }
}

std::size_t NarrowText(char* destination, std::size_t cbDestination, const wchar_t* text) noexcept {
  if (destination == nullptr || cbDestination == 0) return 0;
  if (text == nullptr) text = L"";
  std::size_t i = 0;
  while (i < cbDestination && text[i] <= 0xFF) {
    destination[i] = static_cast<char>(static_cast<unsigned char>(text[i]));
    if (text[i] == L'\0') return i + 1;
    ++i;
  }
  // Nothing of a text without a narrow form stays behind: buffers are used up to lengths that do not ask for it.
  std::memset(destination, 0, i != 0 ? i : 1);
  return 0;
}

std::size_t WidenBytes(wchar_t* destination, const unsigned char* bytes, std::size_t count) noexcept {
  std::size_t i = 0;
  while (i < count && bytes[i] != 0) {
    destination[i] = bytes[i];
    ++i;
  }
  destination[i] = L'\0';
  return i;
}
