#include "softtoken/module.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "softtoken/token_store.h"

namespace softtoken {
namespace {

constexpr char kLibraryVariable[] = "KELDA_SOFTHSM";
constexpr char kDefaultLibrary[] = "/usr/lib/softhsm/libsofthsm2.so";
constexpr std::string_view kMaker = "Norvale Token Works";
constexpr std::string_view kDescription = "Soft token";

// Handles of private objects are numbers of ours, far above SoftHSM's, which count up from 1.
constexpr win::Ulong kFirstPrivateHandle = 0x40000000;

template <std::size_t kSize>
void StorePadded(win::Byte (&target)[kSize], std::string_view text) {
  const auto length = std::min(text.size(), kSize);
  std::fill(std::begin(target), std::end(target), win::Byte{' '});
  std::copy_n(text.begin(), length, std::begin(target));
}

template <std::size_t kSize>
std::string LoadPadded(const CK_UTF8CHAR (&source)[kSize]) {
  std::string text(std::begin(source), std::end(source));
  text.erase(text.find_last_not_of(std::string_view(" \0", 2)) + 1);
  return text;
}

win::Version ToWindows(const CK_VERSION& version) {
  return {version.major, version.minor};
}

bool FitsHandle(CK_ULONG handle) {
  return handle < kFirstPrivateHandle;
}

// The rules for lists of numbers: no array asks for the count (PKCS#11 v2.40 5.2).
CK_RV HandOutNumbers(const std::vector<win::Ulong>& numbers, win::Ulong* target, win::Ulong* count) {
  const auto room = win::Load<win::Ulong>(count);
  const auto needed = static_cast<win::Ulong>(numbers.size());
  win::Store(count, needed);
  if (target == nullptr) return CKR_OK;
  if (room < needed) return CKR_BUFFER_TOO_SMALL;
  if (needed != 0) std::memcpy(target, numbers.data(), numbers.size() * sizeof(win::Ulong));
  return CKR_OK;
}

}  // namespace

// Logs in under the directory's PIN for as long as it lives, unless the user is logged in already or may see nothing
// before.
class Module::BorrowedLogin {
 public:
  BorrowedLogin(Module& module, win::Ulong session, const Session& record) : module_(module), session_(session) {
    if (module.IsStrict() || module.IsLoggedIn(session)) return;
    auto pin = DirectoryPin(record.serial);
    if (!pin.empty()) {
      borrowed_ =
          module.softhsm_->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size()) == CKR_OK;
    }
    Wipe(pin);
  }
  ~BorrowedLogin() {
    if (borrowed_) module_.softhsm_->C_Logout(session_);
  }
  BorrowedLogin(const BorrowedLogin&) = delete;
  BorrowedLogin& operator=(const BorrowedLogin&) = delete;

 private:
  Module& module_;
  win::Ulong session_;
  bool borrowed_ = false;
};

Module& Module::Instance() {
  // Never destroyed: calls may come in until the process has ended.
  static auto* module = new Module;
  return *module;
}

CK_RV Module::Initialize() {
  if (softhsm_ == nullptr) {
    const char* named = std::getenv(kLibraryVariable);
    library_ = dlopen(named != nullptr ? named : kDefaultLibrary, RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) return CKR_GENERAL_ERROR;
    const auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library_, "C_GetFunctionList"));
    if (getList == nullptr || getList(&softhsm_) != CKR_OK) return CKR_GENERAL_ERROR;
  }
  // Programs call from several threads whether they say so or not.
  CK_C_INITIALIZE_ARGS arguments{};
  arguments.flags = CKF_OS_LOCKING_OK;
  return softhsm_->C_Initialize(&arguments);
}

CK_RV Module::Finalize() {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  sessions_.clear();
  privateObjects_.clear();
  return softhsm_->C_Finalize(nullptr);
}

CK_RV Module::GetInfo(win::Info* info) {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  CK_INFO native{};
  if (const CK_RV rv = softhsm_->C_GetInfo(&native); rv != CKR_OK) return rv;
  win::Info target{};
  target.cryptokiVersion = ToWindows(native.cryptokiVersion);
  StorePadded(target.manufacturerId, kMaker);
  StorePadded(target.libraryDescription, kDescription);
  target.libraryVersion = ToWindows(native.libraryVersion);
  win::Store(info, target);
  return CKR_OK;
}

