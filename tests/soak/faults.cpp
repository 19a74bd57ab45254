#include "soak/faults.h"

#include <windows.h>
#include <share.h>
#include <wincrypt.h>
#include <winscard.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <utility>

#include "fake_token/fake_token.h"
#include "kit/imports.h"
#include "kit/ksp.h"
#include "soak/heap.h"

namespace soak {

// ---- the plan
// --------------------------------------------------------------------------------------------------------

Faults& Faults::Get() {
  static Faults faults;
  return faults;
}

void Faults::Plan(Random& random) {
  Clear();
  random_ = Random(random.Next());
  const std::uint32_t choice = random.Below(100);
  if (choice < 40) return;
  if (choice < 90) {
    // One of the first calls more often than one far on.
    const std::uint32_t reach = 1U << random.Below(8);
    const std::size_t kind = random.Below(kFaultKinds);
    countdown_[kind] = 1 + random.Below(reach);
    if (random.OneIn(4)) countdown_[(kind + 1) % kFaultKinds] = 1 + random.Below(reach);
  } else {
    share_ = 2U << random.Below(6);
  }
  thread_ = GetCurrentThreadId();
}

void Faults::PlanOne(Fault kind, std::uint32_t nth) {
  Clear();
  countdown_[static_cast<std::size_t>(kind)] = nth;
  thread_ = GetCurrentThreadId();
}

void Faults::PlanAll(Fault kind) {
  Clear();
  all_[static_cast<std::size_t>(kind)] = true;
  thread_ = GetCurrentThreadId();
}

void Faults::Clear() {
  thread_ = 0;
  all_ = {};
  countdown_ = {};
  share_ = 0;
}

bool Faults::Fail(Fault kind) {
  if (thread_ != GetCurrentThreadId()) return false;
  const auto index = static_cast<std::size_t>(kind);
  bool fails = countdown_[index] != 0 && --countdown_[index] == 0;
  if (share_ != 0 && random_.OneIn(share_)) fails = true;
  if (all_[index]) fails = true;
  if (fails) ++played_[index];
  return fails;
}

// ---- the platform
// ----------------------------------------------------------------------------------------------------

PlatformSettings& Platform() {
  static PlatformSettings settings;
  return settings;
}

namespace {

DialogAnswer& Answer() {
  static DialogAnswer answer;
  return answer;
}

std::mutex g_linesLock;
std::string g_leakedLine;
std::vector<std::string> g_lines;

void Look(const char* text) {
  if (!HoldsPin(text, std::strlen(text))) return;
  const std::lock_guard guard(g_linesLock);
  if (g_leakedLine.empty()) g_leakedLine = text;
}

// A platform function behind a fault: when it is its turn it answers `failure` and leaves `error` behind.
template <kit::Name ImportName, typename Function>
struct Failing;

#define SOAK_FAILING(CONVENTION)                                                                        \
  template <kit::Name ImportName, typename Result, typename... Arguments>                               \
  struct Failing<ImportName, Result(CONVENTION*)(Arguments...)> {                                       \
    static inline Result(CONVENTION* function)(Arguments...) = nullptr;                                 \
    static inline Result failure{};                                                                     \
    static Result CONVENTION Call(Arguments... arguments) {                                             \
      if (Faults::Get().Fail(Fault::Platform)) {                                                        \
        static const DWORD errors[] = {ERROR_NOT_ENOUGH_MEMORY, ERROR_ACCESS_DENIED, ERROR_GEN_FAILURE, \
                                       ERROR_INVALID_PARAMETER, 0};                                     \
        SetLastError(Faults::Get().random().Of(errors));                                                \
        return failure;                                                                                 \
      }                                                                                                 \
      return function(arguments...);                                                                    \
    }                                                                                                   \
  }
SOAK_FAILING(__cdecl);
#ifdef __i386__
SOAK_FAILING(__stdcall);
#endif
#undef SOAK_FAILING

template <kit::Name ImportName, typename Function, typename Result>
void Install(Function function, Result failure) {
  using Call = Failing<ImportName, Function>;
  Call::function = function;
  Call::failure = failure;
  kit::Imports::Get().Replace(ImportName.text, reinterpret_cast<void*>(&Call::Call));
}

LSTATUS Answered(const void* value, std::size_t size, void* data, DWORD* room) {
  if (!room) return ERROR_INVALID_PARAMETER;
  const DWORD had = std::exchange(*room, static_cast<DWORD>(size));
  if (!data) return ERROR_SUCCESS;
  if (had < size) return ERROR_MORE_DATA;
  std::memcpy(data, value, size);
  return ERROR_SUCCESS;
}

LSTATUS AnsweredText(const wchar_t* text, void* data, DWORD* room) {
  return Answered(text, (std::wcslen(text) + 1) * sizeof(wchar_t), data, room);
}

LSTATUS WINAPI GetRegistryValue(HKEY, LPCWSTR, LPCWSTR value, DWORD, LPDWORD, PVOID data, LPDWORD room) {
  const PlatformSettings& settings = Platform();
  const std::wstring name = value ? value : L"";
  if (name == L"KSPLOG") return AnsweredText(L"1", data, room);
  if (name == L"KSPDIR") return AnsweredText(settings.logFile.c_str(), data, room);
  if (name == L"PINCACHE" && settings.pinCache) return AnsweredText(settings.pinCache, data, room);
  if (name == L"Default Key Length") return Answered(&settings.keyLength, sizeof settings.keyLength, data, room);
  if (name == L"Aliases") {
    const std::wstring aliases = std::wstring(L"Other") + L'\0' + kit::kProviderName + L'\0';
    return Answered(aliases.c_str(), (aliases.size() + 1) * sizeof(wchar_t), data, room);
  }
  return ERROR_FILE_NOT_FOUND;
}

LSTATUS WINAPI OpenRegistryKey(HKEY, LPCWSTR, PHKEY key) {
  if (!Platform().sdkKey) return ERROR_FILE_NOT_FOUND;
  static int place;
  *key = reinterpret_cast<HKEY>(&place);
  return ERROR_SUCCESS;
}

LSTATUS WINAPI QueryRegistryValue(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD room) {
  const int value = Platform().providerCache;
  return value < 0 ? LSTATUS{ERROR_FILE_NOT_FOUND} : Answered(&value, sizeof value, data, room);
}

void WINAPI TakeDebuggerLine(LPCSTR text) {
  Look(text);
  if (!Platform().keepLines) return;
  const std::lock_guard guard(g_linesLock);
  g_lines.emplace_back(text);
}

void WINAPI TakeWideDebuggerLine(LPCWSTR) {}

// A log file of which nothing is kept.
FILE g_file;

FILE* __cdecl OpenFile(const wchar_t* path, const wchar_t* mode, int share) {
  return Platform().realFile ? _wfsopen(path, mode, share) : &g_file;
}
int __cdecl PutText(const char* text, FILE* file) {
  Look(text);
  return file == &g_file ? 0 : std::fputs(text, file);
}
int __cdecl PutCharacter(int character, FILE* file) {
  return file == &g_file ? character : std::fputc(character, file);
}
int __cdecl FlushFile(FILE* file) {
  return file == &g_file ? 0 : std::fflush(file);
}
int __cdecl CloseFile(FILE* file) {
  return file == &g_file ? 0 : std::fclose(file);
}

BOOL WINAPI AcquireContext(HCRYPTPROV* context, LPCWSTR, LPCWSTR, DWORD, DWORD) {
  *context = 0x5A5A;
  return TRUE;
}
BOOL WINAPI ReleaseContext(HCRYPTPROV, DWORD) {
  return TRUE;
}
BOOL WINAPI GenerateRandom(HCRYPTPROV, DWORD length, BYTE* out) {
  thread_local Random random(7);
  for (DWORD i = 0; i < length; ++i)
    out[i] = static_cast<BYTE>(random.Next());
  return TRUE;
}

// Wine leaves the bytes as they are; Windows does not.
BOOL WINAPI Protect(LPVOID block, DWORD size, DWORD) {
  auto* bytes = static_cast<BYTE*>(block);
  for (DWORD i = 0; i < size; ++i)
    bytes[i] ^= 0xA5;
  return TRUE;
}

BOOL WINAPI Lock(LPVOID block, SIZE_T size) {
  if (Faults::Get().lockFaults() && Faults::Get().Fail(Fault::Platform)) {
    SetLastError(ERROR_WORKING_SET_QUOTA);
    return FALSE;
  }
  return VirtualLock(block, size);
}

LONG WINAPI EstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
  *context = 0x5C5C;
  return SCARD_S_SUCCESS;
}
LONG WINAPI ListReaders(SCARDCONTEXT, LPCWSTR, LPWSTR readers, LPDWORD count) {
  // The caller lets the service allocate, and never releases the list.
  static thread_local std::wstring list;
  list = Platform().readers;
  const wchar_t* text = list.c_str();
  std::memcpy(readers, &text, sizeof text);
  *count = static_cast<DWORD>(list.size() + 1);
  return SCARD_S_SUCCESS;
}
LONG WINAPI ReleaseCardContext(SCARDCONTEXT) {
  return SCARD_S_SUCCESS;
}

INT_PTR WINAPI OpenDialog(HINSTANCE module, LPCWSTR name, HWND parent, DLGPROC procedure, LPARAM parameter) {
  const auto open = [=]() -> std::intptr_t { return DialogBoxParamW(module, name, parent, procedure, parameter); };
  return Answer() ? Answer()(open) : open();
}

}  // namespace

