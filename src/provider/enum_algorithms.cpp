// KELDAKSPEnumAlgorithms: the one algorithm that the provider offers.
#include <cstring>
#include <new>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"

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

void LogOperations(DWORD dwAlgClass) noexcept {
  if (dwAlgClass == 0) g_Log->WriteLine("dwAlgClass is 0");
  for (const OperationLine& line : kOperationLines) {
    if ((dwAlgClass & line.bit) != 0) g_Log->WriteLine(line.text);
  }
}

// Null when there is no memory.
NCryptAlgorithmName* NewAlgorithmList() noexcept {
  auto* block = static_cast<unsigned char*>(::operator new(kAlgorithmListSize, std::nothrow));
  if (block == nullptr) return nullptr;
  std::memset(block, 0, kAlgorithmListSize);
  std::memcpy(block + kAlgorithmTextOffset, kRsa, sizeof(kRsa));
  auto* list = new (block) NCryptAlgorithmName();
  list->pszName = reinterpret_cast<LPWSTR>(block + kAlgorithmTextOffset);
  list->dwClass = NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE;
  list->dwAlgOperations = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;
  list->dwFlags = 0;
  return list;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgClass, DWORD* pdwAlgCount,
                                              NCryptAlgorithmName** ppAlgList, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPEnumAlgorithms - Entry", "KELDAKSPEnumAlgorithms - Exit: "};
  const EntryArgument arguments[] = {
      {"dwAlgClass  : ", dwAlgClass},
      {"pdwAlgCount : ", pdwAlgCount},
      {"ppAlgList   : ", ppAlgList},
      {"dwFlags     : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    g_Log->WriteLine("Validating Provider Handle...");
    if (ProviderFromHandle(hProvider) == nullptr) {
      return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL.");
    }
    if (pdwAlgCount == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pdwAlgCount is NULL.");
    }
    if (ppAlgList == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: ppAlgList is NULL.");
    }
    if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG or 0 is an acceptable value.");
    }
    LogOperations(dwAlgClass);
    if (dwAlgClass != 0 && (dwAlgClass & kAnsweredOperations) == 0) {
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: KELDA KSP currently supports RSA only.");
    }
    NCryptAlgorithmName* list = NewAlgorithmList();
    if (list == nullptr) {
      return g_Log->Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Unable to allocate enough memory for pbOutput.");
    }
    *pdwAlgCount = 1;
    *ppAlgList = list;
    return ERROR_SUCCESS;
  });
}
