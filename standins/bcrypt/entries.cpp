// bcrypt.dll for machines whose own does nothing with CNG's configuration: registering providers and listing them in a
// context, as the documentation of these functions says. Everything else is forwarded (forwarding.cpp).

#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>

#include "bcrypt/configuration.h"
#include "bcrypt/forwarding.h"
#include "bcrypt/provider_configuration.h"

namespace standin {
namespace {

// Nothing passes this DLL's boundary as an exception.
template <typename Function>
NTSTATUS Guarded(Function function) noexcept {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return kStatusNoMemory;
  } catch (...) {
    return kStatusUnsuccessful;
  }
}

// Only the local configuration has a place in the registry that is documented.
bool IsLocal(ULONG table) {
  return table == CRYPT_LOCAL;
}

ContextFunction Where(LPCWSTR context, ULONG interface_id, LPCWSTR function) {
  return {context == nullptr ? CRYPT_DEFAULT_CONTEXT : context, interface_id, function};
}

std::vector<std::wstring> ListOf(ULONG count, PWSTR* texts) {
  return {texts, texts + count};
}

Image ImageOf(const CRYPT_IMAGE_REG& image) {
  Image result{image.pszImage == nullptr ? L"" : image.pszImage, {}};
  for (ULONG i = 0; i < image.cInterfaces; ++i) {
    const CRYPT_INTERFACE_REG& entry = *image.rgpInterfaces[i];
    result.interfaces.push_back({entry.dwInterface, entry.dwFlags, ListOf(entry.cFunctions, entry.rgpszFunctions)});
  }
  return result;
}

// A structure and what it points at, in one block that the caller frees as a whole. Laid out twice: first to measure.
class Layout {
 public:
  explicit Layout(BYTE* block) : block_(block) {}
  ULONG size() const { return static_cast<ULONG>(used_); }

  template <typename Type>
  Type* Take(std::size_t count = 1) {
    used_ = (used_ + alignof(Type) - 1) / alignof(Type) * alignof(Type);
    BYTE* place = block_ == nullptr ? nullptr : block_ + used_;
    used_ += sizeof(Type) * count;
    return reinterpret_cast<Type*>(place);
  }

  PWSTR Text(const std::wstring& text) {
    PWSTR place = Take<wchar_t>(text.size() + 1);
    if (place != nullptr) std::memcpy(place, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    return place;
  }

  PWSTR* Texts(const std::vector<std::wstring>& texts) {
    PWSTR* places = Take<PWSTR>(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
      PWSTR place = Text(texts[i]);
      if (places != nullptr) places[i] = place;
    }
    return places;
  }

 private:
  BYTE* block_;
  std::size_t used_ = 0;
};

CRYPT_PROVIDERS* LayOut(Layout& layout, const std::vector<std::wstring>& names) {
  CRYPT_PROVIDERS* result = layout.Take<CRYPT_PROVIDERS>();
  PWSTR* texts = layout.Texts(names);
  if (result != nullptr) *result = {static_cast<ULONG>(names.size()), texts};
  return result;
}

CRYPT_INTERFACE_REG* LayOut(Layout& layout, const Interface& entry) {
  CRYPT_INTERFACE_REG* result = layout.Take<CRYPT_INTERFACE_REG>();
  PWSTR* functions = layout.Texts(entry.functions);
  if (result != nullptr) *result = {entry.id, entry.flags, static_cast<ULONG>(entry.functions.size()), functions};
  return result;
}

CRYPT_IMAGE_REG* LayOut(Layout& layout, const Image& image) {
  CRYPT_IMAGE_REG* result = layout.Take<CRYPT_IMAGE_REG>();
  PWSTR file = layout.Text(image.file);
  PCRYPT_INTERFACE_REG* interfaces = layout.Take<PCRYPT_INTERFACE_REG>(image.interfaces.size());
  for (std::size_t i = 0; i < image.interfaces.size(); ++i) {
    CRYPT_INTERFACE_REG* entry = LayOut(layout, image.interfaces[i]);
    if (interfaces != nullptr) interfaces[i] = entry;
  }
  if (result != nullptr) *result = {file, static_cast<ULONG>(image.interfaces.size()), interfaces};
  return result;
}

CRYPT_PROVIDER_REG* LayOut(Layout& layout, const Registration& registration) {
  CRYPT_PROVIDER_REG* result = layout.Take<CRYPT_PROVIDER_REG>();
  PWSTR* aliases = layout.Texts(registration.aliases);
  CRYPT_IMAGE_REG* image = registration.user_mode ? LayOut(layout, *registration.user_mode) : nullptr;
  if (result != nullptr) *result = {static_cast<ULONG>(registration.aliases.size()), aliases, image, nullptr};
  return result;
}

// Which blocks are this DLL's; the others are the platform's. Never destroyed, as callers may come in until the end.
class Blocks {
 public:
  static Blocks& Get() {
    static auto* blocks = new Blocks;
    return *blocks;
  }
  BYTE* Allocate(std::size_t size) {
    auto block = std::make_unique<BYTE[]>(size);
    const std::scoped_lock lock(mutex_);
    blocks_.insert(block.get());
    return block.release();
  }
  // False when the block is not this DLL's.
  bool Free(void* block) {
    const std::scoped_lock lock(mutex_);
    if (blocks_.erase(block) == 0) return false;
    delete[] static_cast<BYTE*>(block);
    return true;
  }

