// KELDAKSPOpenKey: a key handle for a key that is on the token.
#include <new>

#include "keys/open_flags.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/bounded_copy.h"
#include "support/text.h"
#include "support/wipe.h"
#include "token/cryptoki_module.h"
#include "token/key_lookup.h"

namespace {

// The part of a key name that names the key: what follows the provider's reader name and one separator, or all of it.
const wchar_t* KeyPart(const wchar_t* keyName, const wchar_t* reader) noexcept {
  g_Log->WriteLine("Parsing key name...");
  const std::size_t position = WideFind(keyName, reader);
  if (position == kNotFound) return keyName;
  const std::size_t cchReader = WideLength(reader);
  g_Log->WriteWide("Reader name found on key name: ", reader);
  g_Log->WriteWide("wstrKeyID: ", keyName);
  g_Log->WriteInt("ReaderName length: ", static_cast<std::int32_t>(cchReader));
  g_Log->WriteInt("Position: ", static_cast<std::int32_t>(position));
  const wchar_t* rest = keyName + position + cchReader;
  return *rest != L'\0' ? rest + 1 : rest;
}

SECURITY_STATUS CopyKeyPart(const wchar_t* part, WipedArray<wchar_t>& identifier) {
  g_Log->WriteLine("Retrieving key name");
  const std::size_t cchIdentifier = WideLength(part) + 2;
  identifier = WipedArray<wchar_t>(cchIdentifier);
  if (BoundedCopy(identifier.data(), cchIdentifier, part) != 0) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: String processing failed");
  }
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                       DWORD dwLegacyKeySpec, DWORD dwFlags) noexcept {
  // No colon before the status here, unlike the other entries.
  constexpr EntryLines kLines = {"KELDAKSPOpenKey - Entry", "KELDAKSPOpenKey - Exit"};
  const EntryArgument arguments[] = {
      {"hProvider       : ", hProvider},       {"phKey           : ", phKey},   {"pszKeyName      : ", pszKeyName},
      {"dwLegacyKeySpec : ", dwLegacyKeySpec}, {"dwFlags         : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    if (phKey == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phKey is NULL");
    if (pszKeyName == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszKeyName is NULL");
    // A plain comparison: 3 asks for both halves.
    if (dwLegacyKeySpec > 3) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER,
                           "NTE_INVALID_PARAMETER: ((dwLegacyKeySpec & ~(AT_KEYEXCHANGE | AT_SIGNATURE)) != 0) ");
    }
    SECURITY_STATUS status = CheckOpenFlags(dwFlags);
    if (status != ERROR_SUCCESS) return status;

    WipedArray<wchar_t> identifier;
    status = CopyKeyPart(KeyPart(pszKeyName, provider->pszReader), identifier);
    if (status != ERROR_SUCCESS) return status;

    g_Log->WriteLine("Initializing key object");
    KeyObjectOwner key(new (std::nothrow) KELDAKSP_KEY());
    if (key == nullptr) return g_Log->Refuse(NTE_NO_MEMORY, "Not enough memory to initialize key object");
    g_Log->WriteLine("Find key with specified key name");
    // A key that is not found leaves the record zeroed. Unless a legacy key spec asks for one of its objects the record
    // is handed out all the same, and every later call refuses it. Kept on purpose.
    FindKELDKSPKeyfromObjectList(provider, g_Cryptoki, identifier.data(), key.get());

    // The exchange test looks at the public object and the signature test at the private one, on purpose.
    if ((dwLegacyKeySpec & AT_KEYEXCHANGE) != 0 && key->hPublicKeyObject == 0) {
      return g_Log->Refuse(NTE_BAD_KEYSET, "NTE_BAD_KEYSET: AT_KEYEXCHANGE key not found");
    }
    if ((dwLegacyKeySpec & AT_SIGNATURE) != 0 && key->hPrivateKeyObject == 0) {
      return g_Log->Refuse(NTE_BAD_KEYSET, "NTE_BAD_KEYSET: AT_SIGNATURE Key not found");
    }
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    g_Log->WriteHex32("Key opened. Handle: ", static_cast<std::uint32_t>(*phKey));
    return ERROR_SUCCESS;
  });
}
