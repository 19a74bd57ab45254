// The PIN entry dialog.
#pragma once

#include <stdexcept>

#include "login/pin_cache/pin_cache_entry.h"
#include "support/windows.h"
#include "support/wipe.h"
#include "support/pkcs11.h"
#include "ui/dialog.h"
#include "ui/secure_edit.h"

class CryptokiModule;
class PinManager;

// A failure that carries the status it stands for.
class StatusError : public std::runtime_error {
 public:
  StatusError(const char* text, SECURITY_STATUS code) : std::runtime_error(text), code_(code) {}
  SECURITY_STATUS Code() const noexcept { return code_; }

 private:
  SECURITY_STATUS code_;
};

// Asks for the token's PIN. The Login button logs in to the token itself and, when that worked, stores the PIN in the
// cache; after a wrong or blocked PIN the dialog stays open. DoModal gives IDOK after any other attempt, even a failed
// one; IDCANCEL; or an error status when there was no attempt.
class CLogin : public CDialog {
 public:
  // parent may be null. Throws std::runtime_error when the PIN field cannot be constructed, std::bad_alloc.
  explicit CLogin(HWND parent);
  ~CLogin() override;

  // The objects stay the caller's.
  void SetCryptoki(const CryptokiModule* cryptoki) noexcept { cryptoki_ = cryptoki; }
  void SetSession(CK_SESSION_HANDLE session) noexcept { session_ = session; }
  void SetPinManager(PinManager* pinManager) noexcept { pinManager_ = pinManager; }
  // Copies 16 bytes. Throws StatusError (NTE_INVALID_PARAMETER) for null.
  void SetSerialNumber(const unsigned char* serial);
  // The token's name for the caption, terminated.
  void SetTokenLabel(WipedArray<wchar_t> label) noexcept { label_ = static_cast<WipedArray<wchar_t>&&>(label); }

  // The PIN as narrow bytes, one per character of the field. With pin null stores their number in *pcbPin; otherwise
  // *pcbPin is the room at pin. Returns 0, NTE_INVALID_PARAMETER, NTE_BUFFER_TOO_SMALL (the number needed is stored) or
  // the platform's error of the conversion. Throws std::bad_alloc.
  SECURITY_STATUS RetrievePIN(char* pin, DWORD* pcbPin);
  // Logs in to the token with the pinLength bytes at pin and shows the outcome. Returns 0, SCARD_W_WRONG_CHV,
  // SCARD_W_CHV_BLOCKED, or what else kept the token from it.
  SECURITY_STATUS Login(const unsigned char* pin, DWORD pinLength);
  // Returns 0 even when the cache refused the PIN with an error status; kept on purpose.
  SECURITY_STATUS StorePinToCache(const unsigned char* pin, DWORD pinLength) noexcept;

 protected:
  bool OnInitDialog() override;
  void DoDataExchange(CDataExchange& exchange) override;
  void OnOK() override { OnBnClickedOk(); }
  void OnCancel() override;
  HBRUSH OnCtlColor(HDC context, HWND control) override;

  CSecureEditEx pinField_;

 private:
  void OnBnClickedOk();
  // Retrieves the PIN and logs in with it; the status that decides about the dialog's end.
  SECURITY_STATUS Attempt(WipedArray<char>& pin);
  SECURITY_STATUS CheckContext() const noexcept;
  void SetStatusLine(const char* text) noexcept;

  CIcon icon_;
  CIcon smallIcon_;
  CFont statusFont_;
  CStatic status_;
  CStatic logo_;
  CButton ok_;
  const CryptokiModule* cryptoki_ = nullptr;
  PinManager* pinManager_ = nullptr;
  CK_SESSION_HANDLE session_ = 0;
  unsigned char serial_[kSerialLength] = {};
  bool hasSerial_ = false;
  WipedArray<wchar_t> label_;
  bool holdsDialogFlag_ = false;
};
