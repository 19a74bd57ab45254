#include "kit/process.h"

#include <windows.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

namespace kit {
namespace {

constexpr wchar_t kVariable[] = L"KELDA_TEST_SCENARIO";

std::map<std::string, int (*)()>& Scenarios() {
  static std::map<std::string, int (*)()> scenarios;
  return scenarios;
}

std::wstring Variable() {
  wchar_t value[128];
  const DWORD length = GetEnvironmentVariableW(kVariable, value, 128);
  return length < 128 ? std::wstring(value, length) : std::wstring();
}

}  // namespace

Scenario::Scenario(const char* name, int (*body)()) {
  Scenarios()[name] = body;
}

void Print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

ChildResult RunChild(const std::string& scenario) {
  SECURITY_ATTRIBUTES inheritable{};
  inheritable.nLength = sizeof inheritable;
  inheritable.bInheritHandle = TRUE;
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) throw std::runtime_error("CreatePipe");
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);

  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = writeEnd;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  SetEnvironmentVariableW(kVariable, std::wstring(scenario.begin(), scenario.end()).c_str());
  const BOOL started =
      CreateProcessW(program, nullptr, nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
  SetEnvironmentVariableW(kVariable, nullptr);
  CloseHandle(writeEnd);
  if (!started) {
    CloseHandle(readEnd);
    throw std::runtime_error("CreateProcess");
  }
  ChildResult result;
  char buffer[4096];
  DWORD read = 0;
  while (ReadFile(readEnd, buffer, sizeof buffer, &read, nullptr) && read)
    result.output.append(buffer, read);
  CloseHandle(readEnd);
  if (WaitForSingleObject(process.hProcess, 60000) != WAIT_OBJECT_0) TerminateProcess(process.hProcess, 99);
  GetExitCodeProcess(process.hProcess, &result.exitCode);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    result.lines.push_back(line);
  }
  return result;
}

bool IsChild() {
  return !Variable().empty();
}

int RunScenario() {
  const std::wstring name = Variable();
  SetEnvironmentVariableW(kVariable, nullptr);
  const auto found = Scenarios().find(std::string(name.begin(), name.end()));
  if (found == Scenarios().end()) return 98;
  return found->second();
}

}  // namespace kit
