// The record behind a provider handle.
#pragma once

#include <cstdint>

#include "support/windows.h"
#include "support/pkcs11.h"

struct KELDAKSP_KEY;

// Characters of a reader name, the terminator counted.
inline constexpr std::size_t kReaderNameSize = 33;

// Allocated with malloc by KELDAKSPOpenProvider; the provider handle is its address. Lives until FreeProvider.
struct KELDAKSP_PROVIDER {
  DWORD cbLength;              // bytes of the allocation: the record and the name with its terminator
  char signature[4];           // "KLDA"
  DWORD dwReserved1;           // 0
  wchar_t* pszName;            // owned: the name given to OpenProvider
  std::uint64_t qwReserved2;   // never set and never read
  wchar_t* pContext;           // owned: the "Use Context" text; null until it is set
  CK_SESSION_HANDLE hSession;  // the read/write session on the chosen slot
  KELDAKSP_KEY* pKeyObjects;   // owned (malloc): the key object list
  DWORD cKeyObjects;           // records in the list
  wchar_t* pPinCache;          // owned: the provider's cached PIN
  DWORD cchPinCache;           // characters in it
  std::uint64_t loginState;    // 0
  wchar_t* pszReader;          // owned: name of the chosen reader, kReaderNameSize characters allocated
  CK_SLOT_ID slotId;           // the chosen slot
  std::uint64_t hWnd;          // window that owns the PIN dialog; 0 for none
  CRITICAL_SECTION* pLock;     // allocated at creation, initialised when the open succeeds
};

inline constexpr char kProviderSignature[4] = {'K', 'L', 'D', 'A'};

// The record behind a provider handle, or null when the handle is null or names no provider record.
KELDAKSP_PROVIDER* ProviderFromHandle(NCRYPT_PROV_HANDLE hProvider) noexcept;

// The check that nearly every entry begins with: finds the record behind the handle, or logs that there is none. An
// entry that words it differently uses ProviderFromHandle.
bool CheckProvider(NCRYPT_PROV_HANDLE hProvider, KELDAKSP_PROVIDER*& provider) noexcept;

// Allocates and initialises a record for a provider of this name, of cbName bytes with its terminator. Null when there
// is no memory for the record itself; throws std::bad_alloc when there is none for what it owns.
KELDAKSP_PROVIDER* NewProviderRecord(const wchar_t* name, DWORD cbName);
