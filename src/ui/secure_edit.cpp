#include "ui/secure_edit.h"

#include <algorithm>
#include <stdexcept>

#include "diag/log_format.h"

namespace {

// Owner of a CryptoAPI context.
class RandomSource {
 public:
  RandomSource() {
    if (!CryptAcquireContextW(&context_, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
      char text[logformat::kHex32Size];
      logformat::Hex32(text, GetLastError());
      OutputDebugStringA(text);
      throw std::runtime_error("Failed to acquire cryptographic context");
    }
  }
  ~RandomSource() {
    if (context_ != 0) CryptReleaseContext(context_, 0);
  }
  RandomSource(const RandomSource&) = delete;
  RandomSource& operator=(const RandomSource&) = delete;

  std::uint16_t Next() {
    std::uint16_t number = 0;
    if (!CryptGenRandom(context_, sizeof(number), reinterpret_cast<BYTE*>(&number))) {
      throw std::runtime_error("Failed to generate random number");
    }
    return number;
  }
  void Release() {
    const HCRYPTPROV context = context_;
    context_ = 0;
    if (!CryptReleaseContext(context, 0)) throw std::runtime_error("Failed to release cryptographic context");
  }

 private:
  HCRYPTPROV context_ = 0;
};

bool IsDown(int key) noexcept {
  return GetKeyState(key) < 0;
}

}  // namespace

CSecureEditEx::CSecureEditEx() : cells_(NewMask()) {}

WipedArray<std::uint16_t> CSecureEditEx::NewMask() {
  RandomSource random;
  WipedArray<std::uint16_t> mask(PinScrambler::kMaskLength);
  for (std::size_t i = 0; i < mask.size(); ++i)
    mask[i] = random.Next();
  random.Release();
  return mask;
}

WipedArray<wchar_t> CSecureEditEx::RealText() const {
  return IsSecure() ? cells_.Text() : Text();
}

void CSecureEditEx::ClearCells() noexcept {
  cells_.Clear();
  count_ = 0;
}

bool CSecureEditEx::InsertCells(std::size_t position, const wchar_t* characters, std::size_t count) {
  return cells_.Insert(position, characters, count);
}

void CSecureEditEx::DeleteCells(std::size_t position, std::size_t count) noexcept {
  cells_.Delete(position, count);
}

LRESULT CSecureEditEx::WindowProc(UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case kReflectedCommand:
      if (HIWORD(wParam) == EN_UPDATE) OnUpdate();
      return 0;
    case WM_KEYDOWN:
      OnKeyDown(wParam);
      [[fallthrough]];
    case WM_KEYUP:
    case WM_CHAR:
    case WM_DEADCHAR:
    case WM_MOUSEMOVE:
    case WM_LBUTTONUP:
    case WM_LBUTTONDBLCLK:
    case WM_RBUTTONUP:
    case WM_RBUTTONDBLCLK:
    case WM_MBUTTONUP:
    case WM_MBUTTONDBLCLK: {
      const LRESULT result = Default(message, wParam, lParam);
      CollapseSelection();
      return result;
    }
    default:
      return Default(message, wParam, lParam);
  }
}

void CSecureEditEx::OnUpdate() {
  // The asterisks that this control writes itself are no change, even where they are not as many as the cells.
  if (updating_) return;
  const std::size_t length = TextLength();
  if (!IsSecure()) {
    count_ = static_cast<std::uint32_t>(length);
    return;
  }
  if (length == count_) return;
  updating_ = true;
  try {
    TakeChange(length);
  } catch (...) {
    // What was typed is lost, and must not stay behind in the window.
    Empty();
    updating_ = false;
    throw;
  }
  updating_ = false;
}

// Brings the cells up to the window text of length characters and covers it.
void CSecureEditEx::TakeChange(std::size_t length) {
  WipedArray<wchar_t> text = Text();
  if (text.size() <= length) {
    // The text did not come whole. Nothing is known of what was typed, so that the field starts anew.
    Empty();
    return;
  }
  const std::size_t caret = LOWORD(Send(EM_GETSEL));
  if (length > count_) {
    // The new characters end at the caret. Where they cannot - a text that another program has set, with the caret
    // before it - nothing is known of them and they are not taken.
    const std::size_t added = length - count_;
    if (added <= caret && caret <= length) InsertCells(caret - added, text.data() + (caret - added), added);
  } else {
    DeleteCells(caret, count_ - length);
  }
  count_ = static_cast<std::uint32_t>(cells_.size());

  std::fill_n(text.data(), length, L'*');
  SetText(text.data());
  Select(caret, caret);
  EmptyUndoBuffer();
}

void CSecureEditEx::Empty() noexcept {
  ClearCells();
  SetText(L"");
  EmptyUndoBuffer();
}

// Home and End with Shift would select; they empty the field instead.
void CSecureEditEx::OnKeyDown(WPARAM key) noexcept {
  if (key != VK_HOME && key != VK_END) return;
  if (!IsDown(VK_SHIFT) && !IsDown(VK_LSHIFT) && !IsDown(VK_RSHIFT)) return;
  ClearCells();
  SetText(L"");
  Select(0, 0);
  EmptyUndoBuffer();
}

void CSecureEditEx::CollapseSelection() noexcept {
  DWORD start = 0;
  DWORD end = 0;
  Send(EM_GETSEL, reinterpret_cast<WPARAM>(&start), reinterpret_cast<LPARAM>(&end));
  if (start == end) return;
  Select(start, start);
  EmptyUndoBuffer();
}
