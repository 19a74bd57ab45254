#include "certificate_store.h"

#include "cng.h"
#include "failure.h"
#include "text_rules.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace keldactl {
namespace {

class Store {
 public:
  explicit Store(DWORD flags)
      : store_(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER | flags, L"MY")) {
    if (!store_) throw Failure(L"Opening your certificate store", static_cast<long>(GetLastError()));
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store() { CertCloseStore(store_, 0); }
  HCERTSTORE get() const { return store_; }

  // Not every Windows writes what was deleted before the store is told to.
  void Commit() const { CertControlStore(store_, 0, CERT_STORE_CTRL_COMMIT, nullptr); }

 private:
  HCERTSTORE store_;
};

class Context {
 public:
  explicit Context(PCCERT_CONTEXT context) : context_(context) {}
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  ~Context() {
    if (context_) CertFreeCertificateContext(context_);
  }
  PCCERT_CONTEXT get() const { return context_; }

 private:
  PCCERT_CONTEXT context_;
};

Bytes Property(PCCERT_CONTEXT context, DWORD property) {
  DWORD size = 0;
  if (!CertGetCertificateContextProperty(context, property, nullptr, &size)) return {};
  Bytes value(size);
  if (!CertGetCertificateContextProperty(context, property, value.data(), &size)) return {};
  value.resize(size);
  return value;
}

std::wstring Hex(const Bytes& bytes) {
  return HexOfBytes<wchar_t>(bytes);
}

std::wstring Date(const FILETIME& time) {
  SYSTEMTIME parts;
  if (!FileTimeToSystemTime(&time, &parts)) return {};
  const auto two = [](WORD number) { return (number < 10 ? L"0" : L"") + std::to_wstring(number); };
  return std::to_wstring(parts.wYear) + L"-" + two(parts.wMonth) + L"-" + two(parts.wDay);
}

bool IsPast(const FILETIME& time) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return CompareFileTime(&time, &now) < 0;
}

// Provider and container that an entry points at. Entries of keys that no provider keeps have none.
struct Pointer {
  std::wstring provider;
  std::wstring container;
  bool operator==(const Pointer& other) const = default;
};

std::optional<Pointer> PointerOf(PCCERT_CONTEXT context) {
  const Bytes value = Property(context, CERT_KEY_PROV_INFO_PROP_ID);
  CRYPT_KEY_PROV_INFO info;
  if (value.size() < sizeof info) return std::nullopt;
  std::memcpy(&info, value.data(), sizeof info);
  // Type 0 marks CNG's providers; the others are CryptoAPI's.
  if (info.dwProvType != 0) return std::nullopt;
  return Pointer{info.pwszProvName ? info.pwszProvName : L"", info.pwszContainerName ? info.pwszContainerName : L""};
}

StoredCertificate Describe(PCCERT_CONTEXT context, const Pointer& pointer) {
  const Certificate certificate(Bytes(context->pbCertEncoded, context->pbCertEncoded + context->cbCertEncoded));
  StoredCertificate stored;
  stored.thumbprint = Hex(Property(context, CERT_SHA1_HASH_PROP_ID));
  stored.subject = certificate.Subject();
  stored.issuer = certificate.Issuer();
  const CERT_INFO& info = *context->pCertInfo;
  Bytes serial(info.SerialNumber.pbData, info.SerialNumber.pbData + info.SerialNumber.cbData);
  std::reverse(serial.begin(), serial.end());
  stored.serial = Hex(serial);
  stored.not_after = Date(info.NotAfter);
  stored.expired = IsPast(info.NotAfter);
  stored.provider = pointer.provider;
  stored.container = pointer.container;
  stored.key = certificate.Key();
  return stored;
}

// Removes what `wanted` picks. The entries are found first: deleting ends an enumeration.
size_t RemoveEntries(const Store& store, const std::function<bool(PCCERT_CONTEXT)>& wanted) {
  std::vector<PCCERT_CONTEXT> found;
  for (PCCERT_CONTEXT context = nullptr; (context = CertEnumCertificatesInStore(store.get(), context)) != nullptr;) {
    if (wanted(context)) found.push_back(CertDuplicateCertificateContext(context));
  }
  DWORD error = ERROR_SUCCESS;
  for (const PCCERT_CONTEXT context : found) {
    // The call frees the context whether or not it succeeds.
    if (!CertDeleteCertificateFromStore(context)) error = GetLastError();
  }
  if (error != ERROR_SUCCESS) throw Failure(L"Removing the certificate from your store", static_cast<long>(error));
  if (!found.empty()) store.Commit();
  return found.size();
}

