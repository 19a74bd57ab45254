#include "support/ck_rv_status.h"

#include "support/pkcs11.h"

status::Code StatusFromCkRv(std::uint32_t ckRv) noexcept {
  switch (ckRv) {
    case CKR_OK:
      return status::kSuccess;
    case CKR_CANCEL:
      return status::kErrorCancelled;
    case CKR_HOST_MEMORY:
    case CKR_DEVICE_MEMORY:
      return status::kNoMemory;
    case CKR_SLOT_ID_INVALID:
    case CKR_ATTRIBUTE_TYPE_INVALID:
    case CKR_ATTRIBUTE_VALUE_INVALID:
    case CKR_DATA_INVALID:
    case CKR_DATA_LEN_RANGE:
    case CKR_MECHANISM_INVALID:
    case CKR_MECHANISM_PARAM_INVALID:
    case CKR_PIN_INVALID:
    case CKR_PIN_LEN_RANGE:
    case CKR_TEMPLATE_INCOMPLETE:
    case CKR_TEMPLATE_INCONSISTENT:
      return status::kInvalidParameter;
    case CKR_FUNCTION_FAILED:
      return status::kErrorFunctionFailed;
    case CKR_ARGUMENTS_BAD:
      return status::kErrorBadArguments;
    case CKR_ATTRIBUTE_READ_ONLY:
    case CKR_ATTRIBUTE_SENSITIVE:
    case CKR_USER_NOT_LOGGED_IN:
      return status::kPermission;
    case CKR_DEVICE_ERROR:
      return status::kInternalError;
    case CKR_FUNCTION_NOT_SUPPORTED:
      return status::kNotSupported;
    case CKR_KEY_HANDLE_INVALID:
    case CKR_OBJECT_HANDLE_INVALID:
    case CKR_SESSION_HANDLE_INVALID:
      return status::kInvalidHandle;
    case CKR_PIN_INCORRECT:
      return status::kErrorLogonFailure;
    case CKR_PIN_LOCKED:
      return status::kErrorAccountDisabled;
    default:
      return status::kFail;
  }
}
