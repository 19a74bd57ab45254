// winscard.dll for machines without a smart card service: lists the readers of the reader file.
//
// Contexts, reader lists in both character widths (SCARD_AUTOALLOCATE included) and status changes work as the
// platform documents them. There is no way to talk to a card: tokens are reached through the token module only.

#include <windows.h>

// The header would declare what is defined here as imported otherwise.
#define WINSCARDAPI
#define WINSCARDDATA
#include <winscard.h>

#include <algorithm>
#include <cwchar>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/reader_file.h"

extern "C" {
const SCARD_IO_REQUEST g_rgSCardT0Pci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardT1Pci = {SCARD_PROTOCOL_T1, sizeof(SCARD_IO_REQUEST)};
const SCARD_IO_REQUEST g_rgSCardRawPci = {SCARD_PROTOCOL_RAW, sizeof(SCARD_IO_REQUEST)};
}

namespace {

// How often a waiting SCardGetStatusChange looks at the reader file again.
constexpr DWORD kWatchIntervalMs = 50;
// The name that asks for the coming and going of readers themselves.
constexpr std::wstring_view kPnpNotification = L"\\\\?PnP?\\Notification";

LONG Status(std::uint32_t code) {
  return static_cast<LONG>(code);
}

struct Service {
  std::mutex mutex;
  std::set<SCARDCONTEXT> contexts;
  std::set<const void*> blocks;  // handed out under SCARD_AUTOALLOCATE, on the process heap
  SCARDCONTEXT lastContext = 0x5CA00000;
  HANDLE started = CreateEventW(nullptr, TRUE, TRUE, nullptr);
  HANDLE cancelled = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

Service& TheService() {
  // Never destroyed: callers may come in until the process has ended.
  static auto* service = new Service;
  return *service;
}

std::string ReaderFilePath() {
  std::string path(32768, '\0');
  const DWORD length =
      GetEnvironmentVariableA(standins::kReaderFileVariable, path.data(), static_cast<DWORD>(path.size()));
  path.resize(length < path.size() ? length : 0);
  // The token module runs on the Linux side and shares the variable with this DLL; the Linux root is drive Z.
  if (path.starts_with('/')) path.insert(0, "Z:");
  return path;
}

standins::ReaderFile Readers() {
  return standins::ReadReaderFile(ReaderFilePath());
}

std::wstring Widen(UINT codePage, std::string_view text) {
  const int size = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0');
  wide.resize(static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), size)));
  return wide;
}

std::string Narrow(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  std::string narrow(text.size() * 4, '\0');
  narrow.resize(static_cast<std::size_t>(WideCharToMultiByte(CP_ACP, 0, text.data(), size, narrow.data(),
                                                             static_cast<int>(narrow.size()), nullptr, nullptr)));
  return narrow;
}

bool IsContext(SCARDCONTEXT context) {
  auto& service = TheService();
  const std::scoped_lock lock(service.mutex);
  return service.contexts.contains(context);
}

template <typename Char>
std::basic_string<Char> MultiString(const std::vector<std::wstring>& names) {
  std::basic_string<Char> text;
  for (const auto& name : names) {
    if constexpr (sizeof(Char) == sizeof(wchar_t)) {
      text.append(name);
    } else {
      text.append(Narrow(name));
    }
    text.push_back(0);
  }
  text.push_back(0);
  return text;
}

// Hands text (all of its characters) to the caller under the service's rules for output buffers. count is in
// characters, terminators counted.
template <typename Char>
LONG HandOut(const std::basic_string<Char>& text, Char* buffer, DWORD* count) {
  const auto needed = static_cast<DWORD>(text.size());
  if (buffer != nullptr && *count == SCARD_AUTOALLOCATE) {
    auto* block = static_cast<Char*>(HeapAlloc(GetProcessHeap(), 0, text.size() * sizeof(Char)));
    if (block == nullptr) return SCARD_E_NO_MEMORY;
    std::copy(text.begin(), text.end(), block);
    {
      auto& service = TheService();
      const std::scoped_lock lock(service.mutex);
      service.blocks.insert(block);
    }
    // With SCARD_AUTOALLOCATE the argument is the address of a pointer.
    *reinterpret_cast<Char**>(buffer) = block;
    *count = needed;
    return SCARD_S_SUCCESS;
  }
  const DWORD room = *count;
  *count = needed;
  if (buffer == nullptr) return SCARD_S_SUCCESS;
  if (room < needed) return SCARD_E_INSUFFICIENT_BUFFER;
  std::copy(text.begin(), text.end(), buffer);
  return SCARD_S_SUCCESS;
}

