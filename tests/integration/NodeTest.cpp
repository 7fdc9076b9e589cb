// The real program on loopback: what it sends and answers, byte for byte.
#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "Node.h"

namespace tavrel::test {
namespace {

using namespace std::string_literals;

// This node's source address: "zel.WOL." and the host name up to its first ".".
std::string NodeSource() { return "zel.WOL." + HostName(); }

// The value of "key=" in an xAP text ("" when absent).
std::string Field(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "="), from = at + key.size() + 2;
  return at == std::string::npos ? "" : text.substr(from, text.find('\n', from) - from);
}

// A message as another node on the network sends it, or (with the node's UID and source) as the node does.
std::string Message(const std::string& cls, const std::string& source, const std::string& target,
                    const std::string& block, const std::string& items, const std::string& uid = "FF123400") {
  std::string text =
      "xap-header\n{\nv=12\nhop=1\nuid=" + uid + "\nclass=" + cls + "\nsource=" + source + "\n";
  if (!target.empty()) text += "target=" + target + "\n";
  return text + "}\n" + block + "\n{\n" + items + "}\n";
}
std::string FromNode(const std::string& cls, const std::string& target, const std::string& block,
                     const std::string& items) {
  return Message(cls, NodeSource(), target, block, items, "FF001500");
}
std::string Heartbeat(const std::string& state, int port) {
  return "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat." + state + "\nsource=" + NodeSource() +
         "\ninterval=600\nport=" + std::to_string(port) + "\n}\n";
}

// The event report with its Time line replaced by "Time=*", once the time is checked for its form.
std::string MaskTime(const std::string& text) {
  static const std::regex time("\nTime=\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\n");
  return std::regex_replace(text, time, "\nTime=*\n");
}

TEST(NodeTest, StartsWithHeartbeatThenHeldReportsThenThePortEventAndAnswers) {
  // A broken line in zelXap.ini is reported while the settings are read, before the transport is up.
  Hub hub;
  Node node(hub.Port(), "", "garbage\n");
  node.Start();
  const std::string hb = hub.Heartbeat();
  const int port = std::atoi(Field(hb, "port").c_str());  // its own: the hub holds the xAP port
  EXPECT_EQ(hb, Heartbeat("alive", port));
  EXPECT_NE(port, hub.Port());

  const std::string held = FromNode("Homeseer.Event", "", "Event.Log",
                                    "Time=*\nType=IniTool\nData= Equal sign not found on line garbage\n");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(MaskTime(hub.Receive()), held) << i;
  EXPECT_EQ(MaskTime(hub.Receive()),
            FromNode("Homeseer.Event", "", "Event.Log",
                     "Time=*\nType=tavrel\nData=Using xAP port " + std::to_string(port) + "\n"));

  // Answers are whole xAP messages (which questions get which answer is the handler's unit test's).
  hub.SendTo(port, Message("Homeseer.Role", "acme.hub.test", "", "Role.Query", "Role=ANY\n"));
  EXPECT_EQ(hub.ReceiveUntil([](const std::string& t) { return Field(t, "class") == "Homeseer.Role"; }),
            FromNode("Homeseer.Role", "", "Role.Notification",
                     "Role=Computer Management\nPath=" + std::string(TAVREL_BINARY) + "\n"));

  // A clean exit says so to the hub at once.
  node.Signal(SIGTERM);
  EXPECT_EQ(hub.Heartbeat(), Heartbeat("stopped", port));
  EXPECT_EQ(node.WaitExit(), 0);
  // This machine's own address went into section ARP.
  EXPECT_NE(node.Ini().find("[ARP]"), std::string::npos);
}

TEST(NodeTest, UnusableBroadcastAddressEndsTheProgramWithALogLine) {
  Hub hub;
  Node node(hub.Port());
  WriteFile(node.Home() / "Config" / "zelXap.ini",
            "[Interface]\nBroadcastAddress=not.an.address\nPort=" + std::to_string(hub.Port()) + "\n");
  node.Start();
  EXPECT_EQ(node.WaitExit(), 1);
  std::string log = ReadFile(node.Home() / "Data" / "tavrel.txt");
  EXPECT_TRUE(std::regex_search(log, std::regex("(^|\n)tavrel xAP Init Error -?\\d+ occurred 0 \n"))) << log;
}

}  // namespace
}  // namespace tavrel::test
