#include "crypto/key_use.h"

#include "diag/debug_log.h"
#include "login/login.h"

SECURITY_STATUS CheckFinishedAndLogin(KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* key) noexcept {
  if (key->fFinished == 0) {
    return g_Log->Refuse(NTE_BAD_KEY_STATE, "NTE_BAD_KEY_STATE: The specified key is not yet finalized");
  }
  const SECURITY_STATUS login = Login(provider);
  if (login != ERROR_SUCCESS) g_Log->WriteLine("Failed to login. Operation aborted.");
  return login;
}
