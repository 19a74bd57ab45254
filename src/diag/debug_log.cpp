#include "diag/debug_log.h"

#include <share.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "support/text.h"
#include "support/wipe.h"

LogPointer g_KeyNameLog;
LogPointer g_Log;
LogPointer g_PinLog;

namespace {

// Characters of a line with a value: labels are texts of this DLL, and the longest value is a dump.
constexpr std::size_t kLongestLabel = 256;
constexpr std::size_t kLongestValue = logformat::kMaxDumpedBytes * 3;

}  // namespace

DebugClass::DebugClass(std::int32_t level, std::int32_t writeStartLine) noexcept {
  OutputDebugStringW(L"DebugClass ctor - Enter");
  cbLogSwitch_ = sizeof(logSwitch_);
  cbLogPath_ = sizeof(logPath_);
  Start(level, writeStartLine);
}

// Returns early, and then without the exit line, when the log stays off.
void DebugClass::Start(std::int32_t level, std::int32_t writeStartLine) noexcept {
  lastRegStatus_ = static_cast<std::uint32_t>(
      RegGetValueW(HKEY_LOCAL_MACHINE, kSettingsKey, L"KSPLOG", RRF_RT_REG_SZ, nullptr, logSwitch_, &cbLogSwitch_));
  if (lastRegStatus_ != ERROR_SUCCESS) return;
  if (WideEqual(logSwitch_, L"00000000")) return;
  lastRegStatus_ = static_cast<std::uint32_t>(
      RegGetValueW(HKEY_LOCAL_MACHINE, kSettingsKey, L"KSPDIR", RRF_RT_REG_SZ, nullptr, logPath_, &cbLogPath_));
  if (lastRegStatus_ != ERROR_SUCCESS) return;

  // A path that cannot be opened now does not switch the log off: it may become valid later.
  const bool open = OpenFile();
  enabled_ = 1;
  level_ = level;
  reserved_ = 0;
  if (writeStartLine != 0) {
    startTime_ = _time64(nullptr);
    const char* text = _ctime64(&startTime_);
    logformat::StartLine(startLine_, text != nullptr ? text : "");
    if (open) std::fputs(startLine_, file_);
  }
  CloseFile();
  OutputDebugStringW(L"DebugClass ctor - Exit");
}

DebugClass::~DebugClass() {
  CloseFile();
}

bool DebugClass::OpenFile() noexcept {
  CloseFile();
  // Reading, writing and appending, shared with whoever reads or moves the file meanwhile.
  file_ = _wfsopen(logPath_, L"a+t", _SH_DENYNO);
  return file_ != nullptr;
}

void DebugClass::CloseFile() noexcept {
  if (file_ == nullptr) return;
  std::fclose(file_);
  file_ = nullptr;
}

void DebugClass::WriteLine(const char* text) noexcept {
  OutputDebugStringA(text);
  if (enabled_ == 0) return;
  // A stream of the call's own: threads share the instance, and no lock is taken for a line.
  std::FILE* file = _wfsopen(logPath_, L"a+t", _SH_DENYNO);
  if (file == nullptr) return;
  std::fputs(text, file);
  std::fputc('\n', file);
  std::fflush(file);
  std::fclose(file);
}

// The line is put together on the stack: when there is no memory on the heap, lines are missed most. No label of this
// DLL is longer than there is room for; one that were would ask the heap, and be cut without it.
void DebugClass::WriteText(const char* label, const char* text, std::size_t cchText) noexcept {
  char room[kLongestLabel + kLongestValue + 1];
  std::size_t cchLabel = std::strlen(label);
  WipedArray<char> longer;
  if (cchLabel + cchText >= sizeof(room)) longer = WipedArray<char>::Try(cchLabel + cchText + 1);
  char* line = room;
  if (!longer.empty()) {
    line = longer.data();
  } else {
    cchLabel = std::min(cchLabel, sizeof(room) - 1 - cchText);
  }
  *std::copy_n(text, cchText, std::copy_n(label, cchLabel, line)) = '\0';
  WriteLine(line);
  SecureWipe(line, cchLabel + cchText);
}

void DebugClass::WriteText(const char* label, const char* text) noexcept {
  WriteText(label, text, std::strlen(text));
}

void DebugClass::WriteHex32(const char* label, std::uint32_t value) noexcept {
  char text[logformat::kHex32Size];
  logformat::Hex32(text, value);
  WriteText(label, text, sizeof(text) - 1);
}

void DebugClass::WriteBytes(const char* label, const void* data, std::size_t length) noexcept {
  char text[kLongestValue + 1];
  logformat::HexDump(text, data, length);
  const std::size_t cchText = logformat::HexDumpSize(data, length) - 1;
  WriteText(label, text, cchText);
  SecureWipe(text, cchText);
}

void DebugClass::WriteWide(const char* label, const wchar_t* text) noexcept {
  char narrow[512] = {};
  const std::size_t written = NarrowText(narrow, sizeof(narrow), text);
  WriteText(label, narrow);
  SecureWipe(narrow, written);
}

LogPointer LogPointer::Create(std::int32_t level, std::int32_t writeStartLine) noexcept {
  return LogPointer(new (std::nothrow) DebugClass(level, writeStartLine));
}

void LogPointer::Destroy() noexcept {
  delete instance_;
  instance_ = nullptr;
}

void LogPointer::WriteLine(const char* text) const noexcept {
  if (instance_ != nullptr) instance_->WriteLine(text);
}

SECURITY_STATUS LogPointer::Refuse(SECURITY_STATUS status, const char* text) const noexcept {
  WriteLine(text);
  return status;
}

void LogPointer::WriteHex32(const char* label, std::uint32_t value) const noexcept {
  if (instance_ != nullptr) instance_->WriteHex32(label, value);
}

void LogPointer::WriteHex32Main(const char* label, std::uint32_t value) const noexcept {
  g_Log.WriteHex32(label, value);
}

void LogPointer::WriteInt(const char* label, std::int32_t value) const noexcept {
  if (!g_KeyNameLog) return;
  char text[logformat::kDecimalSize];
  logformat::Decimal(text, value);
  g_KeyNameLog.instance_->WriteText(label, text);
}

void LogPointer::WriteBytes(const char* label, const void* data, std::size_t length) const noexcept {
  if (instance_ != nullptr) instance_->WriteBytes(label, data, length);
}

void LogPointer::WriteWide(const char* label, const wchar_t* text) const noexcept {
  if (instance_ != nullptr) instance_->WriteWide(label, text);
}
