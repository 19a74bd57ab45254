#include "support/ck_rv_status.h"

#include <map>

#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t kFail = 0x80090020;

// The values of the return codes are those of PKCS#11 v2.40.
const std::map<std::uint32_t, std::uint32_t> kKnown{
    {0x000, 0},           // CKR_OK
    {0x001, 1223},        // CKR_CANCEL: ERROR_CANCELLED
    {0x002, 0x8009000E},  // CKR_HOST_MEMORY
    {0x003, 0x80090027},  // CKR_SLOT_ID_INVALID
    {0x006, 1627},        // CKR_FUNCTION_FAILED: ERROR_FUNCTION_FAILED
    {0x007, 160},         // CKR_ARGUMENTS_BAD: ERROR_BAD_ARGUMENTS
    {0x010, 0x80090010},  // CKR_ATTRIBUTE_READ_ONLY
    {0x011, 0x80090010},  // CKR_ATTRIBUTE_SENSITIVE
    {0x012, 0x80090027},  // CKR_ATTRIBUTE_TYPE_INVALID
    {0x013, 0x80090027},  // CKR_ATTRIBUTE_VALUE_INVALID
    {0x020, 0x80090027},  // CKR_DATA_INVALID
    {0x021, 0x80090027},  // CKR_DATA_LEN_RANGE
    {0x030, 0x8009002D},  // CKR_DEVICE_ERROR
    {0x031, 0x8009000E},  // CKR_DEVICE_MEMORY
    {0x054, 0x80090029},  // CKR_FUNCTION_NOT_SUPPORTED
    {0x060, 0x80090026},  // CKR_KEY_HANDLE_INVALID
    {0x070, 0x80090027},  // CKR_MECHANISM_INVALID
    {0x071, 0x80090027},  // CKR_MECHANISM_PARAM_INVALID
    {0x082, 0x80090026},  // CKR_OBJECT_HANDLE_INVALID
    {0x0A0, 1326},        // CKR_PIN_INCORRECT: ERROR_LOGON_FAILURE
    {0x0A1, 0x80090027},  // CKR_PIN_INVALID
    {0x0A2, 0x80090027},  // CKR_PIN_LEN_RANGE
    {0x0A4, 1331},        // CKR_PIN_LOCKED: ERROR_ACCOUNT_DISABLED
    {0x0B3, 0x80090026},  // CKR_SESSION_HANDLE_INVALID
    {0x0D0, 0x80090027},  // CKR_TEMPLATE_INCOMPLETE
    {0x0D1, 0x80090027},  // CKR_TEMPLATE_INCONSISTENT
    {0x101, 0x80090010},  // CKR_USER_NOT_LOGGED_IN
};

std::uint32_t Expected(std::uint32_t ckRv) {
  const auto known = kKnown.find(ckRv);
  return known == kKnown.end() ? kFail : known->second;
}

TEST(CkRvStatus, EveryValueUpTo1FF) {
  for (std::uint32_t ckRv = 0; ckRv <= 0x1FF; ++ckRv)
    EXPECT_EQ(static_cast<std::uint32_t>(StatusFromCkRv(ckRv)), Expected(ckRv)) << std::hex << ckRv;
}

TEST(CkRvStatus, LargerValuesAreAFailure) {
  for (const std::uint32_t ckRv :
       {0x200u, 0x1000u, 0x10000u, 0x10001u, 0x1000000u, 0x80000000u, 0x800000A0u, 0x80090010u, 0xFFFFFFFFu}) {
    EXPECT_EQ(static_cast<std::uint32_t>(StatusFromCkRv(ckRv)), kFail) << std::hex << ckRv;
  }
}

}  // namespace