void SetDialogAnswer(DialogAnswer answer) {
  Answer() = std::move(answer);
}

std::string TakeLeakedLine() {
  const std::lock_guard guard(g_linesLock);
  return std::exchange(g_leakedLine, {});
}

std::vector<std::string> TakeLines() {
  const std::lock_guard guard(g_linesLock);
  return std::exchange(g_lines, {});
}

void InstallPlatform() {
  Install<"RegGetValueW">(&GetRegistryValue, LSTATUS{ERROR_ACCESS_DENIED});
  Install<"RegOpenKeyW">(&OpenRegistryKey, LSTATUS{ERROR_ACCESS_DENIED});
  Install<"RegQueryValueExW">(&QueryRegistryValue, LSTATUS{ERROR_ACCESS_DENIED});
  kit::Imports::Get().Replace("OutputDebugStringA", reinterpret_cast<void*>(&TakeDebuggerLine));
  kit::Imports::Get().Replace("OutputDebugStringW", reinterpret_cast<void*>(&TakeWideDebuggerLine));
  Install<"_wfsopen">(&OpenFile, static_cast<FILE*>(nullptr));
  Install<"fputs">(&PutText, EOF);
  Install<"fputc">(&PutCharacter, EOF);
  Install<"fflush">(&FlushFile, EOF);
  kit::Imports::Get().Replace("fclose", reinterpret_cast<void*>(&CloseFile));
  Install<"CryptAcquireContextW">(&AcquireContext, FALSE);
  Install<"CryptGenRandom">(&GenerateRandom, FALSE);
  Install<"CryptReleaseContext">(&ReleaseContext, FALSE);
  Install<"CryptProtectMemory">(&Protect, FALSE);
  Install<"CryptUnprotectMemory">(&Protect, FALSE);
  kit::Imports::Get().Replace("VirtualLock", reinterpret_cast<void*>(&Lock));
  Install<"VirtualUnlock">(&VirtualUnlock, FALSE);
  Install<"SCardEstablishContext">(&EstablishContext, LONG{SCARD_E_NO_SERVICE});
  Install<"SCardListReadersW">(&ListReaders, LONG{SCARD_E_NO_READERS_AVAILABLE});
  Install<"SCardReleaseContext">(&ReleaseCardContext, LONG{SCARD_E_INVALID_HANDLE});
  Install<"CertCreateCertificateContext">(&CertCreateCertificateContext, static_cast<PCCERT_CONTEXT>(nullptr));
  Install<"WideCharToMultiByte">(&WideCharToMultiByte, 0);
  Install<"DialogBoxParamW">(&OpenDialog, INT_PTR{-1});
  Install<"GetDlgItem">(&GetDlgItem, static_cast<HWND>(nullptr));
  Install<"GetWindowTextW">(&GetWindowTextW, 0);
  Install<"GetWindowTextLengthW">(&GetWindowTextLengthW, 0);
  Install<"CreateFontIndirectW">(&CreateFontIndirectW, static_cast<HFONT>(nullptr));
  Install<"LoadIconW">(&LoadIconW, static_cast<HICON>(nullptr));
  Install<"LoadImageW">(&LoadImageW, static_cast<HANDLE>(nullptr));
}

