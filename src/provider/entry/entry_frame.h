// The frame that every table entry puts around its work: banner, entry line, argument lines, exit line, banner.
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

#include "diag/debug_log.h"
#include "provider/entry/provider_cache.h"
#include "support/windows.h"

// What is particular to one entry's frame. Most exit lines end in ": " and the status; the few that differ say so here.
struct EntryLines {
  const char* entry = nullptr;
  const char* exit = nullptr;
  bool exitHasStatus = true;
  bool keepsProviderCache = false;
};

// One argument of an entry and the line that tells of it: the label with its padding and ": ", and the value.
class EntryArgument {
 public:
  // The low 32 bits of a number, handle or flag word as "0x%08X".
  EntryArgument(const char* label, ULONG_PTR value) noexcept : label_(label), value_(value) {}
  // The low 32 bits of the address.
  EntryArgument(const char* label, const void* address) noexcept
      : EntryArgument(label, reinterpret_cast<ULONG_PTR>(address)) {}
  // The text in narrow characters; nothing for a null pointer.
  EntryArgument(const char* label, const wchar_t* text) noexcept : kind_(Kind::kText), label_(label), text_(text) {}
  // A line that stands whatever the value is.
  explicit EntryArgument(const char* line) noexcept : kind_(Kind::kLine), label_(line) {}

  void Log() const noexcept {
    switch (kind_) {
      case Kind::kNumber:
        g_Log->WriteHex32Main(label_, static_cast<std::uint32_t>(value_));
        break;
      case Kind::kText:
        g_Log->WriteWide(label_, text_);
        break;
      case Kind::kLine:
        g_Log->WriteLine(label_);
        break;
    }
  }

 private:
  enum class Kind { kNumber, kText, kLine };

  Kind kind_ = Kind::kNumber;
  const char* label_;
  ULONG_PTR value_ = 0;
  const wchar_t* text_ = nullptr;
};

// Lets an entry's body leave without exit line and closing banner.
struct EntryFrame {
  bool exitLines = true;
};

// Runs the body of an entry, its checks and its work, inside the entry's lines; the body returns the entry's status and
// may take the frame. The provider cache is cleared first, unless the entry says that it keeps it. Nothing that the
// body throws escapes. logResult writes what stands before the exit line however the body has ended; it throws nothing.
template <class Body, class LogResult>
SECURITY_STATUS RunEntry(const EntryLines& lines, std::span<const EntryArgument> arguments, Body&& body,
                         LogResult&& logResult) noexcept {
  g_Log->WriteLine(logformat::kBanner);
  g_Log->WriteLine(lines.entry);
  EntryFrame frame;
  SECURITY_STATUS status = NTE_INTERNAL_ERROR;
  try {
    for (const EntryArgument& argument : arguments)
      argument.Log();
    if (!lines.keepsProviderCache) ClearProviderCache();
    if constexpr (std::is_invocable_v<Body, EntryFrame&>) {
      status = body(frame);
    } else {
      status = body();
    }
  } catch (const std::bad_alloc&) {
    status = g_Log->Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Not enough memory to complete the operation");
  } catch (...) {
    status = g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: The operation ended with an unexpected exception");
  }
  logResult();
  if (!frame.exitLines) return status;
  if (lines.exitHasStatus) {
    g_Log->WriteHex32(lines.exit, static_cast<std::uint32_t>(status));
  } else {
    g_Log->WriteLine(lines.exit);
  }
  g_Log->WriteLine(logformat::kClosingBanner);
  return status;
}

template <class Body>
SECURITY_STATUS RunEntry(const EntryLines& lines, std::span<const EntryArgument> arguments, Body&& body) noexcept {
  return RunEntry(lines, arguments, std::forward<Body>(body), [] {});
}
