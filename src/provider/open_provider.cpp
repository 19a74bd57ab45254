// KELDAKSPOpenProvider: a provider handle on one token.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "provider/entry_frame.h"
#include "provider/identity.h"
#include "provider/key_storage_interface.h"
#include "provider/provider_cache.h"
#include "provider/provider_record.h"
#include "support/allocator.h"
#include "support/bounded_copy.h"
#include "support/text.h"
#include "token/cryptoki_module.h"
#include "token/reader_name.h"
#include "ui/select_card.h"

namespace {

constexpr char kGetSlotInfoFailed[] = "NTE_INTERNAL_ERROR: GetSlotInfo failed";

// The module's slots, all of them or those that hold a token.
class SlotList {
 public:
  CK_RV Count(CK_BBOOL tokenPresent) { return Functions().C_GetSlotList(tokenPresent, nullptr, &count_); }
  // Fetches as many slots as were counted. What a failed call leaves out names no slot, so that its use fails.
  void Fetch(CK_BBOOL tokenPresent) {
    const CK_ULONG room = count_;
    const std::size_t size = std::max<CK_ULONG>(room, 1);
    slots_ = std::make_unique<CK_SLOT_ID[]>(size);
    std::fill_n(slots_.get(), size, CK_UNAVAILABLE_INFORMATION);
    Functions().C_GetSlotList(tokenPresent, slots_.get(), &count_);
    count_ = std::min(count_, room);
  }
  CK_ULONG count() const noexcept { return count_; }
  CK_SLOT_ID operator[](CK_ULONG i) const noexcept { return slots_[i]; }

 private:
  static const CK_FUNCTION_LIST& Functions() noexcept { return g_Cryptoki->Functions(); }

