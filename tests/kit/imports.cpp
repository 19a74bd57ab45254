#include "kit/imports.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace kit {
namespace {

constexpr std::size_t kThunkSize = 192;
constexpr std::size_t kRecordSize = 1 << 16;

struct RecordedCall {
  std::uint32_t index;
  DWORD thread;
};

std::array<RecordedCall, kRecordSize> g_record;
std::atomic<std::uint32_t> g_recorded{0};
std::atomic<bool> g_recording{false};

// Runs in front of every imported call: touches no lock, no heap and no last error.
void __cdecl RecordCall(std::uint32_t index) {
  if (!g_recording.load(std::memory_order_relaxed)) return;
  const std::uint32_t position = g_recorded.fetch_add(1);
  if (position < kRecordSize) g_record[position] = RecordedCall{index, GetCurrentThreadId()};
}

class Writer {
 public:
  explicit Writer(std::uint8_t* out) : out_(out) {}
  void Code(std::initializer_list<int> bytes) {
    for (int byte : bytes)
      *out_++ = static_cast<std::uint8_t>(byte);
  }
  template <typename Value>
  void Put(Value value) {
    std::memcpy(out_, &value, sizeof value);
    out_ += sizeof value;
  }

 private:
  std::uint8_t* out_;
};

// Saves every register that carries an argument, records, restores and jumps through the cell.
void WriteThunk(std::uint8_t* thunk, std::uint32_t index, void** cell) {
  Writer code(thunk);
#ifdef __x86_64__
  code.Code({0x51, 0x52, 0x41, 0x50, 0x41, 0x51, 0x50, 0x41, 0x52, 0x41, 0x53});  // push rcx rdx r8 r9 rax r10 r11
  code.Code({0x48, 0x81, 0xEC, 0x80, 0x00, 0x00, 0x00});                          // sub rsp, 128
  for (int i = 0; i < 6; ++i)
    code.Code({0x0F, 0x11, 0x44 | (i << 3), 0x24, 0x20 + 16 * i});  // movups [rsp+..], xmm
  code.Code({0xB9});                                                // mov ecx, index
  code.Put(index);
  code.Code({0x48, 0xB8});  // mov rax, RecordCall
  code.Put(reinterpret_cast<std::uintptr_t>(&RecordCall));
  code.Code({0xFF, 0xD0});  // call rax
  for (int i = 0; i < 6; ++i)
    code.Code({0x0F, 0x10, 0x44 | (i << 3), 0x24, 0x20 + 16 * i});                // movups xmm, [rsp+..]
  code.Code({0x48, 0x81, 0xC4, 0x80, 0x00, 0x00, 0x00});                          // add rsp, 128
  code.Code({0x41, 0x5B, 0x41, 0x5A, 0x58, 0x41, 0x59, 0x41, 0x58, 0x5A, 0x59});  // pop them all
  code.Code({0x49, 0xBB});                                                        // mov r11, cell
  code.Put(reinterpret_cast<std::uintptr_t>(cell));
  code.Code({0x41, 0xFF, 0x23});  // jmp [r11]
#else
  code.Code({0x60, 0x68});  // pushad; push index
  code.Put(index);
  code.Code({0xB8});  // mov eax, RecordCall
  code.Put(reinterpret_cast<std::uintptr_t>(&RecordCall));
  code.Code({0xFF, 0xD0, 0x83, 0xC4, 0x04, 0x61});  // call eax; add esp, 4; popad
  code.Code({0xFF, 0x25});                          // jmp [cell]
  code.Put(reinterpret_cast<std::uintptr_t>(cell));
#endif
}

bool IsCode(const void* address) {
  MEMORY_BASIC_INFORMATION info;
  if (!VirtualQuery(address, &info, sizeof info)) return false;
  return (info.Protect & (PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

}  // namespace

Imports& Imports::Get() {
  static Imports imports;
  return imports;
}

void Imports::Attach(HMODULE module) {
  slots_.clear();
  auto* base = reinterpret_cast<std::uint8_t*>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (!directory.VirtualAddress) return;
  for (auto* entry = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
       entry->FirstThunk; ++entry) {
    const std::string library = reinterpret_cast<const char*>(base + entry->Name);
    auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + entry->OriginalFirstThunk);
    auto* addresses = reinterpret_cast<IMAGE_THUNK_DATA*>(base + entry->FirstThunk);
    for (; names->u1.AddressOfData; ++names, ++addresses) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      auto** address = reinterpret_cast<void**>(&addresses->u1.Function);
      if (!IsCode(*address)) continue;  // imported data, as the runtime library's _iob
      slots_.push_back(Slot{library, reinterpret_cast<const char*>(&byName->Name[0]), address, *address, nullptr});
    }
  }

  // One block for cells and thunks. It is never freed: the DLL may still jump through it while it is unloaded.
  const std::size_t cells = slots_.size() * sizeof(void*);
  auto* block = static_cast<std::uint8_t*>(
      VirtualAlloc(nullptr, cells + slots_.size() * kThunkSize, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  if (!block) return;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    Slot& slot = slots_[i];
    slot.cell = reinterpret_cast<void**>(block) + i;
    const auto replacement = replacements_.find(slot.name);
    *slot.cell = replacement == replacements_.end() ? slot.original : replacement->second;
    std::uint8_t* thunk = block + cells + i * kThunkSize;
    WriteThunk(thunk, static_cast<std::uint32_t>(i), slot.cell);
    DWORD protection = 0;
    VirtualProtect(slot.address, sizeof(void*), PAGE_READWRITE, &protection);
    *slot.address = thunk;
    VirtualProtect(slot.address, sizeof(void*), protection, &protection);
  }
  FlushInstructionCache(GetCurrentProcess(), block, cells + slots_.size() * kThunkSize);
}

void Imports::Detach() {
  slots_.clear();
}

bool Imports::Has(const std::string& name) const {
  return Original(name) != nullptr;
}

std::vector<std::string> Imports::Names() const {
  std::vector<std::string> names;
  for (const Slot& slot : slots_)
    names.push_back(slot.module + "!" + slot.name);
  return names;
}

void* Imports::Original(const std::string& name) const {
  for (const Slot& slot : slots_) {
    if (slot.name == name) return slot.original;
  }
  return nullptr;
}

void Imports::Replace(const std::string& name, void* function) {
  replacements_[name] = function;
  for (Slot& slot : slots_) {
    if (slot.name == name) *slot.cell = function;
  }
}

void Imports::Restore(const std::string& name) {
  replacements_.erase(name);
  for (Slot& slot : slots_) {
    if (slot.name == name) *slot.cell = slot.original;
  }
}

void Imports::StartRecording() {
  g_recorded = 0;
  g_recording = true;
}

std::vector<ImportCall> Imports::StopRecording() {
  g_recording = false;
  std::vector<ImportCall> calls;
  const std::size_t count = std::min<std::size_t>(g_recorded, kRecordSize);
  for (std::size_t i = 0; i < count; ++i)
    calls.push_back({slots_.at(g_record[i].index).name, g_record[i].thread});
  return calls;
}

}  // namespace kit
