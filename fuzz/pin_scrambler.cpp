// Typing in a PIN field, held against a plain text.
#include "ui/pin_scrambler.h"

#include <algorithm>

#include "target.h"

FUZZ_TARGET(pin_scrambler) {
  fuzz::Parts parts(input);
  WipedArray<std::uint16_t> mask(PinScrambler::kMaskLength);
  for (std::size_t i = 0; i < mask.size(); ++i)
    mask[i] = static_cast<std::uint16_t>(parts.Byte() * 257U + i);
  const std::vector<std::uint16_t> known(mask.data(), mask.data() + mask.size());
  PinScrambler scrambler(std::move(mask));
  std::vector<wchar_t> plain;
  while (!parts.empty()) {
    const unsigned action = parts.Byte() % 4;
    const std::size_t position = parts.Byte();
    if (action == 0) {
      scrambler.Clear();
      plain.clear();
    } else if (action == 1) {
      const std::size_t count = parts.Byte();
      scrambler.Delete(position, count);
      const std::size_t first = std::min(position, plain.size());
      const std::size_t removed = std::min(count, plain.size() - first);
      plain.erase(plain.begin() + static_cast<std::ptrdiff_t>(first),
                  plain.begin() + static_cast<std::ptrdiff_t>(first + removed));
    } else {
      const std::vector<wchar_t> typed = parts.Characters(parts.Byte() % 8);
      const bool taken = scrambler.Insert(position, typed.data(), typed.size());
      FUZZ_CHECK(taken == (position <= plain.size() + 1));
      if (taken) {
        plain.insert(plain.begin() + static_cast<std::ptrdiff_t>(std::min(position, plain.size())), typed.begin(),
                     typed.end());
      }
    }
  }
  FUZZ_CHECK(scrambler.size() == plain.size());
  const WipedArray<wchar_t> text = scrambler.Text();
  FUZZ_CHECK(text.size() == plain.size() + 1 && text[plain.size()] == L'\0');
  for (std::size_t i = 0; i < plain.size(); ++i) {
    FUZZ_CHECK(text[i] == plain[i]);
    FUZZ_CHECK(scrambler.Cell(i) == static_cast<std::uint16_t>(plain[i] ^ known[i % known.size()]));
  }
}
