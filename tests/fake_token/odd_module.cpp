// A token module that does what none should, for keldactl's health check: KELDA_ODD_MODULE says what. "chatty" writes
// on the standard output, as it is loaded and later, "crash" ends the process by an exception, "hang" never returns.

// The entry is defined here, not imported.
#define CRYPTOKI_EXPORTS
#include <p11-kit/pkcs11.h>

#include <windows.h>

#include <cstring>
#include <string_view>

namespace {

bool Is(std::string_view manner) {
  char value[16] = {};
  return GetEnvironmentVariableA("KELDA_ODD_MODULE", value, sizeof value) != 0 && value == manner;
}

// Lines that look like an answer, too.
void Chat() {
  constexpr std::string_view kText = "{\"found\": \"what?\"}\nthe odd module is here\n";
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), kText.data(), static_cast<DWORD>(kText.size()), &written, nullptr);
}

CK_RV __cdecl Initialize(void* /*arguments*/) {
  if (Is("chatty")) Chat();
  if (Is("crash")) RaiseException(EXCEPTION_ILLEGAL_INSTRUCTION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  if (Is("hang")) Sleep(INFINITE);
  return CKR_OK;
}

CK_RV __cdecl Finalize(void* /*reserved*/) {
  return CKR_OK;
}

CK_RV __cdecl GetInfo(CK_INFO* info) {
  *info = {};
  std::memset(info->libraryDescription, ' ', sizeof info->libraryDescription);
  std::memcpy(info->libraryDescription, "Odd", 3);
  return CKR_OK;
}

CK_RV __cdecl GetSlotList(unsigned char /*token_present*/, CK_SLOT_ID* /*slots*/, unsigned long* count) {
  *count = 0;
  return CKR_OK;
}

}  // namespace

extern "C" CK_RV __cdecl C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST functions = {};
  functions.C_Initialize = Initialize;
  functions.C_Finalize = Finalize;
  functions.C_GetInfo = GetInfo;
  functions.C_GetSlotList = GetSlotList;
  *list = &functions;
  return CKR_OK;
}

BOOL WINAPI DllMain(HINSTANCE /*library*/, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH && Is("chatty")) Chat();
  return TRUE;
}
