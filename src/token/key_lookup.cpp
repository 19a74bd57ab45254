#include "token/key_lookup.h"

#include <cstring>
#include <new>

#include "diag/debug_log.h"
#include "support/bounded_copy.h"
#include "token/key_names.h"
#include "token/key_object_list.h"

namespace {

// Copies what an entry owns into a buffer that the target already has; without one nothing is copied.
void CopyInto(BYTE* target, const BYTE* source, DWORD size) noexcept {
  if (target != nullptr && source != nullptr) std::memcpy(target, source, size);
}

void CopyEntry(const KELDAKSP_KEY& entry, KELDAKSP_KEY* target) {
  g_KeyNameLog->WriteLine("Copying key");
  g_KeyNameLog->WriteLine("- key name");
  target->cbKeyName = entry.cbKeyName;
  target->pszKeyName = new wchar_t[std::size_t{entry.cbKeyName} + 1]();
  BoundedCopy(target->pszKeyName, std::size_t{entry.cbKeyName} + 1, entry.pszKeyName);
  g_KeyNameLog->WriteLine("- CKA_ID");
  std::memcpy(target->KeyId, entry.KeyId, sizeof(target->KeyId));
  target->cbKeyId = entry.cbKeyId;
  g_KeyNameLog->WriteLine("- key handles");
  target->hPrivateKeyObject = entry.hPrivateKeyObject;
  target->hPublicKeyObject = entry.hPublicKeyObject;
  target->hReserved1 = entry.hReserved1;
  target->hReserved2 = entry.hReserved2;
  g_KeyNameLog->WriteLine("- provider handle");
  target->hAlgProvider = entry.hAlgProvider;
  g_KeyNameLog->WriteLine("- flags");
  target->dwAlgID = entry.dwAlgID;
  target->dwKeyBitLength = entry.dwKeyBitLength;
  target->dwExportPolicy = entry.dwExportPolicy;
  target->dwKeyUsagePolicy = entry.dwKeyUsagePolicy;
  target->fOverwrite = entry.fOverwrite;
  target->fFinished = entry.fFinished;
  g_KeyNameLog->WriteLine("- security descriptor");
  CopyInto(target->pbSecurityDescr, entry.pbSecurityDescr, entry.cbSecurityDescr);
  g_KeyNameLog->WriteLine("- key file");
  CopyInto(target->pbKeyFile, entry.pbKeyFile, entry.cbKeyFile);
  ClearList(&target->PropertyList);
  target->cbLength = sizeof(KELDAKSP_KEY);
  target->dwMagic = BCRYPT_RSAPUBLIC_MAGIC;
}

void CheckForTerminator(const wchar_t* name) noexcept {
  constexpr std::size_t kScanned = 1025;
  g_KeyNameLog->WriteLine("Test KeyName pointer");
  for (std::size_t i = 0; i < kScanned; ++i) {
    if (name[i] == L'\0') return;
  }
  g_KeyNameLog->WriteLine("Overflow!");  // told, not refused
}

bool EntryMatches(const KELDAKSP_KEY& entry, const wchar_t* keyName, HexNameForm& hexForm) {
  g_KeyNameLog->WriteWide("Compare name to: ", entry.pszKeyName);
  if (KeyNameMatches(keyName, entry.pszKeyName)) return true;
  g_KeyNameLog->WriteLine("Checking hex string equivalent of key name");
  return KeyNameMatches(hexForm.Get(), entry.pszKeyName);
}

SECURITY_STATUS FindKey(KELDAKSP_PROVIDER* provider, const CryptokiModule* module, const wchar_t* keyName,
                        KELDAKSP_KEY* target) {
  g_KeyNameLog->WriteWide("Looking for key with name: ", keyName);
  if (provider->cKeyObjects == 0) {
    g_KeyNameLog->WriteLine("Number of key objects is 0.");
    const SECURITY_STATUS status = InitializeObjectList(provider, module);
    if (status != ERROR_SUCCESS) {
      g_KeyNameLog->WriteLine("LoadTokenKeys error ");
      return status;
    }
  }
  CheckForTerminator(keyName);
  g_KeyNameLog->WriteWide("Searching KeyName = ", keyName);
  g_KeyNameLog->WriteInt("Starting iteration. Count: ", static_cast<std::int32_t>(provider->cKeyObjects));
  HexNameForm hexForm(keyName);
  for (DWORD i = 0; i < provider->cKeyObjects; ++i) {
    g_KeyNameLog->WriteHex32("Iteration: ", i);
    const KELDAKSP_KEY& entry = provider->pKeyObjects[i];
    if (EntryMatches(entry, keyName, hexForm)) {
      g_KeyNameLog->WriteLine("Key name match found");
      CopyEntry(entry, target);
      g_KeyNameLog->WriteLine("Key was reconstructed");
      return ERROR_SUCCESS;
    }
    g_KeyNameLog->WriteLine("Key name match not found");
  }
  g_KeyNameLog->WriteLine("Key name match not found");
  return NTE_BAD_KEYSET;
}

}  // namespace

SECURITY_STATUS FindKELDKSPKeyfromObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module,
                                             const wchar_t* keyName, KELDAKSP_KEY* target) {
  g_KeyNameLog->WriteLine("FindKELDKSPKeyfromObjectList - Entry");
  SECURITY_STATUS status = NTE_NO_MEMORY;
  try {
    status = FindKey(provider, module, keyName, target);
  } catch (const std::bad_alloc&) {
    // the status says it; the exit line is written all the same
  }
  g_KeyNameLog->WriteLine("FindKELDKSPKeyfromObjectList - Exit");
  return status;
}
