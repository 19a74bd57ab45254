#include "token/certificate.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

#include "support/limits.h"
#include "support/text.h"

namespace {

struct ContextDeleter {
  void operator()(const CERT_CONTEXT* context) const noexcept { CertFreeCertificateContext(context); }
};
using CertificateContext = std::unique_ptr<const CERT_CONTEXT, ContextDeleter>;

// The DER name with one zero byte behind it: the token gets one byte more than the name has. Kept on purpose.
WipedBytes NameWithZero(const CERT_NAME_BLOB& name) {
  WipedBytes bytes(std::size_t{name.cbData} + 1);
  std::copy_n(name.pbData, name.cbData, bytes.data());
  return bytes;
}

WipedArray<wchar_t> WideCopy(const WipedBytes& name) {
  WipedArray<wchar_t> wide(name.size());
  WidenBytes(wide.data(), name.data(), name.size() - 1);
  return wide;
}

CK_ULONG Size(std::size_t size) noexcept {
  return static_cast<CK_ULONG>(size);
}

}  // namespace

CK_RV Certificate::ReadKeyId(CK_RV& valueResult) {
  CK_ATTRIBUTE attribute = {CKA_ID, nullptr, 0};
  const CK_RV lengthResult = Token().C_GetAttributeValue(session_, KeyHandle(), &attribute, 1);
  if (lengthResult != CKR_OK) return lengthResult;
  // An identifier larger than any that there is room for counts as unreadable, like one that the token does not have.
  id_ = WipedBytes::Try(attribute.ulValueLen);
  if (id_.empty()) return CKR_HOST_MEMORY;
  attribute.pValue = id_.data();
  valueResult = Token().C_GetAttributeValue(session_, KeyHandle(), &attribute, 1);
  return CKR_OK;
}

WipedArray<char> Certificate::TakeLabel(PCCERT_CONTEXT context) {
  const DWORD count = CertGetNameStringW(context, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0);
  label_ = WipedArray<wchar_t>(count);
  CertGetNameStringW(context, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, label_.data(), count);
  // The label ends before the first character that has no narrow form.
  WipedArray<char> narrow(count);
  for (DWORD i = 0; i < count && label_[i] != L'\0' && label_[i] <= 0xFF; ++i) {
    narrow[i] = static_cast<char>(static_cast<unsigned char>(label_[i]));
  }
  return narrow;
}

SECURITY_STATUS Certificate::CreateFromEncoded(const unsigned char* bytes, DWORD length) {
  if (module_ == nullptr || session_ == 0) return NTE_INVALID_PARAMETER;
  // A length that no certificate has is not given to the platform, which would believe it.
  if (length > kLargestBlock) throw std::bad_alloc();
  const CertificateContext context(
      CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, bytes, length));
  if (context == nullptr) return NTE_FAIL;
  WipedArray<char> label = TakeLabel(context.get());
  encoded_.Assign(bytes, length);

  CK_RV idResult = CKR_OK;
  if (ReadKeyId(idResult) != CKR_OK || idResult != CKR_OK) return NTE_INTERNAL_ERROR;

  const CERT_INFO& info = *context->pCertInfo;
  WipedBytes issuer = NameWithZero(info.Issuer);
  WipedBytes subject = NameWithZero(info.Subject);
  issuer_ = WideCopy(issuer);
  subject_ = WideCopy(subject);
  // As the context holds it: least significant byte first, without DER wrapping.
  serialNumber_.Assign(info.SerialNumber.pbData, info.SerialNumber.cbData);

  class_ = CKO_CERTIFICATE;
  token_ = CK_TRUE;
  private_ = CK_FALSE;
  modifiable_ = CK_TRUE;
  extractable_ = CK_TRUE;
  CK_ATTRIBUTE attributes[] = {
      {CKA_CLASS, &class_, sizeof(class_)},
      {CKA_TOKEN, &token_, sizeof(token_)},
      {CKA_LABEL, label.data(), Size(label.size())},
      {CKA_VALUE, encoded_.data(), Size(encoded_.size())},
      {CKA_PRIVATE, &private_, sizeof(private_)},
      {CKA_MODIFIABLE, &modifiable_, sizeof(modifiable_)},
      {CKA_EXTRACTABLE, &extractable_, sizeof(extractable_)},
      {CKA_ID, id_.data(), Size(id_.size())},
      {CKA_OBJECT_ID, id_.data(), Size(id_.size())},
      {CKA_ISSUER, issuer.data(), Size(issuer.size())},
      {CKA_SERIAL_NUMBER, serialNumber_.data(), Size(serialNumber_.size())},
      {CKA_SUBJECT, subject.data(), Size(subject.size())},
  };
  const CK_RV result = Token().C_CreateObject(session_, attributes, Size(std::size(attributes)), &object_);
  return result == CKR_OK ? ERROR_SUCCESS : NTE_FAIL;
}

SECURITY_STATUS Certificate::FindForKey() {
  if (module_ == nullptr || session_ == 0 || publicKey_ == 0 || privateKey_ == 0) return NTE_INVALID_PARAMETER;
  CK_RV unchecked = CKR_OK;
  if (ReadKeyId(unchecked) != CKR_OK) return NTE_INTERNAL_ERROR;

  CK_BBOOL onToken = CK_TRUE;
  CK_OBJECT_CLASS certificate = CKO_CERTIFICATE;
  CK_ATTRIBUTE attributes[] = {
      {CKA_TOKEN, &onToken, sizeof(onToken)},
      {CKA_CLASS, &certificate, sizeof(certificate)},
      {CKA_ID, id_.data(), Size(id_.size())},
  };
  if (Token().C_FindObjectsInit(session_, attributes, Size(std::size(attributes))) != CKR_OK) return NTE_INTERNAL_ERROR;
  CK_ULONG count = 0;
  if (Token().C_FindObjects(session_, &object_, 1, &count) != CKR_OK) return NTE_INTERNAL_ERROR;
  Token().C_FindObjectsFinal(session_);
  return count > 0 ? NTE_EXISTS : NTE_NOT_FOUND;
}
