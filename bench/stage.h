// The provider on a token double, ready to sign.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "fake_token/fake_token.h"
#include "imports.h"
#include "kit/ksp.h"

namespace bench {

class Stage {
 public:
  // Redirects the registry and puts the token double in the place of the token's module.
  Stage();
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  // The provider newly loaded, on a token with that many key pairs, the PIN cached, the last key opened.
  void Set(bool log, std::size_t keyPairs);

  // A handle pair of a thread's own, on the first key.
  struct Handles {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
  };
  Handles Open(const std::wstring& keyName);
  void Close(const Handles& handles);

  // Forgets what the double has written down, and empties the log file.
  void Forget();

  const kit::FunctionTable& ksp() const { return *table_; }
  ImportTable& imports() { return *imports_; }
  fake::FunctionList& token() { return *fake::Token().List(); }
  const Handles& handles() const { return handles_; }
  bool log() const { return log_; }
  std::size_t keyPairs() const { return keyPairs_; }
  std::wstring LastKey() const;
  static std::wstring ProgramFolder();

  // Loads and unloads the provider once.
  void LoadOnce();

 private:
  void Unload();

  std::wstring logFile_;
  HMODULE module_ = nullptr;
  const kit::FunctionTable* table_ = nullptr;
  std::unique_ptr<ImportTable> imports_;
  Handles handles_;
  bool log_ = false;
  std::size_t keyPairs_ = 0;
};

}  // namespace bench
