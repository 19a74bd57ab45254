#include "diag/log_format.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace logformat {

static_assert(sizeof(kBanner) == 66 + 1);

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";
constexpr char kNoData[] = "NULL";
constexpr std::size_t kCharactersPerByte = 3;

using ByteTexts = std::array<std::array<char, kCharactersPerByte + 1>, 256>;

constexpr ByteTexts MakeByteTexts() noexcept {
  ByteTexts texts = {};
  for (std::size_t value = 0; value < texts.size(); ++value)
    texts[value] = {kDigits[value >> 4], kDigits[value & 0x0F], ' ', '\0'};
  return texts;
}

// The text of each byte, and a terminator that the next one takes the place of: dumps are most of what the log writes.
constexpr ByteTexts kByteTexts = MakeByteTexts();

}  // namespace

std::size_t HexDumpSize(const void* data, std::size_t length) noexcept {
  if (data == nullptr || length == 0) return sizeof(kNoData);
  return std::min(length, kMaxDumpedBytes) * kCharactersPerByte + 1;
}

void HexDump(char* text, const void* data, std::size_t length) noexcept {
  if (data == nullptr || length == 0) {
    std::memcpy(text, kNoData, sizeof(kNoData));
    return;
  }
  const auto* bytes = static_cast<const unsigned char*>(data);
  const std::size_t count = std::min(length, kMaxDumpedBytes);
  for (std::size_t i = 0; i < count; ++i)
    std::memcpy(text + i * kCharactersPerByte, kByteTexts[bytes[i]].data(), kByteTexts[bytes[i]].size());
}

void Hex32(char (&text)[kHex32Size], std::uint32_t value) noexcept {
  text[0] = '0';
  text[1] = 'x';
  for (unsigned digit = 0; digit < 8; ++digit)
    text[2 + digit] = kDigits[(value >> (28 - 4 * digit)) & 0x0F];
  text[10] = '\0';
}

void Decimal(char (&text)[kDecimalSize], std::int32_t value) noexcept {
  *std::to_chars(text, text + kDecimalSize - 1, value).ptr = '\0';
}

void StartLine(char (&text)[kStartLineSize], const char* ctimeText) noexcept {
  std::snprintf(text, sizeof(text),
                "\n\n****************************************************************** LOG START - %s\n", ctimeText);
}

}  // namespace logformat
