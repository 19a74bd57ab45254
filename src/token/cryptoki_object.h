// Base of the short-lived wrappers of token objects.
#pragma once

#include <memory>
#include <string>

#include "diag/debug_log.h"
#include "provider/record/provider_record.h"
#include "token/cryptoki_module.h"
#include "support/pkcs11.h"

// One token object. Session and module are borrowed and never closed or released here; the token object outlives its
// wrapper. Object handle 0 means that the object is not on the token (yet).
class CryptokiObject {
 public:
  CryptokiObject() noexcept;
  CryptokiObject(const CryptokiObject&) = delete;
  CryptokiObject& operator=(const CryptokiObject&) = delete;

  virtual ~CryptokiObject();
  // Destroys the token object. Returns CKR_ARGUMENTS_BAD without session, object handle or module, else what the token
  // answers. The handle is cleared before the call, so that the call names object 0; kept on purpose.
  virtual CK_RV Destroy();
  virtual CK_OBJECT_CLASS GetClass() const noexcept;
  virtual std::string& GetName() noexcept;
  // The flags count as set only when they equal 1.
  virtual bool IsModifiable() const noexcept;
  virtual bool IsPrivate() const noexcept;
  virtual bool IsToken() const noexcept;
  virtual bool IsExtractable() const noexcept;
  virtual bool IsSensitive() const noexcept;
  virtual CK_OBJECT_HANDLE GetObjectHandle() const noexcept;
  virtual CK_SESSION_HANDLE GetSessionHandle() const noexcept;
  virtual const CryptokiModule* GetModule() const noexcept;

  void SetSession(CK_SESSION_HANDLE session) noexcept { session_ = session; }
  void SetModule(const CryptokiModule* module) noexcept { module_ = module; }
  // Makes the object act in the provider's session, through the process's module.
  void BindTo(const KELDAKSP_PROVIDER& provider) noexcept;

 protected:
  const CK_FUNCTION_LIST& Token() const noexcept { return module_->Functions(); }

  std::string name_;
  CK_BBOOL modifiable_ = CK_FALSE;
  CK_BBOOL private_ = CK_FALSE;
  CK_BBOOL token_ = CK_FALSE;
  CK_BBOOL extractable_ = CK_FALSE;
  CK_BBOOL sensitive_ = CK_FALSE;
  CK_OBJECT_CLASS class_ = 0;
  CK_OBJECT_HANDLE object_ = 0;
  CK_SESSION_HANDLE session_ = 0;
  const CryptokiModule* module_ = nullptr;
  LogPointer log_;
};

// Makes a token object on the provider's session. Throws std::bad_alloc.
template <class Object>
std::unique_ptr<Object> NewOn(const KELDAKSP_PROVIDER& provider) {
  auto object = std::make_unique<Object>();
  object->BindTo(provider);
  return object;
}

// The mechanism that key pair generation hands to the token. The parameter is not owned.
struct Mechanism {
  void* parameter = nullptr;
  CK_ULONG parameterLength = 0;
  CK_MECHANISM_TYPE type = 0;
  std::string text;
  CK_ULONG reserved[3] = {};
};
