#include "provider/slot_choice.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "diag/debug_log.h"
#include "provider/entry/provider_cache.h"
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

// Stores slot and reader in the record.
void TakeSlot(KELDAKSP_PROVIDER* provider, CK_SLOT_ID slot, const wchar_t* reader) {
  provider->slotId = slot;
  provider->pszReader = new wchar_t[kReaderNameSize]();
  BoundedCopy(provider->pszReader, kReaderNameSize, reader);
}

// Takes the first slot: the only one, or the one that silence leaves.
SECURITY_STATUS ChooseFirstSlot(KELDAKSP_PROVIDER* provider, const SlotList& slots) {
  wchar_t reader[kReaderNameSize];
  provider->slotId = slots[0];
  if (!ReadReaderName(slots[0], reader)) return g_Log->Refuse(NTE_INTERNAL_ERROR, kGetSlotInfoFailed);
  TakeSlot(provider, slots[0], reader);
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
    return g_Log->Refuse(NTE_FAIL, line);
  }
  if (selection == SCARD_E_CANCELLED || selection == SCARD_W_CANCELLED_BY_USER) {
    return g_Log->Refuse(ERROR_CANCELLED, "ERROR_CANCELLED: The operation was cancelled.");
  }
  g_Log->WriteWide("Acquired ", chosen);
  return ERROR_SUCCESS;
}

// Finds the slot of the chosen reader.
SECURITY_STATUS ChooseSlotOfReader(KELDAKSP_PROVIDER* provider, const SlotList& slots, const wchar_t* chosen) {
  g_Log->WriteLine("Iterating through slot list");
  for (CK_ULONG i = 0; i < slots.count(); ++i) {
    wchar_t reader[kReaderNameSize];
    if (!ReadReaderName(slots[i], reader)) return g_Log->Refuse(NTE_INTERNAL_ERROR, kGetSlotInfoFailed);
    g_Log->WriteWide("Found slot: ", reader);
    if (!WideEqual(reader, chosen)) continue;
    g_Log->WriteWide("Reader name acquired. Setting active slot to ", reader);
    TakeSlot(provider, slots[i], reader);
    return ERROR_SUCCESS;
  }
  return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Selected reader not found.");
}

}  // namespace

SECURITY_STATUS ChooseSlot(KELDAKSP_PROVIDER* provider, bool silent) {
  SlotList slots;
  if (g_Cryptoki == nullptr || slots.Count(CK_FALSE) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: GetSlotList failed");
  }
  if (slots.count() == 0) return g_Log->Refuse(NTE_FAIL, "NTE_FAIL: No slot found");
  slots.Fetch(CK_FALSE);
  slots.Count(CK_TRUE);
  if (slots.count() >= 2 && silent) {
    g_Log->WriteLine("Multiple slots are detected but NCRYPT_SILENT_FLAG is set. Defaulting to first slot.");
  }
  if (slots.count() == 0 && silent) {
    return g_Log->Refuse(NTE_FAIL, "NTE_FAIL: No active slot was found and NCRYPT_SILENT_FLAG is set");
  }
  slots.Fetch(CK_TRUE);
  if (silent || slots.count() == 1) return ChooseFirstSlot(provider, slots);

  wchar_t chosen[kSelectedReaderSize] = {};
  const SECURITY_STATUS choice = ChooseReader(chosen);
  if (choice != ERROR_SUCCESS) return choice;
  if (slots.count() == 0) {
    // The user may just have inserted a token.
    slots.Count(CK_TRUE);
    if (slots.count() == 0) return g_Log->Refuse(NTE_FAIL, "NTE_FAIL: No active slot was found");
    slots.Fetch(CK_TRUE);
  }
  return ChooseSlotOfReader(provider, slots, chosen);
}
