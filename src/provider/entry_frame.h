// The frame that every table entry puts around its work: banner, entry line, argument lines, exit line, banner.
#pragma once

#include <cstdint>
#include <exception>
#include <new>

#include "diag/debug_log.h"
#include "support/windows.h"

// The lines of one entry. Most exit lines end in ": " and the status; the few that differ say so here.
struct EntryLines {
  const char* entry = nullptr;
  const char* exit = nullptr;
  bool exitHasStatus = true;
};

// Logs the arguments of the entry that is running: label (with its padding and ": ") and value.
class EntryFrame {
 public:
  // The low 32 bits of a number, handle or flag word as "0x%08X".
  void Argument(const char* label, ULONG_PTR value) const noexcept {
    g_Log->WriteHex32Main(label, static_cast<std::uint32_t>(value));
  }
  // The low 32 bits of the address.
  void Argument(const char* label, const void* value) const noexcept {
    Argument(label, reinterpret_cast<ULONG_PTR>(value));
  }
  // The text in narrow characters; nothing for a null pointer.
  void WideArgument(const char* label, const wchar_t* text) const noexcept { g_Log->WriteWide(label, text); }

  // Leaves the entry without exit line and closing banner.
  void OmitExitLines() noexcept { exitLines_ = false; }
  bool HasExitLines() const noexcept { return exitLines_; }

 private:
  bool exitLines_ = true;
};

// Logs why an entry refuses, and gives the status back for returning it.
inline SECURITY_STATUS Refuse(SECURITY_STATUS status, const char* text) noexcept {
  g_Log->WriteLine(text);
  return status;
}

// Called in a handler: logs what was thrown as the reason for the status that it gives back.
inline SECURITY_STATUS RefuseException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Not enough memory to complete the operation");
  } catch (...) {
    return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: The operation ended with an unexpected exception");
  }
}

// Runs body(frame), which returns the entry's status, inside the entry's lines. Nothing that body throws escapes.
template <class Body>
SECURITY_STATUS RunEntry(const EntryLines& lines, Body&& body) noexcept {
  g_Log->WriteLine(logformat::kBanner);
  g_Log->WriteLine(lines.entry);
  EntryFrame frame;
  SECURITY_STATUS status = NTE_INTERNAL_ERROR;
  try {
    status = body(frame);
  } catch (...) {
    status = RefuseException();
  }
  if (!frame.HasExitLines()) return status;
  if (lines.exitHasStatus) {
    g_Log->WriteHex32(lines.exit, static_cast<std::uint32_t>(status));
  } else {
    g_Log->WriteLine(lines.exit);
  }
  g_Log->WriteLine(logformat::kClosingBanner);
  return status;
}
