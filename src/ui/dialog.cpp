#include "ui/dialog.h"

#include <utility>

#include "support/module_handle.h"

void CDataExchange::Control(int id, CWnd& member) noexcept {
  if (member.Handle() == nullptr) member.Subclass(GetDlgItem(dialog_.Handle(), id), &dialog_);
}

INT_PTR CDialog::DoModal() {
  const INT_PTR result =
      DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(templateId_), parent_, &Procedure, reinterpret_cast<LPARAM>(this));
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  return result;
}

void CDialog::Fail(std::exception_ptr failure) noexcept {
  if (!failure_) failure_ = std::move(failure);
  EndDialog(-1);
}

void CDialog::UpdateData(bool save) {
  CDataExchange exchange(*this, save);
  DoDataExchange(exchange);
}

bool CDialog::OnInitDialog() {
  UpdateData(false);
  return true;
}

void CDialog::DoDataExchange(CDataExchange& /*exchange*/) {}

void CDialog::OnOK() {
  UpdateData(true);
  EndDialog(IDOK);
}

void CDialog::OnCancel() {
  EndDialog(IDCANCEL);
}

void CDialog::OnNotification(int /*id*/, UINT /*code*/) {}

HBRUSH CDialog::OnCtlColor(HDC context, HWND control) {
  return reinterpret_cast<HBRUSH>(
      DefWindowProcW(handle_, WM_CTLCOLORSTATIC, reinterpret_cast<WPARAM>(context), reinterpret_cast<LPARAM>(control)));
}

INT_PTR CALLBACK CDialog::Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
  auto* self = reinterpret_cast<CDialog*>(GetWindowLongPtrW(window, DWLP_USER));
  if (message == WM_INITDIALOG) {
    // Only the platform's own message carries the object; another program that sends one later is not believed.
    if (self != nullptr) return FALSE;
    self = reinterpret_cast<CDialog*>(lParam);
    SetWindowLongPtrW(window, DWLP_USER, lParam);
    self->handle_ = window;
  }
  if (self == nullptr) return FALSE;  // messages that come before WM_INITDIALOG
  // No exception crosses the platform's code that has called us.
  try {
    return self->OnMessage(message, wParam, lParam);
  } catch (...) {
    self->Fail(std::current_exception());
    return TRUE;
  }
}

INT_PTR CDialog::OnMessage(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_INITDIALOG:
      return OnInitDialog() ? TRUE : FALSE;
    case WM_COMMAND: {
      const int id = LOWORD(wParam);
      const UINT code = HIWORD(wParam);
      if (code == BN_CLICKED && id == IDOK) {
        OnOK();
      } else if (code == BN_CLICKED && id == IDCANCEL) {
        OnCancel();
      } else {
        if (lParam != 0) SendMessageW(reinterpret_cast<HWND>(lParam), kReflectedCommand, wParam, lParam);
        OnNotification(id, code);
      }
      return TRUE;
    }
    case WM_CTLCOLORSTATIC:
      return reinterpret_cast<INT_PTR>(OnCtlColor(reinterpret_cast<HDC>(wParam), reinterpret_cast<HWND>(lParam)));
    case WM_NCDESTROY:  // the last message of a window
      handle_ = nullptr;
      return FALSE;
    default:
      return FALSE;
  }
}
