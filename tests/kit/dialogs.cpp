#include "kit/dialogs.h"

#include <condition_variable>
#include <cwchar>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

namespace kit {

struct DialogRobot::State {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<HWND> shown;
  std::set<HWND> seen;
  std::set<HWND> running;  // those whose message loop has been seen at work
  std::set<HWND> gone;     // destroyed ones; a new window may get the number of one
  std::size_t created = 0;
  std::size_t handled = 0;
  bool stop = false;
  std::vector<Step> steps;
};

namespace {

// The robot of the thread that opens dialogs; its hook procedure runs on that thread.
thread_local DialogRobot::State* t_state = nullptr;

bool IsDialog(HWND window) {
  wchar_t name[16];
  return GetClassNameW(window, name, 16) && std::wcscmp(name, L"#32770") == 0;
}

UINT ProbeMessage() {
  static const UINT message = RegisterWindowMessageW(L"KeldaTestDialogProbe");
  return message;
}

// A posted message is taken out by the dialog's own message loop only: once that has happened the dialog has been
// initialised, shown and given its focus.
LRESULT CALLBACK OnMessage(int code, WPARAM wParam, LPARAM lParam) {
  const auto* message = reinterpret_cast<const MSG*>(lParam);
  if (t_state && code == HC_ACTION && wParam == PM_REMOVE && message->message == ProbeMessage()) {
    const std::lock_guard guard(t_state->lock);
    t_state->running.insert(message->hwnd);
    t_state->changed.notify_all();
  }
  return CallNextHookEx(nullptr, code, wParam, lParam);
}

LRESULT CALLBACK OnHook(int code, WPARAM wParam, LPARAM lParam) {
  auto* window = reinterpret_cast<HWND>(wParam);
  // The end of a dialog may activate that of another thread, which is not this robot's business.
  if (t_state && (code == HCBT_CREATEWND || code == HCBT_ACTIVATE || code == HCBT_DESTROYWND) && IsDialog(window) &&
      GetWindowThreadProcessId(window, nullptr) == GetCurrentThreadId()) {
    const std::lock_guard guard(t_state->lock);
    if (code == HCBT_CREATEWND) {
      ++t_state->created;
      t_state->running.erase(window);
      t_state->gone.erase(window);
    } else if (code == HCBT_DESTROYWND) {
      t_state->seen.erase(window);
      t_state->gone.insert(window);
    } else if (t_state->seen.insert(window).second) {
      t_state->shown.push_back(window);
    }
    t_state->changed.notify_all();
  }
  return CallNextHookEx(nullptr, code, wParam, lParam);
}

// A dialog without WS_VISIBLE is shown when its loop first has nothing to do, which may be after the probe. Each of
// these messages is answered in a turn of that loop.
void WaitUntilVisible(HWND window) {
  while (IsWindow(window) && !IsWindowVisible(window))
    SendMessageW(window, WM_NULL, 0, 0);
}

void Work(const std::shared_ptr<DialogRobot::State>& state) {
  for (;;) {
    HWND window = nullptr;
    {
      std::unique_lock guard(state->lock);
      state->changed.wait(guard, [&] { return state->stop || !state->shown.empty(); });
      if (state->shown.empty()) return;
      window = state->shown.front();
      state->shown.pop_front();
    }
    PostMessageW(window, ProbeMessage(), 0, 0);
    DialogRobot::Step step;
    {
      std::unique_lock guard(state->lock);
      state->changed.wait(
          guard, [&] { return state->stop || state->gone.contains(window) || state->running.contains(window); });
      if (!state->running.contains(window)) continue;  // ended by its own initialisation
      if (state->handled < state->steps.size()) step = state->steps[state->handled];
      ++state->handled;
    }
    WaitUntilVisible(window);
    Dialog dialog(window);
    if (step) step(dialog);
    if (dialog.open()) dialog.PressCancel();
  }
}

}  // namespace

// EndDialog hides the window at once; it is destroyed when its thread comes to it.
bool Dialog::open() const {
  return IsWindowVisible(window_) != FALSE;
}

LRESULT Dialog::Send(int id, UINT message, WPARAM wParam, LPARAM lParam) const {
  return SendMessageW(id ? control(id) : window_, message, wParam, lParam);
}

std::wstring Dialog::TextOf(HWND window) {
  std::wstring text(static_cast<std::size_t>(SendMessageW(window, WM_GETTEXTLENGTH, 0, 0)) + 1, L'\0');
  const LRESULT length =
      SendMessageW(window, WM_GETTEXT, static_cast<WPARAM>(text.size()), reinterpret_cast<LPARAM>(text.data()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

void Dialog::Type(int id, const std::wstring& characters) const {
  // Looked up once: Wine 10's server never ends a search among the controls of a dialog that is just being destroyed.
  const HWND target = control(id);
  for (const wchar_t character : characters)
    SendMessageW(target, WM_CHAR, static_cast<WPARAM>(character), 1);
}

void Dialog::Key(int id, WPARAM key) const {
  Send(id, WM_KEYDOWN, key, 1);
  Send(id, WM_KEYUP, key, static_cast<LPARAM>(0xC0000001));
}

void Dialog::Press(int id) const {
  SendMessageW(window_, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(control(id)));
}

void Dialog::CloseBySystemMenu() const {
  SendMessageW(window_, WM_SYSCOMMAND, SC_CLOSE, 0);
}

DialogRobot::DialogRobot(std::vector<Step> steps) : state_(std::make_shared<State>()) {
  state_->steps = std::move(steps);
  t_state = state_.get();
  hook_ = SetWindowsHookExW(WH_CBT, &OnHook, nullptr, GetCurrentThreadId());
  messageHook_ = SetWindowsHookExW(WH_GETMESSAGE, &OnMessage, nullptr, GetCurrentThreadId());
  worker_ = std::thread(&Work, state_);
}

DialogRobot::~DialogRobot() {
  Finish();
}

std::size_t DialogRobot::Finish() {
  if (worker_.joinable()) {
    UnhookWindowsHookEx(hook_);
    UnhookWindowsHookEx(messageHook_);
    t_state = nullptr;
    {
      const std::lock_guard guard(state_->lock);
      state_->stop = true;
    }
    state_->changed.notify_all();
    worker_.join();
  }
  return state_->handled;
}

std::size_t DialogRobot::created() const {
  const std::lock_guard guard(state_->lock);
  return state_->created;
}

}  // namespace kit
