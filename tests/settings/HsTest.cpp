#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/LineEnd.h"
#include "settings/Hs.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
using test::ReadFile;
using test::WriteFile;

class HsTest : public ::testing::Test {
 protected:
  std::filesystem::path Config() const { return dir_.Path() / "Config"; }

  const std::string nl_{platform::kLineEnd};
  test::TempDir dir_;
  test::RecordingReporter reporter_;
  Hs hs_{Config(), reporter_};
};

// A missing file gives the default and is not made; every call sees the file as it is now and saves at
// once; a section comes as pairs separated by NUL, and clearing one rewrites the file.
TEST_F(HsTest, EveryCallSeesTheFileAsItIsNow) {
  EXPECT_EQ(hs_.GetINISetting("Interface", "BroadcastAddress", "Default", "zelXap.ini"), "Default");
  EXPECT_FALSE(std::filesystem::exists(Config()));
  hs_.SaveIniSetting("Main", "key", "value");  // no file name: settings.ini
  EXPECT_EQ(ReadFile(Config() / "settings.ini"), "[MAIN]" + nl_ + "KEY=value" + nl_);
  WriteFile(Config() / "t.ini", "[Computer]\npc1=203.0.113.5\npc2=\n[ARP]\n203.0.113.1=aa\n");
  hs_.SaveIniSetting("computer", "pc3", "x", "t.ini");
  EXPECT_EQ(hs_.GetINISection("COMPUTER", "t.ini"), "PC1=203.0.113.5\0PC2=\0PC3=x"s);
  WriteFile(Config() / "t.ini", "[Computer]\npc1=198.51.100.1\n[ARP]\n203.0.113.1=aa\n");
  EXPECT_EQ(hs_.GetINISetting("computer", "PC1", "", "t.ini"), "198.51.100.1");
  EXPECT_EQ(hs_.GetINISection("none", "t.ini"), "=");  // the one empty name of a section without keys
  hs_.ClearINISection("arp", "t.ini");
  EXPECT_EQ(ReadFile(Config() / "t.ini"), "[COMPUTER]" + nl_ + "PC1=198.51.100.1" + nl_);
  EXPECT_TRUE(reporter_.calls.empty());
  // A file whose reading reports trouble reports it at every read, as it always did.
  WriteFile(Config() / "bad.ini", "[a]\nnoequal\nk=1\n");
  for (int read = 0; read < 2; ++read) EXPECT_EQ(hs_.GetINISetting("a", "k", "", "bad.ini"), "1");
  EXPECT_EQ(reporter_.calls.size(), 2u);
}

// One save of several keys leaves the file that a save per key would, also where names and values do not
// read back as written; the backup holds the file as it was before them all.
TEST_F(HsTest, SeveralKeysInOneSaveGiveTheFileOfOneSavePerKey) {
  const std::string start =
      "\xEF\xBB\xBF[ARP]\r198.51.100.1=OLD\r\n[a~b=c]\nk=v\n[x]\n[arp]\n198.51.100.9=keep\nnoequal\n";
  using Pairs = std::vector<KeyValuePair>;
  const std::pair<const char*, Pairs> cases[] = {
      {"ARP", {{"198.51.100.1", "00-11"}, {"198.51.100.2", "00-22"}, {"198.51.100.1", "00-33"}}},
      {"ARP",
       {{";c", "1"},
        {"[h", "]"},
        {"after", "2"},
        {" lead", "3"},
        {"a=b", "4"},
        {"a", "5"},
        {"tail", "6 "},
        {"t2", "7"},
        {"cr", "x\ry"},
        {"\xEF\xBB\xBFm", "8"},
        {"z", "9"}}},
      {"s~t", {{"k", "1"}, {"k2", "2"}}},
      {"", {{"\xEF\xBB\xBF", "1"}, {"k", "2"}}}};
  for (const auto& [section, pairs] : cases) {
    WriteFile(Config() / "one.ini", start);
    WriteFile(Config() / "each.ini", start);
    hs_.SaveIniSettings(section, pairs, "one.ini");
    for (const auto& pair : pairs) hs_.SaveIniSetting(section, pair.Key, pair.Value, "each.ini");
    EXPECT_EQ(ReadFile(Config() / "one.ini"), ReadFile(Config() / "each.ini")) << pairs[0].Key;
    EXPECT_EQ(ReadFile(Config() / "one.ini_bck"), start);
  }
  hs_.SaveIniSettings("ARP", {}, "none.ini");
  EXPECT_FALSE(std::filesystem::exists(Config() / "none.ini"));
}

}  // namespace
}  // namespace tavrel
