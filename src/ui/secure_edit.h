// The PIN field: an edit control that never holds what is typed as its window text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/windows.h"
#include "support/wipe.h"
#include "ui/pin_scrambler.h"
#include "ui/window.h"

// Shows one "*" per character and keeps the characters scrambled in cells of its own. Nothing can be selected in it.
class CSecureEditEx : public CEdit {
 public:
  // Throws std::runtime_error when the platform has no random numbers for the mask, std::bad_alloc.
  CSecureEditEx();

  // Characters that the field holds, as of the last change.
  std::size_t Count() const noexcept { return count_; }
  bool IsSecure() const noexcept { return secureMode_ != 0; }
  // Outside secure mode, which a field starts in, it is an ordinary password field that only counts its characters.
  void SetSecure(bool secure) noexcept { secureMode_ = secure ? 1 : 0; }
  // What was typed, in clear and terminated; the memory is wiped before it is released. Throws std::bad_alloc.
  WipedArray<wchar_t> RealText() const;
  // Forgets what was typed; the window text stays.
  void ClearCells() noexcept;
  void ResetCount() noexcept { count_ = 0; }
  // See PinScrambler::Insert and Delete.
  bool InsertCells(std::size_t position, const wchar_t* characters, std::size_t count);
  void DeleteCells(std::size_t position, std::size_t count) noexcept;

 protected:
  LRESULT WindowProc(UINT message, WPARAM wParam, LPARAM lParam) override;

 private:
  static WipedArray<std::uint16_t> NewMask();
  void OnUpdate();
  void TakeChange(std::size_t length);
  // Cells, window text and undo buffer.
  void Empty() noexcept;
  void OnKeyDown(WPARAM key) noexcept;
  void CollapseSelection() noexcept;

  std::uint32_t secureMode_ = 1;
  PinScrambler cells_;
  std::uint32_t count_ = 0;
  bool updating_ = false;
};
