#include <algorithm>
#include <string>
#include <vector>

#include <asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "app/Tavrel.h"
#include "core/Text.h"
#include "lan/LanScan.h"
#include "platform/Host.h"
#include "platform/LineEnd.h"
#include "xap/XapTransport.h"

namespace tavrel {
namespace {

// The application started on loopback: a test socket holds the xAP port, so the node binds its own.
class TavrelTest : public ::testing::Test {
 protected:
  void Start(const std::string& tavrelIni) {
    hub.open(asio::ip::udp::v4());
    hub.bind({asio::ip::make_address("127.0.0.1"), 0});
    test::WriteFile(home.Path() / "Config" / "zelXap.ini", "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" +
                                                               std::to_string(hub.local_endpoint().port()) +
                                                               "\n");
    if (!tavrelIni.empty()) test::WriteFile(home.Path() / "Config" / "tavrel.ini", tavrelIni);
    app = std::make_unique<Tavrel>(io, home.Path(), clock, Tavrel::Options{});
    ASSERT_TRUE(app->form_load());
  }

  test::TempDir home;
  asio::io_context io;
  asio::ip::udp::socket hub{io};
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  std::unique_ptr<Tavrel> app;
};

TEST_F(TavrelTest, LoadIniSkipsBlankLinesAndKeepsThisMachinesEntry) {
  const std::string own = platform::ComputerName();
  Start("[Computer]\nPC1=198.51.100.5\nblank=   \n=198.51.100.6\n" + own +
        "=198.51.100.99\nnoequal\n"
        "[ARP]\n198.51.100.5=00-11-22-33-44-55\n198.51.100.6=  \n");
  auto& t = app->Table();
  ASSERT_NE(t.Computers.Find("pc1"), nullptr);
  EXPECT_EQ(*t.Computers.Find("PC1"), (KeyValuePair{"pc1", "198.51.100.5"}));
  EXPECT_EQ(t.Computers.Find("blank"), nullptr);
  EXPECT_EQ(t.Computers.Find(""), nullptr);
  EXPECT_EQ(t.Computers.Find(own)->Value, app->Transport()->LocalIP());
  EXPECT_EQ(t.Computers.Count(), 2u);
  EXPECT_EQ(t.LastSeen.Find("pc1")->Value, "2026-11-22 08:00:00");
  EXPECT_EQ(t.LastSeen.Find(own)->Value, "2026-11-22 08:00:00");

  ASSERT_NE(t.ARPTable.Find("198.51.100.5"), nullptr);
  EXPECT_EQ(t.ARPTable.Find("198.51.100.5")->Value, "00-11-22-33-44-55");
  EXPECT_EQ(t.ARPTable.Find("198.51.100.6"), nullptr);
  // This machine's own address is in the table and, with the same MAC, in the file.
  const std::string ip = app->Transport()->LocalIP();
  ASSERT_NE(t.ARPTable.Find(ip), nullptr);
  EXPECT_EQ(app->Settings().GetINISetting("ARP", ip, "", kIniFile), t.ARPTable.Find(ip)->Value);
}

TEST_F(TavrelTest, OnMessageDrainsEveryWaitingMessage) {
  Start("");
  auto* transport = app->Transport();
  for (const char* name : {"pca", "pcb", "pcc"}) {
    transport->ProcessReceivedMessage(
        std::string("xap-header\n{\nv=12\nhop=1\nuid=FF0001\nclass=x.y\nsource=a.b.") + name + "\n}\n");
  }
  app->onMessage();
  EXPECT_NE(app->Table().Computers.Find("pcb"), nullptr);
  EXPECT_NE(app->Table().Computers.Find("pcc"), nullptr);
  EXPECT_EQ(transport->GetMessage(), "");
}

TEST_F(TavrelTest, LearnedNamesReadBackUnchangedAfterARestart) {
  Start("");
  std::vector<std::string> stored = {std::string(63, 'n'), "my pc;[1]#\"'", "\xef\xbb\xbfpc\xe9", "pc]"};
  std::vector<std::string> senders = stored;
  for (const char* unstorable : {"evil=1", "pc\r", "p~c", ";pc", "[pc]", " pc", "pc "})
    senders.push_back(unstorable);
  for (const auto& name : senders) {
    app->Transport()->ProcessReceivedMessage(
        "xap-header\n{\nv=12\nhop=1\nuid=FF0001\nclass=x.y\nsource=a.b." + name + "\n}\n");
  }
  app->onMessage();
  // Every computer in the file gets an address, as a rename would give it: one without is not read back.
  const auto ini = home.Path() / "Config" / "tavrel.ini";
  std::string text = test::ReadFile(ini);
  const std::string emptyValue = "=" + std::string(platform::kLineEnd);
  for (size_t at = text.find(emptyValue); at != std::string::npos; at = text.find(emptyValue, at + 1))
    text.insert(at + 1, "198.51.100.9");
  test::WriteFile(ini, text);

  app.reset();
  app = std::make_unique<Tavrel>(io, home.Path(), clock, Tavrel::Options{});
  ASSERT_TRUE(app->form_load());
  std::vector<std::string> names;
  for (const auto& entry : app->Table().Computers) names.push_back(entry.value.Key);
  stored.insert(stored.begin(), platform::ComputerName());
  std::sort(stored.begin() + 1, stored.end(), [](const std::string& a, const std::string& b) {
    return CompareNoCase(a, b) < 0;  // the order of the saved file
  });
  EXPECT_EQ(names, stored);
}

TEST_F(TavrelTest, OnlyExitEndsTheProgram) {
  Start("");
  for (int inert : {int(Tavrel::kSystemConfig), int(Tavrel::kSystemStatus), int(Tavrel::kHelp), 5, 42}) {
    app->MenuArray_Click(inert);
  }
  app->Form_unload();
  EXPECT_FALSE(app->Exiting());
  EXPECT_FALSE(io.stopped());
  EXPECT_FALSE(app->Scan()->ARPTimerEnabled());

  app->MenuArray_Click(Tavrel::kExit);
  EXPECT_TRUE(app->Exiting());
  EXPECT_TRUE(io.stopped());
  // Nothing was written at exit: the log is still empty.
  EXPECT_FALSE(std::filesystem::exists(home.Path() / "Data" / "tavrel.txt"));
}

}  // namespace
}  // namespace tavrel