// ---- the token
// -------------------------------------------------------------------------------------------------------

namespace {

constexpr CK_RV kCodes[] = {CKR_GENERAL_ERROR,
                            CKR_HOST_MEMORY,
                            CKR_FUNCTION_FAILED,
                            CKR_ARGUMENTS_BAD,
                            CKR_ATTRIBUTE_TYPE_INVALID,
                            CKR_DEVICE_ERROR,
                            CKR_DEVICE_REMOVED,
                            CKR_KEY_FUNCTION_NOT_PERMITTED,
                            CKR_OBJECT_HANDLE_INVALID,
                            CKR_PIN_INCORRECT,
                            CKR_PIN_LOCKED,
                            CKR_SESSION_HANDLE_INVALID,
                            CKR_TOKEN_NOT_PRESENT,
                            CKR_USER_ALREADY_LOGGED_IN,
                            CKR_USER_NOT_LOGGED_IN,
                            CKR_BUFFER_TOO_SMALL,
                            CKR_CRYPTOKI_ALREADY_INITIALIZED,
                            1,
                            3,
                            14,
                            0xFFFFFFFF};

// A number that a module has no business to answer.
CK_ULONG Lie(CK_ULONG truth) {
  Random& random = Faults::Get().random();
  const CK_ULONG lies[] = {0, 1, truth + 1, truth - 1, 200, 201, 1001, 0x7FFFFFFF, 0xFFFFFFFF};
  return random.Of(lies);
}

// What of an answered call can be a lie: nothing, unless a specialisation below knows better.
template <kit::Name FunctionName>
struct Lies {
  template <typename... Arguments>
  static void Tell(Arguments...) {}
};

template <>
struct Lies<"C_GetAttributeValue"> {
  static void Tell(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* entries, CK_ULONG count) {
    CK_ATTRIBUTE& entry = entries[Faults::Get().random().Below(count)];
    entry.ulValueLen = Lie(entry.ulValueLen);
  }
};

template <>
struct Lies<"C_FindObjects"> {
  static void Tell(CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG, CK_ULONG* count) { *count = Lie(*count); }
};

template <>
struct Lies<"C_GetSlotList"> {
  static void Tell(unsigned char, CK_SLOT_ID*, CK_ULONG* count) { *count = Lie(*count); }
};

template <>
struct Lies<"C_GetTokenInfo"> {
  static void Tell(CK_SLOT_ID, CK_TOKEN_INFO* info) { std::memset(info->label, 0xFF, sizeof info->label); }
};

template <>
struct Lies<"C_GetSlotInfo"> {
  static void Tell(CK_SLOT_ID, CK_SLOT_INFO* info) {
    std::memset(info->slotDescription, 'x', sizeof info->slotDescription);
  }
};

struct LengthLies {
  static void Tell(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG* length) { *length = Lie(*length); }
};
template <>
struct Lies<"C_Sign"> : LengthLies {};
template <>
struct Lies<"C_Encrypt"> : LengthLies {};
template <>
struct Lies<"C_Decrypt"> : LengthLies {};

template <>
struct Lies<"C_GenerateKeyPair"> {
  static void Tell(CK_SESSION_HANDLE, CK_MECHANISM*, CK_ATTRIBUTE*, CK_ULONG, CK_ATTRIBUTE*, CK_ULONG,
                   CK_OBJECT_HANDLE* publicKey, CK_OBJECT_HANDLE* privateKey) {
    *publicKey = 0;
    *privateKey = 0xFFFFFFFF;
  }
};

template <kit::Name FunctionName, typename Function>
struct TokenCall;
template <kit::Name FunctionName, typename... Arguments>
struct TokenCall<FunctionName, CK_RV (*)(Arguments...)> {
  static inline CK_RV (*function)(Arguments...) = nullptr;
  static CK_RV Call(Arguments... arguments) {
    Faults& faults = Faults::Get();
    if (faults.Fail(Fault::Token)) return faults.random().Of(kCodes);
    const CK_RV result = function(arguments...);
    if (result == CKR_OK && faults.Fail(Fault::Lie)) Lies<FunctionName>::Tell(arguments...);
    return result;
  }
};

template <kit::Name FunctionName, typename Function>
Function Wrapped(Function function) {
  using Wrapper = TokenCall<FunctionName, Function>;
  if (function != &Wrapper::Call) Wrapper::function = function;
  return &Wrapper::Call;
}

}  // namespace

