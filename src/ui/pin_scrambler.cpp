#include "ui/pin_scrambler.h"

#include <algorithm>
#include <iterator>
#include <utility>

static_assert(sizeof(wchar_t) == sizeof(std::uint16_t), "cells hold the 16-bit characters of Windows");

void PinScrambler::WipeAndDelete::operator()(std::uint16_t* cell) const noexcept {
  SecureWipe(cell, sizeof(*cell));
  delete cell;
}

PinScrambler::PinScrambler(WipedArray<std::uint16_t> mask) noexcept : mask_(std::move(mask)) {}

PinScrambler::~PinScrambler() {
  Clear();
}

bool PinScrambler::Insert(std::size_t position, const wchar_t* characters, std::size_t count) {
  if (position > cells_.size() + 1) return false;
  position = std::min(position, cells_.size());

  // All memory first: from here on nothing fails and no character stays in clear.
  std::vector<std::unique_ptr<std::uint16_t, WipeAndDelete>> fresh;
  fresh.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    fresh.emplace_back(new std::uint16_t(characters[i]));
  cells_.reserve(cells_.size() + count);

  // The scramble depends on the position, and the positions change.
  Toggle();
  cells_.insert(cells_.begin() + static_cast<std::ptrdiff_t>(position), std::make_move_iterator(fresh.begin()),
                std::make_move_iterator(fresh.end()));
  Toggle();
  return true;
}

void PinScrambler::Delete(std::size_t position, std::size_t count) noexcept {
  if (position >= cells_.size()) return;
  count = std::min(count, cells_.size() - position);
  Toggle();
  const auto first = cells_.begin() + static_cast<std::ptrdiff_t>(position);
  cells_.erase(first, first + static_cast<std::ptrdiff_t>(count));
  Toggle();
}

void PinScrambler::Clear() noexcept {
  cells_.clear();
}

WipedArray<wchar_t> PinScrambler::Text() const {
  WipedArray<wchar_t> text(cells_.size() + 1);
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    text[i] = static_cast<wchar_t>(mask_[i % kMaskLength] ^ *cells_[i]);
  }
  return text;
}

void PinScrambler::Toggle() noexcept {
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    *cells_[i] = static_cast<std::uint16_t>(*cells_[i] ^ mask_[i % kMaskLength]);
  }
}
