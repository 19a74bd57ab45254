#include "files.h"

#include "output.h"

namespace keldactl {
namespace {

class File {
 public:
  File(const std::wstring& path, DWORD access, DWORD disposition, const std::wstring& operation)
      : handle_(
            CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr)) {
    if (handle_ == INVALID_HANDLE_VALUE) throw Failure(operation, static_cast<long>(GetLastError()));
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { CloseHandle(handle_); }
  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_;
};

}  // namespace

void ReadFileInPieces(const std::wstring& path, const std::function<void(const uint8_t*, size_t)>& take) {
  const std::wstring operation = L"Reading " + Quoted(path);
  const File file(path, GENERIC_READ, OPEN_EXISTING, operation);
  Bytes piece(0x10000);
  for (;;) {
    DWORD count = 0;
    if (!ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr)) {
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
    if (content.size() + size > kMost) throw Failure(L"Reading " + Quoted(path) + L" failed: the file is too large");
    content.insert(content.end(), data, data + size);
  });
  return content;
}

void WriteWholeFile(const std::wstring& path, const Bytes& content) {
  const std::wstring operation = L"Writing " + Quoted(path);
  const File file(path, GENERIC_WRITE, CREATE_ALWAYS, operation);
  DWORD written = 0;
  if (!WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr) ||
      written != content.size()) {
    throw Failure(operation, static_cast<long>(GetLastError()));
  }
}

}  // namespace keldactl
