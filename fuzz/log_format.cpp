// The values of log lines.
#include "diag/log_format.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "target.h"

FUZZ_TARGET(log_format) {
  fuzz::Parts parts(input);
  const std::uint32_t number = parts.Number();
  char hex[logformat::kHex32Size];
  logformat::Hex32(hex, number);
  FUZZ_CHECK(std::strlen(hex) == 10 && std::strtoul(hex, nullptr, 16) == number);
  char decimal[logformat::kDecimalSize];
  logformat::Decimal(decimal, static_cast<std::int32_t>(number));
  FUZZ_CHECK(std::strtol(decimal, nullptr, 10) == static_cast<std::int32_t>(number));

  const std::vector<std::uint8_t> data = parts.Rest();
  std::vector<char> dump(logformat::HexDumpSize(data.data(), data.size()), '#');
  logformat::HexDump(dump.data(), data.data(), data.size());
  FUZZ_CHECK(std::strlen(dump.data()) + 1 == dump.size());
  for (std::size_t i = 0; i < data.size() && i < logformat::kMaxDumpedBytes; ++i)
    FUZZ_CHECK(std::strtoul(dump.data() + 3 * i, nullptr, 16) == data[i] && dump[3 * i + 2] == ' ');

  char line[logformat::kStartLineSize];
  logformat::StartLine(line, std::string(data.begin(), data.end()).c_str());
  FUZZ_CHECK(std::memchr(line, 0, sizeof(line)) != nullptr);
}
