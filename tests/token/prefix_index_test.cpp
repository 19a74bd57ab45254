#include "token/prefix_index.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using List = std::vector<std::string>;

PrefixIndex::Bytes StringAt(const void* list, std::size_t position) {
  const std::string& text = (*static_cast<const List*>(list))[position];
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// What the index is held against: the first string that the buffer begins with.
std::size_t Walk(const List& list, const unsigned char* buffer) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (std::memcmp(list[i].data(), buffer, list[i].size()) == 0) return i;
  }
  return PrefixIndex::kNotFound;
}

class PrefixIndexTest : public ::testing::Test {
 protected:
  void Build(List list) {
    list_ = std::move(list);
    ASSERT_TRUE(index_.Reserve(list_.size()));
    for (std::size_t i = 0; i < list_.size(); ++i)
      index_.Add(StringAt(&list_, i), i);
  }
  std::size_t Find(const std::string& text) const {
    unsigned char buffer[PrefixIndex::kMaxLength] = {};
    std::memcpy(buffer, text.data(), text.size());
    return index_.FirstPrefixOf(buffer, &list_, &StringAt);
  }

  List list_;
  PrefixIndex index_;
};

TEST_F(PrefixIndexTest, IsUsableOnlyWithRoom) {
  EXPECT_FALSE(index_.usable());
  EXPECT_TRUE(index_.Reserve(0));
  EXPECT_TRUE(index_.usable());
  EXPECT_EQ(Find("anything"), PrefixIndex::kNotFound);
}

TEST_F(PrefixIndexTest, FindsAWholeStringAndABeginning) {
  Build({"Key1", "Other"});
  EXPECT_EQ(Find("Key1"), 0u);
  EXPECT_EQ(Find("Other than that"), 1u);
  EXPECT_EQ(Find("Key"), PrefixIndex::kNotFound);
  EXPECT_EQ(Find("key1"), PrefixIndex::kNotFound);
}

TEST_F(PrefixIndexTest, LowestPositionOfSeveralLengths) {
  Build({"Key12", "Key", "Key1"});
  EXPECT_EQ(Find("Key12"), 0u);
  EXPECT_EQ(Find("Key13"), 1u);
  Build({"K", "Key12"});
  EXPECT_EQ(Find("Key12"), 0u);
}

TEST_F(PrefixIndexTest, EqualStringsGiveTheFirst) {
  Build({"same", "same", "same"});
  EXPECT_EQ(Find("same"), 0u);
}

TEST_F(PrefixIndexTest, AnEmptyStringBeginsEverything) {
  Build({"Key", ""});
  EXPECT_EQ(Find("Key1"), 0u);
  EXPECT_EQ(Find("other"), 1u);
}

TEST_F(PrefixIndexTest, WholeLengthOfTheBuffer) {
  Build({std::string(200, 'i'), std::string(199, 'j')});
  EXPECT_EQ(Find(std::string(200, 'i')), 0u);
  EXPECT_EQ(Find(std::string(200, 'j')), 1u);
  EXPECT_EQ(Find(std::string(199, 'i')), PrefixIndex::kNotFound);
}

// Few different bytes and many lengths: most beginnings are strings of the list.
TEST_F(PrefixIndexTest, AgreesWithTheWalkOnRandomLists) {
  std::mt19937 random(20);
  const auto below = [&](std::size_t limit) { return random() % limit; };
  const auto text = [&] {
    std::string made(below(10) == 0 ? below(201) : 1 + below(12), '\0');
    for (char& character : made)
      character = static_cast<char>(below(3));
    return made;
  };
  for (int round = 0; round < 200; ++round) {
    List list(below(300));
    for (std::string& one : list)
      one = text();
    Build(list);
    for (int look = 0; look < 100; ++look) {
      unsigned char buffer[PrefixIndex::kMaxLength] = {};
      const std::string sought = below(2) != 0 || list.empty() ? text() : list[below(list.size())];
      std::memcpy(buffer, sought.data(), sought.size());
      ASSERT_EQ(index_.FirstPrefixOf(buffer, &list_, &StringAt), Walk(list_, buffer)) << "round " << round;
    }
  }
}

}  // namespace
