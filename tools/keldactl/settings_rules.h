// What the provider makes of its settings, told from their values alone. Pure: no Windows header, no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace keldactl {

// The text that switches the log off, and the PIN cache on.
inline constexpr wchar_t kEightZeros[] = L"00000000";

// The log is off without its switch, and with eight zeros in it; any other text, "0" for one, switches it on. A text
// that the provider has no room for counts as missing.
bool IsLogOn(const std::optional<std::wstring>& log_switch, const std::optional<std::wstring>& log_file);

// A text that the provider has no room for, and that is one of eight characters or more, counts as missing, and then
// PINs are cached.
bool IsPinCacheOn(const std::optional<std::wstring>& setting);

// Only the lowest byte counts.
bool IsProviderCacheOn(const std::optional<std::uint32_t>& setting);

// Widths of programs, as the header of a DLL or program tells them.
enum class Machine { kUnknown, kX86, kX64 };

// From the first bytes of a file: those up to its PE header are enough.
Machine MachineOf(const unsigned char* file, std::size_t size);

}  // namespace keldactl
