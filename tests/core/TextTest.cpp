#include <gtest/gtest.h>

#include "core/Text.h"

namespace tavrel {
namespace {

// Only ASCII letters fold, and comparison orders bytes after folding to lower case ("_" before "a").
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

TEST(Text, TrimTakesBlanksOnlyAndSplitKeepsEmptyPieces) {
  EXPECT_EQ(Trim("  a b  ") + "|" + LTrim("  a ") + "|" + RTrim("  a "), "a b|a |  a");
  EXPECT_EQ(Trim("\ta\r"), "\ta\r");
  EXPECT_EQ(Trim("   "), "");
  EXPECT_TRUE(Split("", ",").empty());
  EXPECT_EQ(Split(",a,,b,", ","), (std::vector<std::string>{"", "a", "", "b", ""}));
  EXPECT_EQ(Split(std::string("k\x01v\0x", 5), std::string(1, '\0')),
            (std::vector<std::string>{"k\x01v", "x"}));
  EXPECT_EQ(Join({"a", "", "b"}, "~"), "a~~b");
}

TEST(Text, FindReplaceAndParse) {
  EXPECT_EQ(FindNoCase("abc SOURCE=x", "source="), 4u);
  EXPECT_EQ(FindNoCase("abc", "abcd"), std::string::npos);
  EXPECT_EQ(ReplaceNoCase("Response.Write x; RESPONSE.WRITE y", "response.write", "fsg.Add"),
            "fsg.Add x; fsg.Add y");
  EXPECT_EQ(Replace("a-A-a", "a", ""), "-A-");
  EXPECT_EQ(std::string(Before("a=b=c", "=")) + "|" + std::string(After("a=b=c", "=")), "a|b=c");
  EXPECT_EQ(After("abc", "="), "");
  long long v = 0;
  EXPECT_TRUE(ParseInt("3639", 1, 65535, v));
  EXPECT_EQ(v, 3639);
  for (const char* bad : {"", "12x", " 1", "0", "70000"}) EXPECT_FALSE(ParseInt(bad, 1, 65535, v)) << bad;
}

}  // namespace
}  // namespace tavrel
