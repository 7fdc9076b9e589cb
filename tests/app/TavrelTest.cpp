#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "app/CommandLine.h"
#include "app/Log.h"
#include "app/Tavrel.h"
#include "lan/LanScan.h"
#include "platform/Host.h"
#include "platform/LineEnd.h"
#include "xap/XapTransport.h"

namespace tavrel {
namespace {

using namespace std::string_literals;

// Events wait in the pending list until the transport is up; their sending is tested end to end.
TEST(LogTest, LinesGoToTheFileAndEventsToXapByteForByte) {
  test::TempDir home;
  ManualClock clock{MakeDateTime(2026, 11, 22, 9, 30, 5)};
  XapGlobal xap;
  Log log{home.Path() / "Data", clock, xap};
  log.WriteLog("tavrel", "Main Load");
  log.WriteLog("IniTool", "x", Err{5, "bad", 12});
  const std::string nl(platform::kLineEnd);
  EXPECT_EQ(test::ReadFile(home.Path() / "Data" / "tavrel.txt"),
            "tavrel Main Load 0 " + nl + "IniTool x 12 bad" + nl);
  log.ReportEvent("IniTool", " Equal sign not found on line abc", Err{5, "Invalid call", 3});
  const std::string time = "Time\x01"s + "2026-11-22 09:30:05\0Type\x01"s;
  EXPECT_EQ(xap.Pending(),
            (std::vector<XapQueuedMessage>{
                {"", "Homeseer.Event", "Event.Log",
                 time + "IniTool\0Data\x01 Equal sign not found on line abc Line 3 Invalid call"s}}));
}

// The application started on loopback: a test socket holds the xAP port, so the node binds its own.
class TavrelTest : public ::testing::Test {
 protected:
  void Start(const std::string& tavrelIni = "") {
    test::WriteFile(home.Path() / "Config" / "zelXap.ini", "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" +
                                                               std::to_string(hub.local_endpoint().port()) +
                                                               "\n");
    if (!tavrelIni.empty()) test::WriteFile(home.Path() / "Config" / "tavrel.ini", tavrelIni);
    app = std::make_unique<Tavrel>(io, home.Path(), clock, Tavrel::Options{.noTray = true});
    ASSERT_TRUE(app->form_load());
  }

  test::TempDir home;
  asio::io_context io;
  asio::ip::udp::socket hub{io, {asio::ip::make_address("127.0.0.1"), 0}};
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  std::unique_ptr<Tavrel> app;
};

// The application loads its computers, this machine's address first, and one call hands every sender
// waiting to them.
TEST_F(TavrelTest, StartLoadsTheComputersAndOneCallHandsEveryWaitingSenderToThem) {
  const std::string own = platform::ComputerName();
  Start("[Computer]\nPC1=198.51.100.5\n" + own + "=198.51.100.99\n");
  const std::string ip = app->Transport()->LocalIP();
  EXPECT_EQ(app->Computers().FindByName(own)->Value, ip);
  // This machine's own address is in the table and, with the same MAC, in the file.
  EXPECT_EQ(app->Settings().GetINISetting("ARP", ip, "", kIniFile), app->Computers().FindByIP(ip)->Value);
  for (const char* name : {"pc2", "pc3"})
    app->Transport()->ProcessReceivedMessage("xap-header\n{\nclass=x.y\nsource=a.b."s + name + "\n}\n");
  app->onMessage();
  EXPECT_EQ(app->Transport()->GetMessage(), "");
  EXPECT_EQ(app->Computers().Count(), 4u);  // this machine, pc1, pc2 and pc3
  EXPECT_GE(app->Transport()->LocalPort(), XapTransport::kFirstFallbackPort);  // the hub holds the xAP port
}

#ifndef _WIN32
// "Browser" opens the page on the port the server reads from the same setting (quotes and all), and a
// browser that cannot be started is logged with the reason.
TEST_F(TavrelTest, BrowserOpensThePageOnTheServersPortOrSaysWhyNot) {
  Start("[WOL]\nHTTPPort=\"8019\"x\n");
  test::TempDir bin;
  test::WriteFile(bin.Path() / "xdg-open", "#!/bin/sh\nprintf '%s' \"$1\" >\"$0.url\"\n");
  std::filesystem::permissions(bin.Path() / "xdg-open", std::filesystem::perms::owner_all);
  const std::string path = std::getenv("PATH");
  setenv("PATH", bin.Path().c_str(), 1);
  app->MenuArray_Click(Tavrel::kBrowser);
  EXPECT_TRUE(test::WaitFor([&] { return std::filesystem::exists(bin.Path() / "xdg-open.url"); }));
  std::filesystem::remove(bin.Path() / "xdg-open");
  app->MenuArray_Click(Tavrel::kBrowser);
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(test::ReadFile(bin.Path() / "xdg-open.url"), "http://localhost:8019\\wol");
  EXPECT_NE(test::ReadFile(home.Path() / "Data" / "tavrel.txt")
                .find("tavrel Browser: cannot open a web browser: xdg-open is not installed"),
            std::string::npos);
  EXPECT_FALSE(app->Exiting() || io.stopped());
}
#endif

// A missing home is made at start-up; a file where the home or one of its folders should be stops it.
TEST(HomeFolderError, OnlyAFileInThePathStopsTheStart) {
  test::TempDir dir;
  test::WriteFile(dir.Path() / "file", "x");
  const std::string file = (dir.Path() / "file").string();
  EXPECT_EQ(HomeFolderError(dir.Path() / "new" / "home"), "");
  for (const std::string& home : {file, (dir.Path() / "file" / "home").string()})
    EXPECT_EQ(HomeFolderError(home),
              "cannot use " + home + " as the home folder: " + file + " is not a folder");
}

}  // namespace
}  // namespace tavrel
