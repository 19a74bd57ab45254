#include "token/key_object_list.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "diag/debug_log.h"
#include "support/allocator.h"
#include "support/bounded_copy.h"
#include "support/text.h"
#include "support/wipe.h"
#include "token/key_names.h"

namespace {

constexpr CK_ULONG kMaxObjects = 1000;
constexpr CK_ULONG kAttributeSize = 200;
static_assert(kAttributeSize == kMaxKeyIdSize);

struct MallocDeleter {
  void operator()(void* block) const noexcept { std::free(block); }
};

// What is read of one token key. The buffers are not cleared between keys: a short identifier is followed by what an
// earlier key left behind, and that counts when it is held against a longer one. Kept on purpose.
struct KeyAttributes {
  unsigned char id[kAttributeSize] = {};
  unsigned char label[kAttributeSize] = {};
  CK_ULONG modulusBits = 0;
  CK_ULONG cbId = 0;
  CK_ULONG cbLabel = 0;

  KeyAttributes() = default;
  KeyAttributes(const KeyAttributes&) = delete;
  KeyAttributes& operator=(const KeyAttributes&) = delete;
  ~KeyAttributes() {
    SecureWipe(id, sizeof(id));
    SecureWipe(label, sizeof(label));
  }
};

// The handles of all token keys of one class.
class ObjectHandles {
 public:
  // Two passes: the first counts, the second fetches. False when a call fails; the search then stays as it is. The
  // second pass asks for one object even when there is none: many modules refuse a maximum of 0.
  bool Find(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass) {
    CK_BBOOL onToken = CK_TRUE;
    CK_ATTRIBUTE search[] = {
        {CKA_TOKEN, &onToken, sizeof(onToken)},
        {CKA_CLASS, &objectClass, sizeof(objectClass)},
    };
    if (!Pass(token, session, search, nullptr, kMaxObjects)) return false;
    const CK_ULONG room = std::clamp(count_, CK_ULONG{1}, kMaxObjects);
    handles_.reset(static_cast<CK_OBJECT_HANDLE*>(AllocateBlock(room * sizeof(CK_OBJECT_HANDLE))));
    if (handles_ == nullptr) {
      g_KeyNameLog->WriteLine("NTE_INTERNAL_ERROR: Object memory allocation error");
      return false;
    }
    // A module that writes fewer handles than it says leaves handles of no object.
    std::fill_n(handles_.get(), room, CK_OBJECT_HANDLE{0});
    if (!Pass(token, session, search, handles_.get(), room)) return false;
    count_ = std::min(count_, room);
    return true;
  }
  CK_ULONG count() const noexcept { return count_; }
  const CK_OBJECT_HANDLE* begin() const noexcept { return handles_.get(); }
  const CK_OBJECT_HANDLE* end() const noexcept { return handles_.get() + count_; }

 private:
  bool Pass(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_ATTRIBUTE (&search)[2],
            CK_OBJECT_HANDLE* handles, CK_ULONG room) {
    count_ = 0;
    return token.C_FindObjectsInit(session, search, static_cast<CK_ULONG>(std::size(search))) == CKR_OK &&
           token.C_FindObjects(session, handles, room, &count_) == CKR_OK &&
           token.C_FindObjectsFinal(session) == CKR_OK;
  }

