#include "settings_rules.h"

#include <algorithm>

namespace keldactl {
namespace {

// Characters that the provider's buffers take, without the terminator.
constexpr std::size_t kSwitchRoom = 15;
constexpr std::size_t kFileRoom = 2047;
constexpr std::size_t kPinCacheRoom = 7;

std::uint32_t Number(const unsigned char* bytes, int count) {
  std::uint32_t value = 0;
  for (int i = count - 1; i >= 0; --i)
    value = value << 8 | bytes[i];
  return value;
}

bool IsEightZeros(const std::wstring& text) {
  return text.size() == 8 && std::all_of(text.begin(), text.end(), [](wchar_t c) { return c == L'0'; });
}

}  // namespace

bool IsLogOn(const std::optional<std::wstring>& log_switch, const std::optional<std::wstring>& log_file) {
  return log_switch && log_switch->size() <= kSwitchRoom && !IsEightZeros(*log_switch) && log_file &&
         !log_file->empty() && log_file->size() <= kFileRoom;
}

bool IsPinCacheOn(const std::optional<std::wstring>& setting) {
  return !setting || setting->size() > kPinCacheRoom;
}

bool IsProviderCacheOn(const std::optional<std::uint32_t>& setting) {
  return !setting || (*setting & 0xFF) != 0;
}

Machine MachineOf(const unsigned char* file, std::size_t size) {
  constexpr std::size_t kHeaderOffset = 0x3C;
  constexpr std::size_t kHeaderSize = 6;  // "PE\0\0" and the machine
  if (size < kHeaderOffset + 4 || file[0] != 'M' || file[1] != 'Z') return Machine::kUnknown;
  const std::size_t header = Number(file + kHeaderOffset, 4);
  if (header > size || size - header < kHeaderSize || Number(file + header, 4) != 0x00004550) return Machine::kUnknown;
  switch (Number(file + header + 4, 2)) {
    case 0x014C:
      return Machine::kX86;
    case 0x8664:
      return Machine::kX64;
    default:
      return Machine::kUnknown;
  }
}

}  // namespace keldactl
