#include <filesystem>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Clock.h"
#include "core/FastString.h"
#include "core/Folders.h"
#include "core/OrderedDict.h"

namespace tavrel {
namespace {

TEST(OrderedDict, KeepsInsertionOrderAndTheFirstOfEqualKeys) {
  OrderedDict<int> d;
  EXPECT_TRUE(d.Add("b", 1));
  EXPECT_TRUE(d.Add("a", 2));
  EXPECT_FALSE(d.Add("a", 9));
  EXPECT_TRUE(d.Add("A", 3));  // binary compare: case matters
  EXPECT_EQ(*d.Find("a"), 2);
  EXPECT_TRUE(d.Remove("b"));
  EXPECT_FALSE(d.Remove("b"));
  d.Add("b", 4);
  EXPECT_EQ(d.Keys(), (std::vector<std::string>{"a", "A", "b"}));
}

// With text compare the key keeps its first spelling; a copy compares alike but owns its entries.
TEST(OrderedDict, TextCompareIgnoresCaseAndCopiesAreIndependent) {
  OrderedDict<int> text(true);
  text.Add("PC1", 1);
  EXPECT_FALSE(text.Add("Pc1", 2));
  text["pC1"] = 5;
  OrderedDict<int> copy = text;
  copy["pc1"] = 7;
  EXPECT_EQ(text.Keys(), (std::vector<std::string>{"PC1"}));
  EXPECT_EQ(*text.Find("pc1"), 5);
  EXPECT_EQ(*copy.Find("PC1"), 7);
  EXPECT_TRUE(text.Remove("pc1"));
  EXPECT_TRUE(text.Empty());
}

TEST(FastString, GrowsByHundredPartsAndJoinsInOrder) {
  FastString s;
  std::string expected;
  for (int i = 0; i < 250; ++i) {
    s.Append(std::to_string(i));
    expected += std::to_string(i);
  }
  EXPECT_EQ(s.Capacity(), 300u);
  EXPECT_EQ(s.ToString(), expected);
  EXPECT_EQ(s.Length(), expected.size());
  s.Reset();
  EXPECT_EQ(s.Capacity(), 100u);
  s.Append(std::string("a\0b", 3));
  EXPECT_EQ(s.ToString(), std::string("a\0b", 3));
  EXPECT_EQ(s.Length(), 3u);
}

TEST(Clock, TextFormsAndMinuteDifferences) {
  DateTime t = MakeDateTime(2026, 11, 22, 9, 5, 7);
  EXPECT_EQ(FormatDateTime(t), "2026-11-22 09:05:07");
  EXPECT_EQ(FormatMediumDate(t), "22-Nov-26");
  EXPECT_EQ(FormatMediumDate(MakeDateTime(2001, 1, 3)), "03-Jan-01");
  DateTime back;
  ASSERT_TRUE(ParseDateTime("2026-11-22 09:05:07", back));
  EXPECT_EQ(back, t);
  for (const char* bad : {"2026-02-30 00:00:00", "2026-11-22 24:00:00", "2026-11-22T09:05:07", ""}) {
    EXPECT_FALSE(ParseDateTime(bad, back)) << bad;
  }
  // Minutes count the calendar minute boundaries crossed.
  EXPECT_EQ(DateDiffMinutes(MakeDateTime(2026, 1, 1, 10, 0, 59), MakeDateTime(2026, 1, 1, 10, 1, 0)), 1);
  EXPECT_EQ(DateDiffMinutes(MakeDateTime(2026, 1, 1, 10, 1, 0), MakeDateTime(2026, 1, 1, 10, 1, 59)), 0);
  EXPECT_EQ(DateDiffMinutes(MakeDateTime(2026, 1, 1, 23, 59, 0), MakeDateTime(2026, 1, 2, 0, 1, 0)), 2);
  EXPECT_EQ(DateDiffMinutes(MakeDateTime(2026, 1, 1, 10, 5, 0), MakeDateTime(2026, 1, 1, 10, 0, 30)), -5);
}

TEST(Folders, ChainStopsBeforeTheFileNameAndMissingFoldersAreCreated) {
  EXPECT_EQ(FolderChain("C:\\A\\B\\file.ini"), (std::vector<std::string>{"C:\\A", "C:\\A\\B"}));
  EXPECT_EQ(FolderChain("\\\\server\\share\\x\\y\\f.txt"),
            (std::vector<std::string>{"\\\\server\\share\\x", "\\\\server\\share\\x\\y"}));
  EXPECT_EQ(FolderChain("/home/u/Config/x"),
            (std::vector<std::string>{"/home", "/home/u", "/home/u/Config"}));
  EXPECT_EQ(FolderChain("rel/dir/f"), (std::vector<std::string>{"rel", "rel/dir"}));
  EXPECT_TRUE(FolderChain("file.ini").empty());
  EXPECT_TRUE(FolderChain("\\\\server\\share").empty());

  test::TempDir dir;
  test::RecordingReporter reporter;
  CreateFolders((dir.Path() / "a" / "b" / "file.ini").string(), reporter);
  EXPECT_TRUE(std::filesystem::is_directory(dir.Path() / "a" / "b"));
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "a" / "b" / "file.ini"));

  test::WriteFile(dir.Path() / "plain", "x");
  CreateFolders((dir.Path() / "plain" / "sub" / "f").string(), reporter);
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].module + "|" + reporter.calls[0].text, "tavrel| CreateFolders ");
  EXPECT_TRUE(reporter.calls[0].err.IsSet());
}

}  // namespace
}  // namespace tavrel