  std::unique_ptr<CK_OBJECT_HANDLE, MallocDeleter> handles_;
  CK_ULONG count_ = 0;
};

// Grows the list by one record, whose buffers the list takes over. False when there is no memory.
bool AppendKeyObject(KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY& key) noexcept {
  const std::size_t count = provider->cKeyObjects;
  auto* grown = static_cast<KELDAKSP_KEY*>(AllocateBlock((count + 1) * sizeof(KELDAKSP_KEY)));
  if (grown == nullptr) return false;
  if (count != 0) std::memcpy(grown, provider->pKeyObjects, count * sizeof(KELDAKSP_KEY));
  grown[count] = key;
  for (std::size_t i = 0; i <= count; ++i)
    ClearList(&grown[i].PropertyList);
  SecureWipe(provider->pKeyObjects, count * sizeof(KELDAKSP_KEY));
  std::free(provider->pKeyObjects);
  ++provider->cKeyObjects;
  provider->pKeyObjects = grown;
  return true;
}

KELDAKSP_KEY* FindById(const KELDAKSP_PROVIDER* provider, const unsigned char (&id)[kAttributeSize]) noexcept {
  for (DWORD i = 0; i < provider->cKeyObjects; ++i) {
    KELDAKSP_KEY& entry = provider->pKeyObjects[i];
    // The entry's own length decides: an entry whose identifier begins the new one matches.
    if (std::memcmp(id, entry.KeyId, entry.cbKeyId) == 0) return &entry;
  }
  return nullptr;
}

void Pair(CK_OBJECT_HANDLE& place, CK_OBJECT_HANDLE object, const char* paired) noexcept {
  if (place != 0) {
    g_KeyNameLog->WriteLine("Duplicate Key ID error, skip key");
    return;
  }
  place = object;
  g_KeyNameLog->WriteLine(paired);
}

// Pairs a token key with the entry of its identifier, or makes an entry for it. Always 0: a key that cannot be taken in
// is left out.
SECURITY_STATUS AddKeyToObjectList(KELDAKSP_PROVIDER* provider, CK_OBJECT_HANDLE object, CK_OBJECT_CLASS objectClass,
                                   const KeyAttributes& attributes) {
  const bool isPublic = objectClass == CKO_PUBLIC_KEY;
  if (KELDAKSP_KEY* entry = FindById(provider, attributes.id)) {
    if (isPublic) {
      Pair(entry->hPublicKeyObject, object, "Public key paired with private key in object list");
    } else {
      Pair(entry->hPrivateKeyObject, object, "Private key paired with public key in object list");
    }
    return ERROR_SUCCESS;
  }
  WideName name;
  KeyNameFromAttributes(attributes.id, attributes.cbId, attributes.label, attributes.cbLabel, name);
  KELDAKSP_KEY* key = nullptr;
  if (NewKeyObject(name.data(), &key) != ERROR_SUCCESS) return ERROR_SUCCESS;
  if (isPublic) {
    key->hPublicKeyObject = object;
    g_KeyNameLog->WriteLine("Public key created and added to object list");
  } else {
    key->hPrivateKeyObject = object;
    g_KeyNameLog->WriteLine("Private key created and added to object list");
  }
  std::memcpy(key->KeyId, attributes.id, attributes.cbId);
  key->cbKeyId = attributes.cbId;
  key->dwKeyBitLength = attributes.modulusBits;
  key->fFinished = 1;
  if (AppendKeyObject(provider, *key)) key->pszKeyName = nullptr;  // the list has it now
  DestroyKeyObject(key);
  return ERROR_SUCCESS;
}

// The texts for one class of keys. That public and private keys are counted under one text, and that only one of them
// has a trailing blank, is kept.
struct ClassTexts {
  CK_OBJECT_CLASS objectClass;
  const char* find;
  const char* findError;
  const char* read;
  const char* readError;
};

constexpr ClassTexts kPublicKeys = {CKO_PUBLIC_KEY, "Find Token Public Keys", "Find Token Public Keys error",
                                    "Get Public Key atrributes ", "Get Public Keys atrributes error"};
constexpr ClassTexts kPrivateKeys = {CKO_PRIVATE_KEY, "Find Token Private Keys ", "Find Token Private Keys error",
                                     "Get Private Key atrributes", "Get Private Keys atrributes error"};

bool FindKeys(const KELDAKSP_PROVIDER* provider, const CryptokiModule& module, const ClassTexts& texts,
              ObjectHandles& handles) {
  g_KeyNameLog->WriteLine(texts.find);
  if (!handles.Find(module.Functions(), provider->hSession, texts.objectClass)) {
    g_KeyNameLog->WriteLine(texts.findError);
    return false;
  }
  g_KeyNameLog->WriteInt("numPublicKeys = ", static_cast<std::int32_t>(handles.count()));
  return true;
}

// False when the attributes cannot be read; a value of more than 200 bytes cannot.
bool ReadKey(const KELDAKSP_PROVIDER* provider, const CryptokiModule& module, CK_OBJECT_HANDLE object,
             KeyAttributes& attributes) {
  CK_ATTRIBUTE read[] = {
      {CKA_ID, attributes.id, kAttributeSize},
      {CKA_LABEL, attributes.label, kAttributeSize},
      {CKA_MODULUS_BITS, &attributes.modulusBits, sizeof(attributes.modulusBits)},
  };
  const CK_RV result =
      module.Functions().C_GetAttributeValue(provider->hSession, object, read, static_cast<CK_ULONG>(std::size(read)));
  if (result != CKR_OK || read[0].ulValueLen > kAttributeSize || read[1].ulValueLen > kAttributeSize) return false;
  attributes.cbId = read[0].ulValueLen;
  attributes.cbLabel = read[1].ulValueLen;
  return true;
}

bool AddKeys(KELDAKSP_PROVIDER* provider, const CryptokiModule& module, const ClassTexts& texts,
             const ObjectHandles& handles, KeyAttributes& attributes) {
  for (const CK_OBJECT_HANDLE object : handles) {
    g_KeyNameLog->WriteLine(texts.read);
    if (!ReadKey(provider, module, object, attributes)) {
      g_KeyNameLog->WriteLine(texts.readError);
      return false;
    }
    g_KeyNameLog->WriteBytes("CKA_ID\t\t: ", attributes.id, attributes.cbId);
    g_KeyNameLog->WriteBytes("CKA_LABEL\t: ", attributes.label, attributes.cbLabel);
    g_KeyNameLog->WriteInt("CKA_MODULUS_BITS: ", static_cast<std::int32_t>(attributes.modulusBits));
    AddKeyToObjectList(provider, object, texts.objectClass, attributes);
  }
  return true;
}

// Public keys are always added before private keys: this decides which handle an entry gets first.
bool BuildObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module) {
  if (module == nullptr) return false;
  ObjectHandles publicKeys;
  ObjectHandles privateKeys;
  KeyAttributes attributes;
  return FindKeys(provider, *module, kPublicKeys, publicKeys) &&
         FindKeys(provider, *module, kPrivateKeys, privateKeys) &&
         AddKeys(provider, *module, kPublicKeys, publicKeys, attributes) &&
         AddKeys(provider, *module, kPrivateKeys, privateKeys, attributes);
}

