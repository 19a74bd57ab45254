// What a process has little of, and what a DLL that is unloaded should have given back.
#pragma once

#include <windows.h>

#include <cstddef>

namespace hosts {

// The index of thread-local storage that is handed out next.
inline DWORD NextTlsIndex() {
  const DWORD index = TlsAlloc();
  TlsFree(index);
  return index;
}

// Asks for each handle, since Wine does not count them.
inline std::size_t CountHandles() {
  constexpr ULONG_PTR kLast = 0x10000;
  std::size_t count = 0;
  for (ULONG_PTR handle = 4; handle < kLast; handle += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(handle), &flags)) ++count;
  }
  return count;
}

}  // namespace hosts
