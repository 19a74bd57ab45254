#include "ui/window.h"

#include <exception>

#include "support/module_handle.h"
#include "ui/dialog.h"

namespace {

constinit WindowList<CWnd> g_Controls;

}  // namespace

CWnd::~CWnd() {
  Release();
}

// Before that a control stays this object's whatever it is told: any program of the user can send it the last message
// of a window.
void CWnd::Release() noexcept {
  if (handle_ == nullptr) return;
  g_Controls.Remove(entry_);
  handle_ = nullptr;
  previous_ = nullptr;
}

void CWnd::Subclass(HWND control, CDialog* dialog) noexcept {
  if (control == nullptr || handle_ != nullptr) return;
  handle_ = control;
  dialog_ = dialog;
  if (dialog != nullptr) dialog->AddControl(*this);
  g_Controls.Add(entry_, control);
  previous_ =
      reinterpret_cast<WNDPROC>(SetWindowLongPtrW(control, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&Procedure)));
}

std::size_t CWnd::TextLength() const noexcept {
  return static_cast<std::size_t>(GetWindowTextLengthW(handle_));
}

WipedArray<wchar_t> CWnd::Text() const {
  WipedArray<wchar_t> text(TextLength() + 1);
  GetWindowTextW(handle_, text.data(), static_cast<int>(text.size()));
  return text;
}

LRESULT CWnd::WindowProc(UINT message, WPARAM wParam, LPARAM lParam) {
  return Default(message, wParam, lParam);
}

LRESULT CWnd::Default(UINT message, WPARAM wParam, LPARAM lParam) noexcept {
  if (handle_ == nullptr || previous_ == nullptr) return 0;
  return CallWindowProcW(previous_, handle_, message, wParam, lParam);
}

LRESULT CALLBACK CWnd::Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
  CWnd* self = g_Controls.Find(window);
  if (self == nullptr) return DefWindowProcW(window, message, wParam, lParam);
  // No exception crosses the platform's code that has called us.
  try {
    return self->WindowProc(message, wParam, lParam);
  } catch (...) {
    if (self->dialog_ != nullptr) self->dialog_->Fail(std::current_exception());
    return 0;
  }
}

void CIcon::Load(WORD id, int widthMetric, int heightMetric) noexcept {
  handle_ = static_cast<HICON>(LoadImageW(g_hModule, MAKEINTRESOURCEW(id), IMAGE_ICON, GetSystemMetrics(widthMetric),
                                          GetSystemMetrics(heightMetric), LR_DEFAULTCOLOR));
}
