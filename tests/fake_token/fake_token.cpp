#include "fake_token/fake_token.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace fake {
namespace {

constexpr CK_ULONG kUnavailable = static_cast<CK_ULONG>(-1);
constexpr CK_ULONG kMaximumRead = 1 << 20;  // no template of a test is longer; a wild length is not followed

std::string Hex(std::uintptr_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string Pointer(const void* pointer) {
  return pointer ? "PTR" : "NULL";
}

struct NamedType {
  CK_ATTRIBUTE_TYPE type;
  const char* name;
};

constexpr NamedType kAttributeNames[] = {
    {CKA_CLASS, "CKA_CLASS"},
    {CKA_TOKEN, "CKA_TOKEN"},
    {CKA_PRIVATE, "CKA_PRIVATE"},
    {CKA_LABEL, "CKA_LABEL"},
    {CKA_VALUE, "CKA_VALUE"},
    {CKA_OBJECT_ID, "CKA_OBJECT_ID"},
    {CKA_CERTIFICATE_TYPE, "CKA_CERTIFICATE_TYPE"},
    {CKA_ISSUER, "CKA_ISSUER"},
    {CKA_SERIAL_NUMBER, "CKA_SERIAL_NUMBER"},
    {CKA_KEY_TYPE, "CKA_KEY_TYPE"},
    {CKA_SUBJECT, "CKA_SUBJECT"},
    {CKA_ID, "CKA_ID"},
    {CKA_SENSITIVE, "CKA_SENSITIVE"},
    {CKA_ENCRYPT, "CKA_ENCRYPT"},
    {CKA_DECRYPT, "CKA_DECRYPT"},
    {CKA_WRAP, "CKA_WRAP"},
    {CKA_UNWRAP, "CKA_UNWRAP"},
    {CKA_SIGN, "CKA_SIGN"},
    {CKA_SIGN_RECOVER, "CKA_SIGN_RECOVER"},
    {CKA_VERIFY, "CKA_VERIFY"},
    {CKA_VERIFY_RECOVER, "CKA_VERIFY_RECOVER"},
    {CKA_DERIVE, "CKA_DERIVE"},
    {CKA_MODULUS, "CKA_MODULUS"},
    {CKA_MODULUS_BITS, "CKA_MODULUS_BITS"},
    {CKA_PUBLIC_EXPONENT, "CKA_PUBLIC_EXPONENT"},
    {CKA_PRIVATE_EXPONENT, "CKA_PRIVATE_EXPONENT"},
    {CKA_PRIME_1, "CKA_PRIME_1"},
    {CKA_PRIME_2, "CKA_PRIME_2"},
    {CKA_EXPONENT_1, "CKA_EXPONENT_1"},
    {CKA_EXPONENT_2, "CKA_EXPONENT_2"},
    {CKA_COEFFICIENT, "CKA_COEFFICIENT"},
    {CKA_EXTRACTABLE, "CKA_EXTRACTABLE"},
    {CKA_LOCAL, "CKA_LOCAL"},
    {CKA_MODIFIABLE, "CKA_MODIFIABLE"},
};

std::string AttributeName(CK_ATTRIBUTE_TYPE type) {
  for (const NamedType& entry : kAttributeNames) {
    if (entry.type == type) return entry.name;
  }
  return "CKA_" + Hex(type);
}

std::string MechanismText(const CK_MECHANISM* mechanism) {
  if (!mechanism) return "NULL";
  std::string name = "CKM_" + Hex(mechanism->mechanism);
  if (mechanism->mechanism == CKM_RSA_PKCS) name = "CKM_RSA_PKCS";
  if (mechanism->mechanism == CKM_RSA_PKCS_KEY_PAIR_GEN) name = "CKM_RSA_PKCS_KEY_PAIR_GEN";
  return name + "[" + Pointer(mechanism->pParameter) + "," + std::to_string(mechanism->ulParameterLen) + "]";
}

Bytes Copy(const void* data, CK_ULONG length) {
  if (!data || length > kMaximumRead) return {};
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return Bytes(bytes, bytes + length);
}

enum class Direction { Input, Query };

std::vector<Attribute> ReadTemplate(const CK_ATTRIBUTE* entries, CK_ULONG count, Direction direction) {
  std::vector<Attribute> result;
  if (!entries || count > 1000) return result;
  for (CK_ULONG i = 0; i < count; ++i) {
    Attribute attribute;
    attribute.type = entries[i].type;
    attribute.address = entries[i].pValue;
    attribute.length = entries[i].ulValueLen;
    if (direction == Direction::Input) attribute.value = Copy(attribute.address, attribute.length);
    result.push_back(attribute);
  }
  return result;
}

std::string TemplateText(const std::vector<Attribute>& attributes, Direction direction) {
  std::string text = "{";
  for (const Attribute& attribute : attributes) {
    if (text.size() > 1) text += ", ";
    text += AttributeName(attribute.type);
    if (!attribute.address) {
      text += "[NULL," + std::to_string(attribute.length) + "]";
    } else if (direction == Direction::Query) {
      text += "[" + std::to_string(attribute.length) + "]";
    } else {
      text += "=" + HexOf(attribute.value);
    }
  }
  return text + "}";
}

void Pad(std::uint8_t* out, std::size_t size, const std::string& text) {
  std::memset(out, ' ', size);
  std::copy_n(text.begin(), std::min(size, text.size()), out);
}

// A modulus of the right length that differs from key to key and has its top bit set.
Bytes ModulusFor(const Bytes& id, CK_ULONG bits) {
  Bytes modulus(bits / 8);
  std::uint8_t state = 0x5A;
  for (std::uint8_t byte : id)
    state = static_cast<std::uint8_t>(state * 31 + byte);
  for (std::uint8_t& byte : modulus) {
    state = static_cast<std::uint8_t>(state * 13 + 7);
    byte = state;
  }
  if (!modulus.empty()) modulus.front() |= 0x80;
  return modulus;
}

// The stand-in for the RSA operation: reversible, the same in both directions, different for each modulus.
Bytes Transform(const Bytes& modulus, Bytes block) {
  for (std::size_t i = 0; i < block.size(); ++i) {
    block[i] = static_cast<std::uint8_t>(block[i] ^ modulus[modulus.size() - 1 - i] ^ 0xA5);
  }
  return block;
}

// PKCS#1 v1.5 block (RFC 8017 7.2.1 and 9.2): 00 type padding 00 data. Empty when the data does not fit.
Bytes PadBlock(std::uint8_t type, const Bytes& data, std::size_t size) {
  if (size < 11 || data.size() > size - 11) return {};
  Bytes block(size, 0);
  block[1] = type;
  const std::size_t padding = size - 3 - data.size();
  for (std::size_t i = 0; i < padding; ++i) {
    block[2 + i] = type == 1 ? std::uint8_t{0xFF} : static_cast<std::uint8_t>(i % 255 + 1);
  }
  std::copy(data.begin(), data.end(), block.begin() + static_cast<std::ptrdiff_t>(3 + padding));
  return block;
}

std::optional<Bytes> UnpadBlock(std::uint8_t type, const Bytes& block) {
  if (block.size() < 11 || block[0] != 0 || block[1] != type) return std::nullopt;
  const auto end = std::find(block.begin() + 2, block.end(), std::uint8_t{0});
  if (end == block.end()) return std::nullopt;
  if (type == 1 && std::any_of(block.begin() + 2, end, [](std::uint8_t byte) { return byte != 0xFF; })) {
    return std::nullopt;
  }
  return Bytes(end + 1, block.end());
}

CK_RV Output(const Bytes& result, CK_BYTE* out, CK_ULONG* length) {
  if (!length) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = *length;
  *length = static_cast<CK_ULONG>(result.size());
  if (!out) return CKR_OK;
  if (room < result.size()) return CKR_BUFFER_TOO_SMALL;
  std::memcpy(out, result.data(), result.size());
  return CKR_OK;
}

}  // namespace

Bytes Ascii(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

Bytes Ulong(CK_ULONG value) {
  Bytes bytes(4);
  for (std::size_t i = 0; i < 4; ++i)
    bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  return bytes;
}

Bytes Bool(bool value) {
  return Bytes(1, value ? 1 : 0);
}

std::string HexOf(const Bytes& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

Module& Token() {
  static Module module;
  return module;
}

void Module::Reset() {
  const std::lock_guard guard(lock_);
  slots_.clear();
  objects_.clear();
  sessions_.clear();
  calls_.clear();
  rules_.clear();
  before_.clear();
  random_.clear();
  randomCounter_ = 0;
  nextObject_ = 0x101;
  nextSession_ = 0x51;
  functionListResult_ = CKR_OK;
  strict_ = false;
}

Slot& Module::AddSlot(std::string description, bool tokenPresent) {
  const std::lock_guard guard(lock_);
  Slot slot;
  slot.id = static_cast<CK_SLOT_ID>(11 + slots_.size());
  slot.description = std::move(description);
  slot.tokenPresent = tokenPresent;
  slot.label = "Token " + std::to_string(slots_.size());
  // Serial numbers never return within a process: what the provider remembers of a token stays with that token.
  char serial[17];
  std::snprintf(serial, sizeof serial, "NTW%06u", ++serialCounter_);
  slot.serial = serial;
  slots_.push_back(std::move(slot));
  return slots_.back();
}

Slot& Module::SlotAt(std::size_t index) {
  const std::lock_guard guard(lock_);
  return slots_.at(index);
}

CK_OBJECT_HANDLE Module::AddObject(Attributes attributes, std::size_t slotIndex) {
  const std::lock_guard guard(lock_);
  return Insert(slots_.at(slotIndex).id, 0, std::move(attributes));
}

CK_OBJECT_HANDLE Module::AddPublicKey(const Bytes& id, const std::string& label, CK_ULONG bits, std::size_t slotIndex) {
  return AddObject({{CKA_CLASS, Ulong(CKO_PUBLIC_KEY)},
                    {CKA_KEY_TYPE, Ulong(CKK_RSA)},
                    {CKA_TOKEN, Bool(true)},
                    {CKA_ID, id},
                    {CKA_LABEL, Ascii(label)},
                    {CKA_MODULUS, ModulusFor(id, bits)},
                    {CKA_MODULUS_BITS, Ulong(bits)},
                    {CKA_PUBLIC_EXPONENT, {1, 0, 1}},
                    {CKA_ENCRYPT, Bool(true)},
                    {CKA_VERIFY, Bool(true)}},
                   slotIndex);
}

CK_OBJECT_HANDLE Module::AddPrivateKey(const Bytes& id, const std::string& label, CK_ULONG bits,
                                       std::size_t slotIndex) {
  return AddObject({{CKA_CLASS, Ulong(CKO_PRIVATE_KEY)},
                    {CKA_KEY_TYPE, Ulong(CKK_RSA)},
                    {CKA_TOKEN, Bool(true)},
                    {CKA_PRIVATE, Bool(true)},
                    {CKA_ID, id},
                    {CKA_LABEL, Ascii(label)},
                    {CKA_MODULUS, ModulusFor(id, bits)},
                    {CKA_MODULUS_BITS, Ulong(bits)},
                    {CKA_PUBLIC_EXPONENT, {1, 0, 1}},
                    {CKA_DECRYPT, Bool(true)},
                    {CKA_SIGN, Bool(true)}},
                   slotIndex);
}

KeyPair Module::AddKeyPair(const Bytes& id, const std::string& label, CK_ULONG bits, std::size_t slotIndex) {
  KeyPair pair;
  pair.publicKey = AddPublicKey(id, label, bits, slotIndex);
  pair.privateKey = AddPrivateKey(id, label, bits, slotIndex);
  return pair;
}

bool Module::HasObject(CK_OBJECT_HANDLE handle) const {
  const std::lock_guard guard(lock_);
  return FindObject(handle) != nullptr;
}

Attributes& Module::ObjectAttributes(CK_OBJECT_HANDLE handle) {
  const std::lock_guard guard(lock_);
  Object* object = FindObject(handle);
  if (!object) throw std::out_of_range("no such object");
  return object->attributes;
}

std::size_t Module::ObjectCount() const {
  const std::lock_guard guard(lock_);
  return objects_.size();
}

std::size_t Module::OpenSessions() const {
  const std::lock_guard guard(lock_);
  return sessions_.size();
}

void Module::SetRandom(Bytes bytes) {
  const std::lock_guard guard(lock_);
  random_ = std::move(bytes);
}

Bytes Module::Signature(CK_OBJECT_HANDLE key, const Bytes& block) const {
  const std::lock_guard guard(lock_);
  const Object* object = FindObject(key);
  if (!object) return {};
  const Bytes& modulus = object->attributes.at(CKA_MODULUS);
  return Transform(modulus, PadBlock(1, block, modulus.size()));
}

Bytes Module::Ciphertext(CK_OBJECT_HANDLE key, const Bytes& plain) const {
  const std::lock_guard guard(lock_);
  const Object* object = FindObject(key);
  if (!object) return {};
  const Bytes& modulus = object->attributes.at(CKA_MODULUS);
  return Transform(modulus, PadBlock(2, plain, modulus.size()));
}

void Module::SetStrict(bool strict) {
  const std::lock_guard guard(lock_);
  strict_ = strict;
}

void Module::Fail(const std::string& function, CK_RV code, std::size_t nth) {
  const std::lock_guard guard(lock_);
  rules_[function].push_back(Rule{nth - 1, false, code});
}

void Module::FailAlways(const std::string& function, CK_RV code) {
  const std::lock_guard guard(lock_);
  rules_[function].push_back(Rule{0, true, code});
}

void Module::ClearScript() {
  const std::lock_guard guard(lock_);
  rules_.clear();
  before_.clear();
}

void Module::Before(const std::string& function, std::function<void(const Call&)> action) {
  const std::lock_guard guard(lock_);
  before_[function] = std::move(action);
}

void Module::SetFunctionListResult(CK_RV code) {
  functionListResult_ = code;
}

CK_RV Module::FunctionListResult() const {
  return functionListResult_;
}

std::vector<Call> Module::Calls() const {
  const std::lock_guard guard(lock_);
  return calls_;
}

std::vector<std::string> Module::Texts() const {
  const std::lock_guard guard(lock_);
  std::vector<std::string> texts;
  for (const Call& call : calls_)
    texts.push_back(call.text);
  return texts;
}

std::vector<std::string> Module::TakeTexts() {
  std::vector<std::string> texts = Texts();
  ClearCalls();
  return texts;
}

std::size_t Module::Count(const std::string& function) const {
  const std::lock_guard guard(lock_);
  return static_cast<std::size_t>(
      std::count_if(calls_.begin(), calls_.end(), [&](const Call& call) { return call.function == function; }));
}

void Module::ClearCalls() {
  const std::lock_guard guard(lock_);
  calls_.clear();
}

CK_RV Module::Run(Call call, const std::function<CK_RV()>& body) {
  std::function<void(const Call&)> action;
  {
    const std::lock_guard guard(lock_);
    const auto found = before_.find(call.function);
    if (found != before_.end()) action = found->second;
  }
  call.thread = std::this_thread::get_id();
  if (action) action(call);

  const std::lock_guard guard(lock_);
  std::optional<CK_RV> scripted;
  std::vector<Rule>& rules = rules_[call.function];
  for (auto rule = rules.begin(); rule != rules.end();) {
    if (rule->skip == 0) {
      if (!scripted) scripted = rule->code;
      if (!rule->always) {
        rule = rules.erase(rule);
        continue;
      }
    } else {
      --rule->skip;
    }
    ++rule;
  }
  const std::size_t index = calls_.size();
  calls_.push_back(call);
  const CK_RV result = scripted ? *scripted : body();
  calls_[index].result = result;
  return result;
}

Slot* Module::FindSlot(CK_SLOT_ID id) {
  for (Slot& slot : slots_) {
    if (slot.id == id) return &slot;
  }
  return nullptr;
}

Module::Session* Module::FindSession(CK_SESSION_HANDLE handle) {
  const auto found = sessions_.find(handle);
  return found == sessions_.end() ? nullptr : &found->second;
}

Module::Object* Module::FindObject(CK_OBJECT_HANDLE handle) {
  for (Object& object : objects_) {
    if (object.handle == handle) return &object;
  }
  return nullptr;
}

const Module::Object* Module::FindObject(CK_OBJECT_HANDLE handle) const {
  for (const Object& object : objects_) {
    if (object.handle == handle) return &object;
  }
  return nullptr;
}

CK_OBJECT_HANDLE Module::Insert(CK_SLOT_ID slot, CK_SESSION_HANDLE owner, Attributes attributes) {
  const CK_OBJECT_HANDLE handle = nextObject_++;
  objects_.push_back(Object{handle, slot, owner, std::move(attributes)});
  return handle;
}

void Module::NextRandom(std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!random_.empty()) {
      out[i] = random_.front();
      random_.erase(random_.begin());
    } else {
      out[i] = ++randomCounter_;
    }
  }
}

namespace {

bool IsPrivate(const Attributes& attributes) {
  const auto found = attributes.find(CKA_PRIVATE);
  return found != attributes.end() && found->second == Bool(true);
}

}  // namespace

bool Module::IsHidden(const Object& object) {
  const Slot* slot = FindSlot(object.slot);
  return strict_ && IsPrivate(object.attributes) && !(slot && slot->loggedIn);
}

void Module::EndLogin(Slot& slot) {
  slot.loggedIn = false;
  if (!strict_) return;
  // Handles of private objects are void for good (PKCS#11 v2.40 5.6, C_Logout).
  for (Object& object : objects_) {
    if (object.slot == slot.id && IsPrivate(object.attributes)) object.handle = nextObject_++;
  }
}

namespace {

struct FixedLength {
  CK_ATTRIBUTE_TYPE type;
  CK_ULONG length;
};

// Of the attributes that the provider sends, those whose values have one length.
constexpr FixedLength kFixedLengths[] = {
    {CKA_CLASS, 4},          {CKA_CERTIFICATE_TYPE, 4},
    {CKA_KEY_TYPE, 4},       {CKA_MODULUS_BITS, 4},
    {CKA_TOKEN, 1},          {CKA_PRIVATE, 1},
    {CKA_SENSITIVE, 1},      {CKA_ENCRYPT, 1},
    {CKA_DECRYPT, 1},        {CKA_WRAP, 1},
    {CKA_UNWRAP, 1},         {CKA_SIGN, 1},
    {CKA_VERIFY, 1},         {CKA_SIGN_RECOVER, 1},
    {CKA_VERIFY_RECOVER, 1}, {CKA_DERIVE, 1},
    {CKA_EXTRACTABLE, 1},    {CKA_LOCAL, 1},
    {CKA_MODIFIABLE, 1},
};

// What a strict token says to a template before it looks at the values.
CK_RV CheckTemplate(const CK_ATTRIBUTE* entries, CK_ULONG count) {
  if (!entries) return count == 0 ? CK_RV{CKR_OK} : CK_RV{CKR_ARGUMENTS_BAD};
  for (CK_ULONG i = 0; i < count; ++i) {
    for (const FixedLength& fixed : kFixedLengths) {
      if (fixed.type != entries[i].type) continue;
      if (!entries[i].pValue || entries[i].ulValueLen != fixed.length) return CKR_ATTRIBUTE_VALUE_INVALID;
    }
  }
  return CKR_OK;
}

CK_RV CheckMechanism(const CK_MECHANISM* mechanism) {
  if (!mechanism) return CKR_ARGUMENTS_BAD;
  return mechanism->pParameter || mechanism->ulParameterLen != 0 ? CK_RV{CKR_MECHANISM_PARAM_INVALID} : CK_RV{CKR_OK};
}

Attributes FromTemplate(const std::vector<Attribute>& entries) {
  Attributes attributes;
  for (const Attribute& entry : entries) {
    if (entry.address) attributes[entry.type] = entry.value;
  }
  return attributes;
}

bool IsTokenObject(const Attributes& attributes) {
  const auto found = attributes.find(CKA_TOKEN);
  return found != attributes.end() && found->second == Bool(true);
}

template <std::size_t N>
struct FixedName {
  char text[N] = {};
  constexpr FixedName(const char (&source)[N]) {  // implicit: a string literal is the template argument
    for (std::size_t i = 0; i < N; ++i)
      text[i] = source[i];
  }
};

}  // namespace

// The functions behind the list.
struct Entries {
  static Call NewCall(const char* function, std::string arguments) {
    Call call;
    call.function = function;
    call.text = call.function + "(" + std::move(arguments) + ")";
    return call;
  }

