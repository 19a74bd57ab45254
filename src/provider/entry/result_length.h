// The result length of the entries that read a property.
#pragma once

#include "support/windows.h"

// Tells the caller the length of the result when the entry is left, whatever its status: 0 until it is set. Not before,
// because a caller may use one place for the value and its length.
class ResultLength {
 public:
  // pcbResult may be null.
  explicit ResultLength(DWORD* pcbResult) noexcept : pcbResult_(pcbResult) {}
  ~ResultLength() {
    if (pcbResult_ != nullptr) *pcbResult_ = length_;
  }
  ResultLength(const ResultLength&) = delete;
  ResultLength& operator=(const ResultLength&) = delete;

  void Set(DWORD length) noexcept { length_ = length; }

 private:
  DWORD* pcbResult_;
  DWORD length_ = 0;
};
