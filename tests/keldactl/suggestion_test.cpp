#include "keldactl/suggestion.h"

#include <gtest/gtest.h>

namespace {

using keldactl::EditDistance;
using keldactl::Nearest;

TEST(KeldactlSuggestion, DistanceCountsInsertedDroppedReplacedAndSwappedCharacters) {
  EXPECT_EQ(EditDistance("", ""), 0U);
  EXPECT_EQ(EditDistance("sign", "sign"), 0U);
  EXPECT_EQ(EditDistance("", "key"), 3U);
  EXPECT_EQ(EditDistance("sgn", "sign"), 1U);
  EXPECT_EQ(EditDistance("siign", "sign"), 1U);
  EXPECT_EQ(EditDistance("sing", "sign"), 1U) << "neighbours swapped";
  EXPECT_EQ(EditDistance("sin", "sign"), 1U);
  EXPECT_EQ(EditDistance("lsit", "list"), 1U);
  EXPECT_EQ(EditDistance("kitten", "sitting"), 3U);
}

TEST(KeldactlSuggestion, TheNearestWordIsSuggested) {
  EXPECT_EQ(Nearest("sing", {"keys", "sign", "show"}), "sign");
  EXPECT_EQ(Nearest("--slient", {"--key", "--silent"}), "--silent");
  EXPECT_EQ(Nearest("shwo", {"keys", "sign", "show"}), "show");
}

TEST(KeldactlSuggestion, NothingIsSuggestedWhenNothingIsNear) {
  EXPECT_EQ(Nearest("frobnicate", {"keys", "sign"}), "");
  EXPECT_EQ(Nearest("kyeees", {"keys"}), "") << "three mistakes";
  EXPECT_EQ(Nearest("x", {"y"}), "") << "a word of one character may be anything";
  EXPECT_EQ(Nearest("", {"keys"}), "");
}

}  // namespace
