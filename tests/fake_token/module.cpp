// keldapkcs11.dll for the tests: the shell around the function list that the test program attaches.
#include <windows.h>

namespace {
void* g_list = nullptr;
unsigned long g_result = 5;  // CKR_GENERAL_ERROR until a program has attached its list
}  // namespace

extern "C" {

__declspec(dllexport) void KeldaFakeAttach(void* list, unsigned long result) {
  g_list = list;
  g_result = result;
}

#ifndef KELDA_FAKE_WITHOUT_LIST
__declspec(dllexport) unsigned long C_GetFunctionList(void** list) {
  if (g_result == 0) *list = g_list;
  return g_result;
}
#endif

}  // extern "C"