  std::unique_ptr<CK_SLOT_ID[]> slots_;
  CK_ULONG count_ = 0;
};

// False when the slot's information cannot be read.
bool ReadReaderName(CK_SLOT_ID slot, wchar_t (&name)[kReaderNameSize]) {
  CK_SLOT_INFO info = {};
  if (g_Cryptoki->Functions().C_GetSlotInfo(slot, &info) != CKR_OK) return false;
  ReaderNameFromDescription(name, info.slotDescription);
  return true;
}

// Whether name is one of the strings of a multi-string of cbAliases bytes. Every string that is met is compared, empty
// ones included.
bool IsAlias(const wchar_t* aliases, DWORD cbAliases, const wchar_t* name) noexcept {
  for (std::size_t position = 0; position < cbAliases / sizeof(wchar_t);
       position += WideLength(aliases + position) + 1) {
    if (WideEqual(aliases + position, name)) return true;
  }
  return false;
}

// Null when there is no memory for the record itself. Throws std::bad_alloc when there is none for what it owns.
KELDAKSP_PROVIDER* NewProviderRecord(const wchar_t* name, DWORD cbName) {
  auto* provider = static_cast<KELDAKSP_PROVIDER*>(AllocateBlock(sizeof(KELDAKSP_PROVIDER) + cbName));
  if (provider == nullptr) return nullptr;
  provider->cbLength = static_cast<DWORD>(sizeof(KELDAKSP_PROVIDER)) + cbName;
  std::memcpy(provider->signature, kProviderSignature, sizeof(kProviderSignature));
  provider->dwReserved1 = 0;
  provider->pszName = nullptr;
  provider->pContext = nullptr;
  provider->hSession = 0;
  provider->pKeyObjects = nullptr;
  provider->cKeyObjects = 0;
  provider->pPinCache = nullptr;
  provider->cchPinCache = 0;
  provider->loginState = 0;
  provider->pszReader = nullptr;
  provider->slotId = 0;
  provider->hWnd = 0;
  provider->pLock = new CRITICAL_SECTION();
  const std::size_t cchName = (std::size_t{2} * cbName + 2) / sizeof(wchar_t);
  provider->pszName = new wchar_t[cchName];
  std::memset(provider->pszName, 0, std::size_t{cbName} + 1);
  BoundedCopy(provider->pszName, cchName, name);
  return provider;
}

// Stores slot and reader in the record.
void ChooseSlot(KELDAKSP_PROVIDER* provider, CK_SLOT_ID slot, const wchar_t* reader) {
  provider->slotId = slot;
  provider->pszReader = new wchar_t[kReaderNameSize]();
  BoundedCopy(provider->pszReader, kReaderNameSize, reader);
}

// Takes the first slot: the only one, or the one that silence leaves.
SECURITY_STATUS ChooseFirstSlot(KELDAKSP_PROVIDER* provider, const SlotList& slots) {
  wchar_t reader[kReaderNameSize];
  provider->slotId = slots[0];
  if (!ReadReaderName(slots[0], reader)) return Refuse(NTE_INTERNAL_ERROR, kGetSlotInfoFailed);
  ChooseSlot(provider, slots[0], reader);
  g_Log->WriteWide("Defaulted to reader: ", provider->pszReader);
  return ERROR_SUCCESS;
}

// The reader of the provider opened just before, or the one that the user chooses.
SECURITY_STATUS ChooseReader(wchar_t (&chosen)[kSelectedReaderSize]) {
  g_Log->WriteLine("Checking provider cache");
  if (ReadProviderCache(chosen, kSelectedReaderSize)) {
    g_Log->WriteLine("Provider set");
    return ERROR_SUCCESS;
  }
  g_Log->WriteLine("Provider not set");
  SECURITY_STATUS selection;
  try {
    selection = SelectReader(chosen);
  } catch (const std::runtime_error& error) {
    char line[128];  // more than any of the dialog's texts takes
    std::snprintf(line, sizeof(line), "NTE_FAIL: %s", error.what());
    return Refuse(NTE_FAIL, line);
  }
  if (selection == SCARD_E_CANCELLED || selection == SCARD_W_CANCELLED_BY_USER) {
    return Refuse(ERROR_CANCELLED, "ERROR_CANCELLED: The operation was cancelled.");
  }
  g_Log->WriteWide("Acquired ", chosen);
  return ERROR_SUCCESS;
}

// Finds the slot of the chosen reader.
SECURITY_STATUS ChooseSlotOfReader(KELDAKSP_PROVIDER* provider, const SlotList& slots, const wchar_t* chosen) {
  g_Log->WriteLine("Iterating through slot list");
  for (CK_ULONG i = 0; i < slots.count(); ++i) {
    wchar_t reader[kReaderNameSize];
    if (!ReadReaderName(slots[i], reader)) return Refuse(NTE_INTERNAL_ERROR, kGetSlotInfoFailed);
    g_Log->WriteWide("Found slot: ", reader);
    if (!WideEqual(reader, chosen)) continue;
    g_Log->WriteWide("Reader name acquired. Setting active slot to ", reader);
    ChooseSlot(provider, slots[i], reader);
    return ERROR_SUCCESS;
  }
  return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Selected reader not found.");
}

// Decides on the provider's slot. The user is asked when there is a choice, or no token yet, unless silent.
SECURITY_STATUS SelectSlot(KELDAKSP_PROVIDER* provider, bool silent) {
  SlotList slots;
  if (g_Cryptoki == nullptr || slots.Count(CK_FALSE) != CKR_OK) {
    return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: GetSlotList failed");
  }
  if (slots.count() == 0) return Refuse(NTE_FAIL, "NTE_FAIL: No slot found");
  slots.Fetch(CK_FALSE);
  slots.Count(CK_TRUE);
  if (slots.count() >= 2 && silent) {
    g_Log->WriteLine("Multiple slots are detected but NCRYPT_SILENT_FLAG is set. Defaulting to first slot.");
  }
  if (slots.count() == 0 && silent) {
    return Refuse(NTE_FAIL, "NTE_FAIL: No active slot was found and NCRYPT_SILENT_FLAG is set");
  }
  slots.Fetch(CK_TRUE);
  if (silent || slots.count() == 1) return ChooseFirstSlot(provider, slots);

  wchar_t chosen[kSelectedReaderSize] = {};
  const SECURITY_STATUS choice = ChooseReader(chosen);
  if (choice != ERROR_SUCCESS) return choice;
  if (slots.count() == 0) {
    // The user may just have inserted a token.
    slots.Count(CK_TRUE);
    if (slots.count() == 0) return Refuse(NTE_FAIL, "NTE_FAIL: No active slot was found");
    slots.Fetch(CK_TRUE);
  }
  return ChooseSlotOfReader(provider, slots, chosen);
}

// What a failed open has allocated stays behind; kept on purpose (docs/kept-oddities.md).
SECURITY_STATUS OpenProvider(NCRYPT_PROV_HANDLE* phProvider, const wchar_t* pszProviderName, DWORD dwFlags) {
  if (phProvider == nullptr) return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phProvider is NULL");
  if (pszProviderName == nullptr)
    return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProviderName is NULL");

  // Two characters more than are read, so that a walk over the strings always meets a terminator.
  wchar_t aliases[1024 + 2] = {};
  DWORD cbAliases = 2048;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kRegistrationKey, L"Aliases", RRF_RT_REG_MULTI_SZ, nullptr, aliases,
                   &cbAliases) != ERROR_SUCCESS) {
    return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: OpenProvider::RegGetValue");
  }
  if (!IsAlias(aliases, cbAliases, pszProviderName)) {
    return Refuse(NTE_INVALID_PARAMETER,
                  "NTE_INVALID_PARAMETER: pszProviderName does not match the registered provider name");
  }
  const std::size_t cbName = (WideLength(pszProviderName) + 1) * sizeof(wchar_t);
  if (cbName >= 65536) {
    return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: cbProvider is greater than MAXUSHORT");
  }
  KELDAKSP_PROVIDER* provider = NewProviderRecord(pszProviderName, static_cast<DWORD>(cbName));
  if (provider == nullptr) {
    return Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Not enough memory to allocate for pProvider");
  }
  const SECURITY_STATUS selection = SelectSlot(provider, (dwFlags & NCRYPT_SILENT_FLAG) != 0);
  if (selection != ERROR_SUCCESS) return selection;

  if (g_Cryptoki->Functions().C_OpenSession(provider->slotId, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                            &provider->hSession) != CKR_OK) {
    return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Error in opening PKCS#11 session");
  }
  g_Log->WriteLine("Caching provider instance");
  UpdateProviderCache(provider);
  InitializeCriticalSectionAndSpinCount(provider->pLock, 1024);
  *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider);
  g_Log->WriteHex32("Provider handle retrieved: ", static_cast<std::uint32_t>(*phProvider));
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                            DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPOpenProvider - Entry", "KELDAKSPOpenProvider - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("phProvider       : ", phProvider);
    frame.WideArgument("pszProviderName  : ", pszProviderName);
    frame.Argument("dwFlags          : ", dwFlags);
    return OpenProvider(phProvider, pszProviderName, dwFlags);
  });
}