void InstallToken() {
  fake::FunctionList& list = *fake::Token().List();
  CK_FUNCTION_LIST& s = list.standard;
#define SOAK_WRAP(name) s.name = Wrapped<#name>(static_cast<CK_##name>(s.name))
  SOAK_WRAP(C_Initialize);
  SOAK_WRAP(C_GetSlotList);
  SOAK_WRAP(C_GetSlotInfo);
  SOAK_WRAP(C_GetTokenInfo);
  SOAK_WRAP(C_OpenSession);
  SOAK_WRAP(C_CloseSession);
  SOAK_WRAP(C_Logout);
  SOAK_WRAP(C_CreateObject);
  SOAK_WRAP(C_DestroyObject);
  SOAK_WRAP(C_GetAttributeValue);
  SOAK_WRAP(C_FindObjectsInit);
  SOAK_WRAP(C_FindObjects);
  SOAK_WRAP(C_FindObjectsFinal);
  SOAK_WRAP(C_EncryptInit);
  SOAK_WRAP(C_Encrypt);
  SOAK_WRAP(C_DecryptInit);
  SOAK_WRAP(C_Decrypt);
  SOAK_WRAP(C_SignInit);
  SOAK_WRAP(C_Sign);
  SOAK_WRAP(C_VerifyInit);
  SOAK_WRAP(C_Verify);
  SOAK_WRAP(C_GenerateKeyPair);
  SOAK_WRAP(C_GenerateRandom);
#undef SOAK_WRAP
  list.login = Wrapped<"VendorLogin">(static_cast<fake::VendorLogin>(list.login));
}

}  // namespace soak
