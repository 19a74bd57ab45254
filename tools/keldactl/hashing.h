// Hashes through CNG, and the DigestInfo that PKCS#1 v1.5 signatures carry.
#pragma once

#include "cng.h"

#include <string>

namespace keldactl {

struct HashAlgorithm {
  const wchar_t* option;  // as --hash takes it
  const wchar_t* cng_id;
  const wchar_t* title;
  Bytes digest_info;  // what stands before the hash in a DigestInfo (RFC 8017, 9.2)
};

// By what --hash takes; nothing else may be asked for.
const HashAlgorithm& FindHash(const std::wstring& option);

Bytes HashOfFile(const HashAlgorithm& algorithm, const std::wstring& path);
Bytes HashOf(const HashAlgorithm& algorithm, const Bytes& data);

// --hash, for FindHash.
void AddHashOption(Syntax& syntax, std::wstring& option);
inline constexpr const wchar_t* kDefaultHash = L"sha256";

}  // namespace keldactl
