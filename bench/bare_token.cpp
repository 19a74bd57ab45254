#include "bare_token.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace bench {
namespace {

std::size_t g_keyPairs = 0;
CK_OBJECT_CLASS g_searched = 0;
bool g_log = false;

// Objects: 1 to n are public, kPrivate + 1 to kPrivate + n private.
constexpr CK_OBJECT_HANDLE kPrivate = 0x10000;

CK_RV Fine() {
  return CKR_OK;
}

// The double's own answer: the PIN is cached under its serial number.
CK_TOKEN_INFO g_info;

CK_RV GetTokenInfo(CK_SLOT_ID, CK_TOKEN_INFO* info) {
  *info = g_info;
  return CKR_OK;
}

CK_RV FindObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE* entries, CK_ULONG count) {
  g_searched = 0;
  for (CK_ULONG i = 0; i < count; ++i) {
    if (entries[i].type == CKA_CLASS) std::memcpy(&g_searched, entries[i].pValue, sizeof(g_searched));
    if (entries[i].type == CKA_LABEL) {
      g_searched = 0;  // nothing has a label
      break;
    }
  }
  return CKR_OK;
}

CK_RV FindObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG maximum, CK_ULONG* count) {
  *count = g_searched == 0 ? 0 : std::min(maximum, static_cast<CK_ULONG>(g_keyPairs));
  if (objects == nullptr) return CKR_OK;
  for (CK_ULONG i = 0; i < *count; ++i)
    objects[i] = i + 1 + (g_searched == CKO_PRIVATE_KEY ? kPrivate : 0);
  return CKR_OK;
}

void Give(CK_ATTRIBUTE& entry, const void* value, std::size_t size) {
  if (entry.pValue != nullptr) std::memcpy(entry.pValue, value, size);
  entry.ulValueLen = static_cast<CK_ULONG>(size);
}

CK_RV GetAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* entries, CK_ULONG count) {
  static const unsigned char modulus[128] = {0x80};
  static const unsigned char exponent[3] = {1, 0, 1};
  const CK_OBJECT_HANDLE number = object & (kPrivate - 1);
  char name[8] = {'K', 'e', 'y'};
  for (CK_OBJECT_HANDLE i = 0, rest = number; i < 4; ++i, rest /= 10)
    name[6 - i] = static_cast<char>('0' + rest % 10);
  for (CK_ULONG i = 0; i < count; ++i) {
    switch (entries[i].type) {
      case CKA_ID:
        Give(entries[i], name, 7);
        break;
      case CKA_MODULUS:
        Give(entries[i], modulus, sizeof(modulus));
        break;
      case CKA_PUBLIC_EXPONENT:
        Give(entries[i], exponent, sizeof(exponent));
        break;
      case CKA_MODULUS_BITS: {
        const CK_ULONG bits = 1024;
        Give(entries[i], &bits, sizeof(bits));
        break;
      }
      default:
        entries[i].ulValueLen = 0;
    }
  }
  return CKR_OK;
}

CK_RV Process(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG* length) {
  *length = 128;
  return CKR_OK;
}

// ---- the platform

void WINAPI NoLine(LPCSTR) {}
void WINAPI NoWideLine(LPCWSTR) {}

LSTATUS WINAPI GetValue(HKEY, LPCWSTR, LPCWSTR value, DWORD, LPDWORD, PVOID data, LPDWORD size) {
  if (!g_log || std::wcsncmp(value, L"KSP", 3) != 0) return ERROR_FILE_NOT_FOUND;
  std::memcpy(data, L"1", sizeof(L"1"));
  *size = sizeof(L"1");
  return ERROR_SUCCESS;
}

std::FILE* __cdecl OpenFile(const wchar_t*, const wchar_t*, int) {
  static int file;
  return reinterpret_cast<std::FILE*>(&file);
}
int __cdecl PutText(const char*, std::FILE*) {
  return 0;
}
int __cdecl PutCharacter(int, std::FILE*) {
  return 0;
}
int __cdecl File(std::FILE*) {
  return 0;
}

BOOL WINAPI Acquire(ULONG_PTR* context, LPCWSTR, LPCWSTR, DWORD, DWORD) {
  *context = 1;
  return TRUE;
}
BOOL WINAPI Random(ULONG_PTR, DWORD, BYTE*) {
  return TRUE;
}
BOOL WINAPI Release(ULONG_PTR, DWORD) {
  return TRUE;
}
BOOL WINAPI Memory(LPVOID, DWORD, DWORD) {
  return TRUE;
}
BOOL WINAPI Pages(LPVOID, SIZE_T) {
  return TRUE;
}
void WINAPI Section(LPCRITICAL_SECTION) {}

}  // namespace

std::string KeyName(std::size_t number) {
  char name[16];
  std::snprintf(name, sizeof(name), "Key%04u", static_cast<unsigned>(number % 10000));
  return name;
}

void FillBareToken(fake::FunctionList& list, CK_SLOT_ID slot, std::size_t keyPairs) {
  g_keyPairs = keyPairs;
  CK_FUNCTION_LIST& entries = list.standard;
  entries.C_GetTokenInfo(slot, &g_info);
  entries.C_GetTokenInfo = &GetTokenInfo;
  entries.C_FindObjectsInit = &FindObjectsInit;
  entries.C_FindObjects = &FindObjects;
  entries.C_FindObjectsFinal = [](CK_SESSION_HANDLE) { return Fine(); };
  entries.C_GetAttributeValue = &GetAttributeValue;
  const CK_C_SignInit init = [](CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE) { return Fine(); };
  entries.C_SignInit = init;
  entries.C_VerifyInit = init;
  entries.C_EncryptInit = init;
  entries.C_DecryptInit = init;
  entries.C_Sign = &Process;
  entries.C_Encrypt = &Process;
  entries.C_Decrypt = &Process;
  entries.C_Verify = [](CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG) { return Fine(); };
  list.login = [](CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR*, CK_ULONG) { return Fine(); };
}

void StubPlatform(ImportTable& imports, bool log) {
  g_log = log;
  imports.Set("OutputDebugStringA", &NoLine);
  imports.Set("OutputDebugStringW", &NoWideLine);
  imports.Set("RegGetValueW", &GetValue);
  imports.Set("_wfsopen", &OpenFile);
  imports.Set("fputs", &PutText);
  imports.Set("fputc", &PutCharacter);
  imports.Set("fflush", &File);
  imports.Set("fclose", &File);
  imports.Set("CryptAcquireContextW", &Acquire);
  imports.Set("CryptGenRandom", &Random);
  imports.Set("CryptReleaseContext", &Release);
  imports.Set("CryptProtectMemory", &Memory);
  imports.Set("CryptUnprotectMemory", &Memory);
  imports.Set("VirtualLock", &Pages);
  imports.Set("VirtualUnlock", &Pages);
  imports.Set("EnterCriticalSection", &Section);
  imports.Set("LeaveCriticalSection", &Section);
}

}  // namespace bench
