#include "login/login.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <optional>

#include "diag/debug_log.h"
#include "login/pin_cache/pin_manager.h"
#include "support/text.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "support/pkcs11.h"
#include "ui/login_dialog.h"

namespace {

// Room for a cached PIN: as many bytes as characters can be typed.
struct PinBuffer {
  PinBuffer() noexcept = default;
  ~PinBuffer() { Wipe(); }
  PinBuffer(const PinBuffer&) = delete;
  PinBuffer& operator=(const PinBuffer&) = delete;
  void Wipe() noexcept { SecureWipe(bytes, sizeof(bytes)); }

  unsigned char bytes[16] = {};
};

// The token's name without the blanks that pad it, terminated.
WipedArray<wchar_t> TokenName(const CK_TOKEN_INFO& info) {
  unsigned char label[sizeof(info.label) + 1] = {};
  std::memcpy(label, info.label, sizeof(info.label));
  for (std::size_t i = sizeof(info.label); i != 0 && label[i - 1] == ' '; --i)
    label[i - 1] = '\0';
  WipedArray<wchar_t> name(sizeof(label));
  WidenBytes(name.data(), label, sizeof(info.label));
  return name;
}

SECURITY_STATUS LoginThroughDialog(CLogin& dialog) {
  g_PinLog->WriteLine("PIN cache is empty");
  const auto result = static_cast<std::int32_t>(dialog.DoModal());
  if (result == IDOK) return ERROR_SUCCESS;
  if (result == IDCANCEL) {
    return g_PinLog->Refuse(SCARD_W_CANCELLED_BY_USER,
                            "SCARD_W_CANCELLED_BY_USER: PIN submission has been cancelled by the user.");
  }
  const std::uint32_t code = result == -1 ? GetLastError() : static_cast<std::uint32_t>(result);
  g_PinLog->WriteHex32("Login dialog exited with code: ", code);
  // The lookup's status stays, whatever the code; kept on purpose.
  return NTE_NOT_FOUND;
}

SECURITY_STATUS LoginFromCache(const KELDAKSP_PROVIDER& provider, const unsigned char* serial, DWORD cbPin,
                               PinBuffer& pin) {
  pin.Wipe();
  g_PinLog->WriteLine("Retrieving PIN from cache");
  // A longer PIN, typed where another program had raised the field's limit, does not fit and is refused by the lookup.
  cbPin = std::min(cbPin, static_cast<DWORD>(sizeof(pin.bytes)));
  if (g_PinManager->GetPin(serial, pin.bytes, &cbPin) != ERROR_SUCCESS) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: An unexpected error has occured.");
  }
  const CK_RV result = g_Cryptoki->Login(provider.hSession, pin.bytes, cbPin);
  if (result == CKR_OK || result == CKR_USER_ALREADY_LOGGED_IN) return ERROR_SUCCESS;
  // The PIN stays cached, and the user is not asked instead; kept on purpose.
  g_PinLog->WriteHex32("NTE_INTERNAL_ERROR: Unable to login using cached PIN. Error code: ",
                       static_cast<std::uint32_t>(result));
  return NTE_INTERNAL_ERROR;
}

SECURITY_STATUS LoginToToken(const KELDAKSP_PROVIDER& provider, std::optional<CLogin>& dialog, PinBuffer& pin) {
  g_PinLog->WriteLine("Retrieving token info");
  CK_TOKEN_INFO info = {};
  if (g_Cryptoki->Functions().C_GetTokenInfo(provider.slotId, &info) != CKR_OK) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "\tNTE_INTERNAL_ERROR: Failed to retrieve token info");
  }

  // Made even when the cached PIN will do.
  dialog.emplace(reinterpret_cast<HWND>(static_cast<std::uintptr_t>(provider.hWnd)));
  dialog->SetCryptoki(g_Cryptoki);
  dialog->SetSession(provider.hSession);
  dialog->SetPinManager(g_PinManager);
  dialog->SetSerialNumber(info.serialNumber);
  dialog->SetTokenLabel(TokenName(info));

  g_PinLog->WriteLine("Entering critical section");
  g_PinManager->Enter();
  g_PinLog->WriteLine("Checking PIN cache");
  DWORD cbPin = 0;
  // A lookup that finds nothing has left the critical section, so that the dialog does not block other logins.
  const SECURITY_STATUS result = g_PinManager->GetPin(info.serialNumber, nullptr, &cbPin);
  if (result == NTE_NOT_FOUND) return LoginThroughDialog(*dialog);
  if (result != ERROR_SUCCESS) {
    // not reached: a lookup for the length finds the PIN or does not
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: An internal error with the PIN cache has occured");
  }
  return LoginFromCache(provider, info.serialNumber, cbPin, pin);
}

}  // namespace

SECURITY_STATUS Login(KELDAKSP_PROVIDER* provider) noexcept {
  if (provider == nullptr) {
    return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - Provider context is NULL");
  }
  if (g_Cryptoki == nullptr) {
    return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - Cryptoki library context is NULL");
  }
  if (g_PinManager == nullptr) {
    return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN Manager context is NULL");
  }

  PinBuffer pin;
  std::optional<CLogin> dialog;
  SECURITY_STATUS status = NTE_INTERNAL_ERROR;
  try {
    status = LoginToToken(*provider, dialog, pin);
  } catch (const std::bad_alloc&) {
    status = NTE_NO_MEMORY;
  } catch (const std::exception& failure) {
    g_PinLog->WriteLine(failure.what());
  } catch (...) {
    g_PinLog->WriteLine("NTE_INTERNAL_ERROR: An unexpected error has occured.");
  }

  g_PinLog->WriteLine("Initiating cleanup routine - Login");
  if (dialog.has_value()) {
    g_PinLog->WriteLine("Deleting Login Dialog");
    dialog.reset();
  }
  g_PinLog->WriteLine("Securely clearing PIN buffer");
  pin.Wipe();
  g_PinLog->WriteLine("Pin buffer cleared");
  // The second leave where the lookup has left already; it is ignored then.
  g_PinManager->Leave();
  g_PinLog->WriteLine("Cleanup routine success - Login");
  return status;
}

SECURITY_STATUS Logout(KELDAKSP_PROVIDER* provider) {
  if (provider == nullptr || g_Cryptoki == nullptr) return NTE_INVALID_PARAMETER;
  const CK_RV result = g_Cryptoki->Functions().C_Logout(provider->hSession);
  if (result != CKR_OK && result != CKR_USER_NOT_LOGGED_IN) return NTE_INTERNAL_ERROR;
  // The count of characters is taken for a count of bytes, and the buffer is not released; both kept on purpose.
  SecureWipe(provider->pPinCache, provider->cchPinCache);
  provider->pPinCache = nullptr;
  provider->cchPinCache = 0;
  return ERROR_SUCCESS;
}
