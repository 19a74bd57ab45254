#include "keldactl/text_rules.h"

#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

namespace {

using Text = std::u16string;
using View = std::u16string_view;

Text Shown(View name) {
  return keldactl::PrintableText<char16_t>(name);
}

bool Names(View asked, View name) {
  return keldactl::NamesKey<char16_t>(asked, name);
}

TEST(KeldactlText, WhatPrintsStaysAsItIs) {
  EXPECT_EQ(Shown(u"Key1 Größe 文"), u"Key1 Größe 文");
  EXPECT_EQ(Shown(u"\U0001F511"), u"\U0001F511") << "a whole surrogate pair";
  EXPECT_EQ(Shown(u""), u"");
}

TEST(KeldactlText, WhatCouldSteerATerminalIsEscaped) {
  EXPECT_EQ(Shown(u"\x1b[31m"), u"\\x1B[31m");
  EXPECT_EQ(Shown(View(u"\0\r\n\t\x7f", 5)), u"\\x00\\x0D\\x0A\\x09\\x7F");
  EXPECT_EQ(Shown(u"\u0085\u009b\u00a0\u00ad"), u"\\x85\\x9B\\xA0\\xAD");
  EXPECT_EQ(Shown(u"a\u202eb\u2066c\u200b"), u"a\\u202Eb\\u2066c\\u200B") << "marks of direction and invisible ones";
  EXPECT_EQ(Shown(u"\ufeff\uffff"), u"\\uFEFF\\uFFFF");
}

TEST(KeldactlText, HalvesOfSurrogatePairsAreEscaped) {
  const Text lone = {u'a', char16_t{0xD83D}};
  const Text swapped = {char16_t{0xDD11}, char16_t{0xD83D}, u'b'};
  EXPECT_EQ(Shown(lone), u"a\\uD83D");
  EXPECT_EQ(Shown(swapped), u"\\uDD11\\uD83Db");
}

TEST(KeldactlText, HexTextHasTwoDigitsForEachCharacter) {
  EXPECT_EQ(keldactl::HexTextOf<char16_t>(u"Key1"), u"4B657931");
  EXPECT_EQ(keldactl::HexTextOf<char16_t>(u"\u0001\u00ff"), u"01FF");
  EXPECT_EQ(keldactl::HexTextOf<char16_t>(u"文"), u"") << "no such form";
  EXPECT_EQ(keldactl::HexTextOf<char16_t>(u""), u"");
}

TEST(KeldactlText, NamesAreComparedInFullAndFromAToZIgnoringCase) {
  EXPECT_TRUE(Names(u"Key1", u"Key1"));
  EXPECT_TRUE(Names(u"KEY1", u"key1"));
  EXPECT_FALSE(Names(u"Key1XYZ", u"Key1"));
  EXPECT_FALSE(Names(u"Key", u"Key1"));
  EXPECT_FALSE(Names(u"Ä", u"ä"));
  EXPECT_FALSE(Names(u"[", u"{")) << "not a letter";
  EXPECT_FALSE(Names(u"@", u"`"));
}

TEST(KeldactlText, HexTextsAreComparedInFullInEitherCase) {
  EXPECT_TRUE(Names(u"4B657931", u"Key1"));
  EXPECT_TRUE(Names(u"4b657931", u"Key1"));
  EXPECT_FALSE(Names(u"4B65793141", u"Key1"));
  EXPECT_FALSE(Names(u"4B6579", u"Key1"));
  EXPECT_FALSE(Names(u"4B65793", u"Key1"));
  EXPECT_FALSE(Names(u"6B657931", u"Key1")) << "the hex text of key1 is not that of Key1";
  EXPECT_TRUE(Names(u"4B657931", u"4B657931")) << "a name that looks like a hex text";
}

TEST(KeldactlText, AKeyWithoutANameIsNamedByNothingElse) {
  EXPECT_FALSE(Names(u"Key1", u""));
  EXPECT_FALSE(Names(u"00", u""));
}

TEST(KeldactlText, VersionsAreWrittenAsPeopleWriteThem) {
  EXPECT_EQ(keldactl::VersionText(0x00010000), "1.0");
  EXPECT_EQ(keldactl::VersionText(0x00020003), "2.3");
  EXPECT_EQ(keldactl::VersionText(0x01000100), "1.0.1");
  EXPECT_EQ(keldactl::VersionText(0x04020001), "4.2.0.1");
  EXPECT_EQ(keldactl::VersionText(0x04020000), "4.2");
}

TEST(KeldactlText, LinesForATerminalKeepTheirEndsOnly) {
  const auto lines = [](View text) { return keldactl::PrintableLines<char16_t>(text); };
  EXPECT_EQ(lines(u"one\r\ntwo\n"), u"one\ntwo\n");
  EXPECT_EQ(lines(u"\x1b[31mred\n\nrest\x07"), u"\\x1B[31mred\n\nrest\\x07");
  EXPECT_EQ(lines(u"back\rover\n"), u"back\\x0Dover\n");
  EXPECT_EQ(lines(u"\n"), u"\n");
  EXPECT_EQ(lines(u""), u"");
}

TEST(KeldactlText, AColumnEndsInABlank) {
  const auto column = [](Text text) { return keldactl::InColumn<char16_t>(std::move(text), 4); };
  EXPECT_EQ(column(u"ab"), u"ab  ");
  EXPECT_EQ(column(u"abc"), u"abc ");
  EXPECT_EQ(column(u"abcd"), u"abcd ");
  EXPECT_EQ(column(u"abcdef"), u"abcdef ");
}

TEST(KeldactlText, OneThingIsOne) {
  const auto counted = [](size_t count) { return keldactl::Counted<char16_t>(count, u"warning"); };
  EXPECT_EQ(counted(0), u"0 warnings");
  EXPECT_EQ(counted(1), u"1 warning");
  EXPECT_EQ(counted(2), u"2 warnings");
  EXPECT_EQ(counted(21), u"21 warnings");
}

TEST(KeldactlText, BytesHaveTwoDigitsEach) {
  const unsigned char bytes[] = {0x00, 0x1F, 0xA0, 0xFF};
  EXPECT_EQ(keldactl::HexOfBytes<char16_t>(bytes), u"001FA0FF");
}

}  // namespace
