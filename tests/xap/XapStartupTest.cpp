#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "xap/XapStartup.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using test::RecordingReporter;
using test::TempDir;

class XapStartupTest : public ::testing::Test {
 protected:
  XapStartup Run() { return InitXap(home_.Path(), hs_, log_); }
  void WriteIni(const std::string& text) { test::WriteFile(home_.Path() / "Config" / "zelXap.ini", text); }

  TempDir home_;
  RecordingReporter log_;
  Hs hs_{home_.Path() / "Config", log_};
};

TEST_F(XapStartupTest, FreshHomeGetsItsFoldersAndTheDefaults) {
  const XapStartup s = Run();
  EXPECT_TRUE(fs::is_directory(home_.Path() / "Config"));
  EXPECT_TRUE(fs::is_directory(home_.Path() / "Data"));
  EXPECT_FALSE(fs::exists(home_.Path() / "Config" / "x"));
  EXPECT_FALSE(fs::exists(home_.Path() / "Data" / "x"));
  EXPECT_EQ(s.AppPath, home_.Path());
  EXPECT_FALSE(s.LocalComputerName.empty());
  EXPECT_FALSE(s.ExecutablePath.empty());
  EXPECT_TRUE(fs::exists(s.ExecutablePath)) << s.ExecutablePath;
  EXPECT_EQ(s.InterfaceAddress, "Default");
  EXPECT_EQ(s.BroadcastAddress, "Default");
  EXPECT_EQ(s.Port, 3639);
  EXPECT_TRUE(log_.calls.empty());
}

TEST_F(XapStartupTest, InterfaceSectionIsRead) {
  WriteIni("[Interface]\nInterfaceAddress=198.51.100.4\nbroadcastaddress=127.0.0.1\nPORT=40000\n");
  const XapStartup s = Run();
  EXPECT_EQ(s.InterfaceAddress, "198.51.100.4");
  EXPECT_EQ(s.BroadcastAddress, "127.0.0.1");
  EXPECT_EQ(s.Port, 40000);
  EXPECT_TRUE(log_.calls.empty());
}

TEST_F(XapStartupTest, PortThatIsNoPortNumberFallsBackWithALogLine) {
  for (const char* port : {"abc", "0", "65536", "-1", "12x", "99999999999999999999"}) {
    log_.calls.clear();
    WriteIni(std::string("[Interface]\nPort=") + port + "\n");
    const XapStartup s = Run();
    EXPECT_EQ(s.Port, 3639) << port;
    ASSERT_EQ(log_.calls.size(), 1u) << port;
    EXPECT_FALSE(log_.calls[0].event);
    EXPECT_EQ(log_.calls[0].module, "tavrel");
    EXPECT_EQ(log_.calls[0].text, "InitXap");
  }
  // An empty value is a missing one: the default, quietly.
  log_.calls.clear();
  WriteIni("[Interface]\nPort=\n");
  EXPECT_EQ(Run().Port, 3639);
  EXPECT_TRUE(log_.calls.empty());
  // The extremes are ports.
  WriteIni("[Interface]\nPort=65535\n");
  EXPECT_EQ(Run().Port, 65535);
  WriteIni("[Interface]\nPort=1\n");
  EXPECT_EQ(Run().Port, 1);
}

}  // namespace
}  // namespace tavrel