template <typename Char>
bool GroupsHoldReaders(const Char* groups) {
  if (groups == nullptr || *groups == 0) return true;
  while (*groups != 0) {
    const std::basic_string_view<Char> group(groups);
    std::wstring wide;
    if constexpr (sizeof(Char) == sizeof(wchar_t)) {
      wide.assign(group);
    } else {
      wide = Widen(CP_ACP, group);
    }
    if (wide == L"SCard$AllReaders" || wide == L"SCard$DefaultReaders") return true;
    groups += group.size() + 1;
  }
  return false;
}

template <typename Char>
LONG ListReaders(SCARDCONTEXT context, const Char* groups, Char* readers, DWORD* count) {
  if (count == nullptr) return SCARD_E_INVALID_PARAMETER;
  // Listing readers is allowed without a context.
  if (context != 0 && !IsContext(context)) return SCARD_E_INVALID_HANDLE;
  const auto file = Readers();
  if (file.listFailure) return Status(*file.listFailure);
  std::vector<std::wstring> names;
  if (!file.listWithoutNames) {
    if (file.readers.empty() || !GroupsHoldReaders(groups)) return SCARD_E_NO_READERS_AVAILABLE;
    for (const auto& reader : file.readers)
      names.push_back(Widen(CP_UTF8, reader.name));
  }
  return HandOut(MultiString<Char>(names), readers, count);
}

DWORD EventState(const standins::ReaderFile& file, const std::wstring& name) {
  if (name == kPnpNotification) return static_cast<DWORD>(file.readers.size()) << 16;
  for (const auto& reader : file.readers) {
    if (Widen(CP_UTF8, reader.name) == name) {
      return reader.tokenLabel.empty() ? SCARD_STATE_EMPTY : SCARD_STATE_PRESENT;
    }
  }
  return SCARD_STATE_UNKNOWN;
}

// Fills the event states; tells whether one differs from what its caller knew.
template <typename ReaderState>
bool FillStates(ReaderState* states, DWORD count) {
  constexpr DWORD kCompared = SCARD_STATE_EMPTY | SCARD_STATE_PRESENT | SCARD_STATE_UNKNOWN;
  const auto file = Readers();
  bool changed = false;
  for (DWORD i = 0; i < count; ++i) {
    auto& state = states[i];
    if ((state.dwCurrentState & SCARD_STATE_IGNORE) != 0) {
      state.dwEventState = SCARD_STATE_IGNORE;
      continue;
    }
    std::wstring name;
    if constexpr (sizeof(*state.szReader) == sizeof(wchar_t)) {
      name = state.szReader;
    } else {
      name = Widen(CP_ACP, state.szReader);
    }
    const DWORD event = EventState(file, name);
    state.cbAtr = 0;
    const bool differs = name == kPnpNotification ? (state.dwCurrentState & 0xFFFF0000) != event
                                                  : (state.dwCurrentState & kCompared) != event;
    state.dwEventState = differs ? event | SCARD_STATE_CHANGED : event;
    changed = changed || differs;
  }
  return changed;
}

template <typename ReaderState>
LONG GetStatusChange(SCARDCONTEXT context, DWORD timeout, ReaderState* states, DWORD count) {
  if (!IsContext(context)) return SCARD_E_INVALID_HANDLE;
  if (states == nullptr && count != 0) return SCARD_E_INVALID_PARAMETER;
  for (DWORD i = 0; i < count; ++i) {
    if (states[i].szReader == nullptr) return SCARD_E_INVALID_VALUE;
  }
  auto& service = TheService();
  ResetEvent(service.cancelled);
  const ULONGLONG start = GetTickCount64();
  for (;;) {
    if (FillStates(states, count)) return SCARD_S_SUCCESS;
    const ULONGLONG waited = GetTickCount64() - start;
    if (timeout != INFINITE && waited >= timeout) return SCARD_E_TIMEOUT;
    const DWORD left = timeout == INFINITE ? kWatchIntervalMs : static_cast<DWORD>(timeout - waited);
    if (WaitForSingleObject(service.cancelled, std::min(left, kWatchIntervalMs)) == WAIT_OBJECT_0) {
      return SCARD_E_CANCELLED;
    }
    if (!IsContext(context)) return SCARD_E_INVALID_HANDLE;
  }
}

// Nothing passes this DLL's boundary as an exception.
template <typename Function>
LONG Guarded(Function function) noexcept {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return SCARD_E_NO_MEMORY;
  } catch (...) {
    return SCARD_F_INTERNAL_ERROR;
  }
}

}  // namespace