std::vector<Module::Slot> Module::ReadSlots() {
  const char* path = std::getenv(standins::kReaderFileVariable);
  std::vector<Slot> slots;
  if (path == nullptr) return slots;
  for (auto& reader : standins::ReadReaderFile(path).readers) {
    auto known = std::find(readerNames_.begin(), readerNames_.end(), reader.name);
    if (known == readerNames_.end()) known = readerNames_.insert(known, reader.name);
    slots.push_back({static_cast<win::Ulong>(known - readerNames_.begin()), std::move(reader)});
  }
  return slots;
}

CK_RV Module::FindSlot(win::Ulong id, Slot* slot) {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  for (auto& candidate : ReadSlots()) {
    if (candidate.id != id) continue;
    *slot = std::move(candidate);
    return CKR_OK;
  }
  return CKR_SLOT_ID_INVALID;
}

CK_RV Module::FindNativeSlot(const standins::Reader& reader, CK_SLOT_ID* native, CK_TOKEN_INFO* info) {
  if (reader.tokenLabel.empty()) return CKR_TOKEN_NOT_PRESENT;
  CK_ULONG count = 0;
  if (const CK_RV rv = softhsm_->C_GetSlotList(CK_TRUE, nullptr, &count); rv != CKR_OK) return rv;
  std::vector<CK_SLOT_ID> slots(count);
  if (const CK_RV rv = softhsm_->C_GetSlotList(CK_TRUE, slots.data(), &count); rv != CKR_OK) return rv;
  slots.resize(count);
  for (const auto slot : slots) {
    if (softhsm_->C_GetTokenInfo(slot, info) != CKR_OK || LoadPadded(info->label) != reader.tokenLabel) continue;
    *native = slot;
    return CKR_OK;
  }
  return CKR_TOKEN_NOT_PRESENT;
}

CK_RV Module::FindToken(win::Ulong slot, Token* token) {
  Slot record;
  if (const CK_RV rv = FindSlot(slot, &record); rv != CKR_OK) return rv;
  token->reader = std::move(record.reader);
  return FindNativeSlot(token->reader, &token->native, &token->info);
}

CK_RV Module::GetSlotList(bool withToken, win::Ulong* slots, win::Ulong* count) {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  std::vector<win::Ulong> ids;
  for (const auto& slot : ReadSlots()) {
    CK_SLOT_ID native = 0;
    CK_TOKEN_INFO info{};
    if (!withToken || FindNativeSlot(slot.reader, &native, &info) == CKR_OK) ids.push_back(slot.id);
  }
  return HandOutNumbers(ids, slots, count);
}

CK_RV Module::GetSlotInfo(win::Ulong slot, win::SlotInfo* info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  Slot record;
  if (const CK_RV rv = FindSlot(slot, &record); rv != CKR_OK) return rv;
  CK_SLOT_ID native = 0;
  CK_TOKEN_INFO token{};
  win::SlotInfo target{};
  StorePadded(target.slotDescription, record.reader.name);
  StorePadded(target.manufacturerId, kMaker);
  target.flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
  if (FindNativeSlot(record.reader, &native, &token) == CKR_OK) target.flags |= CKF_TOKEN_PRESENT;
  win::Store(info, target);
  return CKR_OK;
}

CK_RV Module::GetTokenInfo(win::Ulong slot, win::TokenInfo* info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  Token token;
  if (const CK_RV rv = FindToken(slot, &token); rv != CKR_OK) return rv;
  constexpr CK_FLAGS kPinFlags =
      CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED | CKF_USER_PIN_TO_BE_CHANGED;
  const std::string serial = LoadPadded(token.info.serialNumber);
  const Tries tries = TriesFile(serial).tries();
  win::TokenInfo target{};
  StorePadded(target.label, LoadPadded(token.info.label));
  StorePadded(target.manufacturerId, kMaker);
  StorePadded(target.model, kDescription);
  StorePadded(target.serialNumber, serial);
  target.flags = static_cast<win::Ulong>(token.info.flags & ~kPinFlags);
  if (tries.left < tries.max) target.flags |= CKF_USER_PIN_COUNT_LOW;
  if (tries.left == 1) target.flags |= CKF_USER_PIN_FINAL_TRY;
  if (tries.left == 0) target.flags |= CKF_USER_PIN_LOCKED;
  target.maxSessionCount = static_cast<win::Ulong>(token.info.ulMaxSessionCount);
  target.sessionCount = static_cast<win::Ulong>(token.info.ulSessionCount);
  target.maxRwSessionCount = static_cast<win::Ulong>(token.info.ulMaxRwSessionCount);
  target.rwSessionCount = static_cast<win::Ulong>(token.info.ulRwSessionCount);
  target.maxPinLen = static_cast<win::Ulong>(token.info.ulMaxPinLen);
  target.minPinLen = static_cast<win::Ulong>(token.info.ulMinPinLen);
  target.totalPublicMemory = static_cast<win::Ulong>(token.info.ulTotalPublicMemory);
  target.freePublicMemory = static_cast<win::Ulong>(token.info.ulFreePublicMemory);
  target.totalPrivateMemory = static_cast<win::Ulong>(token.info.ulTotalPrivateMemory);
  target.freePrivateMemory = static_cast<win::Ulong>(token.info.ulFreePrivateMemory);
  target.hardwareVersion = ToWindows(token.info.hardwareVersion);
  target.firmwareVersion = ToWindows(token.info.firmwareVersion);
  std::copy(std::begin(token.info.utcTime), std::end(token.info.utcTime), std::begin(target.utcTime));
  win::Store(info, target);
  return CKR_OK;
}

