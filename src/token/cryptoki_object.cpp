#include "token/cryptoki_object.h"

CryptokiObject::CryptokiObject() noexcept : log_(LogPointer::Create(32767, 0)) {}

CryptokiObject::~CryptokiObject() {
  log_.Destroy();
}

void CryptokiObject::BindTo(const KELDAKSP_PROVIDER& provider) noexcept {
  session_ = provider.hSession;
  module_ = g_Cryptoki;
}

CK_RV CryptokiObject::Destroy() {
  if (session_ == 0 || object_ == 0 || module_ == nullptr) return CKR_ARGUMENTS_BAD;
  object_ = 0;
  return Token().C_DestroyObject(session_, object_);
}

CK_OBJECT_CLASS CryptokiObject::GetClass() const noexcept {
  return class_;
}
std::string& CryptokiObject::GetName() noexcept {
  return name_;
}
bool CryptokiObject::IsModifiable() const noexcept {
  return modifiable_ == 1;
}
bool CryptokiObject::IsPrivate() const noexcept {
  return private_ == 1;
}
bool CryptokiObject::IsToken() const noexcept {
  return token_ == 1;
}
bool CryptokiObject::IsExtractable() const noexcept {
  return extractable_ == 1;
}
bool CryptokiObject::IsSensitive() const noexcept {
  return sensitive_ == 1;
}
CK_OBJECT_HANDLE CryptokiObject::GetObjectHandle() const noexcept {
  return object_;
}
CK_SESSION_HANDLE CryptokiObject::GetSessionHandle() const noexcept {
  return session_;
}
const CryptokiModule* CryptokiObject::GetModule() const noexcept {
  return module_;
}
