// A key storage provider that does nothing but remember how it was called, for the tests of the router.
#ifndef KELDA_TESTS_STANDINS_DUMMY_PROVIDER_H_
#define KELDA_TESTS_STANDINS_DUMMY_PROVIDER_H_

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
  volatile LONG call_count;
  volatile LONG open_providers;
  volatile LONG freed_buffers;
  // What the provider answers from now on.
  SECURITY_STATUS status;
  NTSTATUS interface_status;
  BOOL without_table;
  USHORT major_version;
  ULONG_PTR new_handle;  // what creating entries hand out
  // What GetKeyStorageInterface was asked for.
  std::array<wchar_t, 64> interface_name;
  std::array<wchar_t, 64> opened_name;
};

using StateFn = State*(WINAPI*)();

}  // namespace dummy

#endif  // KELDA_TESTS_STANDINS_DUMMY_PROVIDER_H_
