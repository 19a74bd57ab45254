// Owners of what Windows hands out.
#pragma once

#include "platform.h"

#include <memory>
#include <utility>

namespace keldactl {

// A kernel object's handle.
class Handle {
 public:
  Handle() = default;
  // Either of the values that Windows uses for "none" is taken as such.
  explicit Handle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { Close(); }
  void Close() {
    if (handle_) CloseHandle(std::exchange(handle_, nullptr));
  }
  HANDLE get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  HANDLE handle_ = nullptr;
};

// Memory that Windows allocated and LocalFree releases.
struct LocalDeleter {
  void operator()(void* memory) const { LocalFree(memory); }
};
template <typename T>
using Local = std::unique_ptr<T, LocalDeleter>;

}  // namespace keldactl
