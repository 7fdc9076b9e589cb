#include <filesystem>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Clock.h"
#include "core/Folders.h"
#include "core/OrderedDict.h"

namespace tavrel {
namespace {

using Names = std::vector<std::string>;

// Binary compare: case matters. Text compare: a key keeps its first spelling; a copy owns its entries.
TEST(OrderedDict, KeepsInsertionOrderAndTheFirstOfEqualKeys) {
  OrderedDict<int> d;
  EXPECT_TRUE(d.Add("b", 1) && d.Add("a", 2) && !d.Add("a", 9) && d.Add("A", 3));
  EXPECT_EQ(*d.Find("a"), 2);
  EXPECT_TRUE(d.Remove("b") && !d.Remove("b"));
  d.Add("b", 4);
  EXPECT_EQ(d.Keys(), (Names{"a", "A", "b"}));
  OrderedDict<int> text(true);
  text.Add("PC1", 1);
  EXPECT_FALSE(text.Add("Pc1", 2));
  text["pC1"] = 5;
  OrderedDict<int> copy = text;
  copy["pc1"] = 7;
  EXPECT_EQ(text.Keys(), Names{"PC1"});
  EXPECT_EQ(*text.Find("pc1") * 10 + *copy.Find("PC1"), 57);
  EXPECT_TRUE(text.Remove("pc1") && text.Empty());
}

// The text forms are checked in pages, events and settings; here what they refuse and the minute count.
TEST(Clock, ParsingRefusesImpossibleTimesAndMinutesCountBoundariesCrossed) {
  DateTime back;
  ASSERT_TRUE(ParseDateTime("2026-11-22 09:05:07", back));
  EXPECT_EQ(back, MakeDateTime(2026, 11, 22, 9, 5, 7));
  for (const char* bad : {"2026-02-30 00:00:00", "2026-11-22 24:00:00", "2026-11-22T09:05:07", ""})
    EXPECT_FALSE(ParseDateTime(bad, back)) << bad;
  // Minutes count the calendar minute boundaries crossed.
  auto diff = [](int h, int m, int s, int day, int h2, int m2, int s2) {
    return DateDiffMinutes(MakeDateTime(2026, 1, 1, h, m, s), MakeDateTime(2026, 1, day, h2, m2, s2));
  };
  EXPECT_EQ(diff(10, 0, 59, 1, 10, 1, 0), 1);
  EXPECT_EQ(diff(10, 1, 0, 1, 10, 1, 59), 0);
  EXPECT_EQ(diff(23, 59, 0, 2, 0, 1, 0), 2);
  EXPECT_EQ(diff(10, 5, 0, 1, 10, 0, 30), -5);
}

TEST(Folders, ChainStopsBeforeTheFileNameAndMissingFoldersAreCreated) {
  EXPECT_EQ(FolderChain("C:\\A\\B\\file.ini"), (Names{"C:\\A", "C:\\A\\B"}));
  EXPECT_EQ(FolderChain("\\\\server\\share\\x\\y\\f.txt"),
            (Names{"\\\\server\\share\\x", "\\\\server\\share\\x\\y"}));
  EXPECT_EQ(FolderChain("/home/u/Config/x"), (Names{"/home", "/home/u", "/home/u/Config"}));
  EXPECT_TRUE(FolderChain("file.ini").empty() && FolderChain("\\\\server\\share").empty());
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
  CreateHomeFolders(dir.Path() / "home", reporter);
  EXPECT_TRUE(std::filesystem::is_directory(dir.Path() / "home" / "Config") &&
              std::filesystem::is_directory(dir.Path() / "home" / "Data"));
}

}  // namespace
}  // namespace tavrel