CK_RV Module::GetMechanismList(win::Ulong slot, win::Ulong* mechanisms, win::Ulong* count) {
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  Token token;
  if (const CK_RV rv = FindToken(slot, &token); rv != CKR_OK) return rv;
  CK_ULONG nativeCount = 0;
  if (const CK_RV rv = softhsm_->C_GetMechanismList(token.native, nullptr, &nativeCount); rv != CKR_OK) return rv;
  std::vector<CK_MECHANISM_TYPE> types(nativeCount);
  if (const CK_RV rv = softhsm_->C_GetMechanismList(token.native, types.data(), &nativeCount); rv != CKR_OK) return rv;
  std::vector<win::Ulong> numbers;
  for (CK_ULONG i = 0; i < nativeCount; ++i)
    numbers.push_back(static_cast<win::Ulong>(types[i]));
  return HandOutNumbers(numbers, mechanisms, count);
}

CK_RV Module::GetMechanismInfo(win::Ulong slot, win::Ulong mechanism, win::MechanismInfo* info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  Token token;
  if (const CK_RV rv = FindToken(slot, &token); rv != CKR_OK) return rv;
  CK_MECHANISM_INFO source{};
  if (const CK_RV rv = softhsm_->C_GetMechanismInfo(token.native, mechanism, &source); rv != CKR_OK) return rv;
  win::Store(info,
             win::MechanismInfo{static_cast<win::Ulong>(source.ulMinKeySize),
                                static_cast<win::Ulong>(source.ulMaxKeySize), static_cast<win::Ulong>(source.flags)});
  return CKR_OK;
}

CK_RV Module::OpenSession(win::Ulong slot, win::Ulong flags, win::Ulong* session) {
  if (session == nullptr) return CKR_ARGUMENTS_BAD;
  Token token;
  if (const CK_RV rv = FindToken(slot, &token); rv != CKR_OK) return rv;
  CK_SESSION_HANDLE handle = 0;
  if (const CK_RV rv = softhsm_->C_OpenSession(token.native, flags, nullptr, nullptr, &handle); rv != CKR_OK) return rv;
  if (static_cast<win::Ulong>(handle) != handle) {
    softhsm_->C_CloseSession(handle);
    return CKR_GENERAL_ERROR;
  }
  Session created;
  // SoftHSM lets a session do one thing at a time, a card searches while a signature is half made: searches and reads
  // have a session of their own beside the caller's.
  if (const CK_RV rv = softhsm_->C_OpenSession(token.native, CKF_SERIAL_SESSION, nullptr, nullptr, &created.reading);
      rv != CKR_OK) {
    softhsm_->C_CloseSession(handle);
    return rv;
  }
  created.slot = slot;
  created.reader = token.reader;
  created.serial = LoadPadded(token.info.serialNumber);
  sessions_.insert_or_assign(static_cast<win::Ulong>(handle), std::move(created));
  win::Store(session, static_cast<win::Ulong>(handle));
  return CKR_OK;
}

