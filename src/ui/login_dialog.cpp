#include "ui/login_dialog.h"

#include <cstdio>
#include <cstring>

#include "diag/debug_log.h"
#include "login/pin_cache/pin_manager.h"
#include "support/text.h"
#include "support/ck_rv_status.h"
#include "token/cryptoki_module.h"
#include "ui/resource.h"

namespace {

constexpr std::size_t kMaxTypedCharacters = 16;
// Characters of the status line, the terminator counted.
constexpr std::size_t kStatusLineSize = 100;
constexpr COLORREF kStatusColour = RGB(250, 0, 0);
constexpr CK_RV kMaxTriesLeft = 14;

bool KeepsDialogOpen(SECURITY_STATUS status) noexcept {
  return status == SCARD_W_WRONG_CHV || status == SCARD_W_CHV_BLOCKED;
}

// At most seven characters and the terminator fit, so that the one text that would forbid caching can never be read.
// Kept on purpose; the PIN cache has the opposite test of its own.
bool CachingIsForbidden() noexcept {
  wchar_t setting[8] = {};
  DWORD cbSetting = sizeof(setting);
  return RegGetValueW(HKEY_LOCAL_MACHINE, kSettingsKey, L"PINCACHE", RRF_RT_REG_SZ, nullptr, setting, &cbSetting) ==
             ERROR_SUCCESS &&
         WideEqual(setting, L"00000000");
}

}  // namespace

CLogin::CLogin(HWND parent) : CDialog(IDD_LOGIN, parent) {}

CLogin::~CLogin() {
  SecureWipe(serial_, sizeof(serial_));
  // A dialog that neither button has ended (its owner was destroyed, or an exception ended it) must not keep all later
  // ones from opening.
  if (holdsDialogFlag_) pinManager_->DialogFlag() = 0;
}

void CLogin::SetSerialNumber(const unsigned char* serial) {
  if (serial == nullptr) {
    g_PinLog->WriteLine("Setting slot serial number");
    g_PinLog->WriteLine("NTE_INVALID_PARAMETER - Serial number is NULL");
    throw StatusError("Failed to set slot serial number", NTE_INVALID_PARAMETER);
  }
  std::memcpy(serial_, serial, sizeof(serial_));
  hasSerial_ = true;
}

void CLogin::DoDataExchange(CDataExchange& exchange) {
  CDialog::DoDataExchange(exchange);
  exchange.Control(IDC_PIN, pinField_);
  exchange.Control(IDC_STATUS, status_);
  exchange.Control(IDOK, ok_);
  exchange.Control(IDC_LOGO, logo_);
}

bool CLogin::OnInitDialog() {
  CDialog::OnInitDialog();
  icon_.Load(IDI_KELDA, SM_CXICON, SM_CYICON);
  smallIcon_.Load(IDI_KELDA, SM_CXSMICON, SM_CYSMICON);
  Send(WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon_.Handle()));
  Send(WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(smallIcon_.Handle()));

  LOGFONTW font = {};
  font.lfHeight = 16;
  font.lfWeight = FW_BOLD;
  std::memcpy(font.lfFaceName, L"Arial", sizeof(L"Arial"));
  statusFont_.Create(font);

  pinField_.LimitText(kMaxTypedCharacters);
  status_.SetText(L"");

  static constexpr wchar_t kCaption[] = L"Enter PIN for ";
  constexpr std::size_t kCaptionLength = sizeof(kCaption) / sizeof(wchar_t) - 1;
  const std::size_t labelLength = WideLength(label_.data());
  WipedArray<wchar_t> caption(kCaptionLength + labelLength + 1);
  std::memcpy(caption.data(), kCaption, kCaptionLength * sizeof(wchar_t));
  if (labelLength != 0) std::memcpy(caption.data() + kCaptionLength, label_.data(), labelLength * sizeof(wchar_t));
  SetText(caption.data());

  if (pinManager_ == nullptr) return true;
  // One PIN dialog at a time: a second one cancels itself.
  if (pinManager_->DialogFlag().exchange(1) != 0) {
    EndDialog(IDCANCEL);
  } else {
    holdsDialogFlag_ = true;
  }
  return true;
}

