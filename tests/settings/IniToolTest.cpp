#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "platform/LineEnd.h"
#include "settings/IniTool.h"

namespace tavrel {
namespace {

using namespace std::string_literals;

using test::ReadFile;
using test::WriteFile;
using Names = std::vector<std::string>;

// The bytes of a file this program writes: every line followed by the platform's line end.
std::string Lines(std::initializer_list<std::string_view> lines) {
  std::string text;
  for (auto line : lines) {
    text += line;
    text += platform::kLineEnd;
  }
  return text;
}

class IniToolTest : public ::testing::Test {
 protected:
  std::filesystem::path File(const std::string& name = "tavrel.ini") { return dir_.Path() / name; }

  // A tool loaded from a file holding text.
  IniTool& LoadText(const std::string& text) {
    WriteFile(File(), text);
    ini_.Load(File());
    return ini_;
  }

  // The file as saved from text.
  std::string Resaved(const std::string& text) {
    LoadText(text).Save();
    return ReadFile(File());
  }

  std::vector<test::RecordingReporter::Call> SaveErrors() const {
    std::vector<test::RecordingReporter::Call> found;
    for (const auto& c : reporter_.calls) {
      if (!c.event && c.module == "tavrel" && c.text == "IniTool Save ") found.push_back(c);
    }
    return found;
  }

