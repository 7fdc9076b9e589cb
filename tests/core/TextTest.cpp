#include <gtest/gtest.h>

#include "core/Text.h"

namespace tavrel {
namespace {

TEST(Text, CaseFoldingTouchesAsciiLettersOnly) {
  EXPECT_EQ(LCase("AbC-\xC4\xE4Z"), "abc-\xC4\xE4z");
  EXPECT_EQ(UCase("abc-\xE4z"), "ABC-\xE4Z");
  EXPECT_TRUE(EqualsNoCase("Computer.Process", "COMPUTER.process"));
  EXPECT_FALSE(EqualsNoCase("\xC4", "\xE4"));
  EXPECT_LT(CompareNoCase("_a", "A"), 0);
  EXPECT_GT(CompareNoCase("b", "A"), 0);
  EXPECT_EQ(CompareNoCase("ab", "AB"), 0);
  EXPECT_LT(CompareNoCase("ab", "abc"), 0);
}

TEST(Text, TrimRemovesBlanksOnly) {
  EXPECT_EQ(Trim("  a b  "), "a b");
  EXPECT_EQ(Trim("\ta\r"), "\ta\r");
  EXPECT_EQ(Trim("   "), "");
  EXPECT_EQ(LTrim("  a "), "a ");
  EXPECT_EQ(RTrim("  a "), "  a");
}

TEST(Text, SplitKeepsEmptyPiecesAndGivesNothingForEmptyText) {
  EXPECT_TRUE(Split("", ",").empty());
  EXPECT_EQ(Split("a,,b", ","), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(Split("a,", ","), (std::vector<std::string>{"a", ""}));
  EXPECT_EQ(Split(std::string("k\x01v\0x", 5), std::string(1, '\0')),
            (std::vector<std::string>{"k\x01v", "x"}));
  EXPECT_EQ(Join({"a", "", "b"}, "~"), "a~~b");
}

TEST(Text, FindAndReplace) {
  EXPECT_EQ(FindNoCase("abc SOURCE=x", "source="), 4u);
  EXPECT_EQ(FindNoCase("abc", "abcd"), std::string::npos);
  EXPECT_EQ(ReplaceNoCase("Response.Write x; RESPONSE.WRITE y", "response.write", "fsg.Add"),
            "fsg.Add x; fsg.Add y");
  EXPECT_EQ(Replace("a-b-c", "-", ""), "abc");
  EXPECT_EQ(Before("a=b=c", "="), "a");
  EXPECT_EQ(After("a=b=c", "="), "b=c");
  EXPECT_EQ(After("abc", "="), "");
}

TEST(Text, ParseIntAcceptsOnlyWholeNumbersInRange) {
  long long v = 0;
  EXPECT_TRUE(ParseInt("3639", 1, 65535, v));
  EXPECT_EQ(v, 3639);
  EXPECT_FALSE(ParseInt("", 0, 9, v));
  EXPECT_FALSE(ParseInt("12x", 0, 100, v));
  EXPECT_FALSE(ParseInt("70000", 1, 65535, v));
  EXPECT_FALSE(ParseInt(" 1", 0, 9, v));
}

}  // namespace
}  // namespace tavrel
