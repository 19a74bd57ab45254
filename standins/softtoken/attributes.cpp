#include "softtoken/attributes.h"

#include <algorithm>

namespace softtoken {

bool HoldsNumbers(CK_ATTRIBUTE_TYPE type) {
  switch (type) {
    case CKA_CLASS:
    case CKA_CERTIFICATE_TYPE:
    case CKA_CERTIFICATE_CATEGORY:
    case CKA_JAVA_MIDP_SECURITY_DOMAIN:
    case CKA_KEY_TYPE:
    case CKA_MODULUS_BITS:
    case CKA_PRIME_BITS:
    case CKA_SUB_PRIME_BITS:
    case CKA_VALUE_BITS:
    case CKA_VALUE_LEN:
    case CKA_KEY_GEN_MECHANISM:
    case CKA_AUTH_PIN_FLAGS:
    case CKA_HW_FEATURE_TYPE:
    case CKA_MECHANISM_TYPE:
    case CKA_ALLOWED_MECHANISMS:
      return true;
    default:
      return false;
  }
}

bool HoldsFlag(CK_ATTRIBUTE_TYPE type) {
  switch (type) {
    case CKA_TOKEN:
    case CKA_PRIVATE:
    case CKA_TRUSTED:
    case CKA_SENSITIVE:
    case CKA_ENCRYPT:
    case CKA_DECRYPT:
    case CKA_WRAP:
    case CKA_UNWRAP:
    case CKA_SIGN:
    case CKA_SIGN_RECOVER:
    case CKA_VERIFY:
    case CKA_VERIFY_RECOVER:
    case CKA_DERIVE:
    case CKA_EXTRACTABLE:
    case CKA_LOCAL:
    case CKA_NEVER_EXTRACTABLE:
    case CKA_ALWAYS_SENSITIVE:
    case CKA_MODIFIABLE:
    case CKA_ALWAYS_AUTHENTICATE:
    case CKA_WRAP_WITH_TRUSTED:
      return true;
    default:
      return false;
  }
}

CK_RV Template::Assign(const win::Attribute* attributes, win::Ulong count) {
  entries_.clear();
  if (attributes == nullptr && count != 0) return CKR_ARGUMENTS_BAD;
  for (win::Ulong i = 0; i < count; ++i) {
    const auto source = win::Load<win::Attribute>(&attributes[i]);
    Entry entry;
    entry.type = source.type;
    entry.hasValue = source.value != nullptr;
    const auto* bytes = static_cast<const std::uint8_t*>(source.value);
    if (entry.hasValue && HoldsNumbers(entry.type)) {
      if (source.valueLen % sizeof(win::Ulong) != 0) return CKR_ATTRIBUTE_VALUE_INVALID;
      for (win::Ulong offset = 0; offset < source.valueLen; offset += sizeof(win::Ulong)) {
        const CK_ULONG number = win::Load<win::Ulong>(bytes + offset);
        const auto* wide = reinterpret_cast<const std::uint8_t*>(&number);
        entry.value.insert(entry.value.end(), wide, wide + sizeof(number));
      }
    } else if (entry.hasValue) {
      entry.value.assign(bytes, bytes + source.valueLen);
    }
    entries_.push_back(std::move(entry));
  }
  return CKR_OK;
}

CK_RV Template::CheckLengths() const {
  const bool right = std::all_of(entries_.begin(), entries_.end(), [](const Entry& entry) {
    if (HoldsFlag(entry.type)) return entry.value.size() == sizeof(CK_BBOOL);
    // The one list of numbers may have any length.
    if (HoldsNumbers(entry.type) && entry.type != CKA_ALLOWED_MECHANISMS) return entry.value.size() == sizeof(CK_ULONG);
    return true;
  });
  return right ? CKR_OK : CKR_ATTRIBUTE_VALUE_INVALID;
}

bool Template::Contains(CK_ATTRIBUTE_TYPE type) const {
  return std::any_of(entries_.begin(), entries_.end(), [type](const Entry& entry) { return entry.type == type; });
}

CK_ULONG Template::Number(CK_ATTRIBUTE_TYPE type) const {
  for (const auto& entry : entries_) {
    if (entry.type == type && entry.value.size() == sizeof(CK_ULONG)) return win::Load<CK_ULONG>(entry.value.data());
  }
  return CK_UNAVAILABLE_INFORMATION;
}

void Template::Drop(CK_ATTRIBUTE_TYPE type) {
  std::erase_if(entries_, [type](const Entry& entry) { return entry.type == type; });
}

void Template::AddNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
  entries_.push_back({type, std::vector<std::uint8_t>(bytes, bytes + sizeof(value)), true});
}

void Template::AddFlag(CK_ATTRIBUTE_TYPE type, bool value) {
  entries_.push_back({type, {static_cast<std::uint8_t>(value ? CK_TRUE : CK_FALSE)}, true});
}

