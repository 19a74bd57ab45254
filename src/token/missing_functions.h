// A token module whose function list has gaps.
#pragma once

#include "support/pkcs11.h"

// Whether a standard entry that the provider uses is missing (null). Nothing behind C_GenerateRandom is looked at.
bool HasMissingFunctions(const CK_FUNCTION_LIST& list) noexcept;

// A copy of the list with a function in each such gap that answers CKR_FUNCTION_NOT_SUPPORTED and logs which entry it
// stands for. Nothing is copied that the provider does not use.
CK_FUNCTION_LIST FillMissingFunctions(const CK_FUNCTION_LIST& list) noexcept;

// What stands for a missing login entry of the token maker.
extern const VendorLogin kMissingLogin;
