// Everything but the configuration of providers is the platform's own bcrypt.dll, which is loaded by its full path: by
// its name alone a program would meet this DLL again.

#include "bcrypt/forwarding.h"

#include <windows.h>

#include <bcrypt.h>

namespace {

decltype(&BCryptFreeBuffer) g_free_buffer = nullptr;

constexpr DWORD kEntryPointNotFound = 0xC0000139;

// What a caller gets who needs a function that the platform lacks; without this DLL it would not have started.
[[noreturn]] void MissingFunction() {
  RaiseException(kEntryPointNotFound, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  ExitProcess(kEntryPointNotFound);
}

}  // namespace

#define STRING_OF(text) #text
#define STRING(text) STRING_OF(text)
#define LABEL(name) STRING(__USER_LABEL_PREFIX__) #name
#ifdef _WIN64
#define SLOT(name) LABEL(name##_slot) "(%rip)"
#else
#define SLOT(name) LABEL(name##_slot)
#endif

// A jump leaves arguments and stack as they are, so no signature has to be known here.
#define FORWARD(name)                              \
  extern "C" void* name##_slot;                    \
  void* name##_slot = nullptr;                     \
  __asm__(".text\n.globl " LABEL(name) "\n" LABEL( \
      name) ":\n"                                  \
            "  jmp *" SLOT(name) "\n");
#include "bcrypt/forwarded_functions.inc"
#undef FORWARD

namespace {

void FindFunction(HMODULE platform, const char* name, void** slot) {
  *slot = reinterpret_cast<void*>(GetProcAddress(platform, name));
  if (*slot == nullptr) *slot = reinterpret_cast<void*>(&MissingFunction);
}

bool FindFunctions() {
  wchar_t path[MAX_PATH + 16];
  const UINT length = GetSystemDirectoryW(path, MAX_PATH);
  if (length == 0 || length > MAX_PATH) return false;
  lstrcpyW(path + length, L"\\bcrypt.dll");
  const HMODULE platform = LoadLibraryW(path);
  if (platform == nullptr) return false;
#define FORWARD(name) FindFunction(platform, #name, &name##_slot);
#include "bcrypt/forwarded_functions.inc"
#undef FORWARD
  g_free_buffer =
      reinterpret_cast<decltype(g_free_buffer)>(reinterpret_cast<void*>(GetProcAddress(platform, "BCryptFreeBuffer")));
  return g_free_buffer != nullptr;
}

}  // namespace

void standin::FreeByPlatform(void* block) {
  g_free_buffer(block);
}

// The platform's DLL needs nothing that is not loaded before any program's own DLLs, so it can be loaded from here.
BOOL WINAPI DllMain(HINSTANCE /*module*/, DWORD reason, LPVOID /*reserved*/) {
  return reason != DLL_PROCESS_ATTACH || FindFunctions();
}
