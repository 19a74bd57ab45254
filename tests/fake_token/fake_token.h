// A scripted, recording PKCS#11 module. It works on a small model of slots, tokens and objects held in memory, writes
// down every call with all its arguments, and can be told to answer any call with any code.
//
// The model lives in the test program; keldapkcs11.dll (module.cpp) is a thin shell that hands out this program's
// function list, so that the provider loads it as it loads the token maker's module.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <p11-kit/pkcs11.h>

namespace fake {

using Bytes = std::vector<std::uint8_t>;

Bytes Ascii(std::string_view text);
// The value of a CK_ULONG attribute: 4 bytes, least significant first.
Bytes Ulong(CK_ULONG value);
// The value of a CK_BBOOL attribute.
Bytes Bool(bool value);
std::string HexOf(const Bytes& bytes);  // "0a1b", no blanks

// The maker's login entry: C_Login's signature, a result of 1 to 14 is the number of tries left.
using VendorLogin = CK_RV (*)(CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR_PTR, CK_ULONG);
using ReservedEntry = CK_RV (*)();

// The module's function list: the 68 standard entries, six reserved ones, the login entry at position 74.
#pragma pack(push, 1)
struct FunctionList {
  CK_FUNCTION_LIST standard;
  ReservedEntry reserved[6];
  VendorLogin login;
};
#pragma pack(pop)

// One entry of a template as it was passed. `value` holds the bytes of input templates (create, find, generate); it is
// empty where the address is NULL or the call asks for values.
struct Attribute {
  CK_ATTRIBUTE_TYPE type = 0;
  const void* address = nullptr;
  CK_ULONG length = 0;
  Bytes value;
};

struct Call {
  std::string function;  // "C_SignInit"; the login entry is "VendorLogin"
  // The call in one line: C_SignInit(session=0x51, CKM_RSA_PKCS[NULL,0], key=0x102)
  std::string text;
  std::vector<std::vector<Attribute>> templates;
  Bytes data;                    // PIN, or the input of sign, verify, encrypt, decrypt
  const void* output = nullptr;  // the output pointer of a call that has one
  std::thread::id thread;
  CK_RV result = CKR_OK;
};

struct Slot {
  CK_SLOT_ID id = 0;
  std::string description;  // padded with blanks to 64 bytes on the way out
  bool tokenPresent = true;
  std::string label;   // padded to 32 bytes
  std::string serial;  // padded to 16 bytes
  std::string pin = "1234";
  CK_ULONG triesLeft = 3;
  CK_ULONG maximumTries = 3;
  bool loggedIn = false;
};

struct KeyPair {
  CK_OBJECT_HANDLE publicKey = 0;
  CK_OBJECT_HANDLE privateKey = 0;
};

using Attributes = std::map<CK_ATTRIBUTE_TYPE, Bytes>;

// Slots are numbered 11, 12, ...; sessions 0x51, 0x52, ...; objects 0x101, 0x102, ...: a handle of one kind is never
// mistaken for one of another.
class Module {
 public:
  Module();

  // Forgets everything: no slot, object, session, recorded call or script. The count of serial numbers goes on.
  void Reset();

  // --- the model
  Slot& AddSlot(std::string description, bool tokenPresent = true);
  Slot& SlotAt(std::size_t index);
  CK_OBJECT_HANDLE AddObject(Attributes attributes, std::size_t slotIndex = 0);
  // A public and a private RSA key that share identifier and label. An empty label leaves CKA_LABEL present and empty.
  KeyPair AddKeyPair(const Bytes& id, const std::string& label, CK_ULONG bits = 2048, std::size_t slotIndex = 0);
  CK_OBJECT_HANDLE AddPublicKey(const Bytes& id, const std::string& label, CK_ULONG bits = 2048,
                                std::size_t slotIndex = 0);
  CK_OBJECT_HANDLE AddPrivateKey(const Bytes& id, const std::string& label, CK_ULONG bits = 2048,
                                 std::size_t slotIndex = 0);
  bool HasObject(CK_OBJECT_HANDLE handle) const;
  Attributes& ObjectAttributes(CK_OBJECT_HANDLE handle);
  std::size_t ObjectCount() const;
  std::size_t OpenSessions() const;
  // The next bytes that C_GenerateRandom hands out; afterwards a counting sequence.
  void SetRandom(Bytes bytes);

