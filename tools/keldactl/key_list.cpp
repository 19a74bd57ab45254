#include "key_list.h"

#include "json.h"
#include "output.h"

#include <algorithm>
#include <map>

namespace keldactl {
namespace {

// The name for the table. Random bytes as a name tell nobody anything, so only their beginning is shown.
std::wstring Shown(const std::wstring& name) {
  constexpr size_t kMost = 36;
  if (name.empty()) return L"(no name)";
  std::wstring text = Printable(name);
  if (text != name && text.size() > kMost) {
    text.resize(kMost - 3);
    text += L"...";
  }
  return text;
}

bool IsNameless(const ListedKey& key) {
  return key.name.empty();
}

}  // namespace

void SayKeys(const std::vector<ListedKey>& keys) {
  std::vector<std::vector<std::wstring>> rows = {{L"NAME", L"HEX TEXT", L"ALGORITHM"}};
  for (const ListedKey& key : keys) {
    const std::wstring hex = HexText(key.name);
    rows.push_back({Shown(key.name), hex.empty() ? L"-" : hex, Printable(key.algorithm)});
  }
  SayTable(rows);
}

Json KeysInJson(const std::vector<ListedKey>& keys) {
  Json list = Json::array();
  for (const ListedKey& key : keys) {
    list.push_back({{"name", Utf8(key.name)}, {"hex", Utf8(HexText(key.name))}, {"algorithm", Utf8(key.algorithm)}});
  }
  return list;
}

std::wstring NamelessAdvice(const std::vector<ListedKey>& keys) {
  const auto first = std::find_if(keys.begin(), keys.end(), IsNameless);
  if (first == keys.end()) return {};
  const auto hidden = std::count_if(first, keys.end(), [](const ListedKey& key) { return !IsNameless(key); });
  return L"The token holds a key without a name (its identifier begins with the byte 00). It answers to every name "
         L"that "
         L"is looked for and hides the " +
         std::to_wstring(hidden) +
         L" named keys behind it in the list. \"keldactl show --nameless\" shows it; \"keldactl delete --nameless\" "
         L"removes it, and it can be created anew.";
}

void WarnOfNameless(const std::vector<ListedKey>& keys) {
  const std::wstring advice = NamelessAdvice(keys);
  if (!advice.empty()) Warn(advice);
}

std::vector<ListedKey> Newcomers(const std::vector<ListedKey>& before, const std::vector<ListedKey>& after) {
  std::map<std::wstring, int> known;
  for (const ListedKey& key : before)
    ++known[key.name];
  std::vector<ListedKey> fresh;
  for (const ListedKey& key : after) {
    if (known[key.name]-- <= 0) fresh.push_back(key);
  }
  return fresh;
}

std::optional<std::vector<ListedKey>> KeysBefore(const Provider& provider) {
  try {
    return provider.Keys();
  } catch (const Failure&) {
    if (provider.KeepsKeysOnToken()) throw;
    return std::nullopt;
  }
}

void SayNewcomers(const Provider& provider, const std::optional<std::vector<ListedKey>>& before,
                  const std::wstring& name, const std::wstring& done) {
  if (!before) {
    Say(done + L".");
    return;
  }
  const std::vector<ListedKey> after = provider.Keys();
  const std::vector<ListedKey> fresh = Newcomers(*before, after);
  const bool listed = std::any_of(after.begin(), after.end(), [&](const ListedKey& key) { return key.name == name; });
  const bool renamed = std::any_of(fresh.begin(), fresh.end(), [&](const ListedKey& key) { return key.name != name; });
  if (fresh.empty() && !listed) {
    throw Failure(L"The provider reported success, but its list of keys shows no new key");
  }
  Say(done + L".");
  if (renamed) {
    Say(L"From now on it is found under this name or hex text:");
    SayKeys(fresh);
  }
  for (const ListedKey& lost : Newcomers(after, *before))
    Say(L"The key " + TitleOf(lost.name) + L" is lost.");
  WarnOfNameless(after);
}

}  // namespace keldactl
