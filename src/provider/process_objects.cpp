#include "provider/process_objects.h"

#include <new>
#include <utility>

#include "diag/debug_log.h"
#include "login/pin_cache/pin_manager.h"
#include "provider/entry/provider_cache.h"
#include "support/module_handle.h"
#include "token/cryptoki_module.h"

namespace {

alignas(DebugClass) unsigned char g_PinLogStorage[sizeof(DebugClass)];

}  // namespace

// The order decides what is logged before a failing load, and which instance writes the start line.
bool CreateProcessObjects(HINSTANCE module) noexcept {
  g_hModule = module;
  g_KeyNameLog = LogPointer::Create(-1, 0);
  g_Log = LogPointer::Create(-1, 1);
  g_Cryptoki = new (std::nothrow) CryptokiModule();
  if (g_Cryptoki != nullptr && !g_Cryptoki->Ready()) return false;
  g_PinManager = new (std::nothrow) PinManager();
  g_ProviderCache = new (std::nothrow) ProviderCache();
  g_PinLog = LogPointer(new (g_PinLogStorage) DebugClass(-1, 0));
  return true;
}

void DestroyProcessObjects() noexcept {
  if (!g_PinLog) return;
  g_PinLog = LogPointer();
  std::launder(reinterpret_cast<DebugClass*>(g_PinLogStorage))->~DebugClass();
}

void ReleaseProcessObjects() noexcept {
  DestroyProcessObjects();
  delete std::exchange(g_ProviderCache, nullptr);
  delete std::exchange(g_PinManager, nullptr);
  delete std::exchange(g_Cryptoki, nullptr);
  g_Log.Destroy();
  g_KeyNameLog.Destroy();
}