CK_RV Module::FindSession(win::Ulong handle, Session** session) {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const auto found = sessions_.find(handle);
  if (found == sessions_.end()) return CKR_SESSION_HANDLE_INVALID;
  const auto slots = ReadSlots();
  const bool inPlace = std::any_of(slots.begin(), slots.end(), [&](const Slot& slot) {
    return slot.id == found->second.slot && slot.reader.tokenLabel == found->second.reader.tokenLabel;
  });
  if (!inPlace) {
    // The token was drawn or its reader unplugged: its sessions are gone for good.
    ForgetPrivateObjects(found->second.serial);
    softhsm_->C_CloseSession(found->second.reading);
    softhsm_->C_CloseSession(handle);
    sessions_.erase(found);
    return CKR_DEVICE_REMOVED;
  }
  *session = &found->second;
  return CKR_OK;
}

CK_RV Module::CloseSession(win::Ulong session) {
  if (softhsm_ == nullptr) return CKR_CRYPTOKI_NOT_INITIALIZED;
  const auto found = sessions_.find(session);
  if (found == sessions_.end()) return CKR_SESSION_HANDLE_INVALID;
  softhsm_->C_CloseSession(found->second.reading);
  const std::string serial = found->second.serial;
  sessions_.erase(found);
  // The last session takes the login with it (PKCS#11 v2.40 5.6, C_CloseSession).
  const bool last = std::none_of(sessions_.begin(), sessions_.end(),
                                 [&](const auto& entry) { return entry.second.serial == serial; });
  if (last) ForgetPrivateObjects(serial);
  return softhsm_->C_CloseSession(session);
}

CK_RV Module::CloseAllSessions(win::Ulong slot) {
  Slot record;
  if (const CK_RV rv = FindSlot(slot, &record); rv != CKR_OK) return rv;
  std::erase_if(sessions_, [&](const auto& entry) {
    if (entry.second.slot != slot) return false;
    ForgetPrivateObjects(entry.second.serial);
    softhsm_->C_CloseSession(entry.second.reading);
    softhsm_->C_CloseSession(entry.first);
    return true;
  });
  return CKR_OK;
}

CK_RV Module::GetSessionInfo(win::Ulong session, win::SessionInfo* info) {
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  CK_SESSION_INFO native{};
  if (const CK_RV rv = softhsm_->C_GetSessionInfo(session, &native); rv != CKR_OK) return rv;
  win::Store(info, win::SessionInfo{record->slot, static_cast<win::Ulong>(native.state),
                                    static_cast<win::Ulong>(native.flags), 0});
  return CKR_OK;
}

bool Module::IsLoggedIn(win::Ulong session) {
  CK_SESSION_INFO info{};
  return softhsm_->C_GetSessionInfo(session, &info) == CKR_OK &&
         (info.state == CKS_RW_USER_FUNCTIONS || info.state == CKS_RO_USER_FUNCTIONS);
}

CK_RV Module::TryPin(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen, unsigned* left) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (pin == nullptr) return CKR_ARGUMENTS_BAD;
  if (user != CKU_USER) return CKR_USER_TYPE_INVALID;
  if (IsLoggedIn(session)) return CKR_USER_ALREADY_LOGGED_IN;
  TriesFile file(record->serial);
  if (file.tries().left == 0) return CKR_PIN_LOCKED;
  const CK_RV rv = softhsm_->C_Login(session, user, pin, pinLen);
  switch (rv) {
    case CKR_OK:
      file.SetLeft(file.tries().max);
      return CKR_OK;
    case CKR_PIN_INCORRECT:
    case CKR_PIN_INVALID:
    case CKR_PIN_LEN_RANGE:
      file.SetLeft(file.tries().left - 1);
      *left = file.tries().left;
      return *left == 0 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
    default:
      return rv;
  }
}

CK_RV Module::LoginCounted(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen) {
  unsigned left = 0;
  const CK_RV rv = TryPin(session, user, pin, pinLen, &left);
  return rv == CKR_PIN_INCORRECT ? left : rv;
}

CK_RV Module::Login(win::Ulong session, win::Ulong user, std::uint8_t* pin, win::Ulong pinLen) {
  unsigned left = 0;
  return TryPin(session, user, pin, pinLen, &left);
}

CK_RV Module::Logout(win::Ulong session) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (!IsLoggedIn(session)) return CKR_USER_NOT_LOGGED_IN;
  ForgetPrivateObjects(record->serial);
  return softhsm_->C_Logout(session);
}

// With a logout, handles of private objects are void for good (PKCS#11 v2.40 5.6, C_Logout). A card does not mind.
void Module::ForgetPrivateObjects(const std::string& serial) {
  if (!IsStrict()) return;
  for (auto& object : privateObjects_) {
    if (object.serial == serial) object.serial.clear();
  }
}

