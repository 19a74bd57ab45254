// CNG names of token keys.
#pragma once

#include "support/windows.h"
#include "support/wipe.h"

using WideName = WipedArray<wchar_t>;

// Forms a key's name (zero-terminated) from its CKA_ID, or from its label when there is no CKA_ID at all. The
// identifier wins even when it gives a short or unreadable name: the name ends before the identifier's first zero byte.
// Lengths are in bytes. Returns 0 or NTE_INVALID_PARAMETER. Throws std::bad_alloc.
SECURITY_STATUS KeyNameFromAttributes(const unsigned char* id, DWORD cbId, const unsigned char* label, DWORD cbLabel,
                                      WideName& name);

// The name that a name given as hexadecimal text (zero-terminated, not owned) stands for.
class HexNameForm {
 public:
  explicit HexNameForm(const wchar_t* text) noexcept : text_(text) {}
  // The converted name, zero-terminated; converted when it is asked for first. Empty on error, and then the thread's
  // last error becomes NTE_INVALID_PARAMETER, each time; an empty text gives an empty name without error. Throws
  // std::bad_alloc.
  const wchar_t* Get();

 private:
  const wchar_t* text_;
  WideName converted_;
  bool valid_ = false;
};

// Whether a searched name names the key of the stored name: they compare equal, ignoring case, over the length of the
// stored name. A longer searched name therefore matches as well, and an empty stored name matches all. Kept on purpose.
bool KeyNameMatches(const wchar_t* searched, const wchar_t* stored) noexcept;

// Picks the key name out of an import's parameter list: the last buffer of type NCRYPTBUFFER_PKCS_KEY_NAME with data of
// at least 2 bytes. name stays empty when there is none. Returns 0, or NTE_INVALID_PARAMETER for such data without a
// zero byte in it. Throws std::bad_alloc.
SECURITY_STATUS ReadKeyNameFromParams(const NCryptBufferDesc* parameters, WideName& name);
