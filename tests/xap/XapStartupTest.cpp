#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapStartup.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;

class XapStartupTest : public ::testing::Test {
 protected:
  XapStartup Run() { return InitXap(home_.Path(), hs_, log_); }
  void WriteIni(const std::string& text) { test::WriteFile(home_.Path() / "Config" / "zelXap.ini", text); }
  std::string Interface(const XapStartup& s) const {
    std::string text = s.InterfaceAddress + "|" + s.BroadcastAddress + "|" + std::to_string(s.Port);
    for (const auto& c : log_.calls) text += (c.event ? " event " : " log ") + c.module + "|" + c.text;
    return text;
  }

  test::TempDir home_;
  test::RecordingReporter log_;
  Hs hs_{home_.Path() / "Config", log_};
};

TEST_F(XapStartupTest, FreshHomeGetsItsFoldersAndTheDefaults) {
  const XapStartup s = Run();
  EXPECT_TRUE(fs::is_directory(home_.Path() / "Config") && fs::is_directory(home_.Path() / "Data"));
  EXPECT_TRUE(fs::exists(s.ExecutablePath)) << s.ExecutablePath;
  EXPECT_EQ(Interface(s), "Default|Default|3639");
  WriteIni("[Interface]\nInterfaceAddress=198.51.100.4\nbroadcastaddress=127.0.0.1\nPORT=40000\n");
  EXPECT_EQ(Interface(Run()), "198.51.100.4|127.0.0.1|40000");
}

TEST_F(XapStartupTest, PortThatIsNoPortNumberFallsBackWithALogLine) {
  auto port = [this](const std::string& value) {
    log_.calls.clear();
    WriteIni("[Interface]\nPort=" + value + "\n");
    return Interface(Run());
  };
  for (const char* bad : {"abc", "0", "65536", "-1", "12x", "99999999999999999999"})
    EXPECT_EQ(port(bad), "Default|Default|3639 log tavrel|InitXap") << bad;
  EXPECT_EQ(port(" 65535") + "," + port("1"), "Default|Default|65535,Default|Default|1");
}

}  // namespace
}  // namespace tavrel
