// What a mistyped word may have been meant to be. Pure logic.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace keldactl {

// How many characters have to be inserted, dropped, replaced or swapped with their neighbour.
inline size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<size_t>> table(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        table[i][j] = i + j;
        continue;
      }
      const size_t replaced = table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      table[i][j] = std::min({replaced, table[i - 1][j] + 1, table[i][j - 1] + 1});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
    }
  }
  return table[a.size()][b.size()];
}

// The known word that is nearest, or an empty text when none is near: two mistakes at most, and fewer than half of the
// word's characters.
inline std::string Nearest(std::string_view word, const std::vector<std::string>& known) {
  std::string nearest;
  size_t least = std::min<size_t>(2, word.size() / 2) + 1;
  for (const std::string& candidate : known) {
    const size_t distance = EditDistance(word, candidate);
    if (distance >= least) continue;
    least = distance;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace keldactl
