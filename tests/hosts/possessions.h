// What a process has little of, and what a DLL that is unloaded should have given back.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <cstddef>
#include <map>
#include <string>

namespace hosts {

// The index of thread-local storage that is handed out next.
inline DWORD NextTlsIndex() {
  const DWORD index = TlsAlloc();
  TlsFree(index);
  return index;
}

// The open handles by the kind of what they are for ("Event", "Thread", ...). Asks for each handle, since Wine does not
// count them.
inline std::map<std::wstring, std::size_t> HandlesByKind() {
  constexpr ULONG_PTR kLast = 0x10000;
  constexpr auto kTypeInformation = static_cast<OBJECT_INFORMATION_CLASS>(2);
  std::map<std::wstring, std::size_t> kinds;
  for (ULONG_PTR value = 4; value < kLast; value += 4) {
    const HANDLE handle = reinterpret_cast<HANDLE>(value);
    DWORD flags = 0;
    if (!GetHandleInformation(handle, &flags)) continue;
    union {
      UNICODE_STRING name;
      wchar_t room[512];
    } type = {};
    ULONG size = 0;
    const bool known = NtQueryObject(handle, kTypeInformation, &type, sizeof type, &size) >= 0;
    ++kinds[known ? std::wstring(type.name.Buffer, type.name.Length / sizeof(wchar_t)) : L"?"];
  }
  return kinds;
}

inline std::size_t CountHandles() {
  std::size_t count = 0;
  for (const auto& [kind, handles] : HandlesByKind())
    count += handles;
  return count;
}

}  // namespace hosts
