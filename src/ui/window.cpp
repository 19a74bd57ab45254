#include "ui/window.h"

#include <exception>

#include "ui/dialog.h"

CWnd::~CWnd() {
  Unsubclass();
}

void CWnd::Subclass(HWND control, CDialog* dialog) noexcept {
  if (control == nullptr || handle_ != nullptr) return;
  handle_ = control;
  dialog_ = dialog;
  SetWindowLongPtrW(control, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  previous_ =
      reinterpret_cast<WNDPROC>(SetWindowLongPtrW(control, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&Procedure)));
}

void CWnd::Unsubclass() noexcept {
  if (handle_ == nullptr || previous_ == nullptr) return;
  SetWindowLongPtrW(handle_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(previous_));
  SetWindowLongPtrW(handle_, GWLP_USERDATA, 0);
  previous_ = nullptr;
  handle_ = nullptr;
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
  auto* self = reinterpret_cast<CWnd*>(GetWindowLongPtrW(window, GWLP_USERDATA));
  if (self == nullptr) return DefWindowProcW(window, message, wParam, lParam);
  if (message == WM_NCDESTROY) {
    const WNDPROC previous = self->previous_;
    self->Unsubclass();
    return CallWindowProcW(previous, window, message, wParam, lParam);
  }
  // No exception crosses the platform's code that has called us.
  try {
    return self->WindowProc(message, wParam, lParam);
  } catch (...) {
    if (self->dialog_ != nullptr) self->dialog_->Fail(std::current_exception());
    return 0;
  }
}