CK_RV Module::Search(const Session& session, std::vector<CK_ATTRIBUTE>& attributes,
                     std::vector<CK_OBJECT_HANDLE>* found) {
  CK_RV rv = softhsm_->C_FindObjectsInit(session.reading, attributes.data(), attributes.size());
  if (rv != CKR_OK) return rv;
  std::array<CK_OBJECT_HANDLE, 64> block{};
  for (CK_ULONG count = block.size(); rv == CKR_OK && count == block.size();) {
    rv = softhsm_->C_FindObjects(session.reading, block.data(), block.size(), &count);
    if (rv == CKR_OK) found->insert(found->end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(count));
  }
  softhsm_->C_FindObjectsFinal(session.reading);
  return rv;
}

std::vector<std::uint8_t> Module::ReadBytes(const Session& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
  CK_ATTRIBUTE attribute{type, nullptr, 0};
  if (softhsm_->C_GetAttributeValue(session.reading, object, &attribute, 1) != CKR_OK) return {};
  std::vector<std::uint8_t> value(attribute.ulValueLen);
  attribute.pValue = value.data();
  if (value.empty() || softhsm_->C_GetAttributeValue(session.reading, object, &attribute, 1) != CKR_OK) return {};
  return value;
}

bool Module::IsPrivate(const Session& session, CK_OBJECT_HANDLE native) {
  const auto value = ReadBytes(session, native, CKA_PRIVATE);
  return value.size() == 1 && value[0] == CK_TRUE;
}

Module::ObjectEntry Module::Describe(const Session& session, CK_OBJECT_HANDLE native) {
  ObjectEntry object;
  object.serial = session.serial;
  object.objectClass = ReadBytes(session, native, CKA_CLASS);
  object.id = ReadBytes(session, native, CKA_ID);
  object.label = ReadBytes(session, native, CKA_LABEL);
  object.modulus = ReadBytes(session, native, CKA_MODULUS);
  return object;
}

std::vector<CK_OBJECT_HANDLE> Module::FindTwins(const Session& session, const ObjectEntry& object) {
  ObjectEntry copy = object;  // PKCS#11 takes values as if it could write to them
  std::vector<CK_ATTRIBUTE> attributes;
  const auto add = [&attributes](CK_ATTRIBUTE_TYPE type, std::vector<std::uint8_t>& value) {
    if (!value.empty()) attributes.push_back({type, value.data(), value.size()});
  };
  add(CKA_CLASS, copy.objectClass);
  add(CKA_ID, copy.id);
  add(CKA_LABEL, copy.label);
  add(CKA_MODULUS, copy.modulus);
  std::vector<CK_OBJECT_HANDLE> twins;
  if (Search(session, attributes, &twins) != CKR_OK) return {};
  std::erase_if(twins, [&](CK_OBJECT_HANDLE twin) { return !IsPrivate(session, twin); });
  return twins;
}

bool Module::IsPrivateHandle(win::Ulong handle) const {
  return handle >= kFirstPrivateHandle && handle - kFirstPrivateHandle < privateObjects_.size();
}

// A private object that is seen without a login, and only seen.
bool Module::IsGuarded(win::Ulong session, win::Ulong handle) {
  return !IsStrict() && IsPrivateHandle(handle) && !IsLoggedIn(session);
}

// 0 for an object whose handle cannot be told to a Windows program.
win::Ulong Module::ToHandle(const Session& session, CK_OBJECT_HANDLE native) {
  if (!IsPrivate(session, native)) return FitsHandle(native) ? static_cast<win::Ulong>(native) : 0;
  auto object = Describe(session, native);
  const auto twins = FindTwins(session, object);
  object.ordinal = static_cast<std::size_t>(std::find(twins.begin(), twins.end(), native) - twins.begin());
  auto known = std::find(privateObjects_.begin(), privateObjects_.end(), object);
  if (known == privateObjects_.end()) known = privateObjects_.insert(known, std::move(object));
  return kFirstPrivateHandle + static_cast<win::Ulong>(known - privateObjects_.begin());
}