extern "C" {

LONG WINAPI SCardEstablishContext(DWORD scope, LPCVOID /*reserved1*/, LPCVOID /*reserved2*/, LPSCARDCONTEXT context) {
  return Guarded([&]() -> LONG {
    if (context == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (scope > SCARD_SCOPE_SYSTEM) return SCARD_E_INVALID_VALUE;
    if (const auto failure = Readers().establishFailure) return Status(*failure);
    auto& service = TheService();
    const std::scoped_lock lock(service.mutex);
    service.contexts.insert(++service.lastContext);
    *context = service.lastContext;
    return SCARD_S_SUCCESS;
  });
}

LONG WINAPI SCardReleaseContext(SCARDCONTEXT context) {
  return Guarded([&]() -> LONG {
    auto& service = TheService();
    const std::scoped_lock lock(service.mutex);
    return service.contexts.erase(context) == 1 ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
  });
}

LONG WINAPI SCardIsValidContext(SCARDCONTEXT context) {
  return Guarded([&]() -> LONG { return IsContext(context) ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE; });
}

LONG WINAPI SCardListReadersW(SCARDCONTEXT context, LPCWSTR groups, LPWSTR readers, LPDWORD count) {
  return Guarded([&]() -> LONG { return ListReaders(context, groups, readers, count); });
}

LONG WINAPI SCardListReadersA(SCARDCONTEXT context, LPCSTR groups, LPSTR readers, LPDWORD count) {
  return Guarded([&]() -> LONG { return ListReaders(context, groups, readers, count); });
}

LONG WINAPI SCardListReaderGroupsW(SCARDCONTEXT context, LPWSTR groups, LPDWORD count) {
  return Guarded([&]() -> LONG {
    if (count == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (context != 0 && !IsContext(context)) return SCARD_E_INVALID_HANDLE;
    return HandOut(MultiString<wchar_t>({L"SCard$DefaultReaders"}), groups, count);
  });
}

LONG WINAPI SCardListReaderGroupsA(SCARDCONTEXT context, LPSTR groups, LPDWORD count) {
  return Guarded([&]() -> LONG {
    if (count == nullptr) return SCARD_E_INVALID_PARAMETER;
    if (context != 0 && !IsContext(context)) return SCARD_E_INVALID_HANDLE;
    return HandOut(MultiString<char>({L"SCard$DefaultReaders"}), groups, count);
  });
}

LONG WINAPI SCardFreeMemory(SCARDCONTEXT /*context*/, LPCVOID memory) {
  return Guarded([&]() -> LONG {
    auto& service = TheService();
    const std::scoped_lock lock(service.mutex);
    if (service.blocks.erase(memory) != 1) return SCARD_E_INVALID_PARAMETER;
    HeapFree(GetProcessHeap(), 0, const_cast<void*>(memory));
    return SCARD_S_SUCCESS;
  });
}

LONG WINAPI SCardGetStatusChangeW(SCARDCONTEXT context, DWORD timeout, LPSCARD_READERSTATEW states, DWORD count) {
  return Guarded([&]() -> LONG { return GetStatusChange(context, timeout, states, count); });
}

LONG WINAPI SCardGetStatusChangeA(SCARDCONTEXT context, DWORD timeout, LPSCARD_READERSTATEA states, DWORD count) {
  return Guarded([&]() -> LONG { return GetStatusChange(context, timeout, states, count); });
}

LONG WINAPI SCardCancel(SCARDCONTEXT context) {
  return Guarded([&]() -> LONG {
    if (!IsContext(context)) return SCARD_E_INVALID_HANDLE;
    SetEvent(TheService().cancelled);
    return SCARD_S_SUCCESS;
  });
}

HANDLE WINAPI SCardAccessStartedEvent() {
  return TheService().started;
}

void WINAPI SCardReleaseStartedEvent() {}

LONG WINAPI SCardConnectW(SCARDCONTEXT, LPCWSTR, DWORD, DWORD, LPSCARDHANDLE, LPDWORD) {
  return SCARD_E_NO_SMARTCARD;
}

LONG WINAPI SCardConnectA(SCARDCONTEXT, LPCSTR, DWORD, DWORD, LPSCARDHANDLE, LPDWORD) {
  return SCARD_E_NO_SMARTCARD;
}

LONG WINAPI SCardDisconnect(SCARDHANDLE, DWORD) {
  return SCARD_E_INVALID_HANDLE;
}

}  // extern "C"
