#include "provider/process_objects.h"
#include "support/windows.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    try {
      CreateProcessObjects(module);
    } catch (...) {
      // Without the token module there is nothing to provide: the load of this DLL fails.
      return FALSE;
    }
  } else if (reason == DLL_PROCESS_DETACH) {
    DestroyProcessObjects();
  }
  return TRUE;
}