CK_RV Module::ToNativeObject(const Session& session, win::Ulong handle, CK_OBJECT_HANDLE* native) {
  *native = handle;
  if (!IsPrivateHandle(handle)) return CKR_OK;
  const auto& object = privateObjects_[handle - kFirstPrivateHandle];
  if (object.serial.empty()) return CKR_OBJECT_HANDLE_INVALID;
  const auto twins = FindTwins(session, object);
  if (object.ordinal >= twins.size()) return CKR_OBJECT_HANDLE_INVALID;
  *native = twins[object.ordinal];
  return CKR_OK;
}

CK_RV Module::ReadTemplate(const win::Attribute* attributes, win::Ulong count, Template* values) const {
  if (const CK_RV rv = values->Assign(attributes, count); rv != CKR_OK) return rv;
  return IsStrict() ? values->CheckLengths() : CKR_OK;
}

CK_RV Module::CreateObject(win::Ulong session, const win::Attribute* attributes, win::Ulong count, win::Ulong* object) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (object == nullptr) return CKR_ARGUMENTS_BAD;
  Template values;
  if (const CK_RV rv = ReadTemplate(attributes, count, &values); rv != CKR_OK) return rv;
  if (Adapts()) values.AdaptForCreation();
  auto native = values.Native();
  CK_OBJECT_HANDLE handle = 0;
  const CK_RV rv = softhsm_->C_CreateObject(session, native.data(), native.size(), &handle);
  if (rv == CKR_OK) win::Store(object, ToHandle(*record, handle));
  return rv;
}

CK_RV Module::DestroyObject(win::Ulong session, win::Ulong object) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  // Seeing a private object is everybody's right, destroying it the user's.
  if (IsGuarded(session, object)) return CKR_USER_NOT_LOGGED_IN;
  CK_OBJECT_HANDLE native = 0;
  if (const CK_RV rv = ToNativeObject(*record, object, &native); rv != CKR_OK) return rv;
  return softhsm_->C_DestroyObject(session, native);
}

// A card tells the length of private keys too; SoftHSM has CKA_MODULUS_BITS on public keys only.
std::optional<CK_ULONG> Module::ModulusBits(const Session& session, CK_OBJECT_HANDLE native) {
  const auto modulus = ReadBytes(session, native, CKA_MODULUS);
  const auto first = std::find_if(modulus.begin(), modulus.end(), [](std::uint8_t byte) { return byte != 0; });
  if (first == modulus.end()) return std::nullopt;
  return static_cast<CK_ULONG>(std::bit_width(*first) + 8 * (modulus.end() - first - 1));
}

CK_RV Module::GetAttributeValue(win::Ulong session, win::Ulong object, win::Attribute* attributes, win::Ulong count) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (attributes == nullptr) return CKR_ARGUMENTS_BAD;
  const BorrowedLogin login(*this, session, *record);
  CK_OBJECT_HANDLE native = 0;
  if (const CK_RV rv = ToNativeObject(*record, object, &native); rv != CKR_OK) return rv;
  AttributeRead read(attributes, count);
  CK_RV rv = softhsm_->C_GetAttributeValue(record->reading, native, read.native().data(), read.native().size());
  if (rv == CKR_ATTRIBUTE_TYPE_INVALID && Adapts() && read.Lacks(CKA_MODULUS_BITS)) {
    if (const auto bits = ModulusBits(*record, native)) rv = read.Supply(CKA_MODULUS_BITS, *bits);
  }
  if (rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_BUFFER_TOO_SMALL) {
    read.HandOut();
  }
  return rv;
}

CK_RV Module::SetAttributeValue(win::Ulong session, win::Ulong object, const win::Attribute* attributes,
                                win::Ulong count) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (IsGuarded(session, object)) return CKR_USER_NOT_LOGGED_IN;
  CK_OBJECT_HANDLE nativeObject = 0;
  if (const CK_RV rv = ToNativeObject(*record, object, &nativeObject); rv != CKR_OK) return rv;
  Template values;
  if (const CK_RV rv = ReadTemplate(attributes, count, &values); rv != CKR_OK) return rv;
  auto native = values.Native();
  return softhsm_->C_SetAttributeValue(session, nativeObject, native.data(), native.size());
}

