// The debug log: every line goes to the debugger and, when the registry switches it on, to the log file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "diag/log_format.h"
#include "support/windows.h"

// Registry home of the provider's own settings, under HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kSettingsKey[] = L"Software\\Norvale Token Works Ltd.\\KELDA SDK";

// One writer. Several exist and all append to the same file. Whether an instance writes to the file is decided once, in
// its constructor; no failure of the log is ever reported to a caller, and no operation throws.
class DebugClass {
 public:
  // level is kept and used for nothing. With writeStartLine the line that marks a load of the provider is written.
  DebugClass(std::int32_t level, std::int32_t writeStartLine) noexcept;
  ~DebugClass();
  DebugClass(const DebugClass&) = delete;
  DebugClass& operator=(const DebugClass&) = delete;

  // Sends text (zero-terminated) to the debugger, and with a line end to the file.
  void WriteLine(const char* text) noexcept;
  // Label followed by "0x%08X".
  void WriteHex32(const char* label, std::uint32_t value) noexcept;
  // Label followed by a dump of at most 500 bytes, or by "NULL" when there is no data.
  void WriteBytes(const char* label, const void* data, std::size_t length) noexcept;
  // Label followed by the text (zero-terminated or null) in narrow characters; a text of more than 511 characters or
  // with a character above 0xFF leaves the value empty.
  void WriteWide(const char* label, const wchar_t* text) noexcept;
  // Label followed by text of at most 1500 characters.
  void WriteText(const char* label, const char* text) noexcept;

 private:
  void WriteText(const char* label, const char* text, std::size_t cchText) noexcept;
  bool OpenFile() noexcept;
  void CloseFile() noexcept;
  void Start(std::int32_t level, std::int32_t writeStartLine) noexcept;

  std::uint32_t enabled_ = 0;
  std::int32_t level_ = 0;
  std::uint32_t reserved_ = 0;
  __time64_t startTime_ = 0;
  std::uint32_t lastRegStatus_ = 0;
  char startLine_[logformat::kStartLineSize] = {};
  wchar_t logSwitch_[16] = {};
  wchar_t logPath_[2048] = {};
  DWORD cbLogSwitch_ = 0;
  DWORD cbLogPath_ = 0;
  std::FILE* file_ = nullptr;
};

// A log instance that may be missing (no memory at load): writing through a missing one does nothing.
class LogPointer {
 public:
  constexpr LogPointer() noexcept = default;
  constexpr explicit LogPointer(DebugClass* instance) noexcept : instance_(instance) {}

  // Allocates an instance; the pointer is empty when there is no memory.
  static LogPointer Create(std::int32_t level, std::int32_t writeStartLine) noexcept;
  // Destroys an instance made by Create.
  void Destroy() noexcept;

  const LogPointer* operator->() const noexcept { return this; }
  explicit operator bool() const noexcept { return instance_ != nullptr; }

  void WriteLine(const char* text) const noexcept;
  // Writes why something is refused or has failed, and gives the status back for returning it.
  SECURITY_STATUS Refuse(SECURITY_STATUS status, const char* text) const noexcept;
  void WriteHex32(const char* label, std::uint32_t value) const noexcept;
  // The same line, but always through the main instance g_Log, whatever instance it is asked of: entries use it for
  // their argument lines. Kept on purpose.
  void WriteHex32Main(const char* label, std::uint32_t value) const noexcept;
  // Label followed by "%d", always through the key-name instance g_KeyNameLog. Kept on purpose.
  void WriteInt(const char* label, std::int32_t value) const noexcept;
  void WriteBytes(const char* label, const void* data, std::size_t length) const noexcept;
  void WriteWide(const char* label, const wchar_t* text) const noexcept;

 private:
  DebugClass* instance_ = nullptr;
};

// The instances that live as long as the process, in the order of their creation (provider/process_objects.cpp makes
// them).
extern LogPointer g_KeyNameLog;  // key names and key object list
extern LogPointer g_Log;         // every table entry
extern LogPointer g_PinLog;      // login and PIN dialog
