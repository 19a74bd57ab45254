#include "cng.h"
#include "commands.h"
#include "output.h"
#include "property_table.h"
#include "status.h"

#include <winscard.h>

namespace keldactl {
namespace {

std::wstring ImplementationType(DWORD type) {
  return FlagsInWords(type,
                      {{NCRYPT_IMPL_HARDWARE_FLAG, L"in hardware"},
                       {NCRYPT_IMPL_SOFTWARE_FLAG, L"in software"},
                       {NCRYPT_IMPL_REMOVABLE_FLAG, L"removable"},
                       {NCRYPT_IMPL_HARDWARE_RNG_FLAG, L"random numbers from hardware"}},
                      L"nothing said");
}

std::wstring Version(DWORD version) {
  return std::to_wstring(HIWORD(version)) + L"." + std::to_wstring(LOWORD(version)) + L" (" + Hex32(version) + L")";
}

std::wstring Characters(DWORD count) {
  return std::to_wstring(count) + L" characters";
}

std::wstring DescriptorSupport(DWORD support) {
  return support ? L"yes" : L"no";
}

std::wstring Operations(DWORD operations) {
  return FlagsInWords(operations,
                      {{NCRYPT_CIPHER_OPERATION, L"ciphers"},
                       {NCRYPT_HASH_OPERATION, L"hashes"},
                       {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, L"encryption"},
                       {NCRYPT_SECRET_AGREEMENT_OPERATION, L"secret agreement"},
                       {NCRYPT_SIGNATURE_OPERATION, L"signatures"}},
                      L"nothing");
}

int ShowProvider(const Arguments& arguments) {
  const Provider provider(arguments);
  PropertyTable table(provider.handle());
  table.Text(L"Name", NCRYPT_NAME_PROPERTY);
  table.Number(L"Version", NCRYPT_VERSION_PROPERTY, Version);
  table.Number(L"Keys are kept", NCRYPT_IMPL_TYPE_PROPERTY, ImplementationType);
  table.Number(L"Longest key name", NCRYPT_MAX_NAME_LENGTH_PROPERTY, Characters);
  table.Number(L"Access rights", NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY, DescriptorSupport);
  table.Text(L"Context", NCRYPT_USE_CONTEXT_PROPERTY);
  SayTable(table.rows());

  DWORD count = 0;
  NCryptAlgorithmName* list = nullptr;
  const SECURITY_STATUS status = NCryptEnumAlgorithms(provider.handle(), 0, &count, &list, provider.flags());
  if (status != ERROR_SUCCESS) {
    Say(L"Algorithms: - " + DescribeStatus(status));
    return kExitOk;
  }
  Say(L"");
  std::vector<std::vector<std::wstring>> rows = {{L"ALGORITHM", L"FOR"}};
  for (DWORD i = 0; i < count; ++i) {
    rows.push_back({list[i].pszName ? list[i].pszName : L"", Operations(list[i].dwAlgOperations)});
  }
  NCryptFreeBuffer(list);
  SayTable(rows);
  return kExitOk;
}

// The readers by PC/SC. No reader at all is not a failure here.
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

int ListReaders(const Arguments& arguments) {
  // Only a provider that was named is asked: opening one may show a dialog, and the service knows all readers.
  if (arguments.Has(L"--provider")) {
    const Provider provider(arguments);
    if (const std::optional<std::wstring> reader = TextProperty(provider.handle(), NCRYPT_READER_PROPERTY)) {
      Say(*reader);
      return kExitOk;
    }
    Complain(L"The provider does not tell its reader; these are the smart card service's:");
  }
  const std::vector<std::wstring> readers = ReadersByPcsc();
  for (const std::wstring& reader : readers)
    Say(Printable(reader));
  if (readers.empty()) Say(L"There are no readers.");
  return kExitOk;
}

}  // namespace

std::vector<Command> ProviderCommands() {
  return {
      {L"provider", L"", 0, 0, L"Show everything that the provider tells about itself", {}, L"", ShowProvider},
      {L"readers",
       L"",
       0,
       0,
       L"List the readers",
       {},
       L"By the smart card service (PC/SC); a provider that is named with --provider is asked first.",
       ListReaders},
  };
}

}  // namespace keldactl
