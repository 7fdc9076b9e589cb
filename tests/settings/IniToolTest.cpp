#include <filesystem>
#include <initializer_list>
#include <string>
#include <tuple>
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
    long n = 0;
    for (const auto& c : reporter_.calls) n += !c.event && c.module == "tavrel" && c.text == "IniTool Save ";
    return n;
  }

  test::TempDir dir_;
  test::RecordingReporter reporter_;
  IniTool ini_{reporter_};
};

TEST_F(IniToolTest, ReadsValuesAsWrittenTheFirstOfDuplicateNamesWinsAndBadLinesAreReported) {
  auto& ini = LoadText(
      "top=1\n  [net]  \nPort=1\nEmpty=\na = b\nu=x=y\njunk line\nname=Caf\xe9\n"
      "; comment=no\n[NET]\nport=2\nPORT=3\n[\n");
  // Before the first header the section is ""; blanks around "=" belong to key and value.
  const std::tuple<const char*, const char*, const char*, const char*> reads[] = {
      {"", "top", "", "1"},           {"NET", "port", "x", "1"},     {"net", "Empty", "x", "x"},
      {"net", "a ", "", " b"},        {"net", "a", "-", "-"},        {"net", "u", "", "x=y"},
      {"net", "NAME", "", "Caf\xe9"}, {"net", "; comment", "-", "-"}};
  for (const auto& [section, key, fallback, value] : reads)
    EXPECT_EQ(ini.Read(section, key, fallback), value) << key;
  EXPECT_EQ(ini.Sections(), Names{"net"});
  ASSERT_EQ(reporter_.calls.size(), 2u);
  EXPECT_TRUE(reporter_.calls[0].event && reporter_.calls[1].event && reporter_.calls[1].module == "IniTool");
  EXPECT_EQ(reporter_.calls[0].text + "|" + reporter_.calls[1].text,
            " Equal sign not found on line junk line| Equal sign not found on line [");
}

TEST_F(IniToolTest, SaveSortsByTextWithoutRegardToCaseKeepsABackupAndSurvivesHostileBytes) {
  const std::string text =
      "; settings\nloose=1\n[WOL]\nSubnet=1\n[empty]\n[B_x]\nk=1\n[ba]\nz=Mixed Case\na=\n"
      "[ARP]\n203.0.113.2=00-11\n203.0.113.10=00-22\n";
  // "_" sorts before letters once they are folded to lower case; sections without values go.
  const std::string sorted = Lines({"LOOSE=1", "[ARP]", "203.0.113.10=00-22", "203.0.113.2=00-11", "[B_X]",
                                    "K=1", "[BA]", "A=", "Z=Mixed Case", "[WOL]", "SUBNET=1"});
  EXPECT_EQ(Resaved(text), sorted);
  EXPECT_EQ(ReadFile(File().string() + "_bck"), text);
  EXPECT_EQ(Resaved(sorted), sorted);
  EXPECT_EQ(ReadFile(File().string() + "_bck"), sorted);
  const std::string tilde = Resaved("[a~b]\nc~d=e\n");  // "~" also joins section and key inside
  EXPECT_EQ(Resaved(tilde), tilde);
  // CR LF, LF and a lone CR end lines; a byte-order mark at the start is skipped.
  for (const char* text : {"[a]\r\nk=v\r\nl=w", "[a]\nk=v  \r\r\nl=w \r", "\r\n  \n[a]\nk=v\nl=w\n\n",
                           "\xEF\xBB\xBF[a]\rk=v\r\rl=w\r", "\xEF\xBB\xBF[a]\nk=v\r\nl=w"}) {
    ini_.LoadText(text);
    EXPECT_EQ(ini_.ToText(), Lines({"[A]", "K=v", "L=w"})) << text;
  }
  // Elsewhere the mark is text, and a first key that begins with it keeps it when read back.
  ini_.LoadText("\n\xEF\xBB\xBFk=v");
  const std::string marked = ini_.ToText();
  EXPECT_EQ(marked, "\xEF\xBB\xBF" + Lines({"\xEF\xBB\xBFK=v"}));
  ini_.LoadText(marked);
  EXPECT_EQ(ini_.ToText(), marked);
  EXPECT_EQ(Resaved("=x\n[]\n=y\n"), Lines({"=x"}));
}

TEST_F(IniToolTest, WritesRemovesAndSelectsKeysByASectionPattern) {
  auto& ini = LoadText("[a]\nk=1\nj=2\n[b]\nk=3\n");
  ini.WriteKey("A", "K", "new");
  ini.WriteKey("Fresh", "x", "y");
  ini.Remove("a", "j");
  ini.RemoveSection("b");
  EXPECT_EQ(ini.Sections(), (Names{"a", "b", "Fresh"}));  // the section entry stays, empty
  ini.Save();
  EXPECT_EQ(ReadFile(File()), Lines({"[A]", "K=new", "[FRESH]", "X=y"}));
  LoadText("[A.B]\none=1\n[AXB]\ntwo=2\n[a]\nthree=3\n[ab]\nfour=4\n[x]\n sp =5\n=6\n");
  EXPECT_EQ(ini.Keys("a.b"), (Names{"ONE", "TWO"}));
  EXPECT_EQ(ini.Keys("a"), Names{"THREE"});
  EXPECT_EQ(ini.Keys("A(B|\\.B)"), (Names{"ONE", "FOUR"}));
  EXPECT_EQ(ini.Keys("x"), Names{"SP"});  // names are trimmed, empty ones left out
  // A pattern selects keys of several sections but removes only those of its own name.
  ini.RemoveSection("A.B");
  EXPECT_EQ(ini.Keys("a.b"), Names{"TWO"});
  // Hostile patterns answer at once.
  LoadText("[a]\n" + std::string(100000, 'a') + "=1\n[x]\nk=2\n");
  for (const auto& pattern : {"a~(a*)*"s, "a~.*b"s, "q|.*z"s, "(unclosed"s, "[z-a]"s, std::string(200, '(')})
    EXPECT_EQ(ini.Keys(pattern), Names{""}) << pattern;
}

TEST_F(IniToolTest, MissingFilesAreCreatedAndFailedSavesLeaveWhatWasThere) {
  ini_.Load(dir_.Path() / "Config" / "deep" / "new.ini");
  EXPECT_TRUE(fs::is_regular_file(ini_.FileName()) && fs::file_size(ini_.FileName()) == 0);
  const std::string previous = Lines({"[A]", "K=old"});
  LoadText(previous).WriteKey("a", "k", "new");
  fs::create_directories(File().string() + ".tmp");  // where the new text would go
  ini_.Save();
  EXPECT_EQ(SaveErrors(), 1);
  EXPECT_EQ(ReadFile(File()) + ReadFile(File().string() + "_bck"), previous + previous);
  // A folder in place of the file is left as it is.
  const auto folder = dir_.Path() / "folder.ini";
  fs::create_directories(folder / "inner");
  ini_.Load(folder);
  ini_.WriteKey("a", "k", "new");
  ini_.Save();
  EXPECT_GT(SaveErrors(), 1);
  EXPECT_TRUE(fs::is_directory(folder / "inner") && !fs::exists(folder.string() + ".tmp"));
  // A tool that never loaded a file has nowhere to save to.
  IniTool neverLoaded(reporter_);
  neverLoaded.WriteKey("a", "b", "c");
  neverLoaded.Save();
  EXPECT_EQ(reporter_.calls.back().err.Description, "Bad file name or number");
}

}  // namespace
}  // namespace tavrel