  // --- what the token computes, so that tests can tell the expected bytes
  Bytes Signature(CK_OBJECT_HANDLE key, const Bytes& block) const;
  Bytes Ciphertext(CK_OBJECT_HANDLE key, const Bytes& plain) const;

  // --- how much it forgives
  // A strict token refuses what PKCS#11 v2.40 lets a module refuse: a second operation in a session while one is open
  // (a length query leaves it open), a search for 0 objects, null pointers, mechanism parameters, flags and numbers of
  // the wrong length. Private objects are hidden while nobody is logged in, and a logout voids their handles: HasObject
  // and the others know them by new ones. Searches that only count and every kind of attribute are allowed all the
  // same. Reset ends it.
  void SetStrict(bool strict);

  // --- the script
  // The nth call (1 = the next one) of `function` from now on answers with `code` and does nothing else.
  void Fail(const std::string& function, CK_RV code, std::size_t nth = 1);
  void FailAlways(const std::string& function, CK_RV code);
  void ClearScript();
  // Runs before each call of `function`, on the caller's thread, with no lock of the model held.
  void Before(const std::string& function, std::function<void(const Call&)> action);
  // What C_GetFunctionList answers.
  void SetFunctionListResult(CK_RV code);
  CK_RV FunctionListResult() const;

  // --- the record
  std::vector<Call> Calls() const;
  std::vector<std::string> Texts() const;
  std::vector<std::string> TakeTexts();  // Texts and ClearCalls in one
  std::size_t Count(const std::string& function) const;
  void ClearCalls();

  FunctionList* List();

 private:
  friend struct Entries;
  struct Object {
    CK_OBJECT_HANDLE handle;
    CK_SLOT_ID slot;
    CK_SESSION_HANDLE owner;  // 0 for token objects
    Attributes attributes;
  };
  struct Session {
    CK_SLOT_ID slot = 0;
    bool searching = false;
    std::vector<CK_OBJECT_HANDLE> found;
    std::size_t next = 0;
    std::map<std::string, CK_OBJECT_HANDLE> operation;  // "C_Sign" -> key handle after C_SignInit
  };
  struct Rule {
    std::size_t skip;
    bool always;
    CK_RV code;
  };

  // Records the call and answers from the script, or from `body` when nothing is scripted.
  CK_RV Run(Call call, const std::function<CK_RV()>& body);
  Slot* FindSlot(CK_SLOT_ID id);
  Session* FindSession(CK_SESSION_HANDLE handle);
  Object* FindObject(CK_OBJECT_HANDLE handle);
  const Object* FindObject(CK_OBJECT_HANDLE handle) const;
  CK_OBJECT_HANDLE Insert(CK_SLOT_ID slot, CK_SESSION_HANDLE owner, Attributes attributes);
  void NextRandom(std::uint8_t* out, std::size_t count);
  bool IsHidden(const Object& object);
  void EndLogin(Slot& slot);

  mutable std::recursive_mutex lock_;
  std::deque<Slot> slots_;
  std::vector<Object> objects_;
  std::map<CK_SESSION_HANDLE, Session> sessions_;
  std::vector<Call> calls_;
  std::map<std::string, std::vector<Rule>> rules_;
  std::map<std::string, std::function<void(const Call&)>> before_;
  Bytes random_;
  std::uint8_t randomCounter_ = 0;
  CK_OBJECT_HANDLE nextObject_ = 0x101;
  CK_SESSION_HANDLE nextSession_ = 0x51;
  unsigned serialCounter_ = 0;
  CK_RV functionListResult_ = CKR_OK;
  bool strict_ = false;
};

// The one module of the process, behind keldapkcs11.dll.
Module& Token();

// Puts the function list back when it goes: for tests that set entries of their own in it.
class ListGuard {
 public:
  ListGuard() : saved_(*Token().List()) {}
  ~ListGuard() { *Token().List() = saved_; }
  ListGuard(const ListGuard&) = delete;
  ListGuard& operator=(const ListGuard&) = delete;

 private:
  FunctionList saved_;
};

}  // namespace fake
