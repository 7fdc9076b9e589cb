#include <chrono>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Text.h"
#include "platform/LineEnd.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "settings/IniTool.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;
using test::ReadFile;
using test::WriteFile;
using Learned = ComputerRegistry::Learned;
using Renamed = ComputerRegistry::Renamed;
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
  test::TempDir dir_;
  test::RecordingReporter reporter_;
  IniTool ini_{reporter_};
};

TEST_F(IniToolTest, ReadsValuesAsWrittenKeysByASectionPatternAndReportsBadLines) {
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
  EXPECT_EQ(reporter_.calls.size(), 2u);  // "junk line" and "[", each once (the words: the node test's)

  // Keys by a section pattern (writing and removing them: byte for byte through Hs and the registry).
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

TEST_F(IniToolTest, SaveSortsByTextWithoutRegardToCaseKeepsABackupAndSurvivesHostileBytes) {
  const std::string text =
      "; settings\nloose=1\n[WOL]\nSubnet=1\n[empty]\n[B_x]\nk=1\n[ba]\nz=Mixed Case\na=\n"
      "[ARP]\n203.0.113.2=00-11\n203.0.113.10=00-22\n";
  // "_" sorts before letters once they are folded to lower case; sections without values go.
  const std::string sorted = Lines({"LOOSE=1", "[ARP]", "203.0.113.10=00-22", "203.0.113.2=00-11", "[B_X]",
                                    "K=1", "[BA]", "A=", "Z=Mixed Case", "[WOL]", "SUBNET=1"});
  EXPECT_EQ(Resaved(text), sorted);
  EXPECT_EQ(ReadFile(File().string() + "_bck"), text);
  // CR LF, LF and a lone CR end lines; a byte-order mark at the start is skipped.
  for (const char* text : {"[a]\r\nk=v\r\nl=w", "[a]\nk=v  \r\r\nl=w \r", "\r\n  \n[a]\nk=v\nl=w\n\n",
                           "\xEF\xBB\xBF[a]\rk=v\r\rl=w\r", "\xEF\xBB\xBF[a]\nk=v\r\nl=w"}) {
    ini_.LoadText(text);
    EXPECT_EQ(ini_.ToText(), Lines({"[A]", "K=v", "L=w"})) << text;
  }
  EXPECT_EQ(Resaved("=x\n[]\n=y\n"), Lines({"=x"}));
}

TEST_F(IniToolTest, MissingFilesAreCreatedAndAFailedSaveLeavesWhatWasThere) {
  ini_.Load(dir_.Path() / "Config" / "deep" / "new.ini");
  EXPECT_TRUE(fs::is_regular_file(ini_.FileName()) && fs::file_size(ini_.FileName()) == 0);
  const std::string previous = Lines({"[A]", "K=old"});
  LoadText(previous).WriteKey("a", "k", "new");
  fs::create_directories(File().string() + ".tmp");  // where the new text would go
  ini_.Save();
  EXPECT_EQ(reporter_.calls.size(), 1u);
  EXPECT_EQ(ReadFile(File()) + ReadFile(File().string() + "_bck"), previous + previous);
}

class HsTest : public IniToolTest {
 protected:
  fs::path Config() const { return dir_.Path() / "Config"; }
  Hs hs_{Config(), reporter_};
};

// Every call reads the file as it is now and saves at once; a section comes as pairs separated by NUL, and
// clearing one rewrites the file. Defaults, the default file and empty sections are the script host test's.
TEST_F(HsTest, EveryCallSeesTheFileAsItIsNow) {
  WriteFile(Config() / "t.ini", "[Computer]\npc1=203.0.113.5\npc2=\n[ARP]\n203.0.113.1=aa\n");
  hs_.SaveIniSetting("computer", "pc3", "x", "t.ini");
  EXPECT_EQ(hs_.GetINISection("COMPUTER", "t.ini"), "PC1=203.0.113.5\0PC2=\0PC3=x"s);
  WriteFile(Config() / "t.ini", "[Computer]\npc1=198.51.100.1\n[ARP]\n203.0.113.1=aa\n");
  EXPECT_EQ(hs_.GetINISetting("computer", "PC1", "", "t.ini"), "198.51.100.1");
  hs_.ClearINISection("arp", "t.ini");
  EXPECT_EQ(ReadFile(Config() / "t.ini"), Lines({"[COMPUTER]", "PC1=198.51.100.1"}));
  EXPECT_TRUE(reporter_.calls.empty());
}

// One save of several keys leaves the file that a save per key would, also where names and values do not
// read back as written; the backup holds the file as it was before them all.
TEST_F(HsTest, SeveralKeysInOneSaveGiveTheFileOfOneSavePerKey) {
  const std::string start =
      "\xEF\xBB\xBF[ARP]\r198.51.100.1=OLD\r\n[a~b=c]\nk=v\n[x]\n[arp]\n198.51.100.9=keep\nnoequal\n";
  using Pairs = std::vector<KeyValuePair>;
  // clang-format off
  const std::pair<const char*, Pairs> cases[] = {
      {"ARP", {{"198.51.100.1", "00-11"}, {"198.51.100.2", "00-22"}, {"198.51.100.1", "00-33"}}},
      {"ARP", {{";c", "1"}, {"[h", "]"}, {"after", "2"}, {" lead", "3"}, {"a=b", "4"}, {"a", "5"},
               {"tail", "6 "}, {"t2", "7"}, {"cr", "x\ry"}, {"\xEF\xBB\xBFm", "8"}, {"z", "9"}}},
      {"s~t", {{"k", "1"}, {"k2", "2"}}},
      {"", {{"\xEF\xBB\xBF", "1"}, {"k", "2"}}}};
  // clang-format on
  for (const auto& [section, pairs] : cases) {
    WriteFile(Config() / "one.ini", start);
    WriteFile(Config() / "each.ini", start);
    hs_.SaveIniSettings(section, pairs, "one.ini");
    for (const auto& pair : pairs) hs_.SaveIniSetting(section, pair.Key, pair.Value, "each.ini");
    EXPECT_EQ(ReadFile(Config() / "one.ini"), ReadFile(Config() / "each.ini")) << pairs[0].Key;
    EXPECT_EQ(ReadFile(Config() / "one.ini_bck"), start);
  }
  hs_.SaveIniSettings("ARP", {}, "none.ini");
  EXPECT_FALSE(fs::exists(Config() / "none.ini"));
}

// Loading skips lines without a key or a value. Names come in only when the file gives them back
// unchanged, new ones only below 1,024 computers; a known one is seen again. The page's edits reach the
// file in one write; a sweep's subnets start from an empty ARP table but for this machine's entry, the
// first MAC of an address wins and the file, written once, keeps every address read.
using ComputerRegistryTest = HsTest;
TEST_F(ComputerRegistryTest, DecidesNamesLimitAndLastSeenAndKeepsTheFileInStep) {
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  ComputerRegistry computers{hs_, clock};
  // The file gives keys back in upper case, in order.
  const auto section = [&](const char* name) { return Split(hs_.GetINISection(name, kIniFile), "\0"s); };
  std::string before;
  const auto writtenOnce = [&] { return ReadFile(hs_.FilePath(kIniFile).string() + "_bck") == before; };

  WriteFile(hs_.FilePath(kIniFile),
            "[Computer]\nPC1=198.51.100.5\nblank=   \n=198.51.100.6\nHost=198.51.100.99\n"
            "nas=198.51.100.12\n[ARP]\n198.51.100.5=00-11-22-33-44-55\n198.51.100.6=  \n");
  computers.Load("host", "198.51.100.20", reporter_);
  computers.SetOwnAddress("198.51.100.20", "02-00-00-00-00-14");
  clock.Advance(std::chrono::seconds(90));
  for (const std::string& name : {"evil=1"s, "pc\r"s, "p\0c"s, "pc\x7f"s, ";pc"s, "p~c"s, "[pc]"s, " pc"s,
                                  "pc "s, ""s, std::string(64, 'a')})
    EXPECT_EQ(computers.Learn(name), Learned::Unstorable) << name;
  const std::string longest(63, 'B');
  for (const std::string& name : {longest, "my pc;[1]#\"'"s, "\xef\xbb\xbfpc\xe9"s, "pc]"s})
    EXPECT_EQ(computers.Learn(name), Learned::Learned) << name;
  EXPECT_EQ(computers.Learn("PC1"), Learned::Refreshed);
  EXPECT_EQ(section("Computer"),
            (Names{longest + "=", "BLANK=", "HOST=198.51.100.99", "MY PC;[1]#\"'=", "NAS=198.51.100.12",
                   "PC1=198.51.100.5", "PC]=", "\xef\xbb\xbfPC\xe9="}));

  ComputerRegistry::Edits edits;
  EXPECT_EQ(computers.Rename("pc1", "a=b", "198.51.100.5", edits), Renamed::Unstorable);
  EXPECT_EQ(computers.Rename("pc1", "OFFICE", "198.51.100.5", edits), Renamed::Renamed);
  EXPECT_EQ(computers.Rename("", "PRINTER", "203.0.113.9", edits), Renamed::Renamed);  // an ARP-only row
  EXPECT_EQ(computers.Rename("gone", "X", "198.51.100.7", edits), Renamed::NotFound);
  computers.Remove("NAS", "198.51.100.5", edits);
  before = ReadFile(hs_.FilePath(kIniFile));
  hs_.EditIni(kIniFile, [&](IniTool& ini) { computers.WriteEdits(ini, edits); });
  EXPECT_TRUE(writtenOnce());
  EXPECT_EQ(section("Computer"),
            (Names{longest + "=", "HOST=198.51.100.20", "MY PC;[1]#\"'=", "OFFICE=198.51.100.5",
                   "PC]=", "PRINTER=203.0.113.9", "\xef\xbb\xbfPC\xe9="}));
  EXPECT_EQ(section("ARP"), Names{"198.51.100.20=02-00-00-00-00-14"});

  // A sweep merges: the first MAC of an address wins, a new MAC replaces the old one, an address that
  // did not answer keeps its entry; only what changed is written, once.
  before = ReadFile(hs_.FilePath(kIniFile));
  computers.MergeArp({{"198.51.100.5", "02-AA"},
                      {"198.51.100.6", "02-BB"},
                      {"198.51.100.5", "02-CC"},
                      {"203.0.113.9", "02-DD"}});
  EXPECT_TRUE(writtenOnce());
  before = ReadFile(hs_.FilePath(kIniFile));
  computers.MergeArp({{"198.51.100.6", "02-EE"}, {"203.0.113.9", "02-DD"}});
  EXPECT_TRUE(writtenOnce());
  computers.MergeArp({{"203.0.113.9", "02-DD"}});
  EXPECT_TRUE(writtenOnce());
  EXPECT_EQ(section("ARP"), (Names{"198.51.100.20=02-00-00-00-00-14", "198.51.100.5=02-AA",
                                   "198.51.100.6=02-EE", "203.0.113.9=02-DD"}));
  // Loaded and learned computers were heard of when they came in; a rename is not; answers to sweeps
  // count only while sweeping.
  Names rows;
  for (const auto& row : computers.Rows())
    rows.push_back(row.name + "=" + row.ip + " " + row.mac + " " +
                   (row.lastSeen ? FormatDateTime(*row.lastSeen) : "-") + (row.Seen() ? " seen" : ""));
  EXPECT_EQ(rows,
            (Names{"host=198.51.100.20 02-00-00-00-00-14 2026-11-22 08:00:00 seen",
                   longest + "=  2026-11-22 08:01:30 seen", "my pc;[1]#\"'=  2026-11-22 08:01:30 seen",
                   "\xef\xbb\xbfpc\xe9=  2026-11-22 08:01:30 seen", "pc]=  2026-11-22 08:01:30 seen",
                   "OFFICE=198.51.100.5 02-AA -", "PRINTER=203.0.113.9 02-DD -", "=198.51.100.6 02-EE -"}));

  // Renames on the page are not limited; senders are.
  for (size_t k = computers.Count(); k < kMaxLearnedComputers; ++k)
    computers.Rename("", "old" + std::to_string(k), "198.51.100.1", edits);
  EXPECT_EQ(computers.Learn("pc1025"), Learned::Full);
  EXPECT_EQ(computers.Learn("OLD9"), Learned::Refreshed);
  EXPECT_EQ(computers.Count(), 1024u);
  EXPECT_TRUE(reporter_.calls.empty());
}

}  // namespace
}  // namespace tavrel
