#include "newcomers.h"

#include "output.h"

#include <algorithm>
#include <map>

namespace keldactl {
namespace {

// The name for the table. Random bytes as a name tell nobody anything, so only their beginning is shown.
std::wstring Shown(const std::wstring& name) {
  constexpr size_t kMost = 36;
  if (name.empty()) return L"(empty)";
  std::wstring text = Printable(name);
  if (text != name && text.size() > kMost) {
    text.resize(kMost - 3);
    text += L"...";
  }
  return text;
}

}  // namespace

void SayKeys(const std::vector<ListedKey>& keys) {
  std::vector<std::vector<std::wstring>> rows = {{L"NAME", L"HEX TEXT", L"ALGORITHM"}};
  for (const ListedKey& key : keys) {
    rows.push_back({Shown(key.name), HexText(key.name), key.algorithm});
  }
  SayTable(rows);
}

void SayNewcomers(const std::vector<ListedKey>& before, const std::vector<ListedKey>& after, const std::wstring& name,
                  const std::wstring& done) {
  std::map<std::wstring, int> known;
  for (const ListedKey& key : before)
    ++known[key.name];
  std::vector<ListedKey> fresh;
  for (const ListedKey& key : after) {
    if (known[key.name]-- <= 0) fresh.push_back(key);
  }
  const bool listed = std::any_of(after.begin(), after.end(), [&](const ListedKey& key) { return key.name == name; });
  const bool renamed = std::any_of(fresh.begin(), fresh.end(), [&](const ListedKey& key) { return key.name != name; });
  if (fresh.empty() && !listed) {
    throw Failure(L"The provider reported success, but its list of keys shows no new key");
  }
  Say(done + L".");
  if (!renamed) return;
  Say(L"From now on it is found under this name or hex text:");
  SayKeys(fresh);
}

}  // namespace keldactl
