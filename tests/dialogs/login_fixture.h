// What the tests of login, PIN cache and PIN dialog share: a token with one key, reached through SignHash, which logs
// in before it signs.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kit/dialogs.h"
#include "kit/provider.h"

// A line of a cache entry's own log instance; each entry has one.
kit::Line Entry(std::string text);

// The lines of a login, in pieces.
using Lines = std::vector<kit::Line>;
Lines operator+(Lines left, const Lines& right);
Lines PinLines(const std::vector<std::string>& texts);

class LoginTest : public kit::ProviderTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Signs a hash of 20 bytes with a provider's key; the cheapest way to a login.
  SECURITY_STATUS Sign() { return Sign(provider_, key_); }
  SECURITY_STATUS Sign(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key);
  // The same through a dialog into which the PIN is typed.
  SECURITY_STATUS SignTyping(const std::wstring& pin);
  // Signs and lets the script answer the dialog; expects exactly one dialog.
  SECURITY_STATUS SignWith(const std::function<void(kit::Dialog&)>& script);
  // Whether the next signature comes without a dialog. A dialog is cancelled.
  bool SignsFromCache();

  // The lines of the login of the one signature since the last look, without those of the entry around it. Lines of
  // cache entries' instances are Entry lines.
  static Lines LoginLines();

  // Another token, in a reader of its own, with a key of the same name.
  fake::Slot& AddToken(const std::string& reader);

  fake::Slot& slot() { return token().SlotAt(0); }
  std::string serial() { return Padded(slot().serial); }
  static std::string Padded(std::string serial);

  // What a login starts with, up to the lookup's answer.
  Lines Start();
  static Lines RetrievePinLines(bool lengthOnly);
  // From the button on until the token's answer.
  static Lines AttemptLines();
  static Lines StoredLines();
  static Lines ButtonDone();
  static Lines Cleanup();
  // The whole login through the dialog at the first attempt.
  Lines DialogLogin();
  // The whole login with a cached PIN.
  Lines CachedLogin();
  static Lines PresenceFound();
  static Lines CacheRead();

  NCRYPT_PROV_HANDLE provider_ = 0;
  NCRYPT_KEY_HANDLE key_ = 0;
};

inline constexpr SECURITY_STATUS kCancelledByUser = static_cast<SECURITY_STATUS>(0x8010006E);