  static std::string SessionText(CK_SESSION_HANDLE session) { return "session=" + Hex(session); }

  static bool IsStrict() { return Token().strict_; }

  // One operation at a time: PKCS#11 v2.40 lets a module refuse a second one of any kind.
  static bool IsBusy(const Module::Session& session) {
    return IsStrict() && (session.searching || !session.operation.empty());
  }

  static CK_RV Initialize(void* arguments) {
    return Token().Run(NewCall("C_Initialize", Pointer(arguments)), [] { return CK_RV{CKR_OK}; });
  }

  static CK_RV GetFunctionList(CK_FUNCTION_LIST** list) {
    *list = &Token().List()->standard;
    return CKR_OK;
  }

  static CK_RV GetSlotList(unsigned char present, CK_SLOT_ID* list, CK_ULONG* count) {
    std::string arguments = std::string("present=") + (present ? "TRUE" : "FALSE") + ", list=" + Pointer(list);
    if (list && count) arguments += ", count=" + std::to_string(*count);
    return Token().Run(NewCall("C_GetSlotList", arguments), [&]() -> CK_RV {
      if (!count) return CKR_ARGUMENTS_BAD;
      std::vector<CK_SLOT_ID> ids;
      for (const Slot& slot : Token().slots_) {
        if (!present || slot.tokenPresent) ids.push_back(slot.id);
      }
      const CK_ULONG room = *count;
      *count = static_cast<CK_ULONG>(ids.size());
      if (!list) return CKR_OK;
      if (room < ids.size()) return CKR_BUFFER_TOO_SMALL;
      std::copy(ids.begin(), ids.end(), list);
      return CKR_OK;
    });
  }

