#include "router/objects.h"

#include <utility>

namespace router {

Provider::~Provider() {
  Close();
}

SECURITY_STATUS Provider::Close() {
  const auto handle = std::exchange(handle_, 0);
  return handle == 0 ? ERROR_SUCCESS : table_.FreeProvider(handle);
}

NCRYPT_HANDLE ObjectTable::Add(Object object) {
  const std::scoped_lock lock(mutex_);
  const NCRYPT_HANDLE handle = next_;
  objects_.emplace(handle, std::move(object));
  next_ += 4;
  return handle;
}

bool ObjectTable::Remove(NCRYPT_HANDLE handle, Object* object) {
  const std::scoped_lock lock(mutex_);
  const auto found = objects_.find(handle);
  if (found == objects_.end()) return false;
  *object = std::move(found->second);
  objects_.erase(found);
  return true;
}

void BufferTable::Add(void* buffer, const KeyStorageFunctionTable* table) {
  const std::scoped_lock lock(mutex_);
  owners_.insert_or_assign(buffer, table);
}

bool BufferTable::IsOwnedBy(const void* buffer, const KeyStorageFunctionTable* table) const {
  const std::scoped_lock lock(mutex_);
  const auto found = owners_.find(buffer);
  return found != owners_.end() && found->second == table;
}

SECURITY_STATUS BufferTable::Free(void* buffer) {
  const KeyStorageFunctionTable* table = nullptr;
  {
    const std::scoped_lock lock(mutex_);
    const auto found = owners_.find(buffer);
    if (found == owners_.end()) return NTE_INVALID_PARAMETER;
    table = found->second;
    owners_.erase(found);
  }
  if (table != nullptr) return table->FreeBuffer(buffer);
  HeapFree(GetProcessHeap(), 0, buffer);
  return ERROR_SUCCESS;
}

}  // namespace router
