// The token module: virtual readers, SoftHSM's tokens in them, sessions, and private keys that everybody may see.
//
// Every public operation takes and returns the numbers that Windows programs use; CK_RV values are passed through
// as they are. One lock lets one call in at a time, as a card does.
#pragma once

#include <p11-kit/pkcs11.h>

#include <compare>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/reader_file.h"
#include "softtoken/attributes.h"
#include "softtoken/strictness.h"
#include "softtoken/win_layout.h"

namespace softtoken {

enum class Operation { kNone, kEncrypt, kDecrypt, kSign, kVerify };

class Module {
 public:
  static Module& Instance();

  // Runs one call under the lock, with all exceptions turned into a CK_RV.
  template <typename Call>
  win::Ulong Run(Call call) noexcept {
    try {
      const std::scoped_lock lock(mutex_);
      return static_cast<win::Ulong>(call(*this));
    } catch (const std::bad_alloc&) {
      return CKR_HOST_MEMORY;
    } catch (...) {
      return CKR_GENERAL_ERROR;
    }
  }

  CK_RV Initialize();
  CK_RV Finalize();
  CK_RV GetInfo(win::Info* info);

  CK_RV GetSlotList(bool withToken, win::Ulong* slots, win::Ulong* count);
  CK_RV GetSlotInfo(win::Ulong slot, win::SlotInfo* info);
  CK_RV GetTokenInfo(win::Ulong slot, win::TokenInfo* info);
  CK_RV GetMechanismList(win::Ulong slot, win::Ulong* mechanisms, win::Ulong* count);
  CK_RV GetMechanismInfo(win::Ulong slot, win::Ulong mechanism, win::MechanismInfo* info);

  CK_RV OpenSession(win::Ulong slot, win::Ulong flags, win::Ulong* session);
  CK_RV CloseSession(win::Ulong session);
  CK_RV CloseAllSessions(win::Ulong slot);
  CK_RV GetSessionInfo(win::Ulong session, win::SessionInfo* info);

  // The maker's login: a wrong PIN is answered with the number of tries left (1 to 14), the last one with
  // CKR_PIN_LOCKED.
  CK_RV LoginCounted(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen);
  // The standard login, on the same count.
  CK_RV Login(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen);
  CK_RV Logout(win::Ulong session);

  CK_RV CreateObject(win::Ulong session, const win::Attribute* attributes, win::Ulong count, win::Ulong* object);
  CK_RV DestroyObject(win::Ulong session, win::Ulong object);
  CK_RV GetAttributeValue(win::Ulong session, win::Ulong object, win::Attribute* attributes, win::Ulong count);
  CK_RV SetAttributeValue(win::Ulong session, win::Ulong object, const win::Attribute* attributes, win::Ulong count);
  CK_RV FindObjectsInit(win::Ulong session, const win::Attribute* attributes, win::Ulong count);
  CK_RV FindObjects(win::Ulong session, win::Ulong* objects, win::Ulong max, win::Ulong* count);
  CK_RV FindObjectsFinal(win::Ulong session);

  CK_RV InitOperation(Operation operation, win::Ulong session, const win::Mechanism* mechanism, win::Ulong key);
  // Encrypt, Decrypt and Sign: one input, one output, PKCS#11 v2.40 5.2 for its length.
  CK_RV RunOperation(Operation operation, win::Ulong session, std::uint8_t* input, win::Ulong inputLen,
                     std::uint8_t* output, win::Ulong* outputLen);
  CK_RV Verify(win::Ulong session, std::uint8_t* data, win::Ulong dataLen, std::uint8_t* signature,
               win::Ulong signatureLen);

  CK_RV GenerateKeyPair(win::Ulong session, const win::Mechanism* mechanism, const win::Attribute* publicAttributes,
                        win::Ulong publicCount, const win::Attribute* privateAttributes, win::Ulong privateCount,
                        win::Ulong* publicKey, win::Ulong* privateKey);
  CK_RV GenerateRandom(win::Ulong session, std::uint8_t* bytes, win::Ulong count);

 private:
  struct Slot {
    win::Ulong id = 0;
    standins::Reader reader;
  };

  // The token in a slot, as SoftHSM knows it.
  struct Token {
    standins::Reader reader;
    CK_SLOT_ID native = 0;
    CK_TOKEN_INFO info{};
  };

  struct Session {
    CK_SESSION_HANDLE reading = 0;
    win::Ulong slot = 0;
    standins::Reader reader;
    std::string serial;
    bool searching = false;
    std::vector<win::Ulong> found;
    std::size_t nextFound = 0;
    Operation operation = Operation::kNone;
  };

  // An object by what a card's directory tells of it. SoftHSM's own handles of private objects end with every logout,
  // the handles that programs hold do not.
  struct ObjectEntry {
    std::string serial;  // the token's; empty: the handle is void
    std::vector<std::uint8_t> objectClass;
    std::vector<std::uint8_t> id;
    std::vector<std::uint8_t> label;
    std::vector<std::uint8_t> modulus;
    std::size_t ordinal = 0;  // among objects with the same entry
    auto operator<=>(const ObjectEntry&) const = default;
  };

  class BorrowedLogin;

  Module() = default;

  bool IsStrict() const { return strictness_ != Strictness::kForgiving; }
  bool Adapts() const { return strictness_ != Strictness::kUnadapted; }
  CK_RV ReadTemplate(const win::Attribute* attributes, win::Ulong count, Template* values) const;
  void ForgetPrivateObjects(const std::string& serial);

  std::vector<Slot> ReadSlots();
  CK_RV FindSlot(win::Ulong id, Slot* slot);
  CK_RV FindNativeSlot(const standins::Reader& reader, CK_SLOT_ID* native, CK_TOKEN_INFO* info);
  CK_RV FindToken(win::Ulong slot, Token* token);
  CK_RV FindSession(win::Ulong handle, Session** session);
  bool IsLoggedIn(win::Ulong session);

  std::vector<std::uint8_t> ReadBytes(const Session& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type);
  ObjectEntry Describe(const Session& session, CK_OBJECT_HANDLE native);
  std::vector<CK_OBJECT_HANDLE> FindTwins(const Session& session, const ObjectEntry& object);
  std::optional<CK_ULONG> ModulusBits(const Session& session, CK_OBJECT_HANDLE native);
  bool IsPrivate(const Session& session, CK_OBJECT_HANDLE native);
  win::Ulong ToHandle(const Session& session, CK_OBJECT_HANDLE native);
  CK_RV ToNativeObject(const Session& session, win::Ulong handle, CK_OBJECT_HANDLE* native);
  bool IsPrivateHandle(win::Ulong handle) const;
  bool IsGuarded(win::Ulong session, win::Ulong handle);
  CK_RV Search(const Session& session, std::vector<CK_ATTRIBUTE>& attributes, std::vector<CK_OBJECT_HANDLE>* found);

  CK_RV TryPin(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen, unsigned* left);
  void Abandon(win::Ulong session, Session& record);

  const Strictness strictness_ = ReadStrictness();
  std::mutex mutex_;
  void* library_ = nullptr;
  CK_FUNCTION_LIST* softhsm_ = nullptr;
  std::vector<std::string> readerNames_;  // a reader keeps its number, wherever the file lists it
  std::map<win::Ulong, Session> sessions_;
  std::vector<ObjectEntry> privateObjects_;
};

}  // namespace softtoken
