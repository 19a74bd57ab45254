// What an RSAPair does with its keys, always by the token's CKM_RSA_PKCS mechanism (PKCS#11 v2.40, 2.1.6).
#pragma once

#include "support/windows.h"
#include "token/rsa_pair.h"

// Signs a hash of cbHash bytes, wrapped in the DigestInfo that its length stands for. *pcbSignature is the room in
// pbSignature on entry and the signature's length on return; a null pbSignature asks for the length. Returns 0,
// NTE_INVALID_PARAMETER, NTE_BUFFER_TOO_SMALL or NTE_INTERNAL_ERROR. Throws std::bad_alloc.
SECURITY_STATUS Sign(const RSAPair& pair, const unsigned char* pbHash, DWORD cbHash, unsigned char* pbSignature,
                     DWORD* pcbSignature);

// Verifies a signature over exactly the bytes given; nothing is wrapped. Returns 0, NTE_INVALID_PARAMETER,
// NTE_INTERNAL_ERROR or NTE_FAIL (a wrong signature included).
SECURITY_STATUS Verify(const RSAPair& pair, const unsigned char* pbHash, DWORD cbHash, const unsigned char* pbSignature,
                       DWORD cbSignature);

// *pcbOutput is the room in pbOutput on entry and the length on return; a null pbOutput asks for the length. Return 0,
// NTE_INVALID_PARAMETER, NTE_BUFFER_TOO_SMALL or NTE_INTERNAL_ERROR; decryption also NTE_PERM and NTE_INVALID_HANDLE.
SECURITY_STATUS Encrypt(const RSAPair& pair, const unsigned char* pbInput, DWORD cbInput, unsigned char* pbOutput,
                        DWORD* pcbOutput);
SECURITY_STATUS Decrypt(const RSAPair& pair, const unsigned char* pbInput, DWORD cbInput, unsigned char* pbOutput,
                        DWORD* pcbOutput);
