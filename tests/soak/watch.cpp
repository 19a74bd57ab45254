#include "soak/watch.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "kit/imports.h"
#include "kit/provider.h"
#include "soak/heap.h"
#include "soak/sequence.h"

namespace soak {
namespace {

Position g_position{0, 0, "nothing yet", ""};
std::atomic<std::uint64_t> g_progress{0};
std::atomic<bool> g_busy{false};

[[noreturn]] void Stop(UINT code) {
  std::fflush(stdout);
  TerminateProcess(GetCurrentProcess(), code);
  for (;;)
    Sleep(INFINITE);
}

// Addresses inside the DLL that lie on the stack: most of them are where calls return to. They are what
// `addr2line` wants after the DLL's preferred base has been added.
void PrintStack(const void* from) {
  const auto* base = reinterpret_cast<const char*>(GetModuleHandleW(L"keldaksp.dll"));
  if (!base) return;
  MEMORY_BASIC_INFORMATION region;
  if (!VirtualQuery(from, &region, sizeof region)) return;
  const auto* nt =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto* end = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
  int shown = 0;
  for (const char* at = static_cast<const char*>(from); at + sizeof(void*) <= end && shown < 24; at += sizeof(void*)) {
    const char* value = nullptr;
    std::memcpy(&value, at, sizeof value);
    if (value < base || value >= base + nt->OptionalHeader.SizeOfImage) continue;
    std::printf("  keldaksp.dll+0x%llx\n", static_cast<unsigned long long>(value - base));
    ++shown;
  }
}

LONG WINAPI OnCrash(EXCEPTION_POINTERS* pointers) {
  char what[128];
  const auto* base = reinterpret_cast<const char*>(GetModuleHandleW(L"keldaksp.dll"));
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  std::snprintf(what, sizeof what, "exception 0x%08lX at %p (keldaksp.dll%+lld), address %p", record.ExceptionCode,
                record.ExceptionAddress,
                static_cast<long long>(static_cast<const char*>(record.ExceptionAddress) - base),
                reinterpret_cast<void*>(record.NumberParameters > 1 ? record.ExceptionInformation[1] : 0));
  PrintPosition(what);
#ifdef _WIN64
  PrintStack(reinterpret_cast<const void*>(pointers->ContextRecord->Rsp));
#else
  PrintStack(reinterpret_cast<const void*>(pointers->ContextRecord->Esp));
#endif
  Stop(91);
}

// A window procedure's crash is caught by the system, and the soak would go on as if nothing had been: what the DLL
// does wrong itself, or does to a page that guards a block, is told at once.
LONG CALLBACK OnException(EXCEPTION_POINTERS* pointers) {
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  const DWORD code = record.ExceptionCode;
  if (!g_busy || (code != EXCEPTION_ACCESS_VIOLATION && code != EXCEPTION_ILLEGAL_INSTRUCTION &&
                  code != EXCEPTION_INT_DIVIDE_BY_ZERO && code != EXCEPTION_STACK_OVERFLOW)) {
    return EXCEPTION_CONTINUE_SEARCH;
  }
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     static_cast<LPCWSTR>(record.ExceptionAddress), &module);
  const bool inTheDll = module && module == GetModuleHandleW(L"keldaksp.dll");
  const bool atAGuard = code == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters > 1 &&
                        Heap::Get().Guards(record.ExceptionInformation[1]);
  return inTheDll || atAGuard ? OnCrash(pointers) : LONG{EXCEPTION_CONTINUE_SEARCH};
}

void __cdecl OnAbort() {
  PrintPosition("the DLL called abort()");
  int here = 0;
  PrintStack(&here);
  Stop(92);
}

void __cdecl OnExit(int) {
  PrintPosition("the DLL called exit()");
  Stop(93);
}

// Where the hanging thread is inside the DLL.
void PrintStackOf(HANDLE thread) {
  CONTEXT context{};
  context.ContextFlags = CONTEXT_CONTROL;
  if (SuspendThread(thread) == static_cast<DWORD>(-1) || !GetThreadContext(thread, &context)) return;
#ifdef _WIN64
  PrintStack(reinterpret_cast<const void*>(context.Rsp));
#else
  PrintStack(reinterpret_cast<const void*>(context.Esp));
#endif
}

void Watch(HANDLE thread) {
  constexpr DWORD kLimit = 60000;
  const HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::uint64_t seen = g_progress;
  for (;;) {
    WaitForSingleObject(never, kLimit);
    const std::uint64_t now = g_progress;
    if (g_busy && now == seen) {
      PrintPosition("a call hangs");
      PrintStackOf(thread);
      Stop(94);
    }
    seen = now;
  }
}

}  // namespace

void StartWatch() {
  AddVectoredExceptionHandler(1, &OnException);
  SetUnhandledExceptionFilter(&OnCrash);
  kit::Imports::Get().Replace("abort", reinterpret_cast<void*>(&OnAbort));
  kit::Imports::Get().Replace("exit", reinterpret_cast<void*>(&OnExit));
  HANDLE thread = nullptr;
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  std::thread(&Watch, thread).detach();
}

void SetPosition(const Position& position) {
  g_position = position;
  ++g_progress;
  g_busy = true;
}

void SetIdle() {
  g_busy = false;
}

void PrintPosition(const char* what) {
  std::printf("soak: %s\nsoak: seed %llu, call %u (%s); replay with soak_tests.exe --seed %llu --calls %u%s\n", what,
              static_cast<unsigned long long>(g_position.seed), g_position.call, g_position.entry,
              static_cast<unsigned long long>(g_position.seed), kCallsOfASequence, g_position.options);
  std::fflush(stdout);
}

}  // namespace soak
