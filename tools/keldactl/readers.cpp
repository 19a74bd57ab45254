#include "readers.h"

#include "output.h"

#include <winscard.h>

#include <algorithm>

namespace keldactl {
namespace {

class CardContext {
 public:
  CardContext() {
    const LONG status = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context_);
    if (status != SCARD_S_SUCCESS) throw Failure(L"Asking the smart card service", status);
  }
  CardContext(const CardContext&) = delete;
  CardContext& operator=(const CardContext&) = delete;
  ~CardContext() { SCardReleaseContext(context_); }
  SCARDCONTEXT get() const { return context_; }

 private:
  SCARDCONTEXT context_ = 0;
};

std::vector<Reader> Names(const CardContext& context) {
  DWORD size = 0;
  LONG status = SCardListReadersW(context.get(), nullptr, nullptr, &size);
  std::wstring names;
  if (status == SCARD_S_SUCCESS) {
    names.resize(size);
    status = SCardListReadersW(context.get(), nullptr, names.data(), &size);
  }
  if (status == SCARD_E_NO_READERS_AVAILABLE) return {};
  if (status != SCARD_S_SUCCESS) throw Failure(L"Listing the readers", status);
  std::vector<Reader> readers;
  for (size_t at = 0; at < names.size() && names[at]; at += readers.back().name.size() + 1) {
    readers.push_back({names.c_str() + at});
  }
  return readers;
}

void AskForTokens(const CardContext& context, std::vector<Reader>& readers) {
  std::vector<SCARD_READERSTATEW> states(readers.size());
  for (size_t i = 0; i < readers.size(); ++i) {
    states[i].szReader = readers[i].name.c_str();
    states[i].dwCurrentState = SCARD_STATE_UNAWARE;
  }
  if (states.empty() ||
      SCardGetStatusChangeW(context.get(), 0, states.data(), static_cast<DWORD>(states.size())) != SCARD_S_SUCCESS) {
    return;
  }
  for (size_t i = 0; i < readers.size(); ++i)
    readers[i].has_token = (states[i].dwEventState & SCARD_STATE_PRESENT) != 0;
}

std::wstring Listed(const std::vector<Reader>& readers) {
  std::wstring text;
  for (const Reader& reader : readers)
    text += (text.empty() ? L"" : L", ") + Quoted(reader.name);
  return text.empty() ? L"none" : text;
}

// The readers, or none when the service does not answer.
std::vector<Reader> ReadersIfAny() {
  try {
    return ListReaders();
  } catch (const Failure&) {
    return {};
  }
}

// A provider that works with one reader tells it by how it takes key names that are qualified by a reader: it cuts off
// everything up to its own reader's name and one character more, wherever that name stands, and takes other names
// whole. From which of a few names it finds a known key, the reader's name follows exactly.
//
// kMark is a character that neither a reader's name nor a token key's name can hold, and no hexadecimal digit: a text
// that begins with it finds no key. Two marks behind a key's name keep it from being read as a hex text and do not keep
// it from being found, as only the length of the stored name counts.
class ReaderProbe {
 public:
  explicit ReaderProbe(const Provider& provider) : provider_(provider) {
    for (const ListedKey& key : provider.Keys()) {
      if (key.name.empty() || key.name.find(kMark) != std::wstring::npos) continue;
      name_ = key.name;
      if (Finds(L"")) return;
    }
    name_.clear();
  }

  // Whether it can tell anything: not without keys, nor when a key without a name answers to everything.
  bool works() const { return !name_.empty(); }

  bool Is(const std::wstring& reader) const {
    // The provider knows the 32 characters of a slot's description, without the blanks that pad it.
    std::wstring name = reader.substr(0, 32);
    name.erase(name.find_last_not_of(L' ') + 1);
    if (name.empty() || name.find(kMark) != std::wstring::npos) return false;
    const std::wstring begun = kMark + name;
    // The provider's reader ends where this one does, or the rest happens to find the key …
    if (!Finds(begun + kMark)) return false;
    // … which it then also does with one more character behind the reader …
    if (Finds(begun + kMark + kMark)) return false;
    // … and it is no shorter: without its first character this one is not found.
    return !Finds(std::wstring(2, kMark[0]) + name.substr(1) + kMark);
  }

