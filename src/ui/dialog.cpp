#include "ui/dialog.h"

#include <utility>

#include "support/module_handle.h"

namespace {

constinit WindowList<CDialog> g_Dialogs;

}  // namespace

void CDataExchange::Control(int id, CWnd& member) noexcept {
  if (member.Handle() == nullptr) member.Subclass(GetDlgItem(dialog_.Handle(), id), &dialog_);
}

bool CDialog::HasVisibleDesktop() noexcept {
  USEROBJECTFLAGS flags = {};
  // Nothing is known of a station that cannot be asked: the dialog is tried.
  if (!GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof(flags), nullptr)) return true;
  return (flags.dwFlags & WSF_VISIBLE) != 0;
}

INT_PTR CDialog::DoModal() {
  if (!HasVisibleDesktop()) {
    // Services and scheduled tasks: the dialog would wait for ever where nobody sees it.
    SetLastError(ERROR_REQUIRES_INTERACTIVE_WINDOWSTATION);
    return -1;
  }
  // A window that no longer exists is no owner.
  const HWND owner = IsWindow(parent_) ? parent_ : nullptr;
  initialised_ = false;
  ended_ = false;
  g_Dialogs.Add(entry_, nullptr);
  const INT_PTR result =
      DialogBoxParamW(g_hModule, MAKEINTRESOURCEW(templateId_), owner, &Procedure, reinterpret_cast<LPARAM>(this));
  // Only now: that the window is gone nobody else may tell us.
  g_Dialogs.Remove(entry_);
  handle_ = nullptr;
  for (CWnd* control = std::exchange(controls_, nullptr); control != nullptr; control = control->nextControl_)
    control->Release();
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  // For an owner that has gone just now the platform answers 0, which is no failure to the callers.
  return result == 0 && !initialised_ ? -1 : result;
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
  CDialog* self = g_Dialogs.Find(window);
  if (message == WM_INITDIALOG) {
    // Only the platform's own message carries the object that waits for it; another program's is not believed, whether
    // it comes before or after.
    if (self != nullptr) return FALSE;
    self = g_Dialogs.Bind(reinterpret_cast<CDialog*>(lParam), window);
    if (self == nullptr) return FALSE;
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
    case WM_INITDIALOG: {
      initialised_ = true;
      const bool focus = OnInitDialog();
      // The program that asks may have been in the background all the time. A dialog that has just ended itself takes
      // the keyboard from nobody.
      if (!ended_) SetForegroundWindow(handle_);
      return focus ? TRUE : FALSE;
    }
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
    case WM_NCDESTROY:
      // The last message of a window, after its controls have gone. With controls it is another program's, and the
      // platform, which would forget the dialog for it, is not to see it.
      return GetWindow(handle_, GW_CHILD) != nullptr ? TRUE : FALSE;
    default:
      return FALSE;
  }
}
