// Holds the numbers of support/status_codes.h against the platform's headers.
#include "support/windows.h"
#include "support/status_codes.h"

static_assert(status::kBadSignature == NTE_BAD_SIGNATURE);
static_assert(status::kNoMemory == NTE_NO_MEMORY);
static_assert(status::kPermission == NTE_PERM);
static_assert(status::kFail == NTE_FAIL);
static_assert(status::kInvalidHandle == NTE_INVALID_HANDLE);
static_assert(status::kInvalidParameter == NTE_INVALID_PARAMETER);
static_assert(status::kBufferTooSmall == NTE_BUFFER_TOO_SMALL);
static_assert(status::kNotSupported == NTE_NOT_SUPPORTED);
static_assert(status::kInternalError == NTE_INTERNAL_ERROR);
static_assert(status::kErrorBadArguments == ERROR_BAD_ARGUMENTS);
static_assert(status::kErrorCancelled == ERROR_CANCELLED);
static_assert(status::kErrorLogonFailure == ERROR_LOGON_FAILURE);
static_assert(status::kErrorAccountDisabled == ERROR_ACCOUNT_DISABLED);
static_assert(status::kErrorFunctionFailed == ERROR_FUNCTION_FAILED);
