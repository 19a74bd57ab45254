// KELDAKSPFreeBuffer: releases whatever the provider has handed out, from malloc or new. Both use one allocator.
#include <cstdlib>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"

SECURITY_STATUS WINAPI KELDAKSPFreeBuffer(PVOID pvInput) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeBuffer - Entry", "KELDAKSPFreeBuffer - Exit: "};
  const EntryArgument arguments[] = {{"pvInput: ", pvInput}};
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    std::free(pvInput);
    return ERROR_SUCCESS;
  });
}
