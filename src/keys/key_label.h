// A key's name as the label of its token objects.
#pragma once

#include "support/text.h"
#include "support/pkcs11.h"

// The narrow form of a name of at most 62 characters; a longer name, or one with a character above 0xFF, gives an empty
// label. The buffer is larger than any length that is declared for it, and zero behind the text.
class KeyLabel {
 public:
  explicit KeyLabel(const wchar_t* name) noexcept
      : present_(name != nullptr), count_(static_cast<CK_ULONG>(present_ ? NarrowText(text_, kLimit, name) : 0)) {}

  // Zero-terminated; null for a key without a name.
  const char* Text() const noexcept { return present_ ? text_ : nullptr; }
  // Bytes of the label, the terminator counted; 0 when there is none or it is empty for want of a narrow form.
  CK_ULONG Count() const noexcept { return count_; }

 private:
  static constexpr std::size_t kLimit = 63;

  char text_[128] = {};
  bool present_;
  CK_ULONG count_;
};