  static CK_RV GetSlotInfo(CK_SLOT_ID id, CK_SLOT_INFO* info) {
    return Token().Run(NewCall("C_GetSlotInfo", "slot=" + std::to_string(id)), [&]() -> CK_RV {
      const Slot* slot = Token().FindSlot(id);
      if (IsStrict() && !info) return CKR_ARGUMENTS_BAD;
      if (!slot) return CKR_SLOT_ID_INVALID;
      std::memset(info, 0, sizeof *info);
      Pad(info->slotDescription, sizeof info->slotDescription, slot->description);
      Pad(info->manufacturerID, sizeof info->manufacturerID, "Norvale Token Works");
      info->flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
      if (slot->tokenPresent) info->flags |= CKF_TOKEN_PRESENT;
      return CKR_OK;
    });
  }

  static CK_RV GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO* info) {
    return Token().Run(NewCall("C_GetTokenInfo", "slot=" + std::to_string(id)), [&]() -> CK_RV {
      const Slot* slot = Token().FindSlot(id);
      if (IsStrict() && !info) return CKR_ARGUMENTS_BAD;
      if (!slot) return CKR_SLOT_ID_INVALID;
      if (!slot->tokenPresent) return CKR_TOKEN_NOT_PRESENT;
      std::memset(info, 0, sizeof *info);
      Pad(info->label, sizeof info->label, slot->label);
      Pad(info->manufacturerID, sizeof info->manufacturerID, "Norvale Token Works");
      Pad(info->model, sizeof info->model, "Fake");
      Pad(info->serialNumber, sizeof info->serialNumber, slot->serial);
      info->flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
      return CKR_OK;
    });
  }

