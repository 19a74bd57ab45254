// Certificates of keys in the user's store: what the commands around keys and certificates do with it.
#pragma once

#include "cng.h"

#include <string>
#include <vector>

namespace keldactl {

// Puts the file's certificate (with an empty name, the one that the provider keeps beside the key) into the store, tied
// to the key, and says under which thumbprint signing tools find it. Throws Failure, also for a certificate that does
// not belong to the key.
void InstallCertificate(const Provider& provider, const Key& key, const std::wstring& file);

// Takes every certificate out of the store that points at the key. Throws Failure when there is none.
void UninstallCertificates(const Provider& provider, const Key& key);

// Certificates that a key leaves behind when it is deleted.
struct CertificatesOfKey {
  bool on_token = false;             // by what the token module tells; of Norvale's provider only
  std::vector<std::wstring> stored;  // thumbprints of the store's entries that point at the key
};
CertificatesOfKey FindCertificatesOfKey(const std::wstring& provider, const std::wstring& key_name);

// For a key that has just been deleted: says which of its certificates stay; with `remove`, takes the store's entries
// away first.
void SayWhatStays(const CertificatesOfKey& certificates, const std::wstring& provider, bool remove);

}  // namespace keldactl
