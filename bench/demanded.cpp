#include "demanded.h"

#include <share.h>
#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace bench {
namespace {

Work* g_work = nullptr;
fake::FunctionList g_token;  // the token's own entries

// What a step leaves for a later one of the same thread.
struct Left {
  std::FILE* file = nullptr;
  HKEY key = nullptr;
  HCRYPTPROV random = 0;
  CK_SESSION_HANDLE session = 0;
  CRITICAL_SECTION section = {};
  CRITICAL_SECTION* entered = nullptr;
  alignas(16) std::array<BYTE, 8192> bytes = {};
};
thread_local Left t_left;

template <class Step>
void Note(Step step) {
  if (g_work != nullptr) g_work->Add(std::move(step));
}

// ---- the platform

void WINAPI DebugNarrow(LPCSTR text) {
  Note([line = std::string(text)] { OutputDebugStringA(line.c_str()); });
  OutputDebugStringA(text);
}

void WINAPI DebugWide(LPCWSTR text) {
  Note([line = std::wstring(text)] { OutputDebugStringW(line.c_str()); });
  OutputDebugStringW(text);
}

LSTATUS WINAPI GetValue(HKEY key, LPCWSTR subKey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data, LPDWORD size) {
  const DWORD room = size != nullptr ? std::min(*size, static_cast<DWORD>(t_left.bytes.size())) : 0;
  Note([key, folder = std::wstring(subKey), name = std::wstring(value), flags, room] {
    DWORD length = room;
    RegGetValueW(key, folder.c_str(), name.c_str(), flags, nullptr, t_left.bytes.data(), &length);
  });
  return RegGetValueW(key, subKey, value, flags, type, data, size);
}

LSTATUS WINAPI OpenRegistry(HKEY key, LPCWSTR subKey, HKEY* opened) {
  Note([key, folder = std::wstring(subKey)] { RegOpenKeyW(key, folder.c_str(), &t_left.key); });
  return RegOpenKeyW(key, subKey, opened);
}

LSTATUS WINAPI QueryValue(HKEY key, LPCWSTR value, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
  const DWORD room = size != nullptr ? std::min(*size, static_cast<DWORD>(t_left.bytes.size())) : 0;
  Note([name = std::wstring(value), room] {
    DWORD length = room;
    RegQueryValueExW(t_left.key, name.c_str(), nullptr, nullptr, t_left.bytes.data(), &length);
  });
  return RegQueryValueExW(key, value, reserved, type, data, size);
}

LSTATUS WINAPI CloseRegistry(HKEY key) {
  Note([] { RegCloseKey(t_left.key); });
  return RegCloseKey(key);
}

std::FILE* __cdecl OpenFile(const wchar_t* path, const wchar_t* mode, int sharing) {
  Note([name = std::wstring(path), how = std::wstring(mode), sharing] {
    t_left.file = _wfsopen(name.c_str(), how.c_str(), sharing);
  });
  return _wfsopen(path, mode, sharing);
}

int __cdecl PutText(const char* text, std::FILE* file) {
  Note([line = std::string(text)] { std::fputs(line.c_str(), t_left.file); });
  return std::fputs(text, file);
}

int __cdecl PutCharacter(int character, std::FILE* file) {
  Note([character] { std::fputc(character, t_left.file); });
  return std::fputc(character, file);
}

int __cdecl Flush(std::FILE* file) {
  Note([] { std::fflush(t_left.file); });
  return std::fflush(file);
}

int __cdecl CloseFile(std::FILE* file) {
  Note([] { std::fclose(t_left.file); });
  return std::fclose(file);
}

BOOL WINAPI AcquireContext(HCRYPTPROV* context, LPCWSTR container, LPCWSTR provider, DWORD type, DWORD flags) {
  Note([type, flags] { CryptAcquireContextW(&t_left.random, nullptr, nullptr, type, flags); });
  return CryptAcquireContextW(context, container, provider, type, flags);
}

BOOL WINAPI GenerateRandom(HCRYPTPROV context, DWORD size, BYTE* data) {
  Note([size] { CryptGenRandom(t_left.random, size, t_left.bytes.data()); });
  return CryptGenRandom(context, size, data);
}

BOOL WINAPI ReleaseContext(HCRYPTPROV context, DWORD flags) {
  Note([] { CryptReleaseContext(t_left.random, 0); });
  return CryptReleaseContext(context, flags);
}

BOOL WINAPI Unprotect(LPVOID data, DWORD size, DWORD flags) {
  Note([size, flags] { CryptUnprotectMemory(t_left.bytes.data(), size, flags); });
  return CryptUnprotectMemory(data, size, flags);
}

BOOL WINAPI LockPages(LPVOID data, SIZE_T size) {
  Note([size] { VirtualLock(t_left.bytes.data(), size); });
  return VirtualLock(data, size);
}

BOOL WINAPI UnlockPages(LPVOID data, SIZE_T size) {
  Note([size] { VirtualUnlock(t_left.bytes.data(), size); });
  return VirtualUnlock(data, size);
}

BOOL WINAPI InitializeSection(LPCRITICAL_SECTION section, DWORD spins) {
  Note([spins] { InitializeCriticalSectionAndSpinCount(&t_left.section, spins); });
  return InitializeCriticalSectionAndSpinCount(section, spins);
}

void WINAPI DeleteSection(LPCRITICAL_SECTION section) {
  Note([] { DeleteCriticalSection(&t_left.section); });
  DeleteCriticalSection(section);
}

// The provider's own section is one for all threads, and so it is here.
void WINAPI EnterSection(LPCRITICAL_SECTION section) {
  Note([section] {
    EnterCriticalSection(section);
    t_left.entered = section;
  });
  EnterCriticalSection(section);
}

void WINAPI LeaveSection(LPCRITICAL_SECTION section) {
  Note([] { LeaveCriticalSection(t_left.entered); });
  LeaveCriticalSection(section);
}

// ---- the token

// A template with buffers of its own; output buffers have their room again at each use.
struct Template {
  Template(const CK_ATTRIBUTE* given, CK_ULONG count, bool input) : values(count) {
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_ATTRIBUTE entry = given[i];
      if (entry.pValue != nullptr) {
        const auto* bytes = static_cast<const BYTE*>(entry.pValue);
        values[i].assign(entry.ulValueLen, 0);
        if (input) std::copy_n(bytes, entry.ulValueLen, values[i].begin());
        entry.pValue = values[i].data();
      }
      fresh.push_back(entry);
    }
    used = fresh;
  }
  CK_ATTRIBUTE* Use() {
    std::copy(fresh.begin(), fresh.end(), used.begin());
    return used.data();
  }
  CK_ULONG count() const { return static_cast<CK_ULONG>(used.size()); }

