#include "token/key_object_list.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include "diag/debug_log.h"
#include "support/allocator.h"
#include "support/wipe.h"
#include "token/key_names.h"
#include "token/object_search.h"
#include "token/prefix_index.h"

namespace {

constexpr CK_ULONG kAttributeSize = 200;
static_assert(kAttributeSize == kMaxKeyIdSize && kAttributeSize == PrefixIndex::kMaxLength);

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

// From so many keys on an index of their identifiers is worth its memory.
constexpr std::size_t kManyKeys = 32;

PrefixIndex::Bytes IdentifierOf(const KELDAKSP_KEY& entry) noexcept {
  return {entry.KeyId, entry.cbKeyId};
}

// The provider's list while it is built. How much room its array has is known only here: the record counts what the
// array holds.
class GrowingList {
 public:
  explicit GrowingList(KELDAKSP_PROVIDER* provider) noexcept : provider_(provider) {}

  // So many keys may follow. Without memory for the index the list is walked.
  void Expect(std::size_t keys) noexcept {
    if (keys >= kManyKeys) index_.Reserve(keys);
  }
  // So many keys of the class that is being read may follow, the next one counted.
  void ExpectOfClass(std::size_t keys) noexcept { following_ = keys; }

  // Takes a record in at the end, with its buffers. False when there is no memory.
  bool Append(const KELDAKSP_KEY& key) noexcept {
    const std::size_t count = provider_->cKeyObjects;
    if (count == room_ && !Grow(count + following_) && !Grow(count + 1)) return false;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): without an array there is no room either
    KELDAKSP_KEY& entry = provider_->pKeyObjects[count];
    entry = key;
    ClearList(&entry.PropertyList);
    ++provider_->cKeyObjects;
    if (index_.usable()) index_.Add(IdentifierOf(entry), count);
    return true;
  }

  // The first entry whose identifier the new one begins with: the entry's own length decides.
  KELDAKSP_KEY* FindById(const unsigned char (&id)[kAttributeSize]) const noexcept {
    if (index_.usable()) {
      const std::size_t found = index_.FirstPrefixOf(id, provider_->pKeyObjects, &IdentifierAt);
      return found != PrefixIndex::kNotFound ? &provider_->pKeyObjects[found] : nullptr;
    }
    for (DWORD i = 0; i < provider_->cKeyObjects; ++i) {
      KELDAKSP_KEY& entry = provider_->pKeyObjects[i];
      if (std::memcmp(id, entry.KeyId, entry.cbKeyId) == 0) return &entry;
    }
    return nullptr;
  }

 private:
  static PrefixIndex::Bytes IdentifierAt(const void* entries, std::size_t position) noexcept {
    return IdentifierOf(static_cast<const KELDAKSP_KEY*>(entries)[position]);
  }

  // Moves the entries into an array with this room; the old one is wiped. False when there is no memory.
  bool Grow(std::size_t room) noexcept {
    const std::size_t count = provider_->cKeyObjects;
    auto* grown = static_cast<KELDAKSP_KEY*>(AllocateBlock(room * sizeof(KELDAKSP_KEY)));
    if (grown == nullptr) return false;
    if (count != 0) std::memcpy(grown, provider_->pKeyObjects, count * sizeof(KELDAKSP_KEY));
    for (std::size_t i = 0; i < count; ++i)
      ClearList(&grown[i].PropertyList);
    SecureWipe(provider_->pKeyObjects, count * sizeof(KELDAKSP_KEY));
    std::free(provider_->pKeyObjects);
    provider_->pKeyObjects = grown;
    room_ = room;
    return true;
  }

  KELDAKSP_PROVIDER* provider_;
  std::size_t room_ = 0;
  std::size_t following_ = 1;
  PrefixIndex index_;
};

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
SECURITY_STATUS AddKeyToObjectList(GrowingList& list, CK_OBJECT_HANDLE object, CK_OBJECT_CLASS objectClass,
                                   const KeyAttributes& attributes) {
  const bool isPublic = objectClass == CKO_PUBLIC_KEY;
  if (KELDAKSP_KEY* entry = list.FindById(attributes.id)) {
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
  if (list.Append(*key)) key->pszKeyName = nullptr;  // the list has it now
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

bool AddKeys(const KELDAKSP_PROVIDER* provider, const CryptokiModule& module, const ClassTexts& texts,
             const ObjectHandles& handles, KeyAttributes& attributes, GrowingList& list) {
  std::size_t following = handles.count();
  for (const CK_OBJECT_HANDLE object : handles) {
    list.ExpectOfClass(following--);
    g_KeyNameLog->WriteLine(texts.read);
    if (!ReadKey(provider, module, object, attributes)) {
      g_KeyNameLog->WriteLine(texts.readError);
      return false;
    }
    g_KeyNameLog->WriteBytes("CKA_ID\t\t: ", attributes.id, attributes.cbId);
    g_KeyNameLog->WriteBytes("CKA_LABEL\t: ", attributes.label, attributes.cbLabel);
    g_KeyNameLog->WriteInt("CKA_MODULUS_BITS: ", static_cast<std::int32_t>(attributes.modulusBits));
    AddKeyToObjectList(list, object, texts.objectClass, attributes);
  }
  return true;
}

// Public keys are always added before private keys: this decides which handle an entry gets first.
bool BuildObjectList(KELDAKSP_PROVIDER* provider, const CryptokiModule* module) {
  if (module == nullptr) return false;
  ObjectHandles publicKeys;
  ObjectHandles privateKeys;
  KeyAttributes attributes;
  GrowingList list(provider);
  if (!FindKeys(provider, *module, kPublicKeys, publicKeys) ||
      !FindKeys(provider, *module, kPrivateKeys, privateKeys)) {
    return false;
  }
  list.Expect(std::size_t{publicKeys.count()} + privateKeys.count());
  return AddKeys(provider, *module, kPublicKeys, publicKeys, attributes, list) &&
         AddKeys(provider, *module, kPrivateKeys, privateKeys, attributes, list);
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
