#include "support/nt_status.h"

status::Code StatusFromNtStatus(std::int32_t ntStatus) noexcept {
  switch (static_cast<std::uint32_t>(ntStatus)) {
    case 0x00000000:
      return status::kSuccess;
    case 0xC00000BB:  // STATUS_NOT_SUPPORTED
      return status::kNotSupported;
    case 0xC0000008:  // STATUS_INVALID_HANDLE
      return status::kInvalidHandle;
    case 0xC000000D:  // STATUS_INVALID_PARAMETER
      return status::kInvalidParameter;
    case 0xC0000017:  // STATUS_NO_MEMORY
    case 0xC000009A:  // STATUS_INSUFFICIENT_RESOURCES
      return status::kNoMemory;
    case 0xC0000023:  // STATUS_BUFFER_TOO_SMALL
      return status::kBufferTooSmall;
    case 0xC00000E5:  // STATUS_INTERNAL_ERROR
      return status::kInternalError;
    case 0xC000A000:  // STATUS_INVALID_SIGNATURE
      return status::kBadSignature;
    default:
      return status::kInternalError;
  }
}
