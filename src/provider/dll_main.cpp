#include "provider/process_objects.h"
#include "support/exceptions.h"
#include "support/windows.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID processEnds) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      PrepareExceptions(module);
      if (CreateProcessObjects(module)) return TRUE;
      // Without the token module there is nothing to provide: the load of this DLL fails.
      ReleaseProcessObjects();
      EndExceptions();
      return FALSE;
    case DLL_THREAD_DETACH:
      EndThreadExceptions();
      return TRUE;
    case DLL_PROCESS_DETACH:
      if (processEnds != nullptr) {
        // not reached: the end of a process is not counted any more
        DestroyProcessObjects();
      } else {
        ReleaseProcessObjects();
        EndExceptions();
      }
      return TRUE;
    default:
      return TRUE;
  }
}
