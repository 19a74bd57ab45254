// A key storage provider that does nothing but remember how it was called, for the tests of the router.
#pragma once

#include <windows.h>

#include <array>

#include "router/key_storage_interface.h"

namespace dummy {

inline constexpr std::size_t kMaxArguments = 8;

// One call of a table entry: its name, the handles, and the other arguments in their order, as numbers.
struct Call {
  const char* name;
  ULONG_PTR provider;
  ULONG_PTR object;
  std::array<ULONG_PTR, kMaxArguments> arguments;
};

struct State {
  std::array<Call, 64> calls;  // the first ones since the last reset
  volatile LONG callCount;
  volatile LONG openProviders;
  volatile LONG freedBuffers;
  // What the provider answers from now on.
  SECURITY_STATUS status;
  NTSTATUS interfaceStatus;
  BOOL withoutTable;
  USHORT majorVersion;
  ULONG_PTR newHandle;  // what creating entries hand out
  // What GetKeyStorageInterface was asked for.
  std::array<wchar_t, 64> interfaceName;
  std::array<wchar_t, 64> openedName;
};

using StateFn = State*(WINAPI*)();

}  // namespace dummy
