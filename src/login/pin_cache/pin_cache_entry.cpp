#include "login/pin_cache/pin_cache_entry.h"

#include <cstring>

#include "login/pin_cache/pin_block.h"

namespace {

// A failure for which the platform gives no reason must not pass for a success.
SECURITY_STATUS FailureOf(DWORD error) noexcept {
  return error != ERROR_SUCCESS ? static_cast<SECURITY_STATUS>(error) : NTE_INTERNAL_ERROR;
}

}  // namespace

PinCacheEntry::PinCacheEntry() noexcept : log_(LogPointer::Create(-1, 0)) {}

PinCacheEntry::~PinCacheEntry() {
  reserved_.Reset();
  label_.Reset();
  if (!block_.empty()) VirtualUnlock(block_.data(), block_.size());
  block_.Reset();
  log_.Destroy();
}

bool PinCacheEntry::SetLabel(const unsigned char* serial) noexcept {
  label_.Reset();
  label_ = WipedBytes::Try(kSerialLength);
  if (label_.empty()) return false;
  std::memcpy(label_.data(), serial, kSerialLength);
  return true;
}

bool PinCacheEntry::HasLabel(const unsigned char* serial) const noexcept {
  return serial != nullptr && label_.size() == kSerialLength && std::memcmp(label_.data(), serial, kSerialLength) == 0;
}

SECURITY_STATUS PinCacheEntry::SetPin(const unsigned char* pin, DWORD cbPin) noexcept {
  if (pin == nullptr || cbPin == 0) return NTE_INVALID_PARAMETER;
  if (!block_.empty()) {
    if (!UnlockBlock()) return NTE_INTERNAL_ERROR;
    block_.Reset();
  }

  DWORD cbBlock = 0;
  SECURITY_STATUS result = Protect(pin, cbPin, nullptr, &cbBlock);
  if (result != ERROR_SUCCESS) {
    log_->WriteLine("Error getting encrypted PIN length");
    return result;
  }
  WipedBytes block = WipedBytes::Try(cbBlock);
  if (block.empty()) return log_->Refuse(NTE_NO_MEMORY, "Not enough memory to continue operation");
  result = Protect(pin, cbPin, block.data(), &cbBlock);
  if (result != ERROR_SUCCESS) {
    log_->WriteLine("Error encrypting PIN");
    return result;
  }
  if (!VirtualLock(block.data(), block.size())) {
    const DWORD error = GetLastError();
    block.Reset();
    log_->WriteHex32("Failed to lock memory block - ", error);
    return NTE_INTERNAL_ERROR;
  }
  block_ = static_cast<WipedBytes&&>(block);
  return ERROR_SUCCESS;
}

SECURITY_STATUS PinCacheEntry::GetPin(unsigned char* pin, DWORD* cbPin) noexcept {
  if (cbPin == nullptr || block_.empty()) return NTE_INVALID_PARAMETER;
  if (!UnlockBlock()) return NTE_INTERNAL_ERROR;

  const auto cbBlock = static_cast<DWORD>(block_.size());
  DWORD length = 0;
  SECURITY_STATUS result = Unprotect(block_.data(), cbBlock, nullptr, &length);
  if (result != ERROR_SUCCESS) {
    log_->WriteLine("Failed to get PIN length");
    return result;
  }
  if (pin == nullptr) {
    *cbPin = length;
    return ERROR_SUCCESS;
  }
  if (*cbPin < length) {
    *cbPin = length;
    return NTE_BUFFER_TOO_SMALL;
  }
  result = Unprotect(block_.data(), cbBlock, pin, cbPin);
  if (result != ERROR_SUCCESS) {
    log_->WriteLine("Failed to decrypt PIN");
    return result;
  }
  if (!VirtualLock(block_.data(), block_.size())) {
    const DWORD error = GetLastError();
    block_.Reset();
    log_->WriteHex32("Failed to lock memory block - ", error);
    return NTE_INTERNAL_ERROR;
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS PinCacheEntry::Protect(const unsigned char* in, DWORD cbIn, unsigned char* out, DWORD* cbOut) noexcept {
  if (in == nullptr) return log_->Refuse(NTE_INVALID_PARAMETER, "Encrypt - dataIn cannot be NULL");
  if (cbIn == 0) return log_->Refuse(NTE_INVALID_PARAMETER, "Encrypt - dataIn length cannot be zero");
  if (cbOut == nullptr) return log_->Refuse(NTE_INVALID_PARAMETER, "Encrypt - dataOut length buffer cannot be NULL");

  // 0 when the length overflows, where a size_t has no more bits than a DWORD.
  const std::size_t cbNeeded = pinblock::BlockLength(cbIn);
  if (cbNeeded == 0 || cbNeeded > MAXDWORD) return NTE_NO_MEMORY;
  const auto cbBlock = static_cast<DWORD>(cbNeeded);
  if (out == nullptr) {
    log_->WriteLine("Encrypt - Output buffer is NULL, returning output length");
    *cbOut = cbBlock;
    return ERROR_SUCCESS;
  }
  if (*cbOut < cbBlock) {
    log_->WriteLine("Encrypt - Output buffer is too small.");
    *cbOut = cbBlock;
    return NTE_BUFFER_TOO_SMALL;
  }

  WipedBytes block = WipedBytes::Try(cbBlock);
  if (block.empty()) return NTE_NO_MEMORY;
  pinblock::Pack(block.data(), in, cbIn);
  if (!CryptProtectMemory(block.data(), cbBlock, CRYPTPROTECTMEMORY_SAME_PROCESS)) {
    const DWORD error = GetLastError();
    log_->WriteHex32("Encrypt - Failed to encrypt memory block - ", error);
    return FailureOf(error);
  }
  std::memcpy(out, block.data(), cbBlock);
  *cbOut = cbBlock;
  return ERROR_SUCCESS;
}

SECURITY_STATUS PinCacheEntry::Unprotect(const unsigned char* block, DWORD cbBlock, unsigned char* out,
                                         DWORD* cbOut) noexcept {
  if (block == nullptr || cbBlock < pinblock::kMinimumLength || cbOut == nullptr) return NTE_INVALID_PARAMETER;

  WipedBytes plain = WipedBytes::Try(cbBlock);
  if (plain.empty()) return log_->Refuse(NTE_NO_MEMORY, "Decrypt - not enough memory to continue operation");
  std::memcpy(plain.data(), block, cbBlock);
  if (!CryptUnprotectMemory(plain.data(), cbBlock, CRYPTPROTECTMEMORY_SAME_PROCESS)) {
    const DWORD error = GetLastError();
    log_->WriteHex32("Decrypt - Failed to decrypt data - ", error);
    return FailureOf(error);
  }

  const auto length = static_cast<DWORD>(pinblock::PinLength(plain.data()));
  if (out == nullptr) {
    log_->WriteLine("Decrypt - Output buffer is NULL. Returning data length");
    *cbOut = length;
    return ERROR_SUCCESS;
  }
  if (*cbOut < length) {
    log_->WriteLine("Decrypt - Output buffer size is too small");
    *cbOut = length;
    return NTE_BUFFER_TOO_SMALL;
  }
  pinblock::Unpack(out, plain.data(), cbBlock);
  return ERROR_SUCCESS;
}

bool PinCacheEntry::UnlockBlock() noexcept {
  if (VirtualUnlock(block_.data(), block_.size())) return true;
  const DWORD error = GetLastError();
  if (error == ERROR_NOT_LOCKED) return true;
  log_->WriteHex32("NTE_INTERNAL_ERROR: Failed to unlock memory block - ", error);
  return false;
}