HBRUSH CLogin::OnCtlColor(HDC context, HWND control) {
  HBRUSH brush = CDialog::OnCtlColor(context, control);
  if (GetDlgCtrlID(control) == IDC_STATUS) {
    SetTextColor(context, kStatusColour);
    SelectObject(context, statusFont_.Handle());
  }
  return brush;
}

void CLogin::OnBnClickedOk() {
  UpdateData(true);
  SECURITY_STATUS status = ERROR_SUCCESS;
  {
    WipedArray<char> pin;
    status = Attempt(pin);
    g_PinLog->WriteLine("Initiating cleanup routine - OnBnClickedOk()");
    if (!pin.empty()) {
      g_PinLog->WriteLine("Securely deleting PIN buffer");
      pin.Reset();
    }
  }
  g_PinLog->WriteLine("Releasing PIN cache lock");
  if (pinManager_ != nullptr) {
    // Up and down again, whoever had raised it: after a wrong PIN another dialog may open beside this one.
    pinManager_->DialogFlag() = 1;
    pinManager_->DialogFlag() = 0;
    holdsDialogFlag_ = false;
  }
  if (KeepsDialogOpen(status)) return;
  g_PinLog->WriteLine("Cleanup routine success - OnBnClickedOk()");
  EndDialog(status);
}

SECURITY_STATUS CLogin::Attempt(WipedArray<char>& pin) {
  SECURITY_STATUS status = CheckContext();
  if (status != ERROR_SUCCESS) return status;

  g_PinLog->WriteLine("Retrieving PIN length");
  DWORD cbPin = 0;
  status = RetrievePIN(nullptr, &cbPin);
  if (status != ERROR_SUCCESS) {
    // not reached: the length can always be told
    g_PinLog->WriteHex32("Failed to retrieve PIN length: ", static_cast<std::uint32_t>(status));
    return status;
  }
  pin = WipedArray<char>::Try(cbPin);
  if (pin.empty()) return g_PinLog->Refuse(NTE_NO_MEMORY, "Not enough memory to continue operation.");

  g_PinLog->WriteLine("Retrieving PIN");
  status = RetrievePIN(pin.data(), &cbPin);
  if (status != ERROR_SUCCESS) {
    g_PinLog->WriteHex32("Failed to retrieve PIN: ", static_cast<std::uint32_t>(status));
    return status;
  }
  g_PinLog->WriteLine("Logging in to token");
  status = Login(reinterpret_cast<const unsigned char*>(pin.data()), cbPin);
  // Whatever else came out, a failure included, ends the dialog like a success; kept on purpose.
  return KeepsDialogOpen(status) ? status : IDOK;
}

SECURITY_STATUS CLogin::CheckContext() const noexcept {
  if (cryptoki_ == nullptr) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - cryptoki context is not set");
  }
  if (session_ == 0) {
    return g_PinLog->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE - cryptoki session handle is not set");
  }
  if (!hasSerial_) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - slot serial number is not set");
  }
  if (pinManager_ == nullptr) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - pin cache context is not set");
  }
  return ERROR_SUCCESS;
}

void CLogin::OnCancel() {
  UpdateData(true);
  g_PinLog->WriteLine("Login cancelled");
  if (pinField_.TextLength() != 0) {
    if (pinField_.IsSecure()) {
      pinField_.ClearCells();
    } else {
      pinField_.ResetCount();
    }
    pinField_.SetText(L"");
  }
  g_PinLog->WriteLine("Releasing PIN cache lock");
  if (pinManager_ != nullptr) {
    // Whoever has raised it.
    if (pinManager_->DialogFlag() != 0) pinManager_->DialogFlag() = 0;
    holdsDialogFlag_ = false;
  }
  EndDialog(IDCANCEL);
}

