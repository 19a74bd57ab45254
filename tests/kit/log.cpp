#include "kit/log.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <utility>

#include <gtest/gtest.h>

#include "kit/imports.h"
#include "kit/registry.h"

namespace kit {
namespace {

constexpr DWORD kDebuggerNarrow = 0x40010006;
constexpr DWORD kDebuggerWide = 0x4001000A;

// Set while the provider itself sends a line: GoogleTest talks to the debugger as well.
thread_local bool t_fromProvider = false;

LONG CALLBACK OnException(EXCEPTION_POINTERS* pointers) {
  const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
  if (record->ExceptionCode == kDebuggerNarrow && record->NumberParameters >= 2) {
    // The length counts the terminator.
    const auto length = static_cast<std::size_t>(record->ExceptionInformation[0]);
    const auto* text = reinterpret_cast<const char*>(record->ExceptionInformation[1]);
    if (t_fromProvider) Log::Get().NoteDebugger(text, length ? length - 1 : 0);
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  if (record->ExceptionCode == kDebuggerWide) return EXCEPTION_CONTINUE_EXECUTION;
  return EXCEPTION_CONTINUE_SEARCH;
}

// The file from the given byte on; `end` receives the position behind its last byte.
std::string ReadFrom(const std::wstring& path, std::size_t begin, std::size_t& end) {
  end = begin;
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return {};
  const std::size_t size = GetFileSize(file, nullptr);
  std::string raw(size > begin ? size - begin : 0, '\0');
  DWORD read = 0;
  SetFilePointer(file, static_cast<LONG>(begin), nullptr, FILE_BEGIN);
  if (!ReadFile(file, raw.data(), static_cast<DWORD>(raw.size()), &read, nullptr)) read = 0;
  CloseHandle(file);
  raw.resize(read);
  end = begin + read;
  std::string text;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n') continue;
    text += raw[i];
  }
  return text;
}

}  // namespace

Log& Log::Get() {
  static Log log;
  return log;
}

void Log::Install() {
  wchar_t temporary[MAX_PATH];
  GetTempPathW(MAX_PATH, temporary);
  folder_ = std::wstring(temporary) + L"kelda_" + std::to_wstring(GetCurrentProcessId());
  CreateDirectoryW(folder_.c_str(), nullptr);
  EmptyFolder();  // a process of the same number may have been stopped here
  AddVectoredExceptionHandler(1, &OnException);
  static const Hook<"OutputDebugStringA", decltype(&OutputDebugStringA)> narrow([](auto original, LPCSTR text) {
    t_fromProvider = true;
    original(text);
    t_fromProvider = false;
  });
  static const Hook<"OutputDebugStringW", decltype(&OutputDebugStringW)> wide([](auto original, LPCWSTR text) {
    Log::Get().NoteWide(text);
    original(text);
  });
  static const Hook<"RegGetValueW", decltype(&RegGetValueW)> reads(
      [](auto original, HKEY key, LPCWSTR subKey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data, LPDWORD size) {
        Registry::Get().NoteRead(value);
        if (value && std::wstring(value) == L"KSPDIR" && data && size) {
          const std::wstring path = Log::Get().NextPath();
          const std::size_t bytes = (path.size() + 1) * sizeof(wchar_t);
          if (!path.empty() && bytes <= *size) {
            std::copy(path.c_str(), path.c_str() + path.size() + 1, static_cast<wchar_t*>(data));
            *size = static_cast<DWORD>(bytes);
            return LSTATUS{ERROR_SUCCESS};
          }
        }
        return original(key, subKey, value, flags, type, data, size);
      });
  static const Hook<"RegQueryValueExW", decltype(&RegQueryValueExW)> queries(
      [](auto original, HKEY key, LPCWSTR value, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
        Registry::Get().NoteRead(value);
        return original(key, value, reserved, type, data, size);
      });
}

std::wstring Log::PathOf(int instance) const {
  return folder_ + L"\\" + std::to_wstring(generation_) + L"_" + std::to_wstring(instance) + L".log";
}

void Log::EmptyFolder() const {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder_ + L"\\*.log").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return;
  do {
    DeleteFileW((folder_ + L"\\" + found.cFileName).c_str());
  } while (FindNextFileW(search, &found));
  FindClose(search);
}

