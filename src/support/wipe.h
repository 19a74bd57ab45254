// Overwriting of secrets and identifiers before their memory is released.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

// Overwrites size bytes with zeros in a way that the compiler cannot drop. A null pointer is ignored.
inline void SecureWipe(void* data, std::size_t size) noexcept {
  if (data == nullptr || size == 0) return;
#if defined(__GNUC__)
  std::memset(data, 0, size);
  __asm__ __volatile__("" : : "r"(data) : "memory");
#else
  volatile unsigned char* bytes = static_cast<volatile unsigned char*>(data);
  while (size-- != 0)
    *bytes++ = 0;
#endif
}

// An owned array of trivial elements that is zeroed at allocation and wiped before it is released.
template <class T>
class WipedArray {
 public:
  WipedArray() noexcept = default;
  // Throws std::bad_alloc.
  explicit WipedArray(std::size_t count) : data_(new T[count]()), count_(count) {}
  WipedArray(const WipedArray&) = delete;
  WipedArray& operator=(const WipedArray&) = delete;
  WipedArray(WipedArray&& other) noexcept : data_(other.data_), count_(other.count_) { other.Forget(); }
  WipedArray& operator=(WipedArray&& other) noexcept {
    if (this != &other) {
      Reset();
      data_ = other.data_;
      count_ = other.count_;
      other.Forget();
    }
    return *this;
  }
  ~WipedArray() { Reset(); }

  // Allocates without throwing; the array is empty (null) when there is no memory.
  static WipedArray Try(std::size_t count) noexcept {
    WipedArray result;
    result.data_ = new (std::nothrow) T[count]();
    result.count_ = result.data_ != nullptr ? count : 0;
    return result;
  }

  // Replaces the content by a copy of count elements that is made before the old content goes. Throws std::bad_alloc.
  void Assign(const T* source, std::size_t count) {
    WipedArray fresh(count);
    if (count != 0) std::memcpy(fresh.data_, source, count * sizeof(T));
    *this = static_cast<WipedArray&&>(fresh);
  }

  void Reset() noexcept {
    SecureWipe(data_, count_ * sizeof(T));
    delete[] data_;
    Forget();
  }
  // Gives the memory to the caller, who wipes it and releases it with delete[].
  T* Release() noexcept {
    T* data = data_;
    Forget();
    return data;
  }

  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return count_; }
  bool empty() const noexcept { return data_ == nullptr; }
  T& operator[](std::size_t i) noexcept { return data_[i]; }
  const T& operator[](std::size_t i) const noexcept { return data_[i]; }

 private:
  void Forget() noexcept {
    data_ = nullptr;
    count_ = 0;
  }

  T* data_ = nullptr;
  std::size_t count_ = 0;
};

using WipedBytes = WipedArray<unsigned char>;
