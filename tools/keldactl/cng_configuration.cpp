#include "cng_configuration.h"

#include "failure.h"
#include "output.h"

#include <algorithm>

// mingw's bcrypt.h leaves these out; its import library has them.
extern "C" {
NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR pszProvider, ULONG dwFlags, PCRYPT_PROVIDER_REG pReg);
NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR pszProvider);
NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                 LPCWSTR pszFunction, LPCWSTR pszProvider, ULONG dwPosition);
NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                    LPCWSTR pszFunction, LPCWSTR pszProvider);
}

namespace keldactl {
namespace {

constexpr ULONG kKeyStorageInterface = 0x00010001;
constexpr wchar_t kKeyStorage[] = L"KEY_STORAGE";
constexpr NTSTATUS kStatusNotFound = static_cast<NTSTATUS>(0xC0000225UL);

void Check(NTSTATUS status, const std::wstring& operation) {
  if (status != 0) throw Failure(operation, status);
}

// Frees what the configuration functions hand out.
template <typename T>
class BcryptBuffer {
 public:
  BcryptBuffer() = default;
  BcryptBuffer(const BcryptBuffer&) = delete;
  BcryptBuffer& operator=(const BcryptBuffer&) = delete;
  ~BcryptBuffer() {
    if (buffer_) BCryptFreeBuffer(buffer_);
  }
  T** out() { return &buffer_; }
  const T* operator->() const { return buffer_; }
  explicit operator bool() const { return buffer_ != nullptr; }

 private:
  T* buffer_ = nullptr;
};

// The platform's structures are not const although registering only reads them.
std::vector<PWSTR> Pointers(const std::vector<std::wstring>& texts) {
  std::vector<PWSTR> pointers;
  pointers.reserve(texts.size());
  for (const std::wstring& text : texts)
    pointers.push_back(const_cast<PWSTR>(text.c_str()));
  return pointers;
}

bool OffersKeyStorage(const CRYPT_IMAGE_REG& image) {
  for (ULONG i = 0; i < image.cInterfaces; ++i) {
    const CRYPT_INTERFACE_REG& entry = *image.rgpInterfaces[i];
    if (entry.dwInterface != kKeyStorageInterface) continue;
    const std::vector<std::wstring> functions(entry.rgpszFunctions, entry.rgpszFunctions + entry.cFunctions);
    return std::find(functions.begin(), functions.end(), kKeyStorage) != functions.end();
  }
  return false;
}

}  // namespace

std::vector<std::wstring> RegisteredProviders() {
  BcryptBuffer<CRYPT_PROVIDERS> providers;
  ULONG size = 0;
  Check(BCryptEnumRegisteredProviders(&size, providers.out()), L"Listing the registered providers");
  if (!providers) return {};
  return {providers->rgpszProviders, providers->rgpszProviders + providers->cProviders};
}

std::optional<ProviderRegistration> FindRegistration(const std::wstring& provider) {
  BcryptBuffer<CRYPT_PROVIDER_REG> found;
  ULONG size = 0;
  const NTSTATUS status =
      BCryptQueryProviderRegistration(provider.c_str(), CRYPT_UM, kKeyStorageInterface, &size, found.out());
  if (status == kStatusNotFound) return std::nullopt;
  Check(status, L"Asking for the registration of " + Quoted(provider));
  if (!found) return std::nullopt;
  ProviderRegistration registration;
  registration.aliases = {found->rgpszAliases, found->rgpszAliases + found->cAliases};
  if (found->pUM) {
    registration.image = found->pUM->pszImage ? found->pUM->pszImage : L"";
    registration.key_storage = OffersKeyStorage(*found->pUM);
  }
  return registration;
}

std::vector<std::wstring> ListedKeyStorageProviders() {
  BcryptBuffer<CRYPT_CONTEXT_FUNCTION_PROVIDERS> providers;
  ULONG size = 0;
  const NTSTATUS status = BCryptEnumContextFunctionProviders(CRYPT_LOCAL, nullptr, kKeyStorageInterface, kKeyStorage,
                                                             &size, providers.out());
  if (status == kStatusNotFound) return {};
  Check(status, L"Listing the key storage providers");
  if (!providers) return {};
  return {providers->rgpszProviders, providers->rgpszProviders + providers->cProviders};
}

void RegisterKeyStorageProvider(const std::wstring& provider, const ProviderRegistration& registration) {
  std::vector<PWSTR> aliases = Pointers(registration.aliases);
  std::wstring function = kKeyStorage;
  std::wstring file = registration.image;
  PWSTR functions[] = {function.data()};
  CRYPT_INTERFACE_REG key_storage = {kKeyStorageInterface, 0, 1, functions};
  PCRYPT_INTERFACE_REG interfaces[] = {&key_storage};
  CRYPT_IMAGE_REG image = {file.data(), 1, interfaces};
  CRYPT_PROVIDER_REG whole = {static_cast<ULONG>(aliases.size()), aliases.data(), &image, nullptr};
  Check(BCryptRegisterProvider(provider.c_str(), CRYPT_OVERWRITE, &whole),
        L"Registering the provider " + Quoted(provider));
}

void ListKeyStorageProvider(const std::wstring& provider) {
  const std::wstring operation = L"Adding the provider " + Quoted(provider) + L" to the list of key storage providers";
  const auto add = [&] {
    return BCryptAddContextFunctionProvider(CRYPT_LOCAL, nullptr, kKeyStorageInterface, kKeyStorage, provider.c_str(),
                                            CRYPT_PRIORITY_BOTTOM);
  };
  NTSTATUS status = add();
  if (status == kStatusNotFound) {
    // A system on which no key storage provider was ever listed.
    Check(BCryptAddContextFunction(CRYPT_LOCAL, nullptr, kKeyStorageInterface, kKeyStorage, CRYPT_PRIORITY_BOTTOM),
          operation);
    status = add();
  }
  Check(status, operation);
}

bool UnregisterProvider(const std::wstring& provider) {
  const NTSTATUS status = BCryptUnregisterProvider(provider.c_str());
  if (status == kStatusNotFound) return false;
  Check(status, L"Removing the registration of " + Quoted(provider));
  return true;
}

bool UnlistKeyStorageProvider(const std::wstring& provider) {
  const NTSTATUS status =
      BCryptRemoveContextFunctionProvider(CRYPT_LOCAL, nullptr, kKeyStorageInterface, kKeyStorage, provider.c_str());
  if (status == kStatusNotFound) return false;
  Check(status, L"Removing the provider " + Quoted(provider) + L" from the list of key storage providers");
  return true;
}

}  // namespace keldactl
