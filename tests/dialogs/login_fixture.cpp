#include "login_fixture.h"

namespace {

constexpr int kEntryLog = 1000;

// The PIN cache lives as long as the process and is keyed by the serial number: each test has tokens of its own.
std::string NewSerial() {
  static int number = 0;
  return "T" + std::to_string(++number);
}

}  // namespace

kit::Line Entry(std::string text) {
  return {kEntryLog, std::move(text)};
}

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Lines PinLines(const std::vector<std::string>& texts) {
  Lines lines;
  for (const std::string& text : texts)
    lines.push_back(kit::Pin(text));
  return lines;
}

void LoginTest::SetUp() {
  ProviderTest::SetUp();
  // For the instances that the cache's entries make later.
  kit::Registry::Get().SetString(kit::kSdkKey, L"KSPLOG", L"1");
  AddReader().serial = NewSerial();
  token().AddKeyPair(fake::Ascii("K"), "key");
  provider_ = OpenProvider();
  key_ = OpenKey(provider_, L"K");
}

void LoginTest::TearDown() {
  ksp().FreeKey(provider_, key_);
  ksp().FreeProvider(provider_);
  ProviderTest::TearDown();
}

SECURITY_STATUS LoginTest::Sign(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
  BYTE hash[20] = {1, 2, 3};
  BYTE signature[256];
  DWORD length = 0;
  return ksp().SignHash(provider, key, nullptr, hash, sizeof hash, signature, sizeof signature, &length, 0);
}

SECURITY_STATUS LoginTest::SignWith(const std::function<void(kit::Dialog&)>& script) {
  kit::DialogRobot robot({script});
  const SECURITY_STATUS status = Sign();
  EXPECT_EQ(robot.Finish(), 1u);
  return status;
}

SECURITY_STATUS LoginTest::SignTyping(const std::wstring& pin) {
  return SignWith([&](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, pin);
    dialog.PressOk();
  });
}

bool LoginTest::SignsFromCache() {
  kit::DialogRobot robot;
  const SECURITY_STATUS status = Sign();
  const bool shown = robot.Finish() != 0;
  EXPECT_EQ(status, shown ? kCancelledByUser : 0);
  return !shown;
}

Lines LoginTest::LoginLines() {
  Lines lines = kit::Log::Get().Take();
  Lines login;
  bool inside = false;
  for (kit::Line& line : lines) {
    if (line.instance == kit::kMainLog) {
      inside = line.text.starts_with("dwFlags      : ");
      continue;
    }
    if (!inside) continue;
    if (line.instance > kit::kPinLog) line.instance = kEntryLog;
    login.push_back(std::move(line));
  }
  return login;
}

fake::Slot& LoginTest::AddToken(const std::string& reader) {
  fake::Slot& added = token().AddSlot(reader);
  added.serial = NewSerial();
  return added;
}

std::string LoginTest::Padded(std::string serial) {
  serial.resize(16, ' ');
  return serial;
}

Lines LoginTest::Start() {
  const std::string bytes = serial();
  return PinLines({"Retrieving token info", "Entering critical section", "Checking PIN cache"}) +
         Lines{kit::PinManager("PIN Manager - Retrieving PIN from PIN Cache"),
               kit::PinManager(kit::Dump("pbSerial: ", {bytes.begin(), bytes.end()})), kit::Number("cbSerial: ", 16),
               kit::PinManager("PIN Manager - Iterating through PIN caches")};
}

Lines LoginTest::RetrievePinLines(bool lengthOnly) {
  return PinLines({lengthOnly ? "Retrieving PIN length" : "Retrieving PIN", "Retrieve PIN - Enter",
                   lengthOnly ? "PIN buffer is NULL. Returning PIN length" : "Securely retrieving pin",
                   "Initiating cleanup routine - RetrievePIN", "Cleanup routine success - RetrievePIN",
                   "Retrieve PIN - Exit"});
}

Lines LoginTest::AttemptLines() {
  return RetrievePinLines(true) + RetrievePinLines(false) +
         PinLines({"Logging in to token", "Login - Entry", "Initiating login to cryptographic session"});
}

Lines LoginTest::StoredLines() {
  return PinLines({"Checking PIN cache setting", "Storing PIN to PIN cache"}) +
         Lines{kit::PinManager("Checking PIN caching setting"),
               kit::PinManager("Creating cache to store token PIN"),
               kit::PinManager("Setting cache label"),
               kit::PinManager("Setting PIN"),
               Entry("Encrypt - Output buffer is NULL, returning output length"),
               kit::PinManager("Saving cache to pool"),
               kit::PinManager("PIN securely saved")};
}

Lines LoginTest::ButtonDone() {
  return PinLines({"Initiating cleanup routine - OnBnClickedOk()", "Securely deleting PIN buffer",
                   "Releasing PIN cache lock", "Cleanup routine success - OnBnClickedOk()"});
}

Lines LoginTest::Cleanup() {
  return PinLines({"Initiating cleanup routine - Login", "Deleting Login Dialog", "Securely clearing PIN buffer",
                   "Pin buffer cleared", "Cleanup routine success - Login"});
}

Lines LoginTest::DialogLogin() {
  return Start() + Lines{kit::PinManager("PIN Manager - PIN is not found")} + PinLines({"PIN cache is empty"}) +
         AttemptLines() + PinLines({"Login success"}) + StoredLines() + ButtonDone() + Cleanup();
}

Lines LoginTest::PresenceFound() {
  return {kit::PinManager("PIN Manager - PIN buffer is NULL, returning PIN length"),
          Entry("Decrypt - Output buffer is NULL. Returning data length")};
}

Lines LoginTest::CacheRead() {
  return {Entry("Decrypt - Output buffer is NULL. Returning data length")};
}

Lines LoginTest::CachedLogin() {
  Lines lookup = Start();
  lookup.erase(lookup.begin(), lookup.begin() + 3);
  return Start() + PresenceFound() + PinLines({"Retrieving PIN from cache"}) + lookup + CacheRead() + Cleanup();
}
