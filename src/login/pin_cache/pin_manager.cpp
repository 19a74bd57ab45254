#include "login/pin_cache/pin_manager.h"

#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "support/text.h"

namespace {

constexpr DWORD kSpinCount = 1024;
constexpr std::uint32_t kMaxEntries = std::numeric_limits<std::uint32_t>::max() / 2;

// At most seven characters and the terminator fit, so that "00000000" can never be read and allows caching, while any
// shorter text forbids it. Kept on purpose.
bool CachingIsForbidden() noexcept {
  wchar_t setting[8] = {};
  DWORD cbSetting = sizeof(setting);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kSettingsKey, L"PINCACHE", RRF_RT_REG_SZ, nullptr, setting, &cbSetting) !=
      ERROR_SUCCESS) {
    return false;
  }
  return !WideEqual(setting, L"00000000");
}

}  // namespace

PinManager* g_PinManager = nullptr;

PinManager::PinManager() noexcept {
  OutputDebugStringW(L"PinManager ctor - Entry");
  log_ = LogPointer::Create(-1, 0);
  InitializeCriticalSectionAndSpinCount(&lock_, kSpinCount);
  OutputDebugStringW(L"PinManager ctor - Exit");
}

PinManager::~PinManager() {
  PinCacheEntry* entry = last_.load();
  while (entry != nullptr) {
    PinCacheEntry* previous = entry->previous_;
    delete entry;
    entry = previous;
  }
  log_.Destroy();
  DeleteCriticalSection(&lock_);
}

void PinManager::Enter() noexcept {
  EnterCriticalSection(&lock_);
  owner_.store(GetCurrentThreadId());
  ++depth_;
}

void PinManager::Leave() noexcept {
  // Only the owner itself can find its own number here, so the answer cannot change under it.
  if (owner_.load() != GetCurrentThreadId()) return;
  if (--depth_ == 0) owner_.store(0);
  LeaveCriticalSection(&lock_);
}

SECURITY_STATUS PinManager::GetPin(const unsigned char* serial, unsigned char* pin, DWORD* cbPin) noexcept {
  if (cbPin == nullptr) return NTE_INVALID_PARAMETER;
  log_->WriteLine("PIN Manager - Retrieving PIN from PIN Cache");
  log_->WriteBytes("pbSerial: ", serial, kSerialLength);
  log_->WriteInt("cbSerial: ", kSerialLength);
  log_->WriteLine("PIN Manager - Iterating through PIN caches");

  // The first match wins, though a later entry may hold the PIN of a later login.
  PinCacheEntry* entry = first_.load(std::memory_order_acquire);
  while (entry != nullptr && !entry->HasLabel(serial))
    entry = entry->next_.load(std::memory_order_acquire);
  if (entry == nullptr) {
    // Lets the caller show the PIN dialog outside the section that it entered before the lookup.
    Leave();
    return log_->Refuse(NTE_NOT_FOUND, "PIN Manager - PIN is not found");
  }

  if (pin == nullptr) {
    log_->WriteLine("PIN Manager - PIN buffer is NULL, returning PIN length");
    // A match is reported even when the length cannot be read; the length then stays the caller's, and the lookup with
    // a buffer is the one that fails.
    entry->GetPin(nullptr, cbPin);
    return ERROR_SUCCESS;
  }

  WipedBytes copy = WipedBytes::Try(*cbPin);
  if (copy.empty()) return NTE_NO_MEMORY;
  const std::size_t cbCopy = *cbPin;
  if (entry->GetPin(copy.data(), cbPin) != ERROR_SUCCESS) {
    return log_->Refuse(NTE_NOT_FOUND, "Failed to get PIN from cache");
  }
  if (cbCopy != 0) std::memcpy(pin, copy.data(), cbCopy);
  return ERROR_SUCCESS;
}

std::uint32_t PinManager::SetPin(const unsigned char* serial, DWORD /*cbSerial*/, const unsigned char* pin,
                                 DWORD cbPin) noexcept {
  if (serial == nullptr || pin == nullptr || cbPin == 0) return 0;

  log_->WriteLine("Checking PIN caching setting");
  if (CachingIsForbidden()) return static_cast<std::uint32_t>(NTE_NOT_SUPPORTED);

  log_->WriteLine("Creating cache to store token PIN");
  std::unique_ptr<PinCacheEntry> entry(new (std::nothrow) PinCacheEntry());
  if (entry == nullptr) return static_cast<std::uint32_t>(NTE_NO_MEMORY);

  log_->WriteLine("Setting cache label");
  if (!entry->SetLabel(serial)) return static_cast<std::uint32_t>(NTE_NO_MEMORY);

  log_->WriteLine("Setting PIN");
  const auto result = static_cast<std::uint32_t>(entry->SetPin(pin, cbPin));
  if (result != ERROR_SUCCESS) {
    log_->WriteHex32("Unable to set PIN. Error code: ", result);
    return result;
  }

  log_->WriteLine("Saving cache to pool");
  if (!Append(entry)) return static_cast<std::uint32_t>(NTE_NO_MEMORY);
  log_->WriteLine("PIN securely saved");
  return 1;
}

// Dialogs of several threads may append at once: the exchange of the end orders them, and each links its own entry to
// the one before. A reader sees the entries up to the first link that is still missing.
bool PinManager::Append(std::unique_ptr<PinCacheEntry>& entry) noexcept {
  if (count_.fetch_add(1) >= kMaxEntries) {
    count_.fetch_sub(1);
    return false;
  }
  PinCacheEntry* added = entry.release();
  PinCacheEntry* previous = last_.exchange(added, std::memory_order_acq_rel);
  added->previous_ = previous;
  (previous != nullptr ? previous->next_ : first_).store(added, std::memory_order_release);
  return true;
}
