// The base of the tests of the two entries around signatures: a provider, one key of 1024 bits, and the lines of a
// login with a cached PIN.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kit/bytes.h"
#include "kit/digest_info.h"
#include "kit/key_entry.h"

inline constexpr char kNoPss[] = "NTE_NOT_SUPPORTED: PSS padding scheme is currently not supported.";

class SigningTest : public OpenedKeyTest<1024> {
 protected:
  void CachePin() { kit::ProviderTest::CachePin(provider_, key_); }

  SECURITY_STATUS Sign(fake::Bytes hash, DWORD flags = 0) {
    hash_ = std::move(hash);
    length_ = 0xEEEEEEEE;
    signature_.assign(128, 0xEE);
    return ksp().SignHash(provider_, key_, nullptr, hash_.data(), static_cast<DWORD>(hash_.size()), signature_.data(),
                          static_cast<DWORD>(signature_.size()), &length_, flags);
  }
  struct Arguments {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    const void* padding = nullptr;
    const void* hash = nullptr;
    DWORD hashLength = 0;
    const void* signature = nullptr;
    DWORD signatureLength = 0;
    const void* result = nullptr;
    DWORD flags = 0;
  };
  std::string Serial() const {
    std::string serial = token().SlotAt(0).serial;
    serial.resize(16, ' ');
    return serial;
  }
  // What a login with a cached PIN writes.
  std::vector<kit::Line> CachedLogin(int entryInstance) const {
    const std::vector<kit::Line> lookup{kit::PinManager("PIN Manager - Retrieving PIN from PIN Cache"),
                                        kit::PinManager(kit::Dump("pbSerial: ", fake::Ascii(Serial()))),
                                        kit::Number("cbSerial: ", 16),
                                        kit::PinManager("PIN Manager - Iterating through PIN caches")};
    std::vector<kit::Line> lines{kit::Pin("Retrieving token info"), kit::Pin("Entering critical section"),
                                 kit::Pin("Checking PIN cache")};
    lines.insert(lines.end(), lookup.begin(), lookup.end());
    lines.push_back(kit::PinManager("PIN Manager - PIN buffer is NULL, returning PIN length"));
    lines.emplace_back(entryInstance, "Decrypt - Output buffer is NULL. Returning data length");
    lines.push_back(kit::Pin("Retrieving PIN from cache"));
    lines.insert(lines.end(), lookup.begin(), lookup.end());
    lines.emplace_back(entryInstance, "Decrypt - Output buffer is NULL. Returning data length");
    for (const char* text : {"Initiating cleanup routine - Login", "Deleting Login Dialog",
                             "Securely clearing PIN buffer", "Pin buffer cleared", "Cleanup routine success - Login"}) {
      lines.push_back(kit::Pin(text));
    }
    return lines;
  }
  // The instance of the newest PIN cache entry: it is the one that speaks in the lines of a cached login.
  static int EntryInstance(const std::vector<kit::Line>& lines) {
    for (const kit::Line& line : lines) {
      if (line.text == "Decrypt - Output buffer is NULL. Returning data length") return line.instance;
    }
    return kit::kNoInstance;
  }

  fake::Bytes hash_;
  fake::Bytes signature_;
  DWORD length_ = 0;
};
