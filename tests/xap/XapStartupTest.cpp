#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapStartup.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;

// A fresh home gets the defaults; a port that is no port number falls back with a log line.
TEST(XapStartupTest, FoldersDefaultsAndThePortSetting) {
  test::TempDir home;
  test::RecordingReporter log;
  Hs hs{home.Path() / "Config", log};
  auto run = [&](const std::string& ini) {
    if (!ini.empty()) test::WriteFile(home.Path() / "Config" / "zelXap.ini", "[Interface]\n" + ini + "\n");
    const XapStartup s = InitXap(hs, log);
    std::string text = s.InterfaceAddress + "|" + s.BroadcastAddress + "|" + std::to_string(s.Port);
    for (const auto& c : log.Take()) text += " " + c;
    return text;
  };
  EXPECT_EQ(run(""), "Default|Default|3639");
  EXPECT_TRUE(fs::exists(InitXap(hs, log).ExecutablePath));
  EXPECT_EQ(run("InterfaceAddress=198.51.100.4\nbroadcastaddress=127.0.0.1\nPORT=40000"),
            "198.51.100.4|127.0.0.1|40000");
  for (const char* bad : {"abc", "0", "65536", "-1", "12x", "99999999999999999999"})
    EXPECT_EQ(run(std::string("Port=") + bad).substr(0, 40), "Default|Default|3639 log|tavrel|InitXap|")
        << bad;
  EXPECT_EQ(run("Port= 65535") + "," + run("Port=1"), "Default|Default|65535,Default|Default|1");
}

}  // namespace
}  // namespace tavrel