  static CK_RV OpenSession(CK_SLOT_ID id, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                           CK_SESSION_HANDLE* session) {
    std::string arguments = "slot=" + std::to_string(id) + ", flags=" + Hex(flags) +
                            ", application=" + Pointer(application) + ", notify=" + (notify ? "PTR" : "NULL");
    return Token().Run(NewCall("C_OpenSession", arguments), [&]() -> CK_RV {
      const Slot* slot = Token().FindSlot(id);
      if (IsStrict() && !session) return CKR_ARGUMENTS_BAD;
      if (!slot) return CKR_SLOT_ID_INVALID;
      if (!slot->tokenPresent) return CKR_TOKEN_NOT_PRESENT;
      if (!(flags & CKF_SERIAL_SESSION)) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
      Module::Session opened;
      opened.slot = id;
      *session = Token().nextSession_++;
      Token().sessions_[*session] = opened;
      return CKR_OK;
    });
  }

  static CK_RV CloseSession(CK_SESSION_HANDLE session) {
    return Token().Run(NewCall("C_CloseSession", SessionText(session)), [&]() -> CK_RV {
      const Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      const CK_SLOT_ID slot = found->slot;
      Token().sessions_.erase(session);
      std::erase_if(Token().objects_, [&](const Module::Object& object) { return object.owner == session; });
      const bool last = std::none_of(Token().sessions_.begin(), Token().sessions_.end(),
                                     [&](const auto& entry) { return entry.second.slot == slot; });
      // The user is logged out with the token's last session (PKCS#11 v2.40 4.4.2).
      if (last && Token().FindSlot(slot)) Token().EndLogin(*Token().FindSlot(slot));
      return CKR_OK;
    });
  }

