// Attribute templates and mechanisms between the Windows layout and the native one, and what SoftHSM wants different.
#pragma once

#include <p11-kit/pkcs11.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "softtoken/win_layout.h"

namespace softtoken {

// Does this attribute's value consist of CK_ULONG numbers (and so change its length between the layouts)?
bool HoldsNumbers(CK_ATTRIBUTE_TYPE type);
// Is this attribute's value one CK_BBOOL?
bool HoldsFlag(CK_ATTRIBUTE_TYPE type);

// A template of attribute values in the native layout, with its values.
class Template {
 public:
  // Copies a caller's template. CKR_ATTRIBUTE_VALUE_INVALID: a number of the wrong length, or no value behind a
  // length.
  CK_RV Assign(const win::Attribute* attributes, win::Ulong count);

  // CKR_ATTRIBUTE_VALUE_INVALID: a number or a flag that is not of its one length (4 or 1 bytes for the caller).
  CK_RV CheckLengths() const;

  // What the module behind keldapkcs11.dll accepts and SoftHSM refuses is dropped or completed here:
  // attributes that only the token may set or that do not belong to the class, and the types SoftHSM insists on.
  void AdaptForCreation();
  // objectClass: CKO_PUBLIC_KEY or CKO_PRIVATE_KEY.
  void AdaptForGeneration(CK_OBJECT_CLASS objectClass);

  // The template as SoftHSM takes it; valid until the template changes.
  std::vector<CK_ATTRIBUTE> Native();

  bool Contains(CK_ATTRIBUTE_TYPE type) const;
  // CK_UNAVAILABLE_INFORMATION if there is no such number.
  CK_ULONG Number(CK_ATTRIBUTE_TYPE type) const;

 private:
  struct Entry {
    CK_ATTRIBUTE_TYPE type = 0;
    std::vector<std::uint8_t> value;
    bool hasValue = false;  // false: a null pointer, with whatever length
  };

  void Drop(CK_ATTRIBUTE_TYPE type);
  void AddNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
  void AddFlag(CK_ATTRIBUTE_TYPE type, bool value);

  std::vector<Entry> entries_;
};

// A read of attributes (PKCS#11 v2.40 4.4.3, C_GetAttributeValue): native room for every value, and the way back.
class AttributeRead {
 public:
  AttributeRead(win::Attribute* attributes, win::Ulong count);
  std::vector<CK_ATTRIBUTE>& native() { return native_; }

  // Did the read leave this attribute unavailable?
  bool Lacks(CK_ATTRIBUTE_TYPE type) const;
  // Puts in a number that the read left unavailable. Returns what the read's result is with it: CKR_OK,
  // CKR_BUFFER_TOO_SMALL, or CKR_ATTRIBUTE_TYPE_INVALID while other attributes stay unavailable.
  CK_RV Supply(CK_ATTRIBUTE_TYPE type, CK_ULONG number);

  // Writes lengths and values to the caller. An unavailable length is 0xFFFFFFFF there.
  void HandOut();

 private:
  win::Attribute* attributes_;
  std::vector<CK_ATTRIBUTE> native_;
  std::vector<std::vector<CK_ULONG>> numbers_;  // room for numbers; empty for all other values
};

// A mechanism without a parameter. CKR_MECHANISM_PARAM_INVALID for one with a parameter.
CK_RV ToNative(const win::Mechanism* mechanism, CK_MECHANISM* native);

}  // namespace softtoken
