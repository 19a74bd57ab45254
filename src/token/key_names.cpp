#include "token/key_names.h"

#include <cstring>

#include "diag/debug_log.h"
#include "support/text.h"
#include "token/hex_name.h"
#include "token/name_buffer.h"

SECURITY_STATUS KeyNameFromAttributes(const unsigned char* id, DWORD cbId, const unsigned char* label, DWORD cbLabel,
                                      WideName& name) {
  if (id == nullptr) {
    g_KeyNameLog->WriteLine("CKA_ID is not found. Checking label...");
    if (label == nullptr) {
      return g_KeyNameLog->Refuse(
          NTE_INVALID_PARAMETER,
          "NTE_INVALID_PARAMETER: CKA_ID and label is not provided. Impossible to create valid key name.");
    }
    name = WideName(std::size_t{cbLabel} + 1);
    g_KeyNameLog->WriteLine("Converting CKA_LABEL to widestring key name");
    WidenBytes(name.data(), label, cbLabel);
  } else if (cbId == 0) {
    return g_KeyNameLog->Refuse(NTE_INVALID_PARAMETER,
                                "NTE_INVALID_PARAMETER: non-null CKA_ID with zero-length buffer was provided.");
  } else {
    name = WideName(std::size_t{cbId} + 1);
    g_KeyNameLog->WriteLine("Converting CKA_ID to key name...");
    g_KeyNameLog->WriteBytes("CKA_ID: ", id, cbId);
    WidenBytes(name.data(), id, cbId);
    g_KeyNameLog->WriteWide("KeyName: ", name.data());
  }
  g_KeyNameLog->WriteLine("Done");
  return ERROR_SUCCESS;
}

const wchar_t* HexNameForm::Get() {
  if (converted_.empty()) {
    const std::size_t length = WideLength(text_);
    converted_ = WideName(length / 2 + 1);
    valid_ = ParseHexName(text_, length, converted_.data());
  }
  if (!valid_) SetLastError(static_cast<DWORD>(NTE_INVALID_PARAMETER));
  return converted_.data();
}

bool KeyNameMatches(const wchar_t* searched, const wchar_t* stored) noexcept {
  return WideEqualIgnoringCase(searched, stored, WideLength(stored));
}

SECURITY_STATUS ReadKeyNameFromParams(const NCryptBufferDesc* parameters, WideName& name) {
  if (parameters == nullptr || parameters->pBuffers == nullptr) return ERROR_SUCCESS;
  for (ULONG i = 0; i < parameters->cBuffers; ++i) {
    const NCryptBuffer& buffer = parameters->pBuffers[i];
    if (buffer.BufferType != NCRYPTBUFFER_PKCS_KEY_NAME || buffer.pvBuffer == nullptr || buffer.cbBuffer < 2) continue;
    const auto* bytes = static_cast<const unsigned char*>(buffer.pvBuffer);
    std::size_t cbName = 0;
    if (!MeasureName(bytes, buffer.cbBuffer, cbName)) return NTE_INVALID_PARAMETER;
    // Room for an odd last byte and for the terminator.
    name = WideName(cbName / sizeof(wchar_t) + 2);
    std::memcpy(name.data(), bytes, cbName);
  }
  return ERROR_SUCCESS;
}
