#include "provider/record/provider_record.h"

#include <cstring>

KELDAKSP_PROVIDER* ProviderFromHandle(NCRYPT_PROV_HANDLE hProvider) noexcept {
  auto* provider = reinterpret_cast<KELDAKSP_PROVIDER*>(hProvider);
  if (provider == nullptr || provider->cbLength < sizeof(KELDAKSP_PROVIDER)) return nullptr;
  if (std::memcmp(provider->signature, kProviderSignature, sizeof(kProviderSignature)) != 0) return nullptr;
  return provider;
}
