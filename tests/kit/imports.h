// The import table of keldaksp.dll in the hands of the tests. From the moment the DLL is mapped (before its DllMain
// runs) every imported function goes through a thunk that can write the call down, and any of them can be replaced.
#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kit {

struct ImportCall {
  std::string name;
  DWORD thread;
};

class Imports {
 public:
  static Imports& Get();

  // Puts thunks in front of all imported functions of the module. Called by the loader notification.
  void Attach(HMODULE module);
  void Detach();

  bool Has(const std::string& name) const;
  // "advapi32.dll!RegGetValueW" and so on, as the file lists them.
  std::vector<std::string> Names() const;
  // The function that the loader resolved; nullptr before the DLL is loaded or when it does not import the name.
  void* Original(const std::string& name) const;

  // Replacements are kept by name and also hold for later loads of the DLL.
  void Replace(const std::string& name, void* function);
  void Restore(const std::string& name);

  // Writes down the imported functions that the DLL calls, on every thread.
  void StartRecording();
  std::vector<ImportCall> StopRecording();

 private:
  struct Slot {
    std::string module;
    std::string name;
    void** address;
    void* original;
    void** cell;  // what the thunk jumps to
  };

  std::vector<Slot> slots_;
  std::map<std::string, void*> replacements_;
};

// A name as a template argument.
template <std::size_t N>
struct Name {
  char text[N] = {};
  constexpr Name(const char (&source)[N]) {  // implicit: written as a string literal
    for (std::size_t i = 0; i < N; ++i)
      text[i] = source[i];
  }
};

namespace detail {
template <Name ImportName, typename Function>
struct Entry;

#define KIT_HOOK_ENTRY(CONVENTION)                                                                          \
  template <Name ImportName, typename Result, typename... Arguments>                                        \
  struct Entry<ImportName, Result(CONVENTION*)(Arguments...)> {                                             \
    using Function = Result(CONVENTION*)(Arguments...);                                                     \
    static inline std::function<Result(Function original, Arguments...)> behaviour;                         \
    static Result CONVENTION Call(Arguments... arguments) {                                                 \
      return behaviour(reinterpret_cast<Function>(Imports::Get().Original(ImportName.text)), arguments...); \
    }                                                                                                       \
  }
KIT_HOOK_ENTRY(__cdecl);
#ifdef __i386__
KIT_HOOK_ENTRY(__stdcall);
#endif
#undef KIT_HOOK_ENTRY
}  // namespace detail

// Replaces one imported function while it lives:
//   Hook<"VirtualLock", decltype(&VirtualLock)> hook([](auto original, LPVOID block, SIZE_T size) { ... });
// One hook for a name at a time.
template <Name ImportName, typename Function>
class Hook {
 public:
  template <typename Behaviour>
  explicit Hook(Behaviour behaviour) {
    detail::Entry<ImportName, Function>::behaviour = std::move(behaviour);
    Imports::Get().Replace(ImportName.text, reinterpret_cast<void*>(&detail::Entry<ImportName, Function>::Call));
  }
  ~Hook() { Imports::Get().Restore(ImportName.text); }
  Hook(const Hook&) = delete;
  Hook& operator=(const Hook&) = delete;
};

}  // namespace kit
