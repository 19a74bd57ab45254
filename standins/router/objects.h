// The objects behind the router's handles, and the buffers that providers handed out.
//
// A handle is a number that the router draws; the provider's own handles never reach a caller. Numbers are not used
// again, so a freed handle stays refused. All operations may be called from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include "router/key_storage_interface.h"

namespace router {

// A provider that a caller has open. It is closed with its last handle, key and secret.
class Provider {
 public:
  Provider(const KeyStorageFunctionTable& table, NCRYPT_PROV_HANDLE handle) : table_(table), handle_(handle) {}
  ~Provider();
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  const KeyStorageFunctionTable& table() const { return table_; }
  NCRYPT_PROV_HANDLE handle() const { return handle_; }

  // Closes the provider now and returns its answer; the destructor has nothing left to do then.
  SECURITY_STATUS Close();

 private:
  const KeyStorageFunctionTable& table_;
  NCRYPT_PROV_HANDLE handle_;
};

struct Key {
  std::shared_ptr<Provider> provider;
  NCRYPT_KEY_HANDLE handle = 0;  // the provider's
};

struct Secret {
  std::shared_ptr<Provider> provider;
  NCRYPT_SECRET_HANDLE handle = 0;  // the provider's
};

using Object = std::variant<std::shared_ptr<Provider>, std::shared_ptr<Key>, std::shared_ptr<Secret>>;

class ObjectTable {
 public:
  NCRYPT_HANDLE Add(Object object);

  // The object behind handle, or nullptr when there is none or it is of another kind.
  std::shared_ptr<Provider> FindProvider(NCRYPT_HANDLE handle) const { return Find<Provider>(handle); }
  std::shared_ptr<Key> FindKey(NCRYPT_HANDLE handle) const { return Find<Key>(handle); }
  std::shared_ptr<Secret> FindSecret(NCRYPT_HANDLE handle) const { return Find<Secret>(handle); }

  // Takes the object out of the table; false if there is none.
  bool Remove(NCRYPT_HANDLE handle, Object* object);

 private:
  template <typename Kind>
  std::shared_ptr<Kind> Find(NCRYPT_HANDLE handle) const {
    const std::scoped_lock lock(mutex_);
    const auto found = objects_.find(handle);
    if (found == objects_.end()) return nullptr;
    const auto* object = std::get_if<std::shared_ptr<Kind>>(&found->second);
    return object == nullptr ? nullptr : *object;
  }

  mutable std::mutex mutex_;
  std::map<NCRYPT_HANDLE, Object> objects_;
  NCRYPT_HANDLE next_ = 0x4B000004;
};

// Who releases a buffer that NCryptFreeBuffer is given.
class BufferTable {
 public:
  // table is the provider that allocated the buffer; nullptr stands for the router's process heap.
  void Add(void* buffer, const KeyStorageFunctionTable* table);
  bool IsOwnedBy(const void* buffer, const KeyStorageFunctionTable* table) const;
  SECURITY_STATUS Free(void* buffer);

 private:
  mutable std::mutex mutex_;
  std::map<const void*, const KeyStorageFunctionTable*> owners_;
};

}  // namespace router