void Log::RemoveFiles() {
  EmptyFolder();
  RemoveDirectoryW(folder_.c_str());
}

void Log::Prepare(Mode mode) {
  EmptyFolder();
  TakeDebuggerLines();
  TakeWideLines();
  ++generation_;
  mode_ = mode;
  constructed_ = 0;
  offsets_.clear();
  spoken_.clear();
  known_ = 0;
  WriteSwitch();
}

void Log::WriteSwitch() {
  if (mode_ == Mode::Off) {
    Registry::Get().Remove(kSdkKey, L"KSPLOG");
    Registry::Get().Remove(kSdkKey, L"KSPDIR");
  } else {
    Registry::Get().SetString(kSdkKey, L"KSPLOG", L"1");
    Registry::Get().SetString(kSdkKey, L"KSPDIR", FilePath());
  }
}

std::wstring Log::FilePath() const {
  return PathOf(0);
}

std::string Log::FileText(int instance) const {
  std::size_t end = 0;
  return ReadFrom(PathOf(instance), 0, end);
}

std::wstring Log::NextPath() {
  const std::lock_guard guard(lock_);
  if (mode_ != Mode::Tagged) return {};
  return PathOf(++constructed_);
}

void Log::NoteDebugger(const char* text, std::size_t length) {
  const std::lock_guard guard(lock_);
  lines_.push_back({std::string(text, length), GetCurrentThreadId()});
}

void Log::NoteWide(const wchar_t* text) {
  const std::lock_guard guard(lock_);
  wide_.emplace_back(text ? text : L"");
}

std::vector<DebuggerLine> Log::TakeDebuggerLines() {
  const std::lock_guard guard(lock_);
  return std::exchange(lines_, {});
}

std::vector<std::wstring> Log::TakeWideLines() {
  const std::lock_guard guard(lock_);
  return std::exchange(wide_, {});
}

std::vector<Line> Log::Take() {
  const std::vector<DebuggerLine> lines = TakeDebuggerLines();
  std::vector<Line> result;
  if (mode_ != Mode::Tagged) {
    for (const DebuggerLine& line : lines)
      result.emplace_back(kNoInstance, line.text);
    return result;
  }

  // Usually the five lasting instances and the newly constructed ones speak; the others are looked at when these do not
  // account for every line.
  std::vector<int> instances;
  for (int i = 1; i <= constructed_; ++i) {
    if (i <= kPinLog || i > known_ || spoken_.contains(i)) instances.push_back(i);
  }
  known_ = constructed_;
  if (Assign(lines, instances, result)) return result;
  instances.clear();
  for (int i = 1; i <= constructed_; ++i)
    instances.push_back(i);
  if (Assign(lines, instances, result)) return result;
  result.clear();
  for (const DebuggerLine& line : lines)
    result.emplace_back(kNoInstance, line.text);
  ADD_FAILURE() << "the log files do not hold exactly the debugger's lines: " << lastMismatch_;
  for (int i : instances)
    offsets_[i] = FileText(i).size();
  return result;
}

// Every debugger line went to exactly one file. Files are read on from where the last Take ended; a line belongs to the
// file that holds it next. Where two files hold the same next line, both ways are tried.
bool Log::Assign(const std::vector<DebuggerLine>& lines, const std::vector<int>& instances, std::vector<Line>& result) {
  struct File {
    int instance;
    std::string text;
    std::size_t at;
    std::size_t end;  // in bytes of the file
  };
  std::vector<File> files;
  for (int i : instances) {
    File file{i, {}, 0, 0};
    file.text = ReadFrom(PathOf(i), offsets_[i], file.end);
    // The start line is in the file only.
    const std::string start = "\n\n" + std::string(66, '*') + " LOG START - ";
    if (offsets_[i] == 0 && file.text.starts_with(start)) {
      const std::size_t end = file.text.find('\n', start.size());
      file.at = end == std::string::npos ? file.text.size() : std::min(end + 2, file.text.size());
    }
    if (file.at < file.text.size()) files.push_back(std::move(file));
  }
  std::vector<std::size_t> tried(lines.size() + 1, 0);  // how many files were tried at each line
  std::size_t position = 0;
  std::size_t steps = 0;
  while (position < lines.size()) {
    if (++steps > 20 * lines.size() + 1000) return false;
    const std::string wanted = lines[position].text + "\n";
    std::size_t& next = tried[position];
    while (next < files.size() && files[next].text.compare(files[next].at, wanted.size(), wanted) != 0)
      ++next;
    if (next < files.size()) {
      files[next].at += wanted.size();
      ++next;
      tried[++position] = 0;
      continue;
    }
    if (position == 0) {
      lastMismatch_ = "no file begins with \"" + lines[0].text + "\"";
      return false;
    }
    --position;
    files[tried[position] - 1].at -= lines[position].text.size() + 1;
  }
  for (const File& file : files) {
    if (file.at == file.text.size()) continue;
    lastMismatch_ = "in file " + std::to_string(file.instance) + " only: \"" + file.text.substr(file.at) + "\"";
    return false;
  }
  for (std::size_t i = 0; i < lines.size(); ++i)
    result.emplace_back(files[tried[i] - 1].instance, lines[i].text);
  for (const File& file : files) {
    offsets_[file.instance] = file.end;
    spoken_.insert(file.instance);
  }
  return true;
}

