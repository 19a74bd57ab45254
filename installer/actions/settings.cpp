#include "settings.h"

#include "client.h"
#include "registry.h"

#include <algorithm>
#include <cwchar>

namespace installer {
namespace {

REGSAM OwnView() {
  return Views().front().access;
}

std::wstring ChosenKeyOf(const View& view) {
  return std::wstring(kChosenKey) + L"\\" + view.name;
}

std::wstring Word(const ActionWords& words, const wchar_t* name) {
  const auto found = words.find(name);
  return found == words.end() ? std::wstring() : found->second;
}

bool IsOff(const std::wstring& word) {
  return CompareStringOrdinal(word.c_str(), -1, L"off", -1, TRUE) == CSTR_EQUAL;
}

void Remember(const View& view, const Value& value) {
  Write(Key::Create(ChosenKeyOf(view), OwnView()), value);
}

void Choose(const View& view, const Value& value) {
  Write(Key::Create(kSettingsKey, view.access), value);
  Remember(view, value);
}

// keldactl makes the file and lets users write to it.
bool ChooseLog(const Journal& journal, const std::wstring& client, const std::wstring& file) {
  if (!NeedClient(journal, client, IsOff(file) ? L"log off" : L"log on \"" + file + L"\"")) return false;
  for (const View& view : Views()) {
    const std::optional<Key> settings = Key::Open(kSettingsKey, view.access);
    for (const wchar_t* name : {L"KSPLOG", L"KSPDIR"}) {
      const std::optional<Value> value = settings ? FindValue(*settings, name) : std::nullopt;
      if (value) Remember(view, *value);
    }
  }
  return true;
}

}  // namespace

ActionWords ParseActionData(const std::wstring& data) {
  ActionWords words;
  for (std::size_t begin = 0; begin < data.size();) {
    const std::size_t end = std::min(data.find(L'|', begin), data.size());
    const std::size_t sign = data.find(L'=', begin);
    // The first of a name counts: what a caller's text brings along behind it changes nothing that was told before.
    if (sign < end) words.emplace(data.substr(begin, sign - begin), data.substr(sign + 1, end - sign - 1));
    begin = end + 1;
  }
  return words;
}

bool ApplyChosenSettings(const Journal& journal, const ActionWords& words) {
  const std::wstring pin_cache = Word(words, L"PINCACHE");
  const std::wstring provider_cache = Word(words, L"PROVIDERCACHE");
  const std::wstring length = Word(words, L"KEYLENGTH");
  const std::wstring log = Word(words, L"LOGFILE");
  for (const View& view : Views()) {
    // Eight zeros allow caching, any shorter text forbids it.
    if (!pin_cache.empty()) Choose(view, TextValue(L"PINCACHE", IsOff(pin_cache) ? L"1" : L"00000000"));
    if (!provider_cache.empty()) Choose(view, NumberValue(L"dwUseProviderCache", IsOff(provider_cache) ? 0 : 1));
  }
  if (!length.empty()) {
    Write(Key::Create(kProviderKey, 0), NumberValue(L"Default Key Length", std::wcstoul(length.c_str(), nullptr, 10)));
  }
  return log.empty() || ChooseLog(journal, Word(words, L"CLIENT"), log);
}

void RemoveChosenSettings(const Journal& journal) {
  for (const View& view : Views()) {
    const std::optional<Key> chosen = Key::Open(ChosenKeyOf(view), OwnView());
    const std::optional<Key> settings = Key::Open(kSettingsKey, view.access);
    if (!chosen || !settings) continue;
    for (const Value& value : ValuesOf(*chosen)) {
      if (FindValue(*settings, value.name) == value) {
        RegDeleteValueW(settings->Get(), value.name.c_str());
      } else {
        journal.Note(L"The setting " + value.name + L" for " + view.name + L" programs was changed since and stays.");
      }
    }
  }
  RemoveTree(kChosenKey, OwnView());
}

}  // namespace installer
