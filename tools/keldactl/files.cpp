#include "files.h"

#include "handle.h"
#include "output.h"
#include "standard_output.h"

namespace keldactl {
namespace {

// An open file, or a standard stream, which stays open. Win32's handles carry bytes as they are, in both directions.
class File {
 public:
  File(const std::wstring& path, DWORD access, DWORD disposition, const std::wstring& operation)
      : file_(IsStandardStream(path) ? nullptr
                                     : CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                                                   FILE_ATTRIBUTE_NORMAL, nullptr)),
        handle_(IsStandardStream(path) ? (access == GENERIC_READ ? GetStdHandle(STD_INPUT_HANDLE) : StandardOutput())
                                       : file_.get()) {
    if (handle_ == INVALID_HANDLE_VALUE || !handle_) throw Failure(operation, static_cast<long>(GetLastError()));
  }
  HANDLE get() const { return handle_; }

 private:
  Handle file_;  // none for a standard stream
  HANDLE handle_;
};

}  // namespace

bool IsStandardStream(const std::wstring& path) {
  return path == L"-";
}

std::wstring InName(const std::wstring& path) {
  return IsStandardStream(path) ? L"standard input" : Quoted(path);
}

std::wstring OutName(const std::wstring& path) {
  return IsStandardStream(path) ? L"standard output" : Quoted(path);
}

void SayUnlessPiped(const std::wstring& out, std::wstring_view line) {
  if (IsStandardStream(out)) {
    Complain(line);
  } else {
    Say(line);
  }
}

void RefuseTwoStandardInputs(const std::wstring& first, const std::wstring& second) {
  if (IsStandardStream(first) && IsStandardStream(second)) throw UsageError(L"standard input can be read only once");
}

void ReadFileInPieces(const std::wstring& path, const std::function<void(const uint8_t*, size_t)>& take) {
  const std::wstring operation = L"Reading " + InName(path);
  const File file(path, GENERIC_READ, OPEN_EXISTING, operation);
  Bytes piece(0x10000);
  for (;;) {
    DWORD count = 0;
    if (!ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr)) {
      // The end of a pipe whose writer is gone.
      if (GetLastError() == ERROR_BROKEN_PIPE) return;
      throw Failure(operation, static_cast<long>(GetLastError()));
    }
    if (count == 0) return;
    take(piece.data(), count);
  }
}

Bytes ReadWholeFile(const std::wstring& path) {
  constexpr size_t kMost = 0x1000000;
  Bytes content;
  ReadFileInPieces(path, [&](const uint8_t* data, size_t size) {
    if (content.size() + size > kMost) throw Failure(L"Reading " + InName(path) + L" failed: the file is too large");
    content.insert(content.end(), data, data + size);
  });
  return content;
}

void WriteWholeFile(const std::wstring& path, const Bytes& content) {
  const std::wstring operation = L"Writing " + OutName(path);
  const File file(path, GENERIC_WRITE, CREATE_ALWAYS, operation);
  // A pipe may take less than it is given.
  for (size_t at = 0; at < content.size();) {
    DWORD written = 0;
    if (!WriteFile(file.get(), content.data() + at, static_cast<DWORD>(content.size() - at), &written, nullptr) ||
        written == 0) {
      throw Failure(operation, static_cast<long>(GetLastError()));
    }
    at += written;
  }
}

void WriteText(const std::optional<std::wstring>& path, const Bytes& text, std::wstring_view done) {
  WriteWholeFile(path.value_or(L"-"), text);
  if (path) SayUnlessPiped(*path, done);
}

}  // namespace keldactl
