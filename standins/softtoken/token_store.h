// What a SoftHSM token lacks of a real card, kept in files beside the tokens (in SoftHSM's token folder):
//
//   tries-SERIAL   "LEFT MAX": tries left for the user PIN, and how many a right PIN restores. Missing: "3 3".
//   pin-SERIAL     the user PIN. A card lists its private keys to everybody and only guards their use; SoftHSM hides
//                  them until login, so the list is read under this PIN. Missing: private keys are seen after login.
#pragma once

#include <string>

namespace softtoken {

// SoftHSM's token folder: "directories.tokendir" of the configuration that SOFTHSM2_CONF names.
std::string TokenFolder();

struct Tries {
  unsigned left = 3;
  unsigned max = 3;
};

// Holds the tries file of one token, locked against other processes, while a PIN is tried.
class TriesFile {
 public:
  explicit TriesFile(const std::string& serial);
  ~TriesFile();
  TriesFile(const TriesFile&) = delete;
  TriesFile& operator=(const TriesFile&) = delete;

  const Tries& tries() const { return tries_; }
  void SetLeft(unsigned left);

 private:
  int file_;
  Tries tries_;
};

// The user PIN of pin-SERIAL, empty if there is none. The caller wipes it.
std::string DirectoryPin(const std::string& serial);

// Overwrites a text in a way that is not optimised away.
void Wipe(std::string& text);

}  // namespace softtoken
