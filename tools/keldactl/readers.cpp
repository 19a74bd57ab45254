#include "readers.h"

#include "failure.h"
#include "platform.h"

#include <winscard.h>

namespace keldactl {

std::vector<std::wstring> ReadersByPcsc() {
  SCARDCONTEXT context = 0;
  LONG status = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
  if (status != SCARD_S_SUCCESS) throw Failure(L"Asking the smart card service", status);
  std::vector<std::wstring> readers;
  DWORD size = 0;
  status = SCardListReadersW(context, nullptr, nullptr, &size);
  std::wstring names;
  if (status == SCARD_S_SUCCESS) {
    names.resize(size);
    status = SCardListReadersW(context, nullptr, names.data(), &size);
  }
  SCardReleaseContext(context);
  if (status == SCARD_E_NO_READERS_AVAILABLE) return {};
  if (status != SCARD_S_SUCCESS) throw Failure(L"Listing the readers", status);
  for (size_t at = 0; at < names.size() && names[at]; at += readers.back().size() + 1) {
    readers.emplace_back(names.c_str() + at);
  }
  return readers;
}

}  // namespace keldactl
