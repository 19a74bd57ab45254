// A user for the dialogs that a CNG program's calls bring up: works on the real windows, by messages from a thread of
// its own.
#ifndef KELDA_TESTS_E2E_DIALOG_ROBOT_H_
#define KELDA_TESTS_E2E_DIALOG_ROBOT_H_

#include <windows.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

inline constexpr int kPinField = 1001;
inline constexpr int kStatusLine = 1004;
inline constexpr int kReaderList = 1005;

// A dialog on the screen. Every operation returns once the dialog has handled it.
class Dialog {
 public:
  explicit Dialog(HWND window) : window_(window) {}

  std::wstring caption() const { return TextOf(window_); }
  std::wstring text(int id) const { return TextOf(GetDlgItem(window_, id)); }
  bool enabled(int id) const { return IsWindowEnabled(GetDlgItem(window_, id)) != FALSE; }
  // A dialog that has been ended is hidden at once, and destroyed when its thread comes to it.
  bool open() const { return IsWindowVisible(window_) != FALSE; }

  LRESULT Send(int id, UINT message, WPARAM wparam = 0, LPARAM lparam = 0) const;
  // One WM_CHAR for each character; "\b" deletes the one before the caret.
  void Type(int id, const std::wstring& characters) const;
  void Press(int button) const;
  void CloseBySystemMenu() const { SendMessageW(window_, WM_SYSCOMMAND, SC_CLOSE, 0); }

 private:
  static std::wstring TextOf(HWND window);

  HWND window_;
};

// While it lives, every dialog that this thread opens is handed to the next step, on the robot's thread, as soon as it
// works. A dialog without a step, or left open by its step, is cancelled, so that nothing hangs.
class DialogRobot {
 public:
  using Step = std::function<void(const Dialog&)>;

  explicit DialogRobot(std::vector<Step> steps = {});
  ~DialogRobot();
  DialogRobot(const DialogRobot&) = delete;
  DialogRobot& operator=(const DialogRobot&) = delete;

  // Ends the robot's work; returns how many dialogs came up.
  std::size_t Finish();

  struct State;

 private:
  std::shared_ptr<State> state_;
  HHOOK hook_;
  std::thread worker_;
};

}  // namespace e2e

#endif  // KELDA_TESTS_E2E_DIALOG_ROBOT_H_
