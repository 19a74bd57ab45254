// A small base for modal dialogs.
#pragma once

#include <exception>

#include "support/windows.h"
#include "ui/window.h"

class CDialog;

// Binds a dialog's controls to its members.
class CDataExchange {
 public:
  CDataExchange(CDialog& dialog, bool save) noexcept : dialog_(dialog), save_(save) {}
  // Binds the control with this identifier to member, the first time only.
  void Control(int id, CWnd& member) noexcept;
  // Whether data goes from the controls to the members.
  bool Saves() const noexcept { return save_; }

 private:
  CDialog& dialog_;
  bool save_;
};

// A modal dialog from a template of this DLL's resources.
class CDialog : public CWnd {
 public:
  // parent may be null.
  CDialog(WORD templateId, HWND parent) noexcept : templateId_(templateId), parent_(parent) {}

  // Whether a window of this process can be seen by anybody: not so in services and scheduled tasks.
  static bool HasVisibleDesktop() noexcept;

  // Shows the dialog and waits for its end. Returns what EndDialog was given, or -1 (GetLastError tells why) when it
  // could not be shown. An exception that ended the dialog is thrown again here.
  INT_PTR DoModal();

  // A control that lives until the dialog ends.
  void AddControl(CWnd& control) noexcept {
    control.nextControl_ = controls_;
    controls_ = &control;
  }

  // Ends the dialog because of an exception; the first one counts.
  void Fail(std::exception_ptr failure) noexcept;

 protected:
  void EndDialog(INT_PTR result) noexcept {
    ended_ = true;
    ::EndDialog(handle_, result);
  }
  // Runs the data exchange: save is true from the controls to the members.
  void UpdateData(bool save);

  // Returns whether the first control gets the focus.
  virtual bool OnInitDialog();
  virtual void DoDataExchange(CDataExchange& exchange);
  virtual void OnOK();
  virtual void OnCancel();
  // A notification of a control of the dialog's own; the buttons IDOK and IDCANCEL are handled before.
  virtual void OnNotification(int id, UINT code);
  // How a static control is painted; returns the brush of its background.
  virtual HBRUSH OnCtlColor(HDC context, HWND control);

 private:
  static INT_PTR CALLBACK Procedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
  INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam);

  WORD templateId_;
  HWND parent_;
  bool initialised_ = false;
  bool ended_ = false;
  WindowList<CDialog>::Entry entry_{this};
  CWnd* controls_ = nullptr;
  std::exception_ptr failure_;
};
