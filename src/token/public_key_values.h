// What a public key object on the token consists of.
#pragma once

#include "support/windows.h"
#include "support/wipe.h"
#include "support/pkcs11.h"

struct PublicKeyValues {
  WipedBytes modulus;
  CK_ULONG modulusBits = 0;
  WipedBytes publicExponent;
};

// Reads CKA_MODULUS, CKA_MODULUS_BITS and CKA_PUBLIC_EXPONENT, first their lengths and then their values. Returns 0, or
// NTE_INTERNAL_ERROR (values is then unchanged).
SECURITY_STATUS ReadPublicKeyValues(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                    PublicKeyValues& values);
