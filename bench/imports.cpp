#include "imports.h"

namespace bench {
namespace {

void Write(void** place, void* value) {
  if (*place == value) return;
  DWORD protection = 0;
  VirtualProtect(place, sizeof(void*), PAGE_READWRITE, &protection);
  *place = value;
  VirtualProtect(place, sizeof(void*), protection, &protection);
}

}  // namespace

ImportTable::ImportTable(HMODULE module) {
  auto* base = reinterpret_cast<BYTE*>(module);
  const auto* nt =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const DWORD imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  for (auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports); library->FirstThunk;
       ++library) {
    auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
    auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
    for (; names->u1.AddressOfData; ++names, ++addresses) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      auto** place = reinterpret_cast<void**>(&addresses->u1.Function);
      entries_.push_back({reinterpret_cast<const char*>(&name->Name[0]), place, *place});
    }
  }
}

void ImportTable::Restore() {
  for (const Entry& entry : entries_)
    Write(entry.place, entry.original);
}

void ImportTable::Put(const char* name, void* function) {
  for (const Entry& entry : entries_) {
    if (entry.name == name) Write(entry.place, function);
  }
}

}  // namespace bench
