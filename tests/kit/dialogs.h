// Answers the provider's dialogs from a second thread, by messages to the real windows. Stands on Windows alone, so
// that programs that reach the provider through CNG can use it, too.
#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kit {

inline constexpr int kPinField = 1001;
inline constexpr int kStatusLine = 1004;
inline constexpr int kReaderList = 1005;

// A dialog on the screen. All operations wait until the dialog has handled them.
class Dialog {
 public:
  explicit Dialog(HWND window) : window_(window) {}
  HWND window() const { return window_; }
  HWND control(int id) const { return GetDlgItem(window_, id); }
  std::wstring caption() const { return TextOf(window_); }
  std::wstring text(int id) const { return TextOf(control(id)); }
  bool enabled(int id) const { return IsWindowEnabled(control(id)) != FALSE; }
  // Whether it has neither been ended nor destroyed.
  bool open() const;
  // One WM_CHAR for each character to the control; "\b" deletes the one before the caret.
  void Type(int id, const std::wstring& characters) const;
  // A key with its WM_KEYDOWN and WM_KEYUP (no WM_CHAR).
  void Key(int id, WPARAM key) const;
  // BN_CLICKED, as a press of the button sends it. Returns when the handler has returned.
  void Press(int id) const;
  void PressOk() const { Press(IDOK); }
  void PressCancel() const { Press(IDCANCEL); }
  void CloseBySystemMenu() const;
  LRESULT Send(int id, UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const;
  static std::wstring TextOf(HWND window);

 private:
  HWND window_;
};

// While it lives, each dialog box that this thread opens is handed to the script on a second thread as soon as it is
// shown: the first one to the first step, the second to the second. A dialog without a step is cancelled.
//   DialogRobot robot({[](Dialog& dialog) { dialog.Type(kPinField, L"1234"); dialog.PressOk(); }});
//   status = ksp().SignHash(...);
//   EXPECT_EQ(robot.Finish(), 1u);
// A dialog that its step leaves open is cancelled as well, so that no test hangs.
class DialogRobot {
 public:
  using Step = std::function<void(Dialog&)>;
  explicit DialogRobot(std::vector<Step> steps = {});
  ~DialogRobot();
  DialogRobot(const DialogRobot&) = delete;
  DialogRobot& operator=(const DialogRobot&) = delete;

  // Ends the robot; returns the number of dialogs that were shown, also those beyond the steps.
  std::size_t Finish();
  // Dialog windows created by the thread, also those that were never shown.
  std::size_t created() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
  HHOOK hook_ = nullptr;
  HHOOK messageHook_ = nullptr;
  std::thread worker_;
};

}  // namespace kit