  static CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG length) {
    Call call = NewCall("VendorLogin", SessionText(session) + ", user=" + std::to_string(user) +
                                           ", pin=" + (pin ? HexOf(Copy(pin, length)) : "NULL"));
    call.data = Copy(pin, length);
    const Bytes given = call.data;
    return Token().Run(std::move(call), [&]() -> CK_RV {
      const Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      Slot* slot = Token().FindSlot(found->slot);
      if (!slot) return CKR_TOKEN_NOT_PRESENT;
      if (IsStrict() && !pin) return CKR_ARGUMENTS_BAD;
      if (user != CKU_USER) return CKR_USER_TYPE_INVALID;
      if (slot->loggedIn) return CKR_USER_ALREADY_LOGGED_IN;
      if (slot->triesLeft == 0) return CKR_PIN_LOCKED;
      if (given != Ascii(slot->pin)) return --slot->triesLeft == 0 ? CK_RV{CKR_PIN_LOCKED} : slot->triesLeft;
      slot->triesLeft = slot->maximumTries;
      slot->loggedIn = true;
      return CKR_OK;
    });
  }

  static CK_RV Logout(CK_SESSION_HANDLE session) {
    return Token().Run(NewCall("C_Logout", SessionText(session)), [&]() -> CK_RV {
      const Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      Slot* slot = Token().FindSlot(found->slot);
      if (!slot || !slot->loggedIn) return CKR_USER_NOT_LOGGED_IN;
      Token().EndLogin(*slot);
      return CKR_OK;
    });
  }

  static CK_RV CreateObject(CK_SESSION_HANDLE session, CK_ATTRIBUTE* entries, CK_ULONG count, CK_OBJECT_HANDLE* out) {
    const std::vector<Attribute> attributes = ReadTemplate(entries, count, Direction::Input);
    Call call = NewCall("C_CreateObject", SessionText(session) + ", " + TemplateText(attributes, Direction::Input));
    call.templates = {attributes};
    return Token().Run(std::move(call), [&]() -> CK_RV {
      const Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (!out) return CKR_ARGUMENTS_BAD;
      if (const CK_RV bad = IsStrict() ? CheckTemplate(entries, count) : CK_RV{CKR_OK}; bad != CKR_OK) return bad;
      Attributes values = FromTemplate(attributes);
      if (IsStrict() && IsPrivate(values) && !Token().FindSlot(found->slot)->loggedIn) return CKR_USER_NOT_LOGGED_IN;
      const bool onToken = IsTokenObject(values);
      *out = Token().Insert(found->slot, onToken ? 0 : session, std::move(values));
      return CKR_OK;
    });
  }

  static CK_RV DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
    return Token().Run(NewCall("C_DestroyObject", SessionText(session) + ", object=" + Hex(object)), [&]() -> CK_RV {
      if (!Token().FindSession(session)) return CKR_SESSION_HANDLE_INVALID;
      const Module::Object* found = Token().FindObject(object);
      if (!found || Token().IsHidden(*found)) return CKR_OBJECT_HANDLE_INVALID;
      std::erase_if(Token().objects_, [&](const Module::Object& entry) { return entry.handle == object; });
      return CKR_OK;
    });
  }

  static CK_RV GetAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* entries,
                                 CK_ULONG count) {
    const std::vector<Attribute> attributes = ReadTemplate(entries, count, Direction::Query);
    Call call = NewCall("C_GetAttributeValue", SessionText(session) + ", object=" + Hex(object) + ", " +
                                                   TemplateText(attributes, Direction::Query));
    call.templates = {attributes};
    return Token().Run(std::move(call), [&]() -> CK_RV {
      if (!Token().FindSession(session)) return CKR_SESSION_HANDLE_INVALID;
      if (IsStrict() && !entries) return CKR_ARGUMENTS_BAD;
      const Module::Object* found = Token().FindObject(object);
      if (!found || Token().IsHidden(*found)) return CKR_OBJECT_HANDLE_INVALID;
      CK_RV result = CKR_OK;
      for (CK_ULONG i = 0; i < count; ++i) {
        const auto value = found->attributes.find(entries[i].type);
        if (value == found->attributes.end()) {
          entries[i].ulValueLen = kUnavailable;
          result = CKR_ATTRIBUTE_TYPE_INVALID;
        } else if (!entries[i].pValue) {
          entries[i].ulValueLen = static_cast<CK_ULONG>(value->second.size());
        } else if (entries[i].ulValueLen < value->second.size()) {
          entries[i].ulValueLen = kUnavailable;
          result = CKR_BUFFER_TOO_SMALL;
        } else {
          entries[i].ulValueLen = static_cast<CK_ULONG>(value->second.size());
          if (!value->second.empty()) std::memcpy(entries[i].pValue, value->second.data(), value->second.size());
        }
      }
      return result;
    });
  }

  static CK_RV FindObjectsInit(CK_SESSION_HANDLE session, CK_ATTRIBUTE* entries, CK_ULONG count) {
    const std::vector<Attribute> attributes = ReadTemplate(entries, count, Direction::Input);
    Call call = NewCall("C_FindObjectsInit", SessionText(session) + ", " + TemplateText(attributes, Direction::Input));
    call.templates = {attributes};
    return Token().Run(std::move(call), [&]() -> CK_RV {
      Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (found->searching || IsBusy(*found)) return CKR_OPERATION_ACTIVE;
      if (const CK_RV bad = IsStrict() ? CheckTemplate(entries, count) : CK_RV{CKR_OK}; bad != CKR_OK) return bad;
      found->searching = true;
      found->found.clear();
      found->next = 0;
      for (const Module::Object& object : Token().objects_) {
        if (object.slot != found->slot || Token().IsHidden(object)) continue;
        const bool matches = std::all_of(attributes.begin(), attributes.end(), [&](const Attribute& wanted) {
          const auto value = object.attributes.find(wanted.type);
          return value != object.attributes.end() && value->second == wanted.value;
        });
        if (matches) found->found.push_back(object.handle);
      }
      return CKR_OK;
    });
  }

  static CK_RV FindObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG maximum, CK_ULONG* count) {
    const std::string arguments =
        SessionText(session) + ", objects=" + Pointer(objects) + ", maximum=" + std::to_string(maximum);
    return Token().Run(NewCall("C_FindObjects", arguments), [&]() -> CK_RV {
      Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (!found->searching) return CKR_OPERATION_NOT_INITIALIZED;
      if (!count || (IsStrict() && maximum == 0)) return CKR_ARGUMENTS_BAD;
      const std::size_t left = found->found.size() - found->next;
      const std::size_t number = std::min<std::size_t>(left, maximum);
      *count = static_cast<CK_ULONG>(number);
      if (!objects) return CKR_OK;  // without an array the module only counts
      for (std::size_t i = 0; i < number; ++i)
        objects[i] = found->found[found->next + i];
      found->next += number;
      return CKR_OK;
    });
  }

  static CK_RV FindObjectsFinal(CK_SESSION_HANDLE session) {
    return Token().Run(NewCall("C_FindObjectsFinal", SessionText(session)), [&]() -> CK_RV {
      Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (!found->searching) return CKR_OPERATION_NOT_INITIALIZED;
      found->searching = false;
      return CKR_OK;
    });
  }

  enum class Needs { Sign, Verify, Encrypt, Decrypt };

  static CK_RV Init(const char* name, const char* operation, CK_SESSION_HANDLE session, CK_MECHANISM* mechanism,
                    CK_OBJECT_HANDLE key, CK_ATTRIBUTE_TYPE permission, CK_ULONG objectClass) {
    const std::string arguments = SessionText(session) + ", " + MechanismText(mechanism) + ", key=" + Hex(key);
    return Token().Run(NewCall(name, arguments), [&]() -> CK_RV {
      Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (IsBusy(*found)) return CKR_OPERATION_ACTIVE;
      if (const CK_RV bad = IsStrict() ? CheckMechanism(mechanism) : CK_RV{CKR_OK}; bad != CKR_OK) return bad;
      if (!mechanism || mechanism->mechanism != CKM_RSA_PKCS) return CKR_MECHANISM_INVALID;
      const Module::Object* object = Token().FindObject(key);
      if (!object || object->slot != found->slot || Token().IsHidden(*object)) return CKR_KEY_HANDLE_INVALID;
      const auto foundClass = object->attributes.find(CKA_CLASS);
      if (foundClass == object->attributes.end() || foundClass->second != Ulong(objectClass)) {
        return CKR_KEY_TYPE_INCONSISTENT;
      }
      const auto allowed = object->attributes.find(permission);
      if (allowed == object->attributes.end() || allowed->second != Bool(true)) {
        return CKR_KEY_FUNCTION_NOT_PERMITTED;
      }
      const Slot* slot = Token().FindSlot(found->slot);
      if (objectClass == CKO_PRIVATE_KEY && !(slot && slot->loggedIn)) return CKR_USER_NOT_LOGGED_IN;
      // An Init while the operation is active starts it anew: unless it is strict, the module does not insist on a
      // finished one.
      found->operation[operation] = key;
      return CKR_OK;
    });
  }

  // The work of an initialised operation. A length query and a short buffer leave it active (PKCS#11 v2.40 5.2).
  static CK_RV Finish(const char* operation, CK_SESSION_HANDLE session, CK_BYTE* out, CK_ULONG* length,
                      const CK_BYTE* input, const std::function<CK_RV(const Bytes& modulus, Bytes& result)>& work) {
    Module::Session* found = Token().FindSession(session);
    if (!found) return CKR_SESSION_HANDLE_INVALID;
    const auto active = found->operation.find(operation);
    if (active == found->operation.end()) return CKR_OPERATION_NOT_INITIALIZED;
    const Module::Object* object = Token().FindObject(active->second);
    if (!object) return CKR_KEY_HANDLE_INVALID;
    Bytes result;
    CK_RV code = IsStrict() && !input ? CK_RV{CKR_ARGUMENTS_BAD} : work(object->attributes.at(CKA_MODULUS), result);
    if (code == CKR_OK) code = Output(result, out, length);
    if (code != CKR_BUFFER_TOO_SMALL && !(code == CKR_OK && !out)) found->operation.erase(operation);
    return code;
  }

  static Call DataCall(const char* name, CK_SESSION_HANDLE session, const CK_BYTE* data, CK_ULONG dataLength,
                       const CK_BYTE* out, const CK_ULONG* length) {
    Call call = NewCall(name, SessionText(session) + ", data=" + (data ? HexOf(Copy(data, dataLength)) : "NULL") +
                                  ", out=" + Pointer(out) +
                                  (out && length ? ", room=" + std::to_string(*length) : std::string()));
    call.data = Copy(data, dataLength);
    call.output = out;
    return call;
  }

  static CK_RV SignInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return Init("C_SignInit", "C_Sign", session, mechanism, key, CKA_SIGN, CKO_PRIVATE_KEY);
  }

  static CK_RV Sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLength, CK_BYTE* out, CK_ULONG* length) {
    Call call = DataCall("C_Sign", session, data, dataLength, out, length);
    const Bytes input = call.data;
    return Token().Run(std::move(call), [&] {
      return Finish("C_Sign", session, out, length, data, [&](const Bytes& modulus, Bytes& result) -> CK_RV {
        const Bytes block = PadBlock(1, input, modulus.size());
        if (block.empty()) return CKR_DATA_LEN_RANGE;
        result = Transform(modulus, block);
        return CKR_OK;
      });
    });
  }

  static CK_RV VerifyInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return Init("C_VerifyInit", "C_Verify", session, mechanism, key, CKA_VERIFY, CKO_PUBLIC_KEY);
  }

  static CK_RV Verify(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLength, CK_BYTE* signature,
                      CK_ULONG signatureLength) {
    Call call = NewCall("C_Verify", SessionText(session) + ", data=" + (data ? HexOf(Copy(data, dataLength)) : "NULL") +
                                        ", signature=" + HexOf(Copy(signature, signatureLength)));
    call.data = Copy(data, dataLength);
    const Bytes input = call.data;
    const Bytes given = Copy(signature, signatureLength);
    return Token().Run(std::move(call), [&]() -> CK_RV {
      CK_BYTE none = 0;
      CK_ULONG noneLength = 1;
      return Finish("C_Verify", session, &none, &noneLength, data && signature ? data : nullptr,
                    [&](const Bytes& modulus, Bytes&) -> CK_RV {
                      if (given.size() != modulus.size()) return CKR_SIGNATURE_LEN_RANGE;
                      const std::optional<Bytes> block = UnpadBlock(1, Transform(modulus, given));
                      return block && *block == input ? CK_RV{CKR_OK} : CK_RV{CKR_SIGNATURE_INVALID};
                    });
    });
  }

  static CK_RV EncryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return Init("C_EncryptInit", "C_Encrypt", session, mechanism, key, CKA_ENCRYPT, CKO_PUBLIC_KEY);
  }

  static CK_RV Encrypt(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLength, CK_BYTE* out, CK_ULONG* length) {
    Call call = DataCall("C_Encrypt", session, data, dataLength, out, length);
    const Bytes input = call.data;
    return Token().Run(std::move(call), [&] {
      return Finish("C_Encrypt", session, out, length, data, [&](const Bytes& modulus, Bytes& result) -> CK_RV {
        const Bytes block = PadBlock(2, input, modulus.size());
        if (block.empty()) return CKR_DATA_LEN_RANGE;
        result = Transform(modulus, block);
        return CKR_OK;
      });
    });
  }

  static CK_RV DecryptInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
    return Init("C_DecryptInit", "C_Decrypt", session, mechanism, key, CKA_DECRYPT, CKO_PRIVATE_KEY);
  }

  static CK_RV Decrypt(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLength, CK_BYTE* out, CK_ULONG* length) {
    Call call = DataCall("C_Decrypt", session, data, dataLength, out, length);
    const Bytes input = call.data;
    return Token().Run(std::move(call), [&] {
      return Finish("C_Decrypt", session, out, length, data, [&](const Bytes& modulus, Bytes& result) -> CK_RV {
        if (input.size() != modulus.size()) return CKR_ENCRYPTED_DATA_LEN_RANGE;
        const std::optional<Bytes> plain = UnpadBlock(2, Transform(modulus, input));
        if (!plain) return CKR_ENCRYPTED_DATA_INVALID;
        result = *plain;
        return CKR_OK;
      });
    });
  }

  static CK_RV GenerateKeyPair(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_ATTRIBUTE* publicEntries,
                               CK_ULONG publicCount, CK_ATTRIBUTE* privateEntries, CK_ULONG privateCount,
                               CK_OBJECT_HANDLE* publicKey, CK_OBJECT_HANDLE* privateKey) {
    const std::vector<Attribute> publicTemplate = ReadTemplate(publicEntries, publicCount, Direction::Input);
    const std::vector<Attribute> privateTemplate = ReadTemplate(privateEntries, privateCount, Direction::Input);
    Call call = NewCall("C_GenerateKeyPair", SessionText(session) + ", " + MechanismText(mechanism) + ", " +
                                                 TemplateText(publicTemplate, Direction::Input) + ", " +
                                                 TemplateText(privateTemplate, Direction::Input));
    call.templates = {publicTemplate, privateTemplate};
    return Token().Run(std::move(call), [&]() -> CK_RV {
      const Module::Session* found = Token().FindSession(session);
      if (!found) return CKR_SESSION_HANDLE_INVALID;
      if (!mechanism || mechanism->mechanism != CKM_RSA_PKCS_KEY_PAIR_GEN) return CKR_MECHANISM_INVALID;
      if (!publicKey || !privateKey) return CKR_ARGUMENTS_BAD;
      if (IsStrict()) {
        for (const CK_RV bad : {CheckMechanism(mechanism), CheckTemplate(publicEntries, publicCount),
                                CheckTemplate(privateEntries, privateCount)}) {
          if (bad != CKR_OK) return bad;
        }
        if (!Token().FindSlot(found->slot)->loggedIn) return CKR_USER_NOT_LOGGED_IN;
      }
      Attributes publicValues = FromTemplate(publicTemplate);
      Attributes privateValues = FromTemplate(privateTemplate);
      const auto bits = publicValues.find(CKA_MODULUS_BITS);
      if (bits == publicValues.end() || bits->second.size() != 4) return CKR_TEMPLATE_INCOMPLETE;
      CK_ULONG number = 0;
      for (std::size_t i = 0; i < 4; ++i)
        number |= CK_ULONG{bits->second[i]} << (8 * i);
      if (number < 512 || number > 16384 || number % 8 != 0) return CKR_KEY_SIZE_RANGE;
      const Bytes modulus = ModulusFor(publicValues[CKA_ID], number);
      publicValues[CKA_MODULUS] = modulus;
      privateValues[CKA_MODULUS] = modulus;
      privateValues[CKA_MODULUS_BITS] = bits->second;
      privateValues[CKA_PUBLIC_EXPONENT] = publicValues[CKA_PUBLIC_EXPONENT];
      const CK_SLOT_ID slot = found->slot;
      const CK_SESSION_HANDLE publicOwner = IsTokenObject(publicValues) ? 0 : session;
      const CK_SESSION_HANDLE privateOwner = IsTokenObject(privateValues) ? 0 : session;
      *publicKey = Token().Insert(slot, publicOwner, std::move(publicValues));
      *privateKey = Token().Insert(slot, privateOwner, std::move(privateValues));
      return CKR_OK;
    });
  }

  static CK_RV GenerateRandom(CK_SESSION_HANDLE session, CK_BYTE* out, CK_ULONG length) {
    const std::string arguments = SessionText(session) + ", length=" + std::to_string(length);
    return Token().Run(NewCall("C_GenerateRandom", arguments), [&]() -> CK_RV {
      if (!Token().FindSession(session)) return CKR_SESSION_HANDLE_INVALID;
      if (!out) return CKR_ARGUMENTS_BAD;
      Token().NextRandom(out, length);
      return CKR_OK;
    });
  }

  // An entry that the provider has no business with: the call is written down and refused.
  template <FixedName Name, typename Function>
  struct Refusing;
  template <FixedName Name, typename... Arguments>
  struct Refusing<Name, CK_RV (*)(Arguments...)> {
    static CK_RV Call(Arguments...) {
      return Token().Run(NewCall(Name.text, "..."), [] { return CK_RV{CKR_FUNCTION_NOT_SUPPORTED}; });
    }
  };
};

