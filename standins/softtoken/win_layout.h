// The PKCS#11 structures as Windows programs lay them out: CK_ULONG has 4 bytes, structures are packed to 1 byte.
// The native structures of this process (8 bytes, naturally aligned) are those of pkcs11.h.
#ifndef KELDA_STANDINS_SOFTTOKEN_WIN_LAYOUT_H_
#define KELDA_STANDINS_SOFTTOKEN_WIN_LAYOUT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

// Entry points are called by Windows code: its calling convention, whatever the compiler's own is.
#define KELDA_WINDOWS_CALL __attribute__((ms_abi))

namespace win {

using Ulong = std::uint32_t;
using Byte = std::uint8_t;

inline constexpr Ulong kUnavailable = 0xFFFFFFFF;  // CK_UNAVAILABLE_INFORMATION

#pragma pack(push, 1)

struct Version {
  Byte major;
  Byte minor;
};

struct Info {
  Version cryptoki_version;
  Byte manufacturer_id[32];
  Ulong flags;
  Byte library_description[32];
  Version library_version;
};

struct SlotInfo {
  Byte slot_description[64];
  Byte manufacturer_id[32];
  Ulong flags;
  Version hardware_version;
  Version firmware_version;
};

struct TokenInfo {
  Byte label[32];
  Byte manufacturer_id[32];
  Byte model[16];
  Byte serial_number[16];
  Ulong flags;
  Ulong max_session_count;
  Ulong session_count;
  Ulong max_rw_session_count;
  Ulong rw_session_count;
  Ulong max_pin_len;
  Ulong min_pin_len;
  Ulong total_public_memory;
  Ulong free_public_memory;
  Ulong total_private_memory;
  Ulong free_private_memory;
  Version hardware_version;
  Version firmware_version;
  Byte utc_time[16];
};

struct SessionInfo {
  Ulong slot_id;
  Ulong state;
  Ulong flags;
  Ulong device_error;
};

struct MechanismInfo {
  Ulong min_key_size;
  Ulong max_key_size;
  Ulong flags;
};

struct Attribute {
  Ulong type;
  void* value;
  Ulong value_len;
};

struct Mechanism {
  Ulong mechanism;
  void* parameter;
  Ulong parameter_len;
};

#pragma pack(pop)

static_assert(sizeof(Info) == 72);
static_assert(sizeof(SlotInfo) == 104);
static_assert(sizeof(TokenInfo) == 160);
static_assert(sizeof(SessionInfo) == 16);
static_assert(sizeof(Attribute) == 16);
static_assert(sizeof(Mechanism) == 16);

// Packed structures put numbers at odd addresses, so callers' pointers are only ever copied through.
template <typename Value>
Value Load(const void* source) {
  Value value;
  std::memcpy(&value, source, sizeof(value));
  return value;
}

template <typename Value>
void Store(void* target, const Value& value) {
  std::memcpy(target, &value, sizeof(value));
}

}  // namespace win

#endif  // KELDA_STANDINS_SOFTTOKEN_WIN_LAYOUT_H_