 private:
  std::mutex mutex_;
  std::set<void*> blocks_;
};

// The rule for all queries: no pointer asks for the size, a null pointer for a new block, anything else is the caller's
// own block.
template <typename Type, typename Content>
NTSTATUS HandOut(const Content& content, ULONG* size, Type** buffer) {
  if (size == nullptr) return kStatusInvalidParameter;
  Layout measure(nullptr);
  LayOut(measure, content);
  const ULONG room = *size;
  *size = measure.size();
  if (buffer == nullptr) return kStatusBufferTooSmall;
  if (*buffer != nullptr && room < measure.size()) return kStatusBufferTooSmall;
  BYTE* block = *buffer != nullptr ? reinterpret_cast<BYTE*>(*buffer) : Blocks::Get().Allocate(measure.size());
  Layout layout(block);
  *buffer = reinterpret_cast<Type*>(LayOut(layout, content));
  return kStatusSuccess;
}

}  // namespace
}  // namespace standin

using standin::Guarded;
using standin::IsLocal;
using standin::kStatusInvalidParameter;
using standin::kStatusSuccess;
using standin::Where;

extern "C" {

NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR pszProvider, ULONG dwFlags, PCRYPT_PROVIDER_REG pReg) {
  return Guarded([&]() -> NTSTATUS {
    if (pszProvider == nullptr || pReg == nullptr || (pReg->pUM == nullptr && pReg->pKM == nullptr)) {
      return kStatusInvalidParameter;
    }
    standin::Registration registration{standin::ListOf(pReg->cAliases, pReg->rgpszAliases), {}};
    if (pReg->pUM != nullptr) registration.user_mode = standin::ImageOf(*pReg->pUM);
    return standin::WriteRegistration(pszProvider, registration, (dwFlags & CRYPT_OVERWRITE) != 0);
  });
}

NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR pszProvider) {
  return Guarded([&]() -> NTSTATUS {
    if (pszProvider == nullptr || *pszProvider == L'\0') return kStatusInvalidParameter;
    return standin::RemoveRegistration(pszProvider);
  });
}

NTSTATUS WINAPI BCryptQueryProviderRegistration(LPCWSTR pszProvider, ULONG /*dwMode*/, ULONG /*dwInterface*/,
                                                ULONG* pcbBuffer, PCRYPT_PROVIDER_REG* ppBuffer) {
  return Guarded([&]() -> NTSTATUS {
    if (pszProvider == nullptr || *pszProvider == L'\0') return kStatusInvalidParameter;
    standin::Registration registration;
    if (const NTSTATUS status = standin::ReadRegistration(pszProvider, &registration); status != kStatusSuccess) {
      return status;
    }
    return standin::HandOut(registration, pcbBuffer, ppBuffer);
  });
}

NTSTATUS WINAPI BCryptEnumRegisteredProviders(ULONG* pcbBuffer, PCRYPT_PROVIDERS* ppBuffer) {
  return Guarded([&] { return standin::HandOut(standin::RegisteredProviders(), pcbBuffer, ppBuffer); });
}

NTSTATUS WINAPI BCryptAddContextFunction(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface, LPCWSTR pszFunction,
                                         ULONG dwPosition) {
  return Guarded([&]() -> NTSTATUS {
    if (!IsLocal(dwTable) || pszFunction == nullptr) return kStatusInvalidParameter;
    return standin::AddFunction(Where(pszContext, dwInterface, pszFunction), dwPosition);
  });
}

NTSTATUS WINAPI BCryptRemoveContextFunction(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface, LPCWSTR pszFunction) {
  return Guarded([&]() -> NTSTATUS {
    if (!IsLocal(dwTable) || pszFunction == nullptr || *pszFunction == L'\0') return kStatusInvalidParameter;
    return standin::RemoveFunction(Where(pszContext, dwInterface, pszFunction));
  });
}

NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                 LPCWSTR pszFunction, LPCWSTR pszProvider, ULONG dwPosition) {
  return Guarded([&]() -> NTSTATUS {
    if (!IsLocal(dwTable) || pszFunction == nullptr || pszProvider == nullptr) return kStatusInvalidParameter;
    return standin::AddProvider(Where(pszContext, dwInterface, pszFunction), pszProvider, dwPosition);
  });
}

NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                    LPCWSTR pszFunction, LPCWSTR pszProvider) {
  return Guarded([&]() -> NTSTATUS {
    if (!IsLocal(dwTable) || pszFunction == nullptr || pszProvider == nullptr) return kStatusInvalidParameter;
    return standin::RemoveProvider(Where(pszContext, dwInterface, pszFunction), pszProvider);
  });
}

NTSTATUS WINAPI BCryptEnumContextFunctionProviders(ULONG dwTable, LPCWSTR pszContext, ULONG dwInterface,
                                                   LPCWSTR pszFunction, ULONG* pcbBuffer,
                                                   PCRYPT_CONTEXT_FUNCTION_PROVIDERS* ppBuffer) {
  return Guarded([&]() -> NTSTATUS {
    if (!IsLocal(dwTable) || pszFunction == nullptr) return kStatusInvalidParameter;
    std::vector<std::wstring> providers;
    const NTSTATUS status = standin::ListProviders(Where(pszContext, dwInterface, pszFunction), &providers);
    if (status != kStatusSuccess) return status;
    // The two structures differ in their names only.
    return standin::HandOut(providers, pcbBuffer, reinterpret_cast<PCRYPT_PROVIDERS*>(ppBuffer));
  });
}

void WINAPI BCryptFreeBuffer(PVOID pvBuffer) {
  if (!standin::Blocks::Get().Free(pvBuffer)) standin::FreeByPlatform(pvBuffer);
}

}  // extern "C"
