#include "support/ck_rv_status.h"

// The values are those of PKCS#11 v2.40, 2.1 (pkcs11t.h).
status::Code StatusFromCkRv(std::uint32_t ckRv) noexcept {
  switch (ckRv) {
    case 0x000:  // CKR_OK
      return status::kSuccess;
    case 0x001:  // CKR_CANCEL
      return status::kErrorCancelled;
    case 0x002:  // CKR_HOST_MEMORY
    case 0x031:  // CKR_DEVICE_MEMORY
      return status::kNoMemory;
    case 0x003:  // CKR_SLOT_ID_INVALID
    case 0x012:  // CKR_ATTRIBUTE_TYPE_INVALID
    case 0x013:  // CKR_ATTRIBUTE_VALUE_INVALID
    case 0x020:  // CKR_DATA_INVALID
    case 0x021:  // CKR_DATA_LEN_RANGE
    case 0x070:  // CKR_MECHANISM_INVALID
    case 0x071:  // CKR_MECHANISM_PARAM_INVALID
    case 0x0A1:  // CKR_PIN_INVALID
    case 0x0A2:  // CKR_PIN_LEN_RANGE
    case 0x0D0:  // CKR_TEMPLATE_INCOMPLETE
    case 0x0D1:  // CKR_TEMPLATE_INCONSISTENT
      return status::kInvalidParameter;
    case 0x006:  // CKR_FUNCTION_FAILED
      return status::kErrorFunctionFailed;
    case 0x007:  // CKR_ARGUMENTS_BAD
      return status::kErrorBadArguments;
    case 0x010:  // CKR_ATTRIBUTE_READ_ONLY
    case 0x011:  // CKR_ATTRIBUTE_SENSITIVE
    case 0x101:  // CKR_USER_NOT_LOGGED_IN
      return status::kPermission;
    case 0x030:  // CKR_DEVICE_ERROR
      return status::kInternalError;
    case 0x054:  // CKR_FUNCTION_NOT_SUPPORTED
      return status::kNotSupported;
    case 0x060:  // CKR_KEY_HANDLE_INVALID
    case 0x082:  // CKR_OBJECT_HANDLE_INVALID
    case 0x0B3:  // CKR_SESSION_HANDLE_INVALID
      return status::kInvalidHandle;
    case 0x0A0:  // CKR_PIN_INCORRECT
      return status::kErrorLogonFailure;
    case 0x0A4:  // CKR_PIN_LOCKED
      return status::kErrorAccountDisabled;
    default:
      return status::kFail;
  }
}
