// The PKCS#11 v2.40 types in the token module's layout, and the module's function list.
#pragma once

#include <p11-kit/pkcs11.h>

// The module's own login entry has the signature of C_Login. Beyond the CK_RV values of C_Login it returns 1 to 14 for
// a wrong PIN: the number of tries left.
using VendorLogin = CK_C_Login;

#pragma pack(push, 1)
// The module's function list is longer than the standard one: behind C_WaitForSlotEvent (position 67 when C_Initialize
// is counted as 0) follow the maker's own entries, of which only the login at position 74 is known and used.
struct TokenFunctionList {
  CK_FUNCTION_LIST standard;
  void* reserved[6];
  VendorLogin login;
};
#pragma pack(pop)

#ifdef _WIN32
static_assert(sizeof(CK_ULONG) == 4, "the module's interface has 32-bit CK_ULONG in both widths");
static_assert(sizeof(CK_FUNCTION_LIST) == 2 + 68 * sizeof(void*), "1-byte packing, version first");
static_assert(sizeof(TokenFunctionList) == 2 + 75 * sizeof(void*), "the login entry stands at position 74");
static_assert(sizeof(CK_TOKEN_INFO) == 160);
#endif
