// The text forms of the debug log's values. No I/O.
#pragma once

#include <cstddef>
#include <cstdint>

namespace logformat {

// At most this many bytes of a block are dumped; longer data is cut without a mark.
inline constexpr std::size_t kMaxDumpedBytes = 500;

// Characters that a dump of length bytes takes, the terminator counted ("NULL" for no data).
std::size_t HexDumpSize(const void* data, std::size_t length) noexcept;
// Writes the dump, "%02X " for each byte, or "NULL" when there is no data. text has room for HexDumpSize characters.
void HexDump(char* text, const void* data, std::size_t length) noexcept;

inline constexpr std::size_t kHex32Size = 11;  // "0x%08X" and the terminator
void Hex32(char (&text)[kHex32Size], std::uint32_t value) noexcept;

inline constexpr std::size_t kDecimalSize = 12;  // "%d" of any 32-bit number and the terminator
void Decimal(char (&text)[kDecimalSize], std::int32_t value) noexcept;

// The line that marks a load of the provider, from ctime's text (which ends in a line end itself); start is the room
// of the log's own buffer. The result is terminated and is cut if ctimeText were longer than any ctime text is.
inline constexpr std::size_t kStartLineSize = 128;
void StartLine(char (&text)[kStartLineSize], const char* ctimeText) noexcept;

// The banner that opens an entry's lines: 66 "=" characters. The one that closes them has two line ends behind it.
inline constexpr char kBanner[] = "==================================================================";
inline constexpr char kClosingBanner[] = "==================================================================\n\n";

}  // namespace logformat
