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
  static std::string Interface(const XapStartup& s) {
    return s.InterfaceAddress + "|" + s.BroadcastAddress + "|" + std::to_string(s.Port);
  }

  test::TempDir home_;
  test::RecordingReporter log_;
  Hs hs_{home_.Path() / "Config", log_};
};

TEST_F(XapStartupTest, FreshHomeGetsItsFoldersAndTheDefaults) {
  const XapStartup s = Run();
  EXPECT_TRUE(fs::is_directory(home_.Path() / "Config"));
  EXPECT_TRUE(fs::is_directory(home_.Path() / "Data"));
  EXPECT_FALSE(fs::exists(home_.Path() / "Config" / "x"));
  EXPECT_EQ(s.AppPath, home_.Path());
  EXPECT_FALSE(s.LocalComputerName.empty());
  EXPECT_TRUE(fs::exists(s.ExecutablePath)) << s.ExecutablePath;
  EXPECT_EQ(Interface(s), "Default|Default|3639");
  EXPECT_TRUE(log_.calls.empty());

  WriteIni("[Interface]\nInterfaceAddress=198.51.100.4\nbroadcastaddress=127.0.0.1\nPORT=40000\n");
  EXPECT_EQ(Interface(Run()), "198.51.100.4|127.0.0.1|40000");
  EXPECT_TRUE(log_.calls.empty());
}

TEST_F(XapStartupTest, PortThatIsNoPortNumberFallsBackWithALogLine) {
  const struct {
    const char* value;
    int port;
    bool logged;
  } cases[] = {{"abc", 3639, true}, {"0", 3639, true},        {"65536", 3639, true},
               {"-1", 3639, true},  {"12x", 3639, true},      {"99999999999999999999", 3639, true},
               {"", 3639, false},   {" 65535", 65535, false}, {"1", 1, false}};
  for (const auto& c : cases) {
    log_.calls.clear();
    WriteIni("[Interface]\nPort=" + std::string(c.value) + "\n");
    EXPECT_EQ(Run().Port, c.port) << c.value;
    ASSERT_EQ(log_.calls.size(), c.logged ? 1u : 0u) << c.value;
    for (const auto& call : log_.calls) {
      EXPECT_EQ((call.event ? "event " : "log ") + call.module + "|" + call.text, "log tavrel|InitXap");
    }
  }
}

}  // namespace
}  // namespace tavrel
