// A small base for windows and controls on the plain Win32 API.
#pragma once

#include <cstddef>

#include "support/windows.h"
#include "support/wipe.h"
#include "ui/window_list.h"

class CDialog;

// A notification that a control sends its dialog comes back to the control as this message (the number is
// OCM_COMMAND's).
inline constexpr UINT kReflectedCommand = WM_USER + 0x1C00 + WM_COMMAND;

// A window of this process, or none. Never owns the window, and does not notice its end: the handle then is of no use
// to anybody.
class CWnd {
 public:
  CWnd() noexcept = default;
  virtual ~CWnd();
  CWnd(const CWnd&) = delete;
  CWnd& operator=(const CWnd&) = delete;

  HWND Handle() const noexcept { return handle_; }

  // Takes the messages of a control of dialog from now on. An exception that leaves WindowProc ends the dialog and
  // comes out of its DoModal.
  void Subclass(HWND control, CDialog* dialog) noexcept;

  void SetText(const wchar_t* text) noexcept { SetWindowTextW(handle_, text); }
  // Characters, the terminator not counted.
  std::size_t TextLength() const noexcept;
  // The window's text, terminated; its memory is wiped before it is released. Throws std::bad_alloc.
  WipedArray<wchar_t> Text() const;
  void Enable(bool enable) noexcept { EnableWindow(handle_, enable ? TRUE : FALSE); }
  LRESULT Send(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const noexcept {
    return SendMessageW(handle_, message, wParam, lParam);
  }

 protected:
  virtual LRESULT WindowProc(UINT message, WPARAM wParam, LPARAM lParam);
  // What the window did with the message before it was subclassed.
  LRESULT Default(UINT message, WPARAM wParam, LPARAM lParam) noexcept;

  HWND handle_ = nullptr;

 private:
  static LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
  friend class CDialog;
  // The dialog has ended, and the control with it.
  void Release() noexcept;

  WNDPROC previous_ = nullptr;
  CDialog* dialog_ = nullptr;
  CWnd* nextControl_ = nullptr;  // of the same dialog
  WindowList<CWnd>::Entry entry_{this};
};

class CStatic : public CWnd {};
class CButton : public CWnd {};

class CEdit : public CWnd {
 public:
  // Limits what the user can type, in characters.
  void LimitText(std::size_t characters) noexcept { Send(EM_LIMITTEXT, characters); }
  void Select(std::size_t start, std::size_t end) noexcept { Send(EM_SETSEL, start, static_cast<LPARAM>(end)); }
  void EmptyUndoBuffer() noexcept { Send(EM_EMPTYUNDOBUFFER); }
};

class CComboBox : public CWnd {
 public:
  void Add(const wchar_t* text) noexcept { Send(CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text)); }
  void Choose(std::size_t index) noexcept { Send(CB_SETCURSEL, index); }
  void Reset() noexcept { Send(CB_RESETCONTENT); }
};

class CIcon {
 public:
  CIcon() noexcept = default;
  ~CIcon() {
    if (handle_ != nullptr) DestroyIcon(handle_);
  }
  CIcon(const CIcon&) = delete;
  CIcon& operator=(const CIcon&) = delete;

  // Loads the icon of this DLL's resources in the size that the two system metrics tell. Each size is an icon of its
  // own: a shared one comes in the size that was asked for first.
  void Load(WORD id, int widthMetric, int heightMetric) noexcept;
  HICON Handle() const noexcept { return handle_; }

 private:
  HICON handle_ = nullptr;
};

class CFont {
 public:
  CFont() noexcept = default;
  ~CFont() {
    if (handle_ != nullptr) DeleteObject(handle_);
  }
  CFont(const CFont&) = delete;
  CFont& operator=(const CFont&) = delete;

  void Create(const LOGFONTW& description) noexcept { handle_ = CreateFontIndirectW(&description); }
  HFONT Handle() const noexcept { return handle_; }

 private:
  HFONT handle_ = nullptr;
};