SECURITY_STATUS CLogin::RetrievePIN(char* pin, DWORD* pcbPin) {
  g_PinLog->WriteLine("Retrieve PIN - Enter");
  SECURITY_STATUS status = ERROR_SUCCESS;
  WipedArray<wchar_t> text;
  const auto cchPin = static_cast<DWORD>(pinField_.Count());
  if (pcbPin == nullptr) {
    status = g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN length buffer is null");
  } else if (pin == nullptr) {
    g_PinLog->WriteLine("PIN buffer is NULL. Returning PIN length");
    *pcbPin = cchPin;
  } else if (*pcbPin < cchPin) {
    status = g_PinLog->Refuse(NTE_BUFFER_TOO_SMALL, "NTE_BUFFER_TOO_SMALL - PIN buffer is too small");
    g_PinLog->WriteInt("*pcbPIN = ", static_cast<std::int32_t>(*pcbPin));
    g_PinLog->WriteInt("cchPIN = ", static_cast<std::int32_t>(cchPin));
    *pcbPin = cchPin;
  } else {
    g_PinLog->WriteLine("Securely retrieving pin");
    text = pinField_.RealText();
    // One byte per character is all the room there is: a character that takes more fails here.
    if (WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(cchPin), pin, static_cast<int>(cchPin), nullptr,
                            nullptr) == 0) {
      const DWORD error = GetLastError();
      g_PinLog->WriteHex32("Failed to properly retrieve PIN. Error: ", error);
      // Without a reason the failure must not pass for a success: the buffer holds no PIN to try.
      status = error != ERROR_SUCCESS ? static_cast<SECURITY_STATUS>(error) : NTE_INTERNAL_ERROR;
    }
  }
  g_PinLog->WriteLine("Initiating cleanup routine - RetrievePIN");
  text.Reset();
  g_PinLog->WriteLine("Cleanup routine success - RetrievePIN");
  g_PinLog->WriteLine("Retrieve PIN - Exit");
  return status;
}

SECURITY_STATUS CLogin::Login(const unsigned char* pin, DWORD pinLength) {
  g_PinLog->WriteLine("Login - Entry");
  if (cryptoki_ == nullptr) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - Cryptographic library not set.");
  }
  if (pin == nullptr) return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN is NULL");
  if (pinLength == 0) return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN length is zero");

  g_PinLog->WriteLine("Initiating login to cryptographic session");
  const CK_RV result = cryptoki_->Login(session_, pin, pinLength);
  if (result == CKR_OK || result == CKR_USER_ALREADY_LOGGED_IN) {
    if (result == CKR_USER_ALREADY_LOGGED_IN) g_PinLog->WriteLine("User is already logged in");
    g_PinLog->WriteLine("Login success");
    StorePinToCache(pin, pinLength);
    return ERROR_SUCCESS;
  }
  if (result <= kMaxTriesLeft) {
    char text[kStatusLineSize];
    std::snprintf(text, sizeof(text), "%s: %d", "Incorrect PIN. Retries left", static_cast<int>(result));
    SetStatusLine(text);
    UpdateData(false);
    g_PinLog->WriteLine(text);
    return SCARD_W_WRONG_CHV;
  }
  if (result == CKR_PIN_LOCKED) {
    SetStatusLine("Pin is locked");
    // Only Cancel remains; the keyboard must not be left with a disabled control.
    Send(WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(GetDlgItem(handle_, IDCANCEL)), TRUE);
    pinField_.Enable(false);
    ok_.Enable(false);
    UpdateData(false);
    return g_PinLog->Refuse(SCARD_W_CHV_BLOCKED, "Pin is locked");
  }
  const auto code = static_cast<std::uint32_t>(result);
  g_PinLog->WriteHex32("An unexpected error occured. Refer to PKCS logs for more info", code);
  return StatusFromCkRv(code);
}

void CLogin::SetStatusLine(const char* text) noexcept {
  wchar_t wide[kStatusLineSize];
  WidenBytes(wide, reinterpret_cast<const unsigned char*>(text), kStatusLineSize - 1);
  status_.SetText(wide);
}

SECURITY_STATUS CLogin::StorePinToCache(const unsigned char* pin, DWORD pinLength) noexcept {
  g_PinLog->WriteLine("Checking PIN cache setting");
  if (CachingIsForbidden()) return g_PinLog->Refuse(ERROR_CANCELLED, "PIN caching is not allowed");

  g_PinLog->WriteLine("Storing PIN to PIN cache");
  if (pinManager_ == nullptr) return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - pin cache is not set");
  if (!hasSerial_) {
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - slot serial number is not set");
  }
  if (pin == nullptr) return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN is NULL");
  if (pinLength == 0) return g_PinLog->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER - PIN length is zero");
  if (pinManager_->SetPin(serial_, kSerialLength, pin, pinLength) == 0) {
    // not reached: the cache answers 1 or a failure, never 0
    return g_PinLog->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Failed to store pin to cache.");
  }
  return ERROR_SUCCESS;
}
