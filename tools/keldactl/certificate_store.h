// The user's certificate store (MY), and the entries in it that point at a provider's keys.
#pragma once

#include "encoding.h"

#include <optional>
#include <string>
#include <vector>

namespace keldactl {

// A certificate in the store and the key that it points at.
struct StoredCertificate {
  std::wstring thumbprint;  // SHA-1 in hexadecimal digits, as signing tools take it
  std::wstring subject;
  std::wstring issuer;
  std::wstring serial;     // in hexadecimal digits
  std::wstring not_after;  // "2026-11-21", UTC
  bool expired = false;
  std::wstring provider;
  std::wstring container;           // the key's name there
  std::optional<RsaPublicKey> key;  // nothing when it is no RSA key
};

// The entries that point at this provider. Throws Failure.
std::vector<StoredCertificate> StoredCertificates(const std::wstring& provider);

// Puts the certificate into the store, tied to the key. An entry that holds the same certificate is replaced as a
// whole, its pointer to a key included. Throws Failure.
StoredCertificate StoreCertificate(const Bytes& der, const std::wstring& provider, const std::wstring& container);

// Takes the entries with this thumbprint away that point at the provider; returns how many there were. Throws Failure.
size_t RemoveStoredCertificate(const std::wstring& thumbprint, const std::wstring& provider);

// Whether a container's name means this key: its name or hex text, behind a reader's name or not.
bool PointsAt(const std::wstring& container, const std::wstring& key_name);

}  // namespace keldactl