  std::vector<std::vector<BYTE>> values;
  std::vector<CK_ATTRIBUTE> fresh;
  std::vector<CK_ATTRIBUTE> used;
};

const CK_FUNCTION_LIST& Real() {
  return g_token.standard;
}

CK_RV GetSlotList(CK_BBOOL present, CK_SLOT_ID* slots, CK_ULONG* count) {
  Note([present, query = slots == nullptr] {
    CK_SLOT_ID list[64];
    CK_ULONG room = 64;
    Real().C_GetSlotList(present, query ? nullptr : list, &room);
  });
  return Real().C_GetSlotList(present, slots, count);
}

CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
  Note([slot] {
    CK_SLOT_INFO read;
    Real().C_GetSlotInfo(slot, &read);
  });
  return Real().C_GetSlotInfo(slot, info);
}

CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
  Note([slot] {
    CK_TOKEN_INFO read;
    Real().C_GetTokenInfo(slot, &read);
  });
  return Real().C_GetTokenInfo(slot, info);
}

CK_RV OpenSession(CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify, CK_SESSION_HANDLE* session) {
  Note([slot, flags] { Real().C_OpenSession(slot, flags, nullptr, nullptr, &t_left.session); });
  return Real().C_OpenSession(slot, flags, application, notify, session);
}

CK_RV CloseSession(CK_SESSION_HANDLE session) {
  Note([] { Real().C_CloseSession(t_left.session); });
  return Real().C_CloseSession(session);
}

CK_RV VendorLogin(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
  Note([session, user, typed = fake::Bytes(pin, pin + length)]() mutable {
    g_token.login(session, user, typed.data(), static_cast<CK_ULONG>(typed.size()));
  });
  return g_token.login(session, user, pin, length);
}

CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* entries, CK_ULONG count) {
  Note([session, search = std::make_shared<Template>(entries, count, true)] {
    Real().C_FindObjectsInit(session, search->Use(), search->count());
  });
  return Real().C_FindObjectsInit(session, entries, count);
}

CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG maximum, CK_ULONG* count) {
  Note([session, query = objects == nullptr, found = std::vector<CK_OBJECT_HANDLE>(maximum)]() mutable {
    CK_ULONG number = 0;
    Real().C_FindObjects(session, query ? nullptr : found.data(), static_cast<CK_ULONG>(found.size()), &number);
  });
  return Real().C_FindObjects(session, objects, maximum, count);
}

CK_RV FindObjectsFinal(CK_SESSION_HANDLE session) {
  Note([session] { Real().C_FindObjectsFinal(session); });
  return Real().C_FindObjectsFinal(session);
}

CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* entries, CK_ULONG count) {
  Note([session, object, read = std::make_shared<Template>(entries, count, false)] {
    Real().C_GetAttributeValue(session, object, read->Use(), read->count());
  });
  return Real().C_GetAttributeValue(session, object, entries, count);
}

// The four operations begin alike and take data alike.
template <CK_C_SignInit CK_FUNCTION_LIST::*Entry>
CK_RV Init(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  Note([session, used = *mechanism, key]() mutable { (Real().*Entry)(session, &used, key); });
  return (Real().*Entry)(session, mechanism, key);
}

template <CK_C_Sign CK_FUNCTION_LIST::*Entry>
CK_RV Process(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG size, CK_BYTE* out, CK_ULONG* length) {
  Note([session, input = fake::Bytes(data, data + size), query = out == nullptr, room = *length]() mutable {
    CK_ULONG written = room;
    (Real().*Entry)(session, input.data(), static_cast<CK_ULONG>(input.size()), query ? nullptr : t_left.bytes.data(),
                    &written);
  });
  return (Real().*Entry)(session, data, size, out, length);
}

CK_RV Verify(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG size, CK_BYTE* signature, CK_ULONG length) {
  Note([session, input = fake::Bytes(data, data + size), value = fake::Bytes(signature, signature + length)]() mutable {
    Real().C_Verify(session, input.data(), static_cast<CK_ULONG>(input.size()), value.data(),
                    static_cast<CK_ULONG>(value.size()));
  });
  return Real().C_Verify(session, data, size, signature, length);
}

void WatchToken(fake::FunctionList& list) {
  CK_FUNCTION_LIST& entries = list.standard;
  entries.C_GetSlotList = &GetSlotList;
  entries.C_GetSlotInfo = &GetSlotInfo;
  entries.C_GetTokenInfo = &GetTokenInfo;
  entries.C_OpenSession = &OpenSession;
  entries.C_CloseSession = &CloseSession;
  entries.C_FindObjectsInit = &FindObjectsInit;
  entries.C_FindObjects = &FindObjects;
  entries.C_FindObjectsFinal = &FindObjectsFinal;
  entries.C_GetAttributeValue = &GetAttributeValue;
  entries.C_SignInit = &Init<&CK_FUNCTION_LIST::C_SignInit>;
  entries.C_VerifyInit = &Init<&CK_FUNCTION_LIST::C_VerifyInit>;
  entries.C_EncryptInit = &Init<&CK_FUNCTION_LIST::C_EncryptInit>;
  entries.C_DecryptInit = &Init<&CK_FUNCTION_LIST::C_DecryptInit>;
  entries.C_Sign = &Process<&CK_FUNCTION_LIST::C_Sign>;
  entries.C_Encrypt = &Process<&CK_FUNCTION_LIST::C_Encrypt>;
  entries.C_Decrypt = &Process<&CK_FUNCTION_LIST::C_Decrypt>;
  entries.C_Verify = &Verify;
  list.login = &VendorLogin;
}

void WatchPlatform(ImportTable& imports) {
  imports.Set("OutputDebugStringA", &DebugNarrow);
  imports.Set("OutputDebugStringW", &DebugWide);
  imports.Set("RegGetValueW", &GetValue);
  imports.Set("RegOpenKeyW", &OpenRegistry);
  imports.Set("RegQueryValueExW", &QueryValue);
  imports.Set("RegCloseKey", &CloseRegistry);
  imports.Set("_wfsopen", &OpenFile);
  imports.Set("fputs", &PutText);
  imports.Set("fputc", &PutCharacter);
  imports.Set("fflush", &Flush);
  imports.Set("fclose", &CloseFile);
  imports.Set("CryptAcquireContextW", &AcquireContext);
  imports.Set("CryptGenRandom", &GenerateRandom);
  imports.Set("CryptReleaseContext", &ReleaseContext);
  imports.Set("CryptUnprotectMemory", &Unprotect);
  imports.Set("VirtualLock", &LockPages);
  imports.Set("VirtualUnlock", &UnlockPages);
  imports.Set("InitializeCriticalSectionAndSpinCount", &InitializeSection);
  imports.Set("DeleteCriticalSection", &DeleteSection);
  imports.Set("EnterCriticalSection", &EnterSection);
  imports.Set("LeaveCriticalSection", &LeaveSection);
}

}  // namespace

Work Demanded(ImportTable& imports, fake::FunctionList& list, const std::function<void()>& call, Part part) {
  Work work;
  g_token = list;
  WatchToken(list);
  if (part == Part::All) WatchPlatform(imports);
  g_work = &work;
  call();
  g_work = nullptr;
  imports.Restore();
  list = g_token;
  return work;
}

}  // namespace bench
