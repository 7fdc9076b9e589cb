#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/LineEnd.h"
#include "settings/IniTool.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using test::ReadFile;
using Names = std::vector<std::string>;

// The bytes of a file this program writes: every line followed by the platform's line end.
std::string Lines(std::initializer_list<std::string_view> lines) {
  std::string text;
  for (auto line : lines) (text += line) += platform::kLineEnd;
  return text;
}

class IniToolTest : public ::testing::Test {
 protected:
  fs::path File() const { return dir_.Path() / "tavrel.ini"; }
  std::string Backup() const { return ReadFile(File().string() + "_bck"); }
  IniTool& LoadText(const std::string& text) {
    test::WriteFile(File(), text);
    ini_.Load(File());
    return ini_;
  }
  std::string Resaved(const std::string& text) {
    LoadText(text).Save();
    return ReadFile(File());
  }
  long SaveErrors() const {
    return std::count_if(reporter_.calls.begin(), reporter_.calls.end(), [](const auto& c) {
      return !c.event && c.module == "tavrel" && c.text == "IniTool Save " && c.err.IsSet();
    });
  }

  test::TempDir dir_;
  test::RecordingReporter reporter_;
  IniTool ini_{reporter_};
};

TEST_F(IniToolTest, ReadsValuesAsWrittenAndTheFirstOfDuplicateNamesWins) {
  auto& ini = LoadText(
      "top=1\n  [net]  \nPort=1\nEmpty=\na = b\nurl=http://x/?a=b\nname=Caf\xe9\n[NET]\nport=2\nPORT=3\n");
  EXPECT_EQ(ini.Read("", "top", ""), "1");  // before the first header: section ""
  EXPECT_EQ(ini.Read("NET", "port", "x"), "1");
  EXPECT_EQ(ini.Read("net", "Empty", "x"), "x");
  EXPECT_EQ(ini.Read("net", "a ", ""), " b");  // blanks around "=" belong to key and value
  EXPECT_EQ(ini.Read("net", "a", "none"), "none");
  EXPECT_EQ(ini.Read("net", "url", ""), "http://x/?a=b");
  EXPECT_EQ(ini.Read("net", "NAME", ""), "Caf\xe9");
  EXPECT_EQ(ini.Sections(), Names{"net"});
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

TEST_F(IniToolTest, LineEndsAndHostileBytesNeverBreakTheFile) {
  for (const char* text : {"[a]\r\nk=v\r\nl=w", "[a]\nk=v  \r\r\nl=w \r", "\r\n  \n[a]\nk=v\nl=w\n\n"}) {
    EXPECT_EQ(Resaved(text), Lines({"[A]", "K=v", "L=w"})) << text;
  }
  // NUL bytes are ordinary text; a file of lone carriage returns is one line.
  EXPECT_EQ(LoadText("[n\0l]\nk=a\0b\n"s).Read("N\0L"s, "K", ""), "a\0b"s);
  EXPECT_EQ(Resaved("[a]\rk=1\rl=2\r"), Lines({"[A]\rK=1\rl=2"}));
  const std::string huge(1 << 20, 'x');
  EXPECT_EQ(Resaved("[a]\n" + huge + "=" + huge), Lines({"[A]", std::string(1 << 20, 'X') + "=" + huge}));
  EXPECT_EQ(Resaved("=x\n[]\n=y\n"), Lines({"=x"}));
}

TEST_F(IniToolTest, SaveSortsByTextWithoutRegardToCaseAndKeepsABackup) {
  const std::string text =
      "; settings\nloose=1\n[WOL]\nSubnet=192.168.1\nHTTPPort=8019\n[empty]\n[B_x]\nk=1\n[ba]\nz=Mixed Case\n"
      "a=\n[ARP]\n10.0.0.2=00-11\n10.0.0.10=00-22\n";
  // "_" sorts before letters once they are folded to lower case; sections without values go.
  const std::string sorted =
      Lines({"LOOSE=1", "[ARP]", "10.0.0.10=00-22", "10.0.0.2=00-11", "[B_X]", "K=1", "[BA]",
             "A=", "Z=Mixed Case", "[WOL]", "HTTPPORT=8019", "SUBNET=192.168.1"});
  EXPECT_EQ(Resaved(text), sorted);
  EXPECT_EQ(Backup(), text);
  // A saved file saves to the same bytes, and the backup is now the file as it was.
  EXPECT_EQ(Resaved(sorted), sorted);
  EXPECT_EQ(Backup(), sorted);
  const std::string tilde = Resaved("[a~b]\nc~d=e\n");  // "~" also joins section and key inside
  EXPECT_EQ(Resaved(tilde), tilde);
  EXPECT_TRUE(reporter_.calls.empty());
}

TEST_F(IniToolTest, WritesAndRemovesValues) {
  auto& ini = LoadText("[a]\nk=1\nj=2\n[b]\nk=3\n");
  ini.WriteKey("A", "K", "new");
  ini.WriteKey("Fresh", "x", "y");
  ini.Remove("a", "j");
  ini.Remove("a", "absent");
  ini.RemoveSection("b");
  EXPECT_EQ(ini.Sections(), (Names{"a", "b", "Fresh"}));  // the section entry stays, empty
  EXPECT_EQ(ini.Keys("b"), Names{""});
  ini.Save();
  EXPECT_EQ(ReadFile(File()), Lines({"[A]", "K=new", "[FRESH]", "X=y"}));
}

TEST_F(IniToolTest, KeysTakeTheSectionNameAsAPattern) {
  auto& ini = LoadText("[A.B]\none=1\n[AXB]\ntwo=2\n[a]\nthree=3\n[ab]\nfour=4\n[x]\n sp =5\n=6\n");
  EXPECT_EQ(ini.Keys("a.b"), (Names{"ONE", "TWO"}));
  EXPECT_EQ(ini.Keys("a"), Names{"THREE"});
  EXPECT_EQ(ini.Keys("A(B|\\.B)"), (Names{"ONE", "FOUR"}));
  EXPECT_EQ(ini.Keys("x"), Names{"SP"});  // names are trimmed, empty ones left out
  // A pattern selects keys of several sections but removes only those of its own name.
  ini.RemoveSection("A.B");
  EXPECT_EQ(ini.Keys("a.b"), Names{"TWO"});
}

TEST_F(IniToolTest, HostilePatternsAnswerAtOnce) {
  auto& ini = LoadText("[a]\n" + std::string(100000, 'a') + "=1\n[x]\nk=2\n");
  for (const auto& pattern :
       {"a~(a*)*"s, "a~.*b"s, "q|.*z"s, "(unclosed"s, "[z-a]"s, std::string(200, '(')}) {
    EXPECT_EQ(ini.Keys(pattern), Names{""}) << pattern;
  }
  EXPECT_EQ(ini.Keys("x|.*"), (Names{std::string(100000, 'A'), "K"}));
}

TEST_F(IniToolTest, MissingFilesAreCreatedAndFailedSavesLeaveWhatWasThere) {
  const auto created = dir_.Path() / "Config" / "deep" / "new.ini";
  ini_.Load(created);
  EXPECT_TRUE(fs::is_regular_file(created));
  EXPECT_EQ(ReadFile(created), "");

  const std::string previous = Lines({"[A]", "K=old"});
  LoadText(previous).WriteKey("a", "k", "new");
  fs::create_directories(File().string() + ".tmp");  // where the new text would go
  ini_.Save();
  EXPECT_EQ(SaveErrors(), 1);
  EXPECT_EQ(ReadFile(File()), previous);
  EXPECT_EQ(Backup(), previous);

  // A folder in place of the file is left as it is.
  const auto folder = dir_.Path() / "folder.ini";
  fs::create_directories(folder / "inner");
  ini_.Load(folder);
  ini_.WriteKey("a", "k", "new");
  ini_.Save();
  EXPECT_GT(SaveErrors(), 1);
  EXPECT_TRUE(fs::is_directory(folder / "inner"));
  EXPECT_FALSE(fs::exists(folder.string() + ".tmp"));

  // A tool that never loaded a file has nowhere to save to.
  const long before = SaveErrors();
  IniTool neverLoaded(reporter_);
  neverLoaded.WriteKey("a", "b", "c");
  neverLoaded.Save();
  EXPECT_EQ(SaveErrors(), before + 1);
  EXPECT_EQ(reporter_.calls.back().err.Description, "Bad file name or number");
}

}  // namespace
}  // namespace tavrel
