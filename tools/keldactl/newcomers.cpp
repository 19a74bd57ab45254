#include "newcomers.h"

#include "output.h"

#include <algorithm>
#include <map>

namespace keldactl {

void SayKeys(const std::vector<ListedKey>& keys) {
  std::vector<std::vector<std::wstring>> rows = {{L"NAME", L"HEX TEXT", L"ALGORITHM"}};
  for (const ListedKey& key : keys) {
    rows.push_back({key.name.empty() ? L"(empty)" : Printable(key.name), HexText(key.name), key.algorithm});
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