// Fills the next entry's name into a record; NTE_NO_MEMORY leaves nothing behind.
SECURITY_STATUS NewKeyName(const KELDAKSP_KEY& entry, NCryptKeyName** ppKeyName) noexcept {
  std::unique_ptr<void, MallocDeleter> record(AllocateBlock(sizeof(NCryptKeyName)));
  if (record == nullptr) return NTE_NO_MEMORY;
  const std::size_t cchName = WideLength(entry.pszKeyName) + 1;
  WideName name = WideName::Try(cchName);  // an identifier, as a rule: wiped unless it is handed out
  if (name.empty()) return NTE_NO_MEMORY;
  BoundedCopy(name.data(), cchName, entry.pszKeyName);
  g_KeyNameLog->WriteWide("KeyName = ", name.data());
  auto* pszAlgid = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, sizeof(L"RSA")));
  if (pszAlgid == nullptr) return NTE_NO_MEMORY;
  std::memcpy(pszAlgid, L"RSA", sizeof(L"RSA"));
  auto* keyName = static_cast<NCryptKeyName*>(record.release());
  keyName->pszName = name.Release();
  keyName->pszAlgid = pszAlgid;
  keyName->dwLegacyKeySpec = 0;
  keyName->dwFlags = 0;
  *ppKeyName = keyName;
  return ERROR_SUCCESS;
}

SECURITY_STATUS ReadNextKeyName(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                NCryptKeyName** ppKeyName) noexcept {
  if (*ppState == nullptr) {
    *ppState = new (std::nothrow) KELDAKSP_ENUM_STATE();
    if (*ppState == nullptr) return NTE_NO_MEMORY;
  }
  KELDAKSP_ENUM_STATE& state = **ppState;
  g_KeyNameLog->WriteInt("EnumState index = ", static_cast<std::int32_t>(state.index));
  if (state.index >= provider->cKeyObjects) {
    std::free(*ppKeyName);
    *ppKeyName = nullptr;
    g_KeyNameLog->WriteLine("NTE_NO_MORE_ITEMS");
    return NTE_NO_MORE_ITEMS;
  }
  const SECURITY_STATUS status = NewKeyName(provider->pKeyObjects[state.index], ppKeyName);
  if (status == ERROR_SUCCESS) ++state.index;
  return status;
}

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

bool EntryMatches(const KELDAKSP_KEY& entry, const wchar_t* keyName) {
  g_KeyNameLog->WriteWide("Compare name to: ", entry.pszKeyName);
  if (KeyNameMatches(keyName, entry.pszKeyName)) return true;
  g_KeyNameLog->WriteLine("Checking hex string equivalent of key name");
  const WideName converted = KeyNameFromHexText(keyName);
  return KeyNameMatches(converted.data(), entry.pszKeyName);
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
  for (DWORD i = 0; i < provider->cKeyObjects; ++i) {
    g_KeyNameLog->WriteHex32("Iteration: ", i);
    const KELDAKSP_KEY& entry = provider->pKeyObjects[i];
    if (EntryMatches(entry, keyName)) {
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

void ReleaseKeyObjectList(KELDAKSP_PROVIDER* provider) noexcept {
  for (DWORD i = 0; i < provider->cKeyObjects; ++i)
    ReleaseKeyObject(&provider->pKeyObjects[i]);
  SecureWipe(provider->pKeyObjects, provider->cKeyObjects * sizeof(KELDAKSP_KEY));
  std::free(provider->pKeyObjects);
  provider->pKeyObjects = nullptr;
  provider->cKeyObjects = 0;
}

SECURITY_STATUS InitializeObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module) {
  g_KeyNameLog->WriteLine("InitializeObjectList - Entry");
  ReleaseKeyObjectList(provider);
  SECURITY_STATUS status = NTE_NO_MEMORY;
  try {
    status = BuildObjectList(provider, module) ? ERROR_SUCCESS : NTE_INTERNAL_ERROR;
  } catch (const std::bad_alloc&) {
    // the status says it; the exit line is written all the same
  }
  g_KeyNameLog->WriteLine("InitializeObjectList - Exit");
  return status;
}

SECURITY_STATUS ReadKeyNameFromKeyObjectList(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                             NCryptKeyName** ppKeyName) {
  g_KeyNameLog->WriteLine("ReadKeyNameFromKeyObjectList - Entry");
  const SECURITY_STATUS status = ReadNextKeyName(provider, ppState, ppKeyName);
  g_KeyNameLog->WriteLine("ReadKeyNameFromKeyObjectList - Exit");
  return status;
}

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