  test::TempDir dir_;
  test::RecordingReporter reporter_;
  IniTool ini_{reporter_};
};

TEST_F(IniToolTest, ReadsSectionsAndKeysWithoutRegardToCase) {
  auto& ini = LoadText("[net]\nPort=1\nEmpty=\n");
  EXPECT_EQ(ini.Read("NET", "port", "x"), "1");
  EXPECT_EQ(ini.Read("Net", "PORT", "x"), "1");
  EXPECT_EQ(ini.Read("net", "Empty", "x"), "x");
  EXPECT_EQ(ini.Read("net", "missing", "x"), "x");
  EXPECT_EQ(ini.Read("other", "port", "x"), "x");
  EXPECT_EQ(ini.FileName(), File());
}

TEST_F(IniToolTest, KeepsKeysAndValuesAsWrittenBetweenTheEqualSigns) {
  auto& ini = LoadText("top=1\n  [s]  \na = b\nurl=http://x/?a=b\nname=Caf\xe9 \xc3\xa9\n");
  EXPECT_EQ(ini.Read("", "top", ""), "1");  // before the first header: section ""
  EXPECT_EQ(ini.Read("s", "a ", ""), " b");
  EXPECT_EQ(ini.Read("s", "a", "none"), "none");
  EXPECT_EQ(ini.Read("s", "url", ""), "http://x/?a=b");
  EXPECT_EQ(ini.Read("s", "NAME", ""), "Caf\xe9 \xc3\xa9");
}

TEST_F(IniToolTest, FirstOfDuplicateKeysAndSectionsWins) {
  auto& ini = LoadText("[Dup]\na=1\nA=2\n[DUP]\na=3\nb=4\n");
  EXPECT_EQ(ini.Read("dup", "a", ""), "1");
  EXPECT_EQ(ini.Read("dup", "b", ""), "4");
  EXPECT_EQ(ini.Sections(), Names{"Dup"});
  ini.Save();
  EXPECT_EQ(ReadFile(File()), Lines({"[DUP]", "A=1", "B=4"}));
}

TEST_F(IniToolTest, ReportsLinesWithoutEqualSignAndReadsOn) {
  auto& ini = LoadText("[a]\njunk line\n; comment=no\nk=v\n[\n");
  ASSERT_EQ(reporter_.calls.size(), 2u);
  EXPECT_TRUE(reporter_.calls[0].event);
  EXPECT_EQ(reporter_.calls[0].module, "IniTool");
  EXPECT_EQ(reporter_.calls[0].text, " Equal sign not found on line junk line");
  EXPECT_EQ(reporter_.calls[1].text, " Equal sign not found on line [");
  EXPECT_EQ(ini.Read("a", "k", ""), "v");
  EXPECT_EQ(ini.Read("a", "; comment", "skipped"), "skipped");
}

TEST_F(IniToolTest, ReadsLfCrLfAndAMissingLastLineEnd) {
  const std::string expected = Lines({"[A]", "K=v", "L=w"});
  EXPECT_EQ(Resaved("[a]\r\nk=v\r\nl=w"), expected);
  EXPECT_EQ(Resaved("[a]\nk=v  \r\r\nl=w \r"), expected);
  EXPECT_EQ(Resaved("\r\n  \n[a]\nk=v\nl=w\n\n"), expected);
}

TEST_F(IniToolTest, HostileBytesNeverBreakTheFile) {
  // NUL bytes are ordinary text; a file of lone carriage returns is one line.
  auto& ini = LoadText("[n\0l]\nk=a\0b\n"s);
  EXPECT_EQ(ini.Read("N\0L"s, "K", ""), "a\0b"s);
  EXPECT_EQ(Resaved("[a]\rk=1\rl=2\r"), Lines({"[A]\rK=1\rl=2"}));
  EXPECT_EQ(ini_.Sections(), Names{});

  std::string huge(1 << 20, 'x');
  EXPECT_EQ(Resaved("[a]\n" + huge + "=" + huge), Lines({"[A]", std::string(1 << 20, 'X') + "=" + huge}));
  EXPECT_EQ(Resaved("=x\n[]\n=y\n"), Lines({"=x"}));
}

TEST_F(IniToolTest, MissingFileIsCreatedEmptyWithItsFolders) {
  const auto path = dir_.Path() / "Config" / "deep" / "new.ini";
  ini_.Load(path);
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(ini_.Read("a", "b", "default"), "default");
  EXPECT_EQ(ini_.Sections(), Names{});
}

TEST_F(IniToolTest, FolderInPlaceOfTheFileReadsEmptyAndCannotBeSaved) {
  std::filesystem::create_directories(File() / "inner");
  ini_.Load(File());
  EXPECT_EQ(ini_.Read("a", "b", "default"), "default");
  ini_.WriteKey("a", "b", "c");
  ini_.Save();
  EXPECT_FALSE(SaveErrors().empty());
  EXPECT_TRUE(std::filesystem::is_directory(File() / "inner"));
  EXPECT_FALSE(std::filesystem::exists(File().string() + ".tmp"));

  const size_t before = SaveErrors().size();
  IniTool neverLoaded(reporter_);
  neverLoaded.WriteKey("a", "b", "c");
  neverLoaded.Save();
  EXPECT_EQ(SaveErrors().size(), before + 1);
}

TEST_F(IniToolTest, SaveWritesSortedUpperCaseNamesAndKeepsABackup) {
  const std::string original = "[Computer]\npc1=10.0.0.5\n";
  WriteFile(File(), original);
  ini_.Load(File());
  ini_.Save();
  EXPECT_EQ(ReadFile(File()), Lines({"[COMPUTER]", "PC1=10.0.0.5"}));
  EXPECT_EQ(ReadFile(File().string() + "_bck"), original);

  // The next save replaces the older backup with the file as it was.
  ini_.WriteKey("Computer", "pc2", "10.0.0.6");
  ini_.Save();
  EXPECT_EQ(ReadFile(File().string() + "_bck"), Lines({"[COMPUTER]", "PC1=10.0.0.5"}));
  EXPECT_EQ(ReadFile(File()), Lines({"[COMPUTER]", "PC1=10.0.0.5", "PC2=10.0.0.6"}));
}

TEST_F(IniToolTest, SaveOrdersByTextWithoutRegardToCaseAndDropsWhatIsNotAValue) {
  const std::string text =
      "; settings\nloose=1\n[WOL]\nSubnet=192.168.1\nHTTPPort=8019\n[empty]\n[B_x]\nk=1\n[ba]\nz=Mixed Case\n"
      "a=\n[ARP]\n10.0.0.2=00-11\n10.0.0.10=00-22\n";
  // "_" sorts before letters once they are folded to lower case.
  EXPECT_EQ(Resaved(text),
            Lines({"LOOSE=1", "[ARP]", "10.0.0.10=00-22", "10.0.0.2=00-11", "[B_X]", "K=1", "[BA]",
                   "A=", "Z=Mixed Case", "[WOL]", "HTTPPORT=8019", "SUBNET=192.168.1"}));
  EXPECT_EQ(reporter_.calls.size(), 0u);
}

TEST_F(IniToolTest, WritesAndRemovesValues) {
  auto& ini = LoadText("[a]\nk=1\nj=2\n[b]\nk=3\n");
  ini.WriteKey("A", "K", "new");
  ini.WriteKey("Fresh", "x", "y");
  ini.Remove("a", "j");
  ini.Remove("a", "absent");
  EXPECT_EQ(ini.Read("a", "k", ""), "new");
  EXPECT_EQ(ini.Sections(), (Names{"a", "b", "Fresh"}));
  ini.RemoveSection("b");
  EXPECT_EQ(ini.Sections(), (Names{"a", "b", "Fresh"}));  // the section entry stays, empty
  EXPECT_EQ(ini.Keys("b"), Names{""});
  ini.Save();
  EXPECT_EQ(ReadFile(File()), Lines({"[A]", "K=new", "[FRESH]", "X=y"}));
  ini.Clear();
  EXPECT_EQ(ini.Read("a", "k", "gone"), "gone");
}

TEST_F(IniToolTest, KeysTakeTheSectionNameAsAPattern) {
  auto& ini = LoadText("[A.B]\none=1\n[AXB]\ntwo=2\n[a]\nthree=3\n[ab]\nfour=4\n[x]\n sp =5\n=6\n");
  EXPECT_EQ(ini.Keys("a.b"), (Names{"ONE", "TWO"}));
  EXPECT_EQ(ini.Keys("a"), Names{"THREE"});
  EXPECT_EQ(ini.Keys("A(B|\\.B)"), (Names{"ONE", "FOUR"}));
  EXPECT_EQ(ini.Keys("x"), Names{"SP"});  // names are trimmed, empty ones left out
  EXPECT_EQ(ini.Keys("nothing"), Names{""});
  EXPECT_EQ(ini.Keys("(unclosed"), Names{""});
  EXPECT_EQ(ini.Keys("[z-a]"), Names{""});
  // A pattern selects keys of several sections but removes only those of its own name.
  ini.RemoveSection("A.B");
  EXPECT_EQ(ini.Keys("a.b"), Names{"TWO"});
}

TEST_F(IniToolTest, HostilePatternsAnswerWithoutBacktrackingForever) {
  auto& ini = LoadText("[a]\n" + std::string(100000, 'a') + "=1\n[x]\nk=2\n");
  EXPECT_EQ(ini.Keys("a~(a*)*"), Names{""});
  EXPECT_EQ(ini.Keys("a~.*b"), Names{""});
  EXPECT_EQ(ini.Keys("q|.*z"), Names{""});
  EXPECT_EQ(ini.Keys("x|.*"), (Names{std::string(100000, 'A'), "K"}));
  EXPECT_EQ(ini.Keys(std::string(200, '(')), Names{""});
}

TEST_F(IniToolTest, AFailedWriteLeavesThePreviousFile) {
  const std::string previous = Lines({"[A]", "K=old"});
  WriteFile(File(), previous);
  std::filesystem::create_directories(File().string() + ".tmp");  // where the new text would go
  ini_.Load(File());
  ini_.WriteKey("a", "k", "new");
  ini_.Save();
  ASSERT_EQ(SaveErrors().size(), 1u);
  EXPECT_TRUE(SaveErrors()[0].err.IsSet());
  EXPECT_EQ(ReadFile(File()), previous);
  EXPECT_EQ(ReadFile(File().string() + "_bck"), previous);
}

TEST_F(IniToolTest, ASavedFileSavesToTheSameBytes) {
  for (const std::string text :
       {"[b]\nz=1\n[a]\ny=2\nx=3\n", "k=v\n[\xe9t\xe9]\n\xe9=\xc9\n", "[a~b]\nc~d=e\n"}) {
    const std::string first = Resaved(text);
    EXPECT_EQ(Resaved(first), first) << text;
  }
}

}  // namespace
}  // namespace tavrel
