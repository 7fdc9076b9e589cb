#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "Version.h"
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

  test::TempDir dir_;
  test::RecordingReporter reporter_;
  Hs hs_{Config(), reporter_};
};

TEST_F(HsTest, FilesLieInTheConfigFolderWithSettingsIniAsDefault) {
  EXPECT_EQ(hs_.FilePath(""), Config() / "settings.ini");
  EXPECT_EQ(hs_.FilePath("tavrel.ini"), Config() / "tavrel.ini");
  hs_.SaveIniSetting("Main", "key", "value");
  EXPECT_EQ(ReadFile(Config() / "settings.ini"),
            "[MAIN]" + std::string(platform::kLineEnd) + "KEY=value" + std::string(platform::kLineEnd));
  EXPECT_EQ(hs_.GetINISetting("main", "KEY", "d"), "value");
}

TEST_F(HsTest, ReadingAMissingFileGivesTheDefaultAndCreatesNothing) {
  EXPECT_EQ(hs_.GetINISetting("Interface", "BroadcastAddress", "Default", "zelXap.ini"), "Default");
  EXPECT_FALSE(std::filesystem::exists(Config()));
  EXPECT_TRUE(reporter_.calls.empty());
}

TEST_F(HsTest, EveryCallSeesTheFileAsItIsNow) {
  WriteFile(Config() / "tavrel.ini", "[WOL]\nHTTPPort=8019\n");
  EXPECT_EQ(hs_.GetINISetting("WOL", "HTTPPort", "80", "tavrel.ini"), "8019");
  WriteFile(Config() / "tavrel.ini", "[WOL]\nHTTPPort=9000\n");
  EXPECT_EQ(hs_.GetINISetting("WOL", "HTTPPort", "80", "tavrel.ini"), "9000");
  hs_.SaveIniSetting("wol", "Subnet", "192.168.1", "tavrel.ini");
  EXPECT_EQ(hs_.GetINISetting("WOL", "HTTPPort", "80", "tavrel.ini"), "9000");
  EXPECT_EQ(hs_.GetINISetting("WOL", "subnet", "", "tavrel.ini"), "192.168.1");
}

TEST_F(HsTest, SectionComesAsPairsSeparatedByNul) {
  WriteFile(Config() / "tavrel.ini", "[Computer]\npc1=10.0.0.5\npc2=\n[s]\na=1\nb=2\n");
  EXPECT_EQ(hs_.GetINISection("s", "tavrel.ini"), "A=1\0B=2"s);
  EXPECT_EQ(hs_.GetINISection("computer", "tavrel.ini"), "PC1=10.0.0.5\0PC2="s);
  // A section without keys gives the one empty name and its (empty) value.
  EXPECT_EQ(hs_.GetINISection("none", "tavrel.ini"), "=");
}

TEST_F(HsTest, ClearingASectionRewritesTheFileWithoutIt) {
  WriteFile(Config() / "tavrel.ini", "[ARP]\n10.0.0.1=aa\n10.0.0.2=bb\n[Computer]\npc=10.0.0.1\n");
  hs_.ClearINISection("arp", "tavrel.ini");
  EXPECT_EQ(ReadFile(Config() / "tavrel.ini"),
            "[COMPUTER]" + std::string(platform::kLineEnd) + "PC=10.0.0.1" + std::string(platform::kLineEnd));
  EXPECT_EQ(hs_.GetINISetting("ARP", "10.0.0.1", "gone", "tavrel.ini"), "gone");
}

TEST_F(HsTest, VersionAndPlaceholders) {
  EXPECT_EQ(hs_.Version(), kVersionText);
  EXPECT_EQ(hs_.SystemUpTime(), "");
  EXPECT_EQ(hs_.WEBLoggedInUser(), "");
  EXPECT_EQ(hs_.DeviceString("x"), "");
}

}  // namespace
}  // namespace tavrel
