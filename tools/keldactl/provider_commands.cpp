#include "cng.h"
#include "commands.h"
#include "output.h"
#include "property_table.h"
#include "readers.h"
#include "text_rules.h"
#include "status.h"

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
  return Wide(VersionText(version));
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

struct ShowProviderOptions {
  ProviderOptions provider;
  bool json = false;
};

void ShowProviderSyntax(Syntax& syntax, ShowProviderOptions& options) {
  AddProviderOptions(syntax, options.provider);
  syntax.Json(options.json);
}

struct Algorithm {
  std::wstring name;
  std::wstring operations;
};

// Nothing when the provider does not list them.
std::optional<std::vector<Algorithm>> Algorithms(const Provider& provider) {
  DWORD count = 0;
  NCryptAlgorithmName* list = nullptr;
  if (NCryptEnumAlgorithms(provider.handle(), 0, &count, &list, provider.flags()) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  std::vector<Algorithm> algorithms;
  for (DWORD i = 0; i < count; ++i) {
    algorithms.push_back({list[i].pszName ? list[i].pszName : L"", Operations(list[i].dwAlgOperations)});
  }
  NCryptFreeBuffer(list);
  return algorithms;
}

Json InJson(const std::vector<Algorithm>& algorithms) {
  Json list = Json::array();
  for (const Algorithm& algorithm : algorithms)
    list.push_back({{"name", Utf8(algorithm.name)}, {"operations_text", Utf8(algorithm.operations)}});
  return list;
}

ExitStatus ShowProvider(const ShowProviderOptions& options) {
  const Provider provider(options.provider);
  PropertyTable table(provider.handle());
  table.Text(L"Name", "name", NCRYPT_NAME_PROPERTY);
  table.Flags(L"Version", "version", NCRYPT_VERSION_PROPERTY, Version);
  table.Flags(L"Keys are kept", "implementation", NCRYPT_IMPL_TYPE_PROPERTY, ImplementationType);
  table.Number(L"Longest key name", "longest_key_name", NCRYPT_MAX_NAME_LENGTH_PROPERTY, Characters);
  table.Flags(L"Access rights", "security_descriptors", NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY, DescriptorSupport);
  table.Text(L"Context", "context", NCRYPT_USE_CONTEXT_PROPERTY);
  const std::optional<std::vector<Algorithm>> algorithms = Algorithms(provider);
  if (options.json) {
    Json json = table.InJson();
    json["algorithms"] = algorithms ? InJson(*algorithms) : Json();
    SayJson(json);
    return ExitStatus::kDone;
  }
  if (!algorithms) table.Line(L"Algorithms", "algorithms", L"- the provider does not list them", nullptr);
  SayTable(table.rows());
  if (!algorithms) return ExitStatus::kDone;
  Say(L"");
  std::vector<std::vector<std::wstring>> rows = {{L"ALGORITHM", L"FOR"}};
  for (const Algorithm& algorithm : *algorithms)
    rows.push_back({Printable(algorithm.name), algorithm.operations});
  SayTable(rows);
  return ExitStatus::kDone;
}

struct ReadersOptions {
  std::optional<std::wstring> provider;
  bool json = false;
};

void ReadersSyntax(Syntax& syntax, ReadersOptions& options) {
  syntax.Text("--provider", options.provider, "NAME", "ask this key storage provider first");
  syntax.Json(options.json);
  syntax.Notes("By the smart card service (PC/SC); a provider that is named with --provider is asked first.");
}

// Only a provider that was named is asked: opening one may show a dialog, and the service knows all readers.
std::vector<Reader> Readers(const std::optional<std::wstring>& name) {
  if (!name) return ListReaders();
  ProviderOptions options;
  options.name = name;
  const Provider provider(options);
  if (const auto reader = TextProperty(provider.handle(), NCRYPT_READER_PROPERTY)) return {{*reader, true}};
  Warn(L"the provider does not tell its reader; these are the smart card service's");
  return ListReaders();
}

ExitStatus ShowReaders(const ReadersOptions& options) {
  const std::vector<Reader> readers = Readers(options.provider);
  if (options.json) {
    Json list = Json::array();
    for (const Reader& reader : readers)
      list.push_back({{"name", Utf8(reader.name)}, {"token", reader.has_token}});
    SayJson({{"readers", list}});
    return ExitStatus::kDone;
  }
  if (readers.empty()) {
    Say(L"There are no readers.");
    return ExitStatus::kDone;
  }
  std::vector<std::vector<std::wstring>> rows = {{L"READER", L"TOKEN"}};
  for (const Reader& reader : readers)
    rows.push_back({Printable(reader.name), reader.has_token ? L"yes" : L"no"});
  SayTable(rows);
  return ExitStatus::kDone;
}

}  // namespace

void AddProviderCommands(Program& program) {
  program.Add<ShowProviderOptions>(Heading::kSystem, "provider", "Show everything that the provider tells about itself",
                                   ShowProviderSyntax, ShowProvider);
  program.Add<ReadersOptions>(Heading::kSystem, "readers", "List the readers", ReadersSyntax, ShowReaders);
}

}  // namespace keldactl
