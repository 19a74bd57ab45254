// A token module whose function list has gaps.
#pragma once

#include "support/pkcs11.h"

// Whether an entry that the provider uses is missing (null).
bool HasMissingFunctions(const TokenFunctionList& list) noexcept;

// Puts a function into each such gap that answers CKR_FUNCTION_NOT_SUPPORTED and logs which entry it stands for.
void FillMissingFunctions(TokenFunctionList& list) noexcept;
