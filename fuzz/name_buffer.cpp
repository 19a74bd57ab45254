// The key name in an import's parameter list.
#include "token/name_buffer.h"

#include <algorithm>

#include "target.h"

FUZZ_TARGET(name_buffer) {
  if (input.size() < 2) return;
  const std::vector<std::uint8_t> data(input.begin(), input.end());
  std::size_t cbName = 0;
  const bool found = MeasureName(data.data(), data.size(), cbName);
  FUZZ_CHECK(found == (std::find(data.begin(), data.end(), 0) != data.end()));
  if (!found) return;
  FUZZ_CHECK(cbName <= data.size());
  for (std::size_t i = 0; i + 1 < cbName; i += 2)
    FUZZ_CHECK(data[i] != 0 || data[i + 1] != 0);
  if (cbName != data.size()) {
    FUZZ_CHECK(cbName % 2 == 0 && cbName + 1 < data.size());
    FUZZ_CHECK(data[cbName] == 0 && data[cbName + 1] == 0);
  }
}
