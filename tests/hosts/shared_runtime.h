// A 32-bit program of MinGW's that shares its runtime library: libgcc_s_dw2-1.dll is there before the provider is.
#pragma once

#ifdef __i386__

#include <windows.h>

#include <stdexcept>
#include <string>

#include "kit/provider.h"

namespace hosts {

// Throws when the libraries are not where the build puts them.
inline void LoadSharedRuntime() {
  const std::wstring folder = kit::ProgramFolder() + L"..\\hosts\\";
  for (const wchar_t* library : {L"libwinpthread-1.dll", L"libgcc_s_dw2-1.dll"}) {
    if (LoadLibraryW((folder + library).c_str()) == nullptr) throw std::runtime_error("a shared library is missing");
  }
}

}  // namespace hosts

#endif
