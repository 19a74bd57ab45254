// The PKCS#11 structures as Windows programs lay them out: CK_ULONG has 4 bytes in both widths, structures are packed
// to 1 byte. The native structures of this process (CK_ULONG as wide as a pointer, naturally aligned) are those of
// pkcs11.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Entry points are called by Windows code: its calling convention, whatever the compiler's own is. 32-bit Windows code
// keeps the stack aligned to 4 bytes only, Linux code counts on 16.
#ifdef __x86_64__
#define KELDA_WINDOWS_CALL __attribute__((ms_abi))
#else
#define KELDA_WINDOWS_CALL __attribute__((cdecl, force_align_arg_pointer))
#endif

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
  Version cryptokiVersion;
  Byte manufacturerId[32];
  Ulong flags;
  Byte libraryDescription[32];
  Version libraryVersion;
};

struct SlotInfo {
  Byte slotDescription[64];
  Byte manufacturerId[32];
  Ulong flags;
  Version hardwareVersion;
  Version firmwareVersion;
};

struct TokenInfo {
  Byte label[32];
  Byte manufacturerId[32];
  Byte model[16];
  Byte serialNumber[16];
  Ulong flags;
  Ulong maxSessionCount;
  Ulong sessionCount;
  Ulong maxRwSessionCount;
  Ulong rwSessionCount;
  Ulong maxPinLen;
  Ulong minPinLen;
  Ulong totalPublicMemory;
  Ulong freePublicMemory;
  Ulong totalPrivateMemory;
  Ulong freePrivateMemory;
  Version hardwareVersion;
  Version firmwareVersion;
  Byte utcTime[16];
};

struct SessionInfo {
  Ulong slotId;
  Ulong state;
  Ulong flags;
  Ulong deviceError;
};

struct MechanismInfo {
  Ulong minKeySize;
  Ulong maxKeySize;
  Ulong flags;
};

struct Attribute {
  Ulong type;
  void* value;
  Ulong valueLen;
};

struct Mechanism {
  Ulong mechanism;
  void* parameter;
  Ulong parameterLen;
};

#pragma pack(pop)

static_assert(sizeof(Info) == 72);
static_assert(sizeof(SlotInfo) == 104);
static_assert(sizeof(TokenInfo) == 160);
static_assert(sizeof(SessionInfo) == 16);
static_assert(sizeof(Attribute) == 8 + sizeof(void*));
static_assert(sizeof(Mechanism) == 8 + sizeof(void*));

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