FunctionList* Module::List() {
  static FunctionList list = [] {
    FunctionList entries{};
    CK_FUNCTION_LIST& s = entries.standard;
    s.version.major = 2;
    s.version.minor = 40;
#define REFUSE(name) s.name = &Entries::Refusing<#name, CK_##name>::Call
    s.C_Initialize = &Entries::Initialize;
    REFUSE(C_Finalize);
    REFUSE(C_GetInfo);
    s.C_GetFunctionList = &Entries::GetFunctionList;
    s.C_GetSlotList = &Entries::GetSlotList;
    s.C_GetSlotInfo = &Entries::GetSlotInfo;
    s.C_GetTokenInfo = &Entries::GetTokenInfo;
    REFUSE(C_GetMechanismList);
    REFUSE(C_GetMechanismInfo);
    REFUSE(C_InitToken);
    REFUSE(C_InitPIN);
    REFUSE(C_SetPIN);
    s.C_OpenSession = &Entries::OpenSession;
    s.C_CloseSession = &Entries::CloseSession;
    REFUSE(C_CloseAllSessions);
    REFUSE(C_GetSessionInfo);
    REFUSE(C_GetOperationState);
    REFUSE(C_SetOperationState);
    REFUSE(C_Login);
    s.C_Logout = &Entries::Logout;
    s.C_CreateObject = &Entries::CreateObject;
    REFUSE(C_CopyObject);
    s.C_DestroyObject = &Entries::DestroyObject;
    REFUSE(C_GetObjectSize);
    s.C_GetAttributeValue = &Entries::GetAttributeValue;
    REFUSE(C_SetAttributeValue);
    s.C_FindObjectsInit = &Entries::FindObjectsInit;
    s.C_FindObjects = &Entries::FindObjects;
    s.C_FindObjectsFinal = &Entries::FindObjectsFinal;
    s.C_EncryptInit = &Entries::EncryptInit;
    s.C_Encrypt = &Entries::Encrypt;
    REFUSE(C_EncryptUpdate);
    REFUSE(C_EncryptFinal);
    s.C_DecryptInit = &Entries::DecryptInit;
    s.C_Decrypt = &Entries::Decrypt;
    REFUSE(C_DecryptUpdate);
    REFUSE(C_DecryptFinal);
    REFUSE(C_DigestInit);
    REFUSE(C_Digest);
    REFUSE(C_DigestUpdate);
    REFUSE(C_DigestKey);
    REFUSE(C_DigestFinal);
    s.C_SignInit = &Entries::SignInit;
    s.C_Sign = &Entries::Sign;
    REFUSE(C_SignUpdate);
    REFUSE(C_SignFinal);
    REFUSE(C_SignRecoverInit);
    REFUSE(C_SignRecover);
    s.C_VerifyInit = &Entries::VerifyInit;
    s.C_Verify = &Entries::Verify;
    REFUSE(C_VerifyUpdate);
    REFUSE(C_VerifyFinal);
    REFUSE(C_VerifyRecoverInit);
    REFUSE(C_VerifyRecover);
    REFUSE(C_DigestEncryptUpdate);
    REFUSE(C_DecryptDigestUpdate);
    REFUSE(C_SignEncryptUpdate);
    REFUSE(C_DecryptVerifyUpdate);
    REFUSE(C_GenerateKey);
    s.C_GenerateKeyPair = &Entries::GenerateKeyPair;
    REFUSE(C_WrapKey);
    REFUSE(C_UnwrapKey);
    REFUSE(C_DeriveKey);
    REFUSE(C_SeedRandom);
    s.C_GenerateRandom = &Entries::GenerateRandom;
    REFUSE(C_GetFunctionStatus);
    REFUSE(C_CancelFunction);
    REFUSE(C_WaitForSlotEvent);
#undef REFUSE
    entries.reserved[0] = &Entries::Refusing<"Reserved68", ReservedEntry>::Call;
    entries.reserved[1] = &Entries::Refusing<"Reserved69", ReservedEntry>::Call;
    entries.reserved[2] = &Entries::Refusing<"Reserved70", ReservedEntry>::Call;
    entries.reserved[3] = &Entries::Refusing<"Reserved71", ReservedEntry>::Call;
    entries.reserved[4] = &Entries::Refusing<"Reserved72", ReservedEntry>::Call;
    entries.reserved[5] = &Entries::Refusing<"Reserved73", ReservedEntry>::Call;
    entries.login = &Entries::Login;
    return entries;
  }();
  return &list;
}

Module::Module() {
  Reset();
}

}  // namespace fake
