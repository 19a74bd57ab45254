#include "token/missing_functions.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "diag/debug_log.h"

namespace {

// A text as a template argument.
template <std::size_t N>
struct Name {
  constexpr Name(const char (&source)[N]) noexcept {  // NOLINT(google-explicit-constructor): written as a literal
    for (std::size_t i = 0; i < N; ++i)
      text[i] = source[i];
  }
  char text[N] = {};
};

CK_RV Refuse(const char* name) noexcept {
  char line[100];
  std::snprintf(line, sizeof(line), "CKR_FUNCTION_NOT_SUPPORTED: The PKCS#11 library has no %s", name);
  g_Log->WriteLine(line);
  return CKR_FUNCTION_NOT_SUPPORTED;
}

// Stands for an entry of its own type: called through another, it would be undefined what happens.
template <Name kName, class Function>
struct Missing;
template <Name kName, class... Arguments>
struct Missing<kName, CK_RV (*)(Arguments...)> {
  static CK_RV Call(Arguments...) noexcept { return Refuse(kName.text); }
};

using Entry = void (*)();

// Where an entry stands (the list has no padding, so that entries have any alignment), and what fills its gap.
struct Place {
  std::size_t offset;
  Entry missing;
};

#define KELDA_STANDARD(name) \
  { offsetof(CK_FUNCTION_LIST, name), reinterpret_cast<Entry>(&Missing<#name, decltype(CK_FUNCTION_LIST::name)>::Call) }

// Every standard entry that the provider uses.
const Place kPlaces[] = {
    KELDA_STANDARD(C_Initialize),
    KELDA_STANDARD(C_GetSlotList),
    KELDA_STANDARD(C_GetSlotInfo),
    KELDA_STANDARD(C_GetTokenInfo),
    KELDA_STANDARD(C_OpenSession),
    KELDA_STANDARD(C_CloseSession),
    KELDA_STANDARD(C_Logout),
    KELDA_STANDARD(C_CreateObject),
    KELDA_STANDARD(C_DestroyObject),
    KELDA_STANDARD(C_GetAttributeValue),
    KELDA_STANDARD(C_FindObjectsInit),
    KELDA_STANDARD(C_FindObjects),
    KELDA_STANDARD(C_FindObjectsFinal),
    KELDA_STANDARD(C_EncryptInit),
    KELDA_STANDARD(C_Encrypt),
    KELDA_STANDARD(C_DecryptInit),
    KELDA_STANDARD(C_Decrypt),
    KELDA_STANDARD(C_SignInit),
    KELDA_STANDARD(C_Sign),
    KELDA_STANDARD(C_VerifyInit),
    KELDA_STANDARD(C_Verify),
    KELDA_STANDARD(C_GenerateKeyPair),
    KELDA_STANDARD(C_GenerateRandom),
};

#undef KELDA_STANDARD

bool IsMissing(const CK_FUNCTION_LIST& list, const Place& place) noexcept {
  Entry entry = nullptr;
  std::memcpy(&entry, reinterpret_cast<const unsigned char*>(&list) + place.offset, sizeof(entry));
  return entry == nullptr;
}

}  // namespace

const VendorLogin kMissingLogin = &Missing<"login entry", VendorLogin>::Call;

bool HasMissingFunctions(const CK_FUNCTION_LIST& list) noexcept {
  for (const Place& place : kPlaces) {
    if (IsMissing(list, place)) return true;
  }
  return false;
}

CK_FUNCTION_LIST FillMissingFunctions(const CK_FUNCTION_LIST& list) noexcept {
  CK_FUNCTION_LIST filled = {};
  const auto* from = reinterpret_cast<const unsigned char*>(&list);
  auto* to = reinterpret_cast<unsigned char*>(&filled);
  for (const Place& place : kPlaces) {
    const void* entry = from + place.offset;
    if (IsMissing(list, place)) entry = &place.missing;
    std::memcpy(to + place.offset, entry, sizeof(Entry));
  }
  return filled;
}
