#include "client.h"

#include <algorithm>

namespace installer {
namespace {

class Handle {
 public:
  Handle() = default;
  ~Handle() { Close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE Get() const { return handle_; }
  HANDLE* Out() { return &handle_; }
  void Close() {
    if (handle_ != nullptr) CloseHandle(handle_);
    handle_ = nullptr;
  }

 private:
  HANDLE handle_ = nullptr;
};

std::wstring Wide(const std::string& text) {
  if (text.empty()) return {};
  const int size = static_cast<int>(text.size());
  std::wstring wide(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

std::vector<std::wstring> LinesOf(const std::string& text) {
  std::vector<std::wstring> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    std::string line = text.substr(begin, end - begin);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(Wide(line));
    begin = end + 1;
  }
  return lines;
}

std::string ReadAll(HANDLE pipe) {
  std::string all;
  char part[4096];
  DWORD size = 0;
  while (ReadFile(pipe, part, sizeof part, &size, nullptr) && size > 0)
    all.append(part, size);
  return all;
}

}  // namespace

ClientResult RunClient(const Journal& journal, const std::wstring& program, const std::wstring& arguments) {
  ClientResult result;
  std::wstring line = L"\"" + program + L"\" " + arguments;
  journal.Note(L"Running " + line);

  SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
  Handle output;
  Handle input;
  if (!CreatePipe(input.Out(), output.Out(), &inherited, 0)) {
    result.status = GetLastError();
    return result;
  }
  SetHandleInformation(input.Get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = output.Get();
  start.hStdError = output.Get();
  PROCESS_INFORMATION created = {};
  if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &start,
                      &created)) {
    result.status = GetLastError();
    return result;
  }
  Handle process;
  *process.Out() = created.hProcess;
  CloseHandle(created.hThread);
  // The pipe ends with the program only when nobody else can write to it.
  output.Close();
  result.lines = LinesOf(ReadAll(input.Get()));
  WaitForSingleObject(process.Get(), INFINITE);
  result.started = GetExitCodeProcess(process.Get(), &result.status) != FALSE;
  for (const std::wstring& said : result.lines)
    journal.Note(L"keldactl: " + said);
  return result;
}

bool NeedClient(const Journal& journal, const std::wstring& program, const std::wstring& arguments) {
  const ClientResult result = RunClient(journal, program, arguments);
  if (result.Done()) return true;
  std::wstring text = L"\"keldactl " + arguments + L"\" ";
  text += (result.started ? L"ended with status " : L"could not be started, error ") + std::to_wstring(result.status);
  for (const std::wstring& said : result.lines)
    text += L"\n" + said;
  journal.Fail(text);
  return false;
}

}  // namespace installer
