// Certificates of keys in the user's store: what the commands around keys and certificates do with it.
#pragma once

#include "certificate_store.h"
#include "cng.h"

#include <string>
#include <vector>

namespace keldactl {

// Puts the file's certificate (with an empty name, the one that the provider keeps beside the key) into the store, tied
// to the key, and says under which thumbprint signing tools find it. Throws Failure, also for a certificate that does
// not belong to the key.
void InstallCertificate(const Provider& provider, const Key& key, const std::wstring& file);

// Takes every certificate out of the store that points at the key and belongs to it. Throws Failure when there is none.
void UninstallCertificates(const Provider& provider, const Key& key);

// Certificates that a key leaves behind when it is deleted.
struct CertificatesOfKey {
  bool on_token = false;                   // by what the token module tells; of Norvale's provider only
  std::vector<StoredCertificate> stored;   // the store's entries that point at the key and belong to it
  std::vector<StoredCertificate> foreign;  // those that only point at it: another token may have a key of this name
  bool compared = false;                   // false: the key cannot be exported, and all of them count as foreign
};
CertificatesOfKey FindCertificatesOfKey(const Provider& provider, const Key& key);

// For a key that has just been deleted: says which of its certificates stay; with `remove`, takes those of the store
// away first that belonged to it.
void SayWhatStays(const CertificatesOfKey& certificates, const std::wstring& provider, bool remove);

}  // namespace keldactl
