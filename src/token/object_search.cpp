#include "token/object_search.h"

#include <algorithm>
#include <iterator>

#include "diag/debug_log.h"

namespace {

constexpr CK_ULONG kMaxObjects = 1000;

}  // namespace

bool ObjectHandles::Find(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass) {
  CK_BBOOL onToken = CK_TRUE;
  CK_ATTRIBUTE search[] = {
      {CKA_TOKEN, &onToken, sizeof(onToken)},
      {CKA_CLASS, &objectClass, sizeof(objectClass)},
  };
  if (!Pass(token, session, search, nullptr, kMaxObjects)) return false;
  // One object is asked for even when there is none: many modules refuse a maximum of 0.
  const CK_ULONG room = std::clamp(count_, CK_ULONG{1}, kMaxObjects);
  handles_.reset(static_cast<CK_OBJECT_HANDLE*>(AllocateBlock(room * sizeof(CK_OBJECT_HANDLE))));
  if (handles_ == nullptr) {
    g_KeyNameLog->WriteLine("NTE_INTERNAL_ERROR: Object memory allocation error");
    return false;
  }
  // A module that writes fewer handles than it says leaves handles of no object.
  std::fill_n(handles_.get(), room, CK_OBJECT_HANDLE{0});
  if (!Pass(token, session, search, handles_.get(), room)) return false;
  count_ = std::min(count_, room);
  return true;
}

bool ObjectHandles::Pass(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_ATTRIBUTE (&search)[2],
                         CK_OBJECT_HANDLE* handles, CK_ULONG room) {
  count_ = 0;
  return token.C_FindObjectsInit(session, search, static_cast<CK_ULONG>(std::size(search))) == CKR_OK &&
         token.C_FindObjects(session, handles, room, &count_) == CKR_OK && token.C_FindObjectsFinal(session) == CKR_OK;
}
