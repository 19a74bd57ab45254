// What a custom action tells: lines in the installer's log, and messages that a user interface shows.
#pragma once

#include "support/windows.h"

#include <msi.h>
#include <msiquery.h>

#include <string>

namespace installer {

class Journal {
 public:
  explicit Journal(MSIHANDLE session) : session_(session) {}

  // What the package hands to a deferred action.
  std::wstring ActionData() const;

  void Note(const std::wstring& text) const { Tell(INSTALLMESSAGE_INFO, text); }
  // Shown where there is a user interface, and in the log. The installation goes on.
  void Warn(const std::wstring& text) const;
  // The same, for what ends the installation.
  void Fail(const std::wstring& text) const;

 private:
  void Tell(INSTALLMESSAGE kind, const std::wstring& text) const;

  MSIHANDLE session_;
};

}  // namespace installer
