// The router's questions about algorithms, and the release of buffers.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "provider/record/provider_record.h"
#include "support/text.h"

namespace {

// One block: the structure in the first 24 bytes, whatever its size in this width, and "RSA" behind it, so that one
// FreeBuffer releases both.
constexpr std::size_t kAlgorithmTextOffset = 24;
constexpr wchar_t kRsa[] = L"RSA";
constexpr std::size_t kAlgorithmListSize = kAlgorithmTextOffset + sizeof(kRsa);
static_assert(kAlgorithmListSize == 32 && sizeof(NCryptAlgorithmName) <= kAlgorithmTextOffset);

struct OperationLine {
  DWORD bit;
  const char* text;
};

constexpr OperationLine kOperationLines[] = {
    {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, "dwAlgClass is NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION"},
    {NCRYPT_SIGNATURE_OPERATION, "dwAlgClass is NCRYPT_SIGNATURE_OPERATION"},
    {NCRYPT_HASH_OPERATION, "dwAlgClass is NCRYPT_HASH_OPERATION"},
    {NCRYPT_SECRET_AGREEMENT_OPERATION, "dwAlgClass is NCRYPT_SECRET_AGREEMENT_OPERATION"},
    {NCRYPT_CIPHER_OPERATION, "dwAlgClass is NCRYPT_CIPHER_OPERATION"},
    {NCRYPT_RNG_OPERATION, "dwAlgClass is NCRYPT_RNG_OPERATION"},
};

// Any of these gets the RSA entry; the answer does not filter by class. Kept on purpose.
constexpr DWORD kAnsweredOperations = NCRYPT_CIPHER_OPERATION | NCRYPT_HASH_OPERATION |
                                      NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SECRET_AGREEMENT_OPERATION |
                                      NCRYPT_SIGNATURE_OPERATION;

SECURITY_STATUS EnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgClass, DWORD* pdwAlgCount,
                               NCryptAlgorithmName** ppAlgList, DWORD dwFlags) noexcept {
  g_Log->WriteLine("Validating Provider Handle...");
  if (ProviderFromHandle(hProvider) == nullptr) {
    return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL.");
  }
  if (pdwAlgCount == nullptr) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pdwAlgCount is NULL.");
  }
  if (ppAlgList == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: ppAlgList is NULL.");
  if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG or 0 is an acceptable value.");
  }
  if (dwAlgClass == 0) g_Log->WriteLine("dwAlgClass is 0");
  for (const OperationLine& line : kOperationLines) {
    if ((dwAlgClass & line.bit) != 0) g_Log->WriteLine(line.text);
  }
  if (dwAlgClass != 0 && (dwAlgClass & kAnsweredOperations) == 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: KELDA KSP currently supports RSA only.");
  }
  auto* block = static_cast<unsigned char*>(::operator new(kAlgorithmListSize, std::nothrow));
  if (block == nullptr) {
    return g_Log->Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Unable to allocate enough memory for pbOutput.");
  }
  std::memset(block, 0, kAlgorithmListSize);
  std::memcpy(block + kAlgorithmTextOffset, kRsa, sizeof(kRsa));
  auto* list = new (block) NCryptAlgorithmName();
  list->pszName = reinterpret_cast<LPWSTR>(block + kAlgorithmTextOffset);
  list->dwClass = NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE;
  list->dwAlgOperations = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;
  list->dwFlags = 0;
  *pdwAlgCount = 1;
  *ppAlgList = list;
  return ERROR_SUCCESS;
}

// The test goes on to the next name only while the name equals the current one, so that no name passes all of them and
// every algorithm is answered as not supported. Kept on purpose; not a list lookup.
bool IsSupported(const wchar_t* name) noexcept {
  for (const wchar_t* supported : {L"RSA", L"RSA_SIGN", L"MD5", L"SHA1", L"SHA256", L"SHA384", L"SHA512"}) {
    if (!WideEqual(name, supported)) return false;
  }
  return true;
}

SECURITY_STATUS RefuseAlgorithm(const wchar_t* name) {
  constexpr std::size_t kLineLimit = 256;
  const std::size_t cchName = WideLength(name);
  const auto narrow = std::make_unique<char[]>(cchName + 1);
  NarrowText(narrow.get(), cchName + 1, name);
  const auto line = std::make_unique<char[]>(cchName + kLineLimit);
  const int length =
      std::snprintf(line.get(), kLineLimit, "NTE_NOT_SUPPORTED: %s is not a supported algorithm", narrow.get());
  if (length < 0 || static_cast<std::size_t>(length) >= kLineLimit) line[0] = '\0';  // a line too long is no line
  return g_Log->Refuse(NTE_NOT_SUPPORTED, line.get());
}

SECURITY_STATUS IsAlgSupported(NCRYPT_PROV_HANDLE hProvider, const wchar_t* pszAlgId, DWORD dwFlags) {
  if (ProviderFromHandle(hProvider) == nullptr) {
    return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL");
  }
  if (pszAlgId == nullptr) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszAlgId cannot be NULL");
  }
  if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is an acceptable flag");
  }
  return IsSupported(pszAlgId) ? ERROR_SUCCESS : RefuseAlgorithm(pszAlgId);
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgClass, DWORD* pdwAlgCount,
                                              NCryptAlgorithmName** ppAlgList, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPEnumAlgorithms - Entry", "KELDAKSPEnumAlgorithms - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("dwAlgClass  : ", dwAlgClass);
    frame.Argument("pdwAlgCount : ", pdwAlgCount);
    frame.Argument("ppAlgList   : ", ppAlgList);
    frame.Argument("dwFlags     : ", dwFlags);
    ClearProviderCache();
    return EnumAlgorithms(hProvider, dwAlgClass, pdwAlgCount, ppAlgList, dwFlags);
  });
}

SECURITY_STATUS WINAPI KELDAKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPIsAlgSupported - Entry", "KELDAKSPIsAlgSupported - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider : ", hProvider);
    frame.WideArgument("pszAlgId  : ", pszAlgId);
    frame.Argument("dwFlags   : ", dwFlags);
    ClearProviderCache();
    return IsAlgSupported(hProvider, pszAlgId, dwFlags);
  });
}

// Releases whatever the provider has handed out, from malloc or new: both use one allocator.
SECURITY_STATUS WINAPI KELDAKSPFreeBuffer(PVOID pvInput) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeBuffer - Entry", "KELDAKSPFreeBuffer - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("pvInput: ", pvInput);
    ClearProviderCache();
    std::free(pvInput);
    return ERROR_SUCCESS;
  });
}
