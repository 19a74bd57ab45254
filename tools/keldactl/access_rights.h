// Who may do what with a file or folder, by its access control list.
#pragma once

#include "handle.h"

#include <optional>
#include <string>

namespace keldactl {

// Lets the group of all users read and write the open file, which needs the rights READ_CONTROL and WRITE_DAC. The file
// is not looked for by its name, so that nobody can put another in its place meanwhile. Throws Failure; the name is for
// its message.
void LetUsersWrite(HANDLE file, const std::wstring& name);
// Whether the file's list gives them that, whoever else has which rights.
bool UsersMayWrite(HANDLE file);

// Makes a folder in which administrators may write and users may read. One that is there stays as it is.
void MakeClosedFolder(const std::wstring& folder);

// A folder that somebody without administrator rights, and other than this user, could use to put something else in a
// file's place.
struct OpenFolder {
  std::wstring path;
  bool is_link = false;
};
// The nearest such folder above the file, which is named with its full path.
std::optional<OpenFolder> OpenFolderAbove(const std::wstring& file);

}  // namespace keldactl
