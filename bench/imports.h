// The import table of a loaded module.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace bench {

class ImportTable {
 public:
  explicit ImportTable(HMODULE module);
  ~ImportTable() { Restore(); }
  ImportTable(const ImportTable&) = delete;
  ImportTable& operator=(const ImportTable&) = delete;

  // Puts a function in the place of the imported one, if the module imports it.
  template <class Function>
  void Set(const char* name, Function* function) {
    Put(name, reinterpret_cast<void*>(function));
  }
  // Puts back what the loader had found.
  void Restore();

 private:
  struct Entry {
    std::string name;
    void** place;
    void* original;
  };

  void Put(const char* name, void* function);

  std::vector<Entry> entries_;
};

}  // namespace bench