 private:
  static constexpr const wchar_t* kMark = L"\uE000";

  bool Finds(const std::wstring& prefix) const {
    return provider_.NameFoundBy(prefix + name_ + kMark + kMark) == name_;
  }

  const Provider& provider_;
  std::wstring name_;
};

std::wstring HowToChoose(const std::vector<Reader>& readers) {
  return L"Readers with a token: " + ReadersWithToken(readers) +
         L". With several of them the provider asks which one to take (and with --silent takes the first): choose in "
         L"its "
         L"dialog, or draw the other tokens.";
}

[[noreturn]] void ThrowOtherReader(const Provider& provider, const std::wstring& wanted, const std::wstring& actual) {
  Failure failure(L"the provider " + Quoted(provider.name()) + L" works with the reader " + Quoted(actual) + L", not " +
                      Quoted(wanted),
                  ExitStatus::kNotFound);
  throw failure.Advise(HowToChoose(ReadersIfAny()));
}

}  // namespace

std::vector<Reader> ListReaders() {
  const CardContext context;
  std::vector<Reader> readers = Names(context);
  AskForTokens(context, readers);
  return readers;
}

std::wstring ReadersWithToken(const std::vector<Reader>& readers) {
  std::vector<Reader> holding;
  std::copy_if(readers.begin(), readers.end(), std::back_inserter(holding),
               [](const Reader& reader) { return reader.has_token; });
  return Listed(holding);
}

void RequireTokenIn(const std::wstring& reader) {
  const std::vector<Reader> readers = ReadersIfAny();
  if (readers.empty()) return;
  const auto found =
      std::find_if(readers.begin(), readers.end(), [&](const Reader& known) { return known.name == reader; });
  if (found == readers.end()) {
    throw Failure(L"there is no reader " + Quoted(reader), ExitStatus::kNotFound)
        .Advise(L"The readers: " + Listed(readers) + L".");
  }
  if (!found->has_token) {
    throw Failure(L"there is no token in the reader " + Quoted(reader), ExitStatus::kNotFound)
        .Advise(L"Readers with a token: " + ReadersWithToken(readers) + L".");
  }
}

void RequireReader(const Provider& provider, const std::wstring& reader) {
  if (const auto told = TextProperty(provider.handle(), NCRYPT_READER_PROPERTY)) {
    if (*told == reader) return;
    ThrowOtherReader(provider, reader, *told);
  }
  const ReaderProbe probe(provider);
  if (probe.works() && probe.Is(reader)) return;
  const std::vector<Reader> readers = ReadersIfAny();
  if (probe.works()) {
    for (const Reader& other : readers) {
      if (probe.Is(other.name)) ThrowOtherReader(provider, reader, other.name);
    }
    throw Failure(L"the provider " + Quoted(provider.name()) + L" works with another reader than " + Quoted(reader),
                  ExitStatus::kNotFound)
        .Advise(HowToChoose(readers));
  }
  // Nothing to probe with; when only one reader holds a token there is no other that it could be.
  const auto holding =
      std::count_if(readers.begin(), readers.end(), [](const Reader& known) { return known.has_token; });
  const bool holds = std::any_of(readers.begin(), readers.end(),
                                 [&](const Reader& known) { return known.has_token && known.name == reader; });
  if (holding == 1 && holds) return;
  throw Failure(L"whether the provider " + Quoted(provider.name()) + L" works with the reader " + Quoted(reader) +
                L" cannot be told: it does not say, and it has no key by whose name that could be found out")
      .Advise(L"Draw the other tokens. " + HowToChoose(readers));
}

}  // namespace keldactl