void Template::AdaptForCreation() {
  const CK_ULONG objectClass = Number(CKA_CLASS);
  if (objectClass == CKO_PUBLIC_KEY || objectClass == CKO_CERTIFICATE) Drop(CKA_EXTRACTABLE);
  if (objectClass == CKO_CERTIFICATE) {
    Drop(CKA_OBJECT_ID);  // belongs to data objects
    if (!Contains(CKA_CERTIFICATE_TYPE)) AddNumber(CKA_CERTIFICATE_TYPE, CKC_X_509);
  }
  if (objectClass == CKO_PUBLIC_KEY) {
    Drop(CKA_MODULUS_BITS);  // follows from the modulus
    if (!Contains(CKA_KEY_TYPE)) AddNumber(CKA_KEY_TYPE, CKK_RSA);
    for (auto& entry : entries_) {
      // An RSA exponent is odd: zero bytes behind it are room that its owner did not need.
      if (entry.type != CKA_PUBLIC_EXPONENT) continue;
      while (!entry.value.empty() && entry.value.back() == 0)
        entry.value.pop_back();
    }
  }
}

void Template::AdaptForGeneration(CK_OBJECT_CLASS objectClass) {
  Drop(CKA_LOCAL);  // the token's to set
  if (objectClass == CKO_PUBLIC_KEY) {
    Drop(CKA_MODULUS);  // the result of the generation
    // SoftHSM's own default hides public keys from everybody who is not logged in.
    if (!Contains(CKA_PRIVATE)) AddFlag(CKA_PRIVATE, false);
  }
}

std::vector<CK_ATTRIBUTE> Template::Native() {
  std::vector<CK_ATTRIBUTE> native;
  native.reserve(entries_.size());
  for (auto& entry : entries_) {
    native.push_back({entry.type, entry.hasValue ? entry.value.data() : nullptr, entry.value.size()});
    // An empty vector has no address, but an empty value is not a missing one.
    if (entry.hasValue && entry.value.empty()) native.back().pValue = &entry;
  }
  return native;
}

AttributeRead::AttributeRead(win::Attribute* attributes, win::Ulong count) : attributes_(attributes) {
  native_.reserve(count);
  numbers_.resize(count);
  for (win::Ulong i = 0; i < count; ++i) {
    const auto source = win::Load<win::Attribute>(&attributes[i]);
    CK_ATTRIBUTE target{source.type, source.value, source.valueLen};
    if (source.value != nullptr && HoldsNumbers(source.type)) {
      const auto room = source.valueLen / sizeof(win::Ulong);
      numbers_[i].resize(std::max<std::size_t>(room, 1));
      target.pValue = numbers_[i].data();
      target.ulValueLen = room * sizeof(CK_ULONG);
    }
    native_.push_back(target);
  }
}

bool AttributeRead::Lacks(CK_ATTRIBUTE_TYPE type) const {
  return std::any_of(native_.begin(), native_.end(), [type](const CK_ATTRIBUTE& attribute) {
    return attribute.type == type && attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION;
  });
}

CK_RV AttributeRead::Supply(CK_ATTRIBUTE_TYPE type, CK_ULONG number) {
  CK_RV result = CKR_OK;
  for (std::size_t i = 0; i < native_.size(); ++i) {
    auto& attribute = native_[i];
    if (attribute.ulValueLen != CK_UNAVAILABLE_INFORMATION) continue;
    if (attribute.type != type) {
      result = CKR_ATTRIBUTE_TYPE_INVALID;
    } else if (attribute.pValue == nullptr) {
      attribute.ulValueLen = sizeof(number);
    } else if (win::Load<win::Attribute>(&attributes_[i]).valueLen < sizeof(win::Ulong)) {
      if (result == CKR_OK) result = CKR_BUFFER_TOO_SMALL;
    } else {
      numbers_[i].assign(1, number);
      attribute.ulValueLen = sizeof(number);
    }
  }
  return result;
}

void AttributeRead::HandOut() {
  for (std::size_t i = 0; i < native_.size(); ++i) {
    auto target = win::Load<win::Attribute>(&attributes_[i]);
    const auto length = native_[i].ulValueLen;
    if (length == CK_UNAVAILABLE_INFORMATION) {
      target.valueLen = win::kUnavailable;
    } else if (HoldsNumbers(native_[i].type)) {
      const auto count = length / sizeof(CK_ULONG);
      target.valueLen = static_cast<win::Ulong>(count * sizeof(win::Ulong));
      for (std::size_t n = 0; target.value != nullptr && n < count && n < numbers_[i].size(); ++n) {
        win::Store(static_cast<std::uint8_t*>(target.value) + n * sizeof(win::Ulong),
                   static_cast<win::Ulong>(numbers_[i][n]));
      }
    } else {
      target.valueLen = static_cast<win::Ulong>(length);
    }
    win::Store(&attributes_[i], target);
  }
}

CK_RV ToNative(const win::Mechanism* mechanism, CK_MECHANISM* native) {
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  const auto source = win::Load<win::Mechanism>(mechanism);
  if (source.parameterLen != 0) return CKR_MECHANISM_PARAM_INVALID;
  *native = {source.mechanism, nullptr, 0};
  return CKR_OK;
}

}  // namespace softtoken