// In the place of an entry of the same certificate, if there is one, which stays as it was when that fails.
void AddEntry(const Store& store, PCCERT_CONTEXT entry) {
  if (!CertAddCertificateContextToStore(store.get(), entry, CERT_STORE_ADD_REPLACE_EXISTING, nullptr)) {
    throw Failure(L"Adding the certificate to your store", static_cast<long>(GetLastError()));
  }
  store.Commit();
}

bool IsSameCertificate(PCCERT_CONTEXT one, PCCERT_CONTEXT other) {
  return CertCompareCertificate(X509_ASN_ENCODING, one->pCertInfo, other->pCertInfo);
}

// Looks at the store as the next program will see it.
bool HasEntry(PCCERT_CONTEXT certificate, const Pointer& pointer) {
  const Store store(CERT_STORE_READONLY_FLAG);
  bool found = false;
  for (PCCERT_CONTEXT context = nullptr; (context = CertEnumCertificatesInStore(store.get(), context)) != nullptr;)
    found = found || (IsSameCertificate(context, certificate) && PointerOf(context) == pointer);
  return found;
}

// Takes the old entry out first, and puts it back when the new one is not taken.
void ReplaceInTwoSteps(const Store& store, PCCERT_CONTEXT entry) {
  const Context old(CertFindCertificateInStore(store.get(), X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, entry, nullptr));
  RemoveEntries(store, [&](PCCERT_CONTEXT context) { return IsSameCertificate(context, entry); });
  try {
    AddEntry(store, entry);
  } catch (const Failure&) {
    if (old.get()) AddEntry(store, old.get());
    throw;
  }
}

}  // namespace

std::vector<StoredCertificate> StoredCertificates(const std::wstring& provider) {
  const Store store(CERT_STORE_READONLY_FLAG);
  std::vector<StoredCertificate> stored;
  for (PCCERT_CONTEXT context = nullptr; (context = CertEnumCertificatesInStore(store.get(), context)) != nullptr;) {
    const std::optional<Pointer> pointer = PointerOf(context);
    if (pointer && pointer->provider == provider) stored.push_back(Describe(context, *pointer));
  }
  return stored;
}

StoredCertificate StoreCertificate(const Bytes& der, const std::wstring& provider, const std::wstring& container) {
  const Store store(0);
  const Context fresh(CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
  if (!fresh.get()) throw Failure(L"Reading the certificate", static_cast<long>(GetLastError()));
  std::wstring provider_name = provider;
  std::wstring container_name = container;
  CRYPT_KEY_PROV_INFO info = {};
  info.pwszContainerName = container_name.data();
  info.pwszProvName = provider_name.data();
  if (!CertSetCertificateContextProperty(fresh.get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &info)) {
    throw Failure(L"Preparing the certificate", static_cast<long>(GetLastError()));
  }
  AddEntry(store, fresh.get());
  // Not every Windows lets a new entry of the same certificate point elsewhere than the old one.
  if (!HasEntry(fresh.get(), {provider, container})) ReplaceInTwoSteps(store, fresh.get());
  return Describe(fresh.get(), {provider, container});
}

bool PointsAt(const std::wstring& container, const std::wstring& key_name) {
  // "\\\\.\\READER\\NAME"
  constexpr size_t kPrefixLength = 4;
  std::wstring name = container;
  if (name.starts_with(L"\\\\.\\")) {
    const size_t end = name.find(L'\\', kPrefixLength);
    if (end == std::wstring::npos) return false;
    name.erase(0, end + 1);
  }
  if (name.empty() || key_name.empty()) return false;
  return name == key_name || CompareStringOrdinal(name.c_str(), -1, HexText(key_name).c_str(), -1, TRUE) == CSTR_EQUAL;
}

size_t RemoveStoredCertificate(const std::wstring& thumbprint, const std::wstring& provider) {
  const Store store(0);
  return RemoveEntries(store, [&](PCCERT_CONTEXT context) {
    const std::optional<Pointer> pointer = PointerOf(context);
    return pointer && pointer->provider == provider && Hex(Property(context, CERT_SHA1_HASH_PROP_ID)) == thumbprint;
  });
}

}  // namespace keldactl
