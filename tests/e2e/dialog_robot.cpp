#include "e2e/dialog_robot.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <string_view>

namespace e2e {

struct DialogRobot::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<HWND> waiting;
  std::set<HWND> seen;
  bool finished = false;
  std::vector<Step> steps;
  std::size_t handled = 0;
};

namespace {

// The robot of the thread that the dialogs belong to: hooks have no argument of their own.
thread_local DialogRobot::State* t_state = nullptr;

bool IsDialog(HWND window) {
  std::array<wchar_t, 16> name{};
  GetClassNameW(window, name.data(), static_cast<int>(name.size()));
  return std::wstring_view(name.data()) == L"#32770";
}

LRESULT CALLBACK OnHook(int code, WPARAM wparam, LPARAM lparam) {
  auto* window = reinterpret_cast<HWND>(wparam);
  if (t_state != nullptr && code == HCBT_ACTIVATE && IsDialog(window)) {
    const std::scoped_lock lock(t_state->mutex);
    if (t_state->seen.insert(window).second) t_state->waiting.push_back(window);
    t_state->changed.notify_all();
  }
  return CallNextHookEx(nullptr, code, wparam, lparam);
}

void Work(DialogRobot::State& state) {
  for (;;) {
    HWND window = nullptr;
    DialogRobot::Step step;
    {
      std::unique_lock lock(state.mutex);
      state.changed.wait(lock, [&] { return state.finished || !state.waiting.empty(); });
      if (state.waiting.empty()) return;
      window = state.waiting.front();
      state.waiting.pop_front();
      if (state.handled < state.steps.size()) step = state.steps[state.handled];
      ++state.handled;
    }
    // Answered once the dialog's own loop runs, which is after its initialisation.
    SendMessageW(window, WM_NULL, 0, 0);
    const Dialog dialog(window);
    if (step) step(dialog);
    if (dialog.open()) dialog.Press(IDCANCEL);
    {
      // The same number may be another dialog's later.
      const std::scoped_lock lock(state.mutex);
      state.seen.erase(window);
    }
  }
}

}  // namespace

LRESULT Dialog::Send(int id, UINT message, WPARAM wparam, LPARAM lparam) const {
  return SendMessageW(GetDlgItem(window_, id), message, wparam, lparam);
}

void Dialog::Type(int id, const std::wstring& characters) const {
  for (const wchar_t character : characters)
    Send(id, WM_CHAR, character, 1);
}

void Dialog::Press(int button) const {
  SendMessageW(window_, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED),
               reinterpret_cast<LPARAM>(GetDlgItem(window_, button)));
}

std::wstring Dialog::TextOf(HWND window) {
  std::wstring text(static_cast<std::size_t>(SendMessageW(window, WM_GETTEXTLENGTH, 0, 0)) + 1, L'\0');
  text.resize(static_cast<std::size_t>(
      SendMessageW(window, WM_GETTEXT, static_cast<WPARAM>(text.size()), reinterpret_cast<LPARAM>(text.data()))));
  return text;
}

DialogRobot::DialogRobot(std::vector<Step> steps) : state_(std::make_shared<State>()) {
  state_->steps = std::move(steps);
  t_state = state_.get();
  hook_ = SetWindowsHookExW(WH_CBT, &OnHook, nullptr, GetCurrentThreadId());
  worker_ = std::thread([state = state_] { Work(*state); });
}

DialogRobot::~DialogRobot() {
  Finish();
}

std::size_t DialogRobot::Finish() {
  if (worker_.joinable()) {
    UnhookWindowsHookEx(hook_);
    t_state = nullptr;
    {
      const std::scoped_lock lock(state_->mutex);
      state_->finished = true;
    }
    state_->changed.notify_all();
    worker_.join();
  }
  return state_->handled;
}

}  // namespace e2e