void PrintTo(const Line& line, std::ostream* out) {
  static const char* const names[] = {"?", "key-name", "main", "module", "pin-manager", "pin"};
  *out << "[";
  if (line.instance >= 0 && line.instance < 6) {
    *out << names[line.instance];
  } else {
    *out << "instance " << line.instance;
  }
  *out << "] \"" << line.text << "\"";
}

std::string Hex32(const std::string& label, ULONGLONG value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(value & 0xFFFFFFFFU));
  return label + text;
}

std::string Pointer32(const std::string& label, const void* pointer) {
  return Hex32(label, reinterpret_cast<std::uintptr_t>(pointer));
}

Line Number(const std::string& label, long value) {
  return {kKeyNameLog, label + std::to_string(value)};
}
Line KeyName(std::string text) {
  return {kKeyNameLog, std::move(text)};
}
Line Pin(std::string text) {
  return {kPinLog, std::move(text)};
}
Line PinManager(std::string text) {
  return {kPinManagerLog, std::move(text)};
}

std::string Dump(const std::string& label, const std::vector<unsigned char>& bytes) {
  if (bytes.empty()) return label + "NULL";
  std::string text = label;
  for (std::size_t i = 0; i < bytes.size() && i < 500; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%02X ", bytes[i]);
    text += byte;
  }
  return text;
}

std::vector<Line> Join(std::initializer_list<std::vector<Line>> parts) {
  std::vector<Line> all;
  for (const std::vector<Line>& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

namespace {

// Where the lines of a building of the list begin and end; both the end of all when it was not built.
std::pair<std::vector<Line>::const_iterator, std::vector<Line>::const_iterator> ListRange(
    const std::vector<Line>& lines) {
  const auto first = std::find(lines.begin(), lines.end(), KeyName("InitializeObjectList - Entry"));
  const auto last = std::find(first, lines.end(), KeyName("InitializeObjectList - Exit"));
  if (last == lines.end()) return {lines.end(), lines.end()};
  return {first, last + 1};
}

}  // namespace

std::vector<Line> ListLines(const std::vector<Line>& lines) {
  const auto [first, last] = ListRange(lines);
  return std::vector<Line>(first, last);
}

std::vector<Line> WithoutListLines(const std::vector<Line>& lines) {
  const auto [first, last] = ListRange(lines);
  return Join({std::vector<Line>(lines.begin(), first), std::vector<Line>(last, lines.end())});
}

std::vector<Line> TakeBody(const std::vector<Line>& arguments) {
  const auto before = static_cast<std::ptrdiff_t>(arguments.size()) + 2;  // banner and entry line
  constexpr std::ptrdiff_t kAfter = 2;                                    // exit line and banner
  const std::vector<Line> all = Log::Get().Take();
  if (std::ssize(all) < before + kAfter) return all;
  return std::vector<Line>(all.begin() + before, all.end() - kAfter);
}

std::vector<Line> Frame(const std::string& entry, std::vector<Line> lines, LONG status) {
  std::vector<Line> frame{kBanner, entry + " - Entry"};
  frame.insert(frame.end(), lines.begin(), lines.end());
  frame.emplace_back(Hex32(entry + " - Exit: ", static_cast<ULONG>(status)));
  frame.emplace_back(kClosingBanner);
  return frame;
}

}  // namespace kit