CK_RV Module::FindObjectsInit(win::Ulong session, const win::Attribute* attributes, win::Ulong count) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (record->searching) return CKR_OPERATION_ACTIVE;
  if (IsStrict() && record->operation != Operation::kNone) return CKR_OPERATION_ACTIVE;
  Template values;
  if (const CK_RV rv = ReadTemplate(attributes, count, &values); rv != CKR_OK) return rv;
  auto native = values.Native();
  // The whole search is made here: what it finds has to be described while the login is borrowed.
  const BorrowedLogin login(*this, session, *record);
  std::vector<CK_OBJECT_HANDLE> objects;
  if (const CK_RV rv = Search(*record, native, &objects); rv != CKR_OK) return rv;
  record->found.clear();
  record->nextFound = 0;
  // SoftHSM's order differs from process to process, a card's does not.
  std::vector<std::pair<ObjectEntry, CK_OBJECT_HANDLE>> listed;
  listed.reserve(objects.size());
  for (const auto object : objects)
    listed.emplace_back(Describe(*record, object), object);
  std::sort(listed.begin(), listed.end());
  for (const auto& [entry, object] : listed) {
    if (const auto handle = ToHandle(*record, object); handle != 0) record->found.push_back(handle);
  }
  record->searching = true;
  return CKR_OK;
}

CK_RV Module::FindObjects(win::Ulong session, win::Ulong* objects, win::Ulong max, win::Ulong* count) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (count == nullptr) return CKR_ARGUMENTS_BAD;
  if (!record->searching) return CKR_OPERATION_NOT_INITIALIZED;
  if (IsStrict() && max == 0) return CKR_ARGUMENTS_BAD;
  if (!Adapts() && objects == nullptr) return CKR_ARGUMENTS_BAD;
  const auto left = record->found.size() - record->nextFound;
  const auto taken = std::min<std::size_t>(left, max);
  win::Store(count, static_cast<win::Ulong>(taken));
  // Without an array the matches are only counted, and the search stays where it is.
  if (objects == nullptr || taken == 0) return CKR_OK;
  std::memcpy(objects, &record->found[record->nextFound], taken * sizeof(win::Ulong));
  record->nextFound += taken;
  return CKR_OK;
}

CK_RV Module::FindObjectsFinal(win::Ulong session) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (!record->searching) return CKR_OPERATION_NOT_INITIALIZED;
  record->searching = false;
  return CKR_OK;
}

// Ends an operation that was only asked for its length. SoftHSM has no call for that, but gives an operation up when
// its input cannot be right.
void Module::Abandon(win::Ulong session, Session& record) {
  std::vector<CK_BYTE> input(4096);
  std::vector<CK_BYTE> output(4096);
  CK_ULONG length = output.size();
  switch (record.operation) {
    case Operation::kEncrypt:
      softhsm_->C_Encrypt(session, input.data(), input.size(), output.data(), &length);
      break;
    case Operation::kDecrypt:
      softhsm_->C_Decrypt(session, input.data(), 1, output.data(), &length);
      break;
    case Operation::kSign:
      softhsm_->C_Sign(session, input.data(), input.size(), output.data(), &length);
      break;
    case Operation::kVerify:
      softhsm_->C_Verify(session, input.data(), 1, input.data(), 1);
      break;
    case Operation::kNone:
      break;
  }
  record.operation = Operation::kNone;
}

CK_RV Module::InitOperation(Operation operation, win::Ulong session, const win::Mechanism* mechanism, win::Ulong key) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  CK_MECHANISM native{};
  if (const CK_RV rv = ToNative(mechanism, &native); rv != CKR_OK) return rv;
  if (IsGuarded(session, key)) return CKR_USER_NOT_LOGGED_IN;
  CK_OBJECT_HANDLE object = 0;
  if (const CK_RV rv = ToNativeObject(*record, key, &object); rv != CKR_OK) {
    return rv == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : rv;
  }
  if (IsStrict()) {
    if (record->searching || record->operation != Operation::kNone) return CKR_OPERATION_ACTIVE;
  } else {
    // A new operation takes the place of one that was not finished.
    Abandon(session, *record);
  }
  CK_RV rv = CKR_OK;
  switch (operation) {
    case Operation::kEncrypt:
      rv = softhsm_->C_EncryptInit(session, &native, object);
      break;
    case Operation::kDecrypt:
      rv = softhsm_->C_DecryptInit(session, &native, object);
      break;
    case Operation::kSign:
      rv = softhsm_->C_SignInit(session, &native, object);
      break;
    case Operation::kVerify:
      rv = softhsm_->C_VerifyInit(session, &native, object);
      break;
    case Operation::kNone:
      return CKR_ARGUMENTS_BAD;
  }
  if (rv == CKR_OK) record->operation = operation;
  return rv == CKR_OBJECT_HANDLE_INVALID ? CKR_KEY_HANDLE_INVALID : rv;
}

