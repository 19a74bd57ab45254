// How names are compared and shown. Pure logic, for any kind of 16-bit character so that it is also tested natively.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace keldactl {

template <typename Char>
using TextOf = std::basic_string<Char>;
template <typename Char>
using ViewOf = std::basic_string_view<Char>;

template <typename Char>
void AppendHex(TextOf<Char>& text, unsigned value, int digits) {
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    text += static_cast<Char>("0123456789ABCDEF"[(value >> shift) & 0xF]);
}

// Two digits for each byte.
template <typename Char, typename Container>
TextOf<Char> HexOfBytes(const Container& bytes) {
  TextOf<Char> text;
  for (const std::uint8_t byte : bytes)
    AppendHex(text, byte, 2);
  return text;
}

// Whether a character can be shown without doing anything to the terminal or to the order of what stands around it:
// no control characters, no halves of surrogate pairs, no marks that turn the writing direction.
template <typename Char>
bool PrintsAlone(Char character) {
  const auto c = static_cast<unsigned>(character);
  if (c < 0x20 || (c >= 0x7F && c <= 0xA0) || c == 0xAD) return false;
  if ((c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F)) return false;
  return !(c >= 0xD800 && c <= 0xDFFF) && c != 0xFEFF && !(c >= 0xFFF0 && c <= 0xFFFB) && c < 0xFFFE;
}

// A text on one line; what does not print appears as \xNN or \uNNNN. Whole surrogate pairs stay.
template <typename Char>
TextOf<Char> PrintableText(ViewOf<Char> name) {
  TextOf<Char> text;
  for (size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned>(name[i]);
    const auto next = i + 1 < name.size() ? static_cast<unsigned>(name[i + 1]) : 0;
    if (PrintsAlone(name[i])) {
      text += name[i];
    } else if (c >= 0xD800 && c <= 0xDBFF && next >= 0xDC00 && next <= 0xDFFF) {
      text += name[i];
      text += name[++i];
    } else {
      text += static_cast<Char>('\\');
      text += static_cast<Char>(c <= 0xFF ? 'x' : 'u');
      AppendHex(text, c, c <= 0xFF ? 2 : 4);
    }
  }
  return text;
}

// Lines for a terminal: their ends stay, everything else that does not print appears as it does on one line.
template <typename Char>
TextOf<Char> PrintableLines(ViewOf<Char> lines) {
  TextOf<Char> text;
  for (size_t begin = 0; begin < lines.size();) {
    const size_t end = std::min(lines.find(static_cast<Char>('\n'), begin), lines.size());
    ViewOf<Char> line = lines.substr(begin, end - begin);
    if (line.ends_with(static_cast<Char>('\r'))) line.remove_suffix(1);
    text += PrintableText<Char>(line);
    if (end < lines.size()) text += static_cast<Char>('\n');
    begin = end + 1;
  }
  return text;
}

// The text as a column of a table: one blank at the least stands behind it.
template <typename Char>
TextOf<Char> InColumn(TextOf<Char> text, size_t width) {
  text.append(text.size() < width ? width - text.size() : 1, static_cast<Char>(' '));
  return text;
}

// "1 warning", "2 warnings".
template <typename Char>
TextOf<Char> Counted(size_t count, ViewOf<Char> thing) {
  TextOf<Char> text;
  for (const char digit : std::to_string(count))
    text += static_cast<Char>(digit);
  text += static_cast<Char>(' ');
  text += thing;
  if (count != 1) text += static_cast<Char>('s');
  return text;
}

// Two digits for each character. Empty when a character has no such form.
template <typename Char>
TextOf<Char> HexTextOf(ViewOf<Char> name) {
  TextOf<Char> text;
  for (const Char c : name) {
    if (static_cast<unsigned>(c) > 0xFF) return {};
    AppendHex(text, static_cast<unsigned>(c), 2);
  }
  return text;
}

// Capitals and small letters count as equal from A to Z and nowhere else, as providers of token keys compare.
template <typename Char>
Char FoldedCase(Char c) {
  const auto value = static_cast<unsigned>(c);
  return value >= 'a' && value <= 'z' ? static_cast<Char>(value - 'a' + 'A') : c;
}

template <typename Char>
bool SameText(ViewOf<Char> a, ViewOf<Char> b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (FoldedCase(a[i]) != FoldedCase(b[i])) return false;
  }
  return true;
}

// Whether `asked`, a name or a hex text, names the key that is called `name`, in full.
template <typename Char>
bool NamesKey(ViewOf<Char> asked, ViewOf<Char> name) {
  if (SameText(asked, name)) return true;
  const TextOf<Char> hex = HexTextOf(name);
  return !hex.empty() && SameText<Char>(asked, hex);
}

// A provider's version number as people write it. Two halves, or, when the upper one is too large for that, four bytes,
// of which zeros at the end are left out behind the second.
inline std::string VersionText(uint32_t version) {
  if ((version >> 24) == 0) return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
  std::string text = std::to_string(version >> 24) + "." + std::to_string((version >> 16) & 0xFF);
  const uint32_t third = (version >> 8) & 0xFF;
  const uint32_t fourth = version & 0xFF;
  if (third != 0 || fourth != 0) text += "." + std::to_string(third);
  if (fourth != 0) text += "." + std::to_string(fourth);
  return text;
}

}  // namespace keldactl
