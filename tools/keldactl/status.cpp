#include "status.h"

#include "platform.h"

#include <winscard.h>

#include <iterator>

namespace keldactl {
namespace {

struct Known {
  long status;
  const wchar_t* name;
  const wchar_t* meaning;
};

#define KELDACTL_STATUS(name, meaning) \
  { static_cast<long>(name), L## #name, L##meaning }

// The NTSTATUS values have no common header that goes well with windows.h.
constexpr long kStatusNotFound = static_cast<long>(0xC0000225UL);
constexpr long kStatusNotSupported = static_cast<long>(0xC00000BBUL);
constexpr long kStatusInvalidParameter = static_cast<long>(0xC000000DUL);
constexpr long kStatusInvalidSignature = static_cast<long>(0xC000A000UL);

const Known kStatuses[] = {
    KELDACTL_STATUS(NTE_BAD_UID, "the handle or buffer has been damaged"),
    KELDACTL_STATUS(NTE_BAD_HASH, "the hash is not valid"),
    KELDACTL_STATUS(NTE_BAD_KEY, "the key cannot be used for this"),
    KELDACTL_STATUS(NTE_BAD_LEN, "a length is not valid"),
    KELDACTL_STATUS(NTE_BAD_DATA, "the data is not valid or has the wrong length"),
    KELDACTL_STATUS(NTE_BAD_SIGNATURE, "the signature does not belong to this data and key"),
    KELDACTL_STATUS(NTE_BAD_VER, "the provider or data has an unknown version"),
    KELDACTL_STATUS(NTE_BAD_ALGID, "the algorithm is not known to the provider"),
    KELDACTL_STATUS(NTE_BAD_FLAGS, "the provider does not take one of the flags"),
    KELDACTL_STATUS(NTE_BAD_TYPE, "the provider does not know this type of data"),
    KELDACTL_STATUS(NTE_BAD_KEY_STATE,
                    "the key is not in the state that this needs (not finished, or finished already)"),
    KELDACTL_STATUS(NTE_BAD_HASH_STATE, "the hash is not in the state that this needs"),
    KELDACTL_STATUS(NTE_NO_KEY, "there is no such key"),
    KELDACTL_STATUS(NTE_NO_MEMORY, "there is not enough memory"),
    KELDACTL_STATUS(NTE_EXISTS, "it exists already"),
    KELDACTL_STATUS(NTE_PERM, "the key's usage or the rights of the user do not allow this"),
    KELDACTL_STATUS(NTE_NOT_FOUND, "it was not found"),
    KELDACTL_STATUS(NTE_DOUBLE_ENCRYPT, "the data is encrypted already"),
    KELDACTL_STATUS(NTE_BAD_PROVIDER, "the provider's name is not valid"),
    KELDACTL_STATUS(NTE_BAD_PROV_TYPE, "the provider's type is not valid"),
    KELDACTL_STATUS(NTE_BAD_PUBLIC_KEY, "the public key is not valid"),
    KELDACTL_STATUS(NTE_BAD_KEYSET, "the key does not exist"),
    KELDACTL_STATUS(NTE_PROV_TYPE_NOT_DEF, "no provider of this type is registered"),
    KELDACTL_STATUS(NTE_PROV_TYPE_ENTRY_BAD, "the provider's registration is damaged"),
    KELDACTL_STATUS(NTE_KEYSET_NOT_DEF, "no provider of this name is registered"),
    KELDACTL_STATUS(NTE_KEYSET_ENTRY_BAD, "the provider's registration is damaged"),
    KELDACTL_STATUS(NTE_SIGNATURE_FILE_BAD, "the provider's library is damaged"),
    KELDACTL_STATUS(
        NTE_PROVIDER_DLL_FAIL,
        "the provider's library could not be loaded; it, or a library that it needs, is missing or refused to "
        "start"),
    KELDACTL_STATUS(NTE_PROV_DLL_NOT_FOUND, "the provider's library was not found"),
    KELDACTL_STATUS(NTE_FAIL, "the operation failed in the provider"),
    KELDACTL_STATUS(NTE_SYS_ERR, "a system call failed in the provider"),
    KELDACTL_STATUS(NTE_SILENT_CONTEXT, "the provider would have to ask the user and was told not to"),
    KELDACTL_STATUS(NTE_TOKEN_KEYSET_STORAGE_FULL, "the token has no room left"),
    KELDACTL_STATUS(NTE_TEMPORARY_PROFILE, "keys cannot be kept in a temporary profile"),
    KELDACTL_STATUS(NTE_FIXEDPARAMETER, "the value cannot be changed"),
    KELDACTL_STATUS(NTE_INVALID_HANDLE, "the handle is not valid"),
    KELDACTL_STATUS(NTE_INVALID_PARAMETER, "the provider does not take one of the values"),
    KELDACTL_STATUS(NTE_BUFFER_TOO_SMALL, "the buffer is too small"),
    KELDACTL_STATUS(NTE_NOT_SUPPORTED, "the provider does not offer this"),
    KELDACTL_STATUS(NTE_NO_MORE_ITEMS, "there are no more"),
    KELDACTL_STATUS(NTE_BUFFERS_OVERLAP, "the buffers overlap"),
    KELDACTL_STATUS(NTE_DECRYPTION_FAILURE, "the data could not be decrypted"),
    KELDACTL_STATUS(NTE_INTERNAL_ERROR, "the provider or the token failed; the provider's log tells more"),
    KELDACTL_STATUS(NTE_UI_REQUIRED, "the user has to be asked for this"),
    KELDACTL_STATUS(NTE_DEVICE_NOT_READY, "the token is not ready"),
    KELDACTL_STATUS(NTE_DEVICE_NOT_FOUND, "the token was not found"),
    KELDACTL_STATUS(NTE_USER_CANCELLED, "the user cancelled"),
    KELDACTL_STATUS(SCARD_E_CANCELLED, "the request was cancelled"),
    KELDACTL_STATUS(SCARD_E_UNKNOWN_READER, "there is no reader of this name"),
    KELDACTL_STATUS(SCARD_E_NO_SMARTCARD, "there is no token in the reader"),
    KELDACTL_STATUS(SCARD_E_NO_SERVICE, "the smart card service is not running"),
    KELDACTL_STATUS(SCARD_E_SERVICE_STOPPED, "the smart card service has stopped"),
    KELDACTL_STATUS(SCARD_E_NO_READERS_AVAILABLE, "no reader is connected"),
    KELDACTL_STATUS(SCARD_F_INTERNAL_ERROR, "the smart card service failed"),
    KELDACTL_STATUS(SCARD_W_WRONG_CHV, "the PIN was wrong"),
    KELDACTL_STATUS(SCARD_W_CHV_BLOCKED, "the PIN is locked after too many wrong ones"),
    KELDACTL_STATUS(SCARD_W_REMOVED_CARD, "the token was removed"),
    KELDACTL_STATUS(SCARD_W_CANCELLED_BY_USER, "the user cancelled the dialog"),
    KELDACTL_STATUS(CRYPT_E_ASN1_BADTAG, "the data is not what it should be (wrong ASN.1 tag)"),
    KELDACTL_STATUS(CRYPT_E_ASN1_CORRUPT, "the data is damaged (ASN.1)"),
    KELDACTL_STATUS(CRYPT_E_INVALID_X500_STRING, "the subject is not a valid name such as \"CN=Jane Doe, O=Example\""),
    KELDACTL_STATUS(ERROR_CANCELLED, "the user cancelled"),
    KELDACTL_STATUS(ERROR_FILE_NOT_FOUND, "the file was not found"),
    KELDACTL_STATUS(ERROR_PATH_NOT_FOUND, "the folder was not found"),
    KELDACTL_STATUS(ERROR_ACCESS_DENIED, "access was denied"),
    KELDACTL_STATUS(E_INVALIDARG, "a value is not valid"),
    {kStatusNotFound, L"STATUS_NOT_FOUND", L"it was not found"},
    {kStatusNotSupported, L"STATUS_NOT_SUPPORTED", L"this system does not offer it"},
    {kStatusInvalidParameter, L"STATUS_INVALID_PARAMETER", L"a value is not valid"},
    {kStatusInvalidSignature, L"STATUS_INVALID_SIGNATURE", L"the signature does not belong to this data and key"},
};

#undef KELDACTL_STATUS

struct Ending {
  long status;
  ExitStatus exit_status;
};

const Ending kEndings[] = {
    {NTE_BAD_KEYSET, ExitStatus::kNotFound},
    {NTE_NO_KEY, ExitStatus::kNotFound},
    {NTE_NOT_FOUND, ExitStatus::kNotFound},
    {NTE_KEYSET_NOT_DEF, ExitStatus::kNotFound},
    {NTE_PROV_TYPE_NOT_DEF, ExitStatus::kNotFound},
    {NTE_PROV_DLL_NOT_FOUND, ExitStatus::kNotFound},
    {NTE_DEVICE_NOT_FOUND, ExitStatus::kNotFound},
    {SCARD_E_UNKNOWN_READER, ExitStatus::kNotFound},
    {SCARD_E_NO_SMARTCARD, ExitStatus::kNotFound},
    {SCARD_E_NO_READERS_AVAILABLE, ExitStatus::kNotFound},
    {CRYPT_E_NOT_FOUND, ExitStatus::kNotFound},
    {ERROR_FILE_NOT_FOUND, ExitStatus::kNotFound},
    {ERROR_PATH_NOT_FOUND, ExitStatus::kNotFound},
    {kStatusNotFound, ExitStatus::kNotFound},
    {NTE_USER_CANCELLED, ExitStatus::kCancelled},
    {SCARD_E_CANCELLED, ExitStatus::kCancelled},
    {SCARD_W_CANCELLED_BY_USER, ExitStatus::kCancelled},
    {ERROR_CANCELLED, ExitStatus::kCancelled},
    {NTE_PERM, ExitStatus::kAccessDenied},
    {SCARD_W_WRONG_CHV, ExitStatus::kAccessDenied},
    {SCARD_W_CHV_BLOCKED, ExitStatus::kAccessDenied},
    {ERROR_ACCESS_DENIED, ExitStatus::kAccessDenied},
    {ERROR_PRIVILEGE_NOT_HELD, ExitStatus::kAccessDenied},
    {NTE_BAD_SIGNATURE, ExitStatus::kWrongSignature},
    {kStatusInvalidSignature, ExitStatus::kWrongSignature},
};

struct Advice {
  long status;
  const wchar_t* text;
};

const Advice kAdvice[] = {
    {NTE_KEYSET_NOT_DEF, L"\"keldactl providers\" lists the providers of this machine."},
    {SCARD_E_NO_SMARTCARD, L"Put the token into the reader and try again."},
    {SCARD_E_NO_READERS_AVAILABLE, L"Connect the reader and try again."},
    {SCARD_E_NO_SERVICE, L"The service is called \"Smart Card\" (SCardSvr); it starts when a reader is connected."},
    {SCARD_W_WRONG_CHV, L"Mind the tries: a few wrong PINs in a row lock the token."},
    {SCARD_W_CHV_BLOCKED, L"The token's administrator can unlock it; further tries do not help."},
    {SCARD_W_REMOVED_CARD, L"Put the token back into the reader and try again."},
    {SCARD_W_CANCELLED_BY_USER,
     L"If the dialog said that the PIN is locked, the token's administrator can unlock it; further tries do not help. "
     L"A "
     L"dialog that comes up while another one is open is cancelled by itself."},
    {NTE_PERM, L"\"keldactl show\" tells what the key may be used for."},
};

// Windows' errors also come as an HRESULT of its own facility.
long WithoutFacility(long status) {
  const auto bits = static_cast<unsigned long>(status);
  return (bits & 0xFFFF0000UL) == 0x80070000UL ? static_cast<long>(bits & 0xFFFFUL) : status;
}

std::wstring SystemMessage(long status) {
  wchar_t text[512];
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                static_cast<DWORD>(status), 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.'))
    --length;
  return {text, length};
}

}  // namespace

ExitStatus ExitStatusOf(long status) {
  for (const Ending& ending : kEndings) {
    if (ending.status == WithoutFacility(status)) return ending.exit_status;
  }
  return ExitStatus::kFailed;
}

std::wstring AdviceOf(long status) {
  for (const Advice& advice : kAdvice) {
    if (advice.status == WithoutFacility(status)) return advice.text;
  }
  return {};
}

Failure::Failure(const std::wstring& operation, long status)
    : message_(operation + L" failed: " + DescribeStatus(status)),
      advice_(AdviceOf(status)),
      exit_status_(ExitStatusOf(status)),
      status_(status) {}

std::wstring Hex32(unsigned long value) {
  constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
  std::wstring text = L"0x";
  for (int shift = 28; shift >= 0; shift -= 4)
    text += kDigits[(value >> shift) & 0xF];
  return text;
}

std::wstring DescribeStatus(long status) {
  const std::wstring number = Hex32(static_cast<unsigned long>(status));
  for (const Known& known : kStatuses) {
    if (known.status == status) return std::wstring(known.name) + L" (" + number + L"): " + known.meaning;
  }
  const std::wstring message = SystemMessage(status);
  return message.empty() ? L"status " + number : L"status " + number + L": " + message;
}

}  // namespace keldactl
