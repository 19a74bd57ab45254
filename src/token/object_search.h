// The search for token objects.
#pragma once

#include "support/allocator.h"
#include "support/pkcs11.h"

// The handles of all token keys of one class, at most 1000.
class ObjectHandles {
 public:
  // Two passes (PKCS#11 v2.40, 5.7): the first counts, the second fetches. False when a call fails or there is no
  // memory; the search then stays as it is.
  bool Find(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass);

  CK_ULONG count() const noexcept { return count_; }
  const CK_OBJECT_HANDLE* begin() const noexcept { return handles_.get(); }
  const CK_OBJECT_HANDLE* end() const noexcept { return handles_.get() + count_; }

 private:
  bool Pass(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_ATTRIBUTE (&search)[2],
            CK_OBJECT_HANDLE* handles, CK_ULONG room);

  AllocatedBlock<CK_OBJECT_HANDLE> handles_;
  CK_ULONG count_ = 0;
};