CK_RV Module::RunOperation(Operation operation, win::Ulong session, std::uint8_t* input, win::Ulong inputLen,
                           std::uint8_t* output, win::Ulong* outputLen) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (outputLen == nullptr) return CKR_ARGUMENTS_BAD;
  if (record->operation != operation) return CKR_OPERATION_NOT_INITIALIZED;
  CK_ULONG length = win::Load<win::Ulong>(outputLen);
  CK_RV rv = CKR_OPERATION_NOT_INITIALIZED;
  if (operation == Operation::kEncrypt) rv = softhsm_->C_Encrypt(session, input, inputLen, output, &length);
  if (operation == Operation::kDecrypt) rv = softhsm_->C_Decrypt(session, input, inputLen, output, &length);
  if (operation == Operation::kSign) rv = softhsm_->C_Sign(session, input, inputLen, output, &length);
  const bool askedForLength = rv == CKR_OK && output == nullptr;
  // SoftHSM has no better name for an input that is too long for the key, and no other reason to give this one.
  const bool makesBlock = operation == Operation::kEncrypt || operation == Operation::kSign;
  if (IsStrict() && makesBlock && rv == CKR_GENERAL_ERROR) rv = CKR_DATA_LEN_RANGE;
  // SoftHSM keeps an operation open whose arguments it refused.
  if (rv == CKR_ARGUMENTS_BAD) Abandon(session, *record);
  if (!askedForLength && rv != CKR_BUFFER_TOO_SMALL) record->operation = Operation::kNone;
  if (rv == CKR_OK || rv == CKR_BUFFER_TOO_SMALL) win::Store(outputLen, static_cast<win::Ulong>(length));
  return rv;
}

CK_RV Module::Verify(win::Ulong session, std::uint8_t* data, win::Ulong dataLen, std::uint8_t* signature,
                     win::Ulong signatureLen) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (record->operation != Operation::kVerify) return CKR_OPERATION_NOT_INITIALIZED;
  const CK_RV rv = softhsm_->C_Verify(session, data, dataLen, signature, signatureLen);
  if (rv == CKR_ARGUMENTS_BAD) Abandon(session, *record);
  record->operation = Operation::kNone;
  return rv;
}

CK_RV Module::GenerateKeyPair(win::Ulong session, const win::Mechanism* mechanism,
                              const win::Attribute* publicAttributes, win::Ulong publicCount,
                              const win::Attribute* privateAttributes, win::Ulong privateCount, win::Ulong* publicKey,
                              win::Ulong* privateKey) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  if (publicKey == nullptr || privateKey == nullptr) return CKR_ARGUMENTS_BAD;
  CK_MECHANISM nativeMechanism{};
  if (const CK_RV rv = ToNative(mechanism, &nativeMechanism); rv != CKR_OK) return rv;
  Template publicValues;
  if (const CK_RV rv = ReadTemplate(publicAttributes, publicCount, &publicValues); rv != CKR_OK) return rv;
  if (Adapts()) publicValues.AdaptForGeneration(CKO_PUBLIC_KEY);
  Template privateValues;
  if (const CK_RV rv = ReadTemplate(privateAttributes, privateCount, &privateValues); rv != CKR_OK) return rv;
  if (Adapts()) privateValues.AdaptForGeneration(CKO_PRIVATE_KEY);
  auto nativePublic = publicValues.Native();
  auto nativePrivate = privateValues.Native();
  CK_OBJECT_HANDLE publicHandle = 0;
  CK_OBJECT_HANDLE privateHandle = 0;
  const CK_RV rv =
      softhsm_->C_GenerateKeyPair(session, &nativeMechanism, nativePublic.data(), nativePublic.size(),
                                  nativePrivate.data(), nativePrivate.size(), &publicHandle, &privateHandle);
  if (rv != CKR_OK) return rv;
  win::Store(publicKey, ToHandle(*record, publicHandle));
  win::Store(privateKey, ToHandle(*record, privateHandle));
  return CKR_OK;
}

CK_RV Module::GenerateRandom(win::Ulong session, std::uint8_t* bytes, win::Ulong count) {
  Session* record = nullptr;
  if (const CK_RV rv = FindSession(session, &record); rv != CKR_OK) return rv;
  return softhsm_->C_GenerateRandom(session, bytes, count);
}

}  // namespace softtoken
