// The typed characters of a PIN field, each in a cell of its own and never in clear at rest. No platform calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "support/wipe.h"

// The cell at index i holds the character XOR mask[i mod 32]. Cells are wiped before they are released.
class PinScrambler {
 public:
  static constexpr std::size_t kMaskLength = 32;

  // mask has kMaskLength values.
  explicit PinScrambler(WipedArray<std::uint16_t> mask) noexcept;
  ~PinScrambler();
  PinScrambler(const PinScrambler&) = delete;
  PinScrambler& operator=(const PinScrambler&) = delete;

  // Inserts count characters before the cell at position. A position beyond size() + 1 is refused (returns false); at
  // size() + 1 the characters are appended, as at size(). Throws std::bad_alloc, and then nothing has changed.
  bool Insert(std::size_t position, const wchar_t* characters, std::size_t count);
  // Removes count cells from position on; what lies beyond the last cell is ignored.
  void Delete(std::size_t position, std::size_t count) noexcept;
  void Clear() noexcept;

  // Number of characters.
  std::size_t size() const noexcept { return cells_.size(); }
  // The scrambled content of the cell at index.
  std::uint16_t Cell(std::size_t index) const noexcept { return *cells_[index]; }
  // The characters in clear, and a terminator. Throws std::bad_alloc.
  WipedArray<wchar_t> Text() const;

 private:
  struct WipeAndDelete {
    void operator()(std::uint16_t* cell) const noexcept;
  };

  // Scrambles the characters in clear, or brings them back: the scramble is its own inverse.
  void Toggle() noexcept;

  WipedArray<std::uint16_t> mask_;
  std::vector<std::unique_ptr<std::uint16_t, WipeAndDelete>> cells_;
};
