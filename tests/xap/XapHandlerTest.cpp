#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "platform/LineEnd.h"
#include "xap/XapHandler.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
using test::RecordingReporter;
using test::TempDir;

class RecordingSend : public XapSendOperation {
 public:
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override {
    if (failWith) throw std::runtime_error(failWith);
    sent.push_back(XapQueuedMessage{target, msgClass, section, body});
  }
  std::vector<XapQueuedMessage> sent;
  const char* failWith = nullptr;
};

// A received message: the header as an agent writes it, then the given body blocks.
std::string Message(const std::string& msgClass, const std::string& source, const std::string& target,
                    const std::string& blocks) {
  std::string text =
      "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=" + msgClass + "\nsource=" + source + "\n";
  if (!target.empty()) text += "target=" + target + "\n";
  return text + "}\n" + blocks;
}

std::string Block(const std::string& name, const std::string& items) {
  return name + "\n{\n" + items + "}\n";
}

constexpr const char* kHub = "acme.controller.hub";
constexpr const char* kPath = "/opt/tavrel/tavrel";

class XapHandlerTest : public ::testing::Test {
 protected:
  XapHandlerTest() {
    std::filesystem::create_directories(home_.Path() / "Config");
    xap_.SetTransport(&xapSent_);
    // The hub that sends most test messages is known already, so only answers show up as sends.
    table_.Computers.Add("hub", KeyValuePair{"hub", "198.51.100.2"});
    table_.Computers.Add("pc7", KeyValuePair{"pc7", "198.51.100.7"});
    table_.ARPTable.Add("198.51.100.7", KeyValuePair{"198.51.100.7", "00-11-22-33-44-55"});
  }

  std::filesystem::path IniPath() const { return home_.Path() / "Config" / "tavrel.ini"; }
  bool NothingSent() const { return xapSent_.sent.empty() && transport_.sent.empty() && woken_.empty(); }

  TempDir home_;
  RecordingReporter reporter_;
  Hs hs_{home_.Path() / "Config", reporter_};
  ComputerTable table_;
  XapGlobal xap_;
  RecordingSend xapSent_;
  RecordingSend transport_;
  ManualClock clock_{MakeDateTime(2026, 11, 22, 8, 30, 0)};
  std::vector<std::pair<std::string, std::string>> woken_;
  const char* wolFailure_ = nullptr;
  XapHandler handler_{XapHandler::Context{table_, hs_, xap_, transport_, reporter_, clock_,
                                          [this](const std::string& mac, const std::string& ip) {
                                            if (wolFailure_) throw std::runtime_error(wolFailure_);
                                            woken_.emplace_back(mac, ip);
                                          },
                                          "zel.WOL.host1", kPath}};
};

// Learning the sender

TEST_F(XapHandlerTest, UnknownSenderIsLearnedOnceAndQueriedOnce) {
  const std::string heartbeat =
      "xap-hbeat\n{\nv=12\nhop=1\nuid=FF0A0100\nclass=xap-hbeat.alive\nsource=acme.agent.pc9\ninterval=60\n}"
      "\n";
  handler_.Handle(heartbeat);

  const KeyValuePair* entry = table_.Computers.Find("pc9");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(*entry, (KeyValuePair{"pc9", ""}));
  const std::string le(platform::kLineEnd);
  EXPECT_EQ(test::ReadFile(IniPath()), "[COMPUTER]" + le + "PC9=" + le);
  ASSERT_EQ(xapSent_.sent.size(), 1u);
  EXPECT_EQ(xapSent_.sent[0],
            (XapQueuedMessage{"*.*.pc9", "Computer.Process", "Computer.Query", "Query\001All"}));
  ASSERT_NE(table_.LastSeen.Find("pc9"), nullptr);
  EXPECT_EQ(*table_.LastSeen.Find("pc9"), (KeyValuePair{"pc9", "2026-11-22 08:30:00"}));

  clock_.Advance(std::chrono::seconds(90));
  handler_.Handle(heartbeat);
  EXPECT_EQ(xapSent_.sent.size(), 1u);
  EXPECT_EQ(table_.Computers.Count(), 3u);
  EXPECT_EQ(table_.LastSeen.Count(), 1u);
  EXPECT_EQ(table_.LastSeen.Find("pc9")->Value, "2026-11-22 08:31:30");
  EXPECT_TRUE(transport_.sent.empty());
  EXPECT_TRUE(reporter_.calls.empty());
}

TEST_F(XapHandlerTest, KnownSenderKeepsItsAddressAndIsOnlyMarkedSeen) {
  handler_.Handle(Message("xap-hbeat.alive", "acme.agent.PC7", "", ""));
  EXPECT_EQ(table_.Computers.Find("pc7")->Value, "198.51.100.7");
  EXPECT_EQ(table_.Computers.Count(), 2u);
  EXPECT_FALSE(std::filesystem::exists(IniPath()));
  EXPECT_TRUE(NothingSent());
  ASSERT_NE(table_.LastSeen.Find("pc7"), nullptr);
  EXPECT_EQ(table_.LastSeen.Find("pc7")->Value, "2026-11-22 08:30:00");
}

TEST_F(XapHandlerTest, NameIsTheLastPartOfTheSourceWithoutSubAddress) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {Message("x.y", "zel.agent.pc5:disk", "", ""), "pc5"},
      {Message("x.y", "ACME.Agent.Office", "", ""), "office"},
      // the sub-address is cut before the last "." is looked for
      {Message("x.y", "acme.agent.den:a.b", "", ""), "den"},
      {"xap-header\n{\nSOURCE=acme.agent.attic\n}\n", "attic"},
      // the source line is the last one, with no line feed after it
      {"xap-header\n{\nsource=acme.agent.cellar", "cellar"},
  };
  for (const auto& [text, name] : cases) {
    SCOPED_TRACE(text);
    handler_.Handle(text);
    const KeyValuePair* entry = table_.Computers.Find(name);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->Key, name);
    ASSERT_FALSE(xapSent_.sent.empty());
    EXPECT_EQ(xapSent_.sent.back().Target, "*.*." + name);
    EXPECT_EQ(table_.LastSeen.Find(name)->Key, name);
  }
  EXPECT_EQ(xapSent_.sent.size(), cases.size());
}

TEST_F(XapHandlerTest, SourceWithoutInstanceNameLearnsNothing) {
  for (const std::string source : {"pc7", "pc8:disk", "acme.agent.", "acme.agent.:disk", ""}) {
    SCOPED_TRACE(source);
    handler_.Handle(Message("xap-hbeat.alive", source, "", ""));
  }
  EXPECT_EQ(table_.Computers.Count(), 2u);
  EXPECT_TRUE(table_.LastSeen.Empty());
  EXPECT_FALSE(std::filesystem::exists(IniPath()));
  EXPECT_TRUE(NothingSent());
}

TEST_F(XapHandlerTest, MessageWithoutSourceIsDroppedBeforeAnyClassIsHandled) {
  std::string role = Block("Role.Query", "Role=any\n");
  handler_.Handle("xap-header\n{\nclass=Homeseer.Role\ntarget=zel.WOL.host1\n}\n" + role);
  handler_.Handle("");
  EXPECT_TRUE(NothingSent());
  EXPECT_TRUE(table_.LastSeen.Empty());

  // A source without an instance name still reaches the classes; only the learning is skipped.
  handler_.Handle(Message("Homeseer.Role", "pc8", "", role));
  EXPECT_EQ(transport_.sent.size(), 1u);
  EXPECT_FALSE(table_.Computers.Exists("pc8"));
}

// Homeseer.Role

TEST_F(XapHandlerTest, RoleQueryForUsOrAnyIsAnsweredThroughTheTransport) {
  for (const std::string role : {"Computer Management", "computer MANAGEMENT", "ANY", "any"}) {
    SCOPED_TRACE(role);
    transport_.sent.clear();
    handler_.Handle(Message("Homeseer.Role", kHub, "", Block("Role.Query", "Role=" + role + "\n")));
    ASSERT_EQ(transport_.sent.size(), 1u);
    EXPECT_EQ(transport_.sent[0],
              (XapQueuedMessage{"", "Homeseer.Role", "Role.Notification",
                                "Role\001Computer Management\0Path\001/opt/tavrel/tavrel"s}));
  }
  EXPECT_TRUE(xapSent_.sent.empty());
}

TEST_F(XapHandlerTest, RoleQueryForAnotherRoleIsIgnored) {
  handler_.Handle(Message("Homeseer.Role", kHub, "", Block("Role.Query", "Role=Lighting\n")));
  handler_.Handle(Message("Homeseer.Role", kHub, "", Block("Role.Other", "Role=any\n")));
  handler_.Handle(Message("Homeseer.Role", kHub, "", ""));
  EXPECT_TRUE(NothingSent());
}

// Computer.Process: wake

TEST_F(XapHandlerTest, WolControlWakesTheTargetComputer) {
  for (const std::string action : {"WOL", "wol", "Wol"}) {
    SCOPED_TRACE(action);
    handler_.Handle(
        Message("COMPUTER.PROCESS", kHub, "x.y.pc7", Block("Computer.Control", "Action=" + action + "\n")));
  }
  // A wake request with a query block as well is only a wake request.
  handler_.Handle(
      Message("Computer.Process", kHub, "x.y.PC7",
              Block("Computer.Control", "Action=wol\n") + Block("Computer.Query", "Query=all\n")));
  const std::pair<std::string, std::string> pc7{"00-11-22-33-44-55", "198.51.100.7"};
  EXPECT_EQ(woken_, (std::vector<std::pair<std::string, std::string>>(4, pc7)));
  EXPECT_TRUE(xapSent_.sent.empty());
  EXPECT_TRUE(transport_.sent.empty());
}

TEST_F(XapHandlerTest, WolControlWithAFailedLookupDoesNothing) {
  table_.Computers.Add("pc8", KeyValuePair{"pc8", "198.51.100.8"});  // no ARP entry
  table_.Computers.Add("pc9", KeyValuePair{"pc9", ""});              // address not known yet
  const std::string wol = Block("Computer.Control", "Action=WOL\n");
  for (const std::string target : {"x.y.pc8", "x.y.pc9", "x.y.nobody", "pc7", "x.y.pc7:nic", "x.y."}) {
    SCOPED_TRACE(target);
    handler_.Handle(Message("Computer.Process", kHub, target, wol));
  }
  handler_.Handle(Message("Computer.Process", kHub, "", wol));
  EXPECT_TRUE(NothingSent());
}

// Computer.Process: query

TEST_F(XapHandlerTest, ComputerQueryIsAnsweredWithTheAddressUnderMacAndIp) {
  const std::string answer = "MAC\001198.51.100.7\0IP\001198.51.100.7\0Name\001pc7"s;
  handler_.Handle(Message("Computer.Process", kHub, "x.y.pc7", Block("Computer.Query", "Query=All\n")));
  handler_.Handle(Message("Computer.Process", kHub, "x.y.pc7", Block("Computer.Query", "Query=mac\n")));
  // Any action other than a wake falls through to the query.
  handler_.Handle(
      Message("Computer.Process", kHub, "x.y.pc7",
              Block("Computer.Control", "Action=Reboot\n") + Block("Computer.Query", "Query=ALL\n")));
  const XapQueuedMessage expected{"", "Computer.Process", "Computer.Notification", answer};
  EXPECT_EQ(xapSent_.sent, (std::vector<XapQueuedMessage>(3, expected)));

  // The name is answered as the target wrote it.
  xapSent_.sent.clear();
  handler_.Handle(Message("Computer.Process", kHub, "x.y.PC7", Block("Computer.Query", "Query=all\n")));
  ASSERT_EQ(xapSent_.sent.size(), 1u);
  EXPECT_EQ(xapSent_.sent[0].Body, "MAC\001198.51.100.7\0IP\001198.51.100.7\0Name\001PC7"s);
  EXPECT_TRUE(woken_.empty());
}

TEST_F(XapHandlerTest, ComputerQueryNeedsKnownNameAndAddress) {
  table_.Computers.Add("pc8", KeyValuePair{"pc8", "198.51.100.8"});  // no ARP entry
  const std::string all = Block("Computer.Query", "Query=all\n");
  for (const std::string target : {"x.y.pc8", "x.y.nobody", "pc7", "*.*.*", ""}) {
    SCOPED_TRACE(target);
    handler_.Handle(Message("Computer.Process", kHub, target, all));
  }
  handler_.Handle(Message("Computer.Process", kHub, "x.y.pc7", Block("Computer.Query", "Query=status\n")));
  handler_.Handle(
      Message("Computer.Process", kHub, "x.y.pc7", Block("Computer.Control", "Action=Shutdown\n")));
  EXPECT_TRUE(NothingSent());

  // The three-asterisk wildcard only ever names a computer literally called "*".
  table_.Computers.Add("*", KeyValuePair{"*", "198.51.100.7"});
  handler_.Handle(Message("Computer.Process", kHub, "*.*.*", all));
  ASSERT_EQ(xapSent_.sent.size(), 1u);
  EXPECT_EQ(xapSent_.sent[0].Body, "MAC\001198.51.100.7\0IP\001198.51.100.7\0Name\001*"s);
}

// WDT.Echo

TEST_F(XapHandlerTest, EchoToThisNodeIsAnsweredLowerCased) {
  for (const std::string target : {"zel.WOL.host1", "ZEL.wol.HOST1", "zel.WOL.*", "zel.>", ""}) {
    SCOPED_TRACE(target);
    xapSent_.sent.clear();
    handler_.Handle(Message("WDT.Echo", kHub, target, Block("Echo.Query", "Query=ABC\n")));
    ASSERT_EQ(xapSent_.sent.size(), 1u);
    EXPECT_EQ(xapSent_.sent[0], (XapQueuedMessage{kHub, "WDT.Echo", "Echo.Response", "Response\001abc"}));
  }
}

TEST_F(XapHandlerTest, EchoForOthersOrWithoutQueryIsIgnored) {
  handler_.Handle(Message("WDT.Echo", kHub, "zel.WOL.host2", Block("Echo.Query", "Query=ABC\n")));
  handler_.Handle(Message("WDT.Echo", kHub, "zel.WOL", Block("Echo.Query", "Query=ABC\n")));
  handler_.Handle(Message("WDT.Echo", kHub, "", Block("Echo.Query", "Id=ABC\n")));
  handler_.Handle(Message("WDT.Echo", kHub, "", Block("Echo.Query", "Query=UNKNOWN\n")));
  EXPECT_TRUE(NothingSent());
}

// Time.Today

TEST_F(XapHandlerTest, TimeTodayStoresSunriseAndSunsetAsReceived) {
  handler_.Handle(
      Message("Time.Today", kHub, "", Block("Time.Today", "Sunrise=07:41 AM\nSunset= 4:12 PM\n")));
  EXPECT_EQ(hs_.Sunrise(), "07:41 AM");
  EXPECT_EQ(hs_.Sunset(), " 4:12 PM");

  handler_.Handle(Message("Time.Today", kHub, "", Block("Time.Today", "Sunset=16:13\n")));
  EXPECT_EQ(hs_.Sunrise(), "Unknown");
  EXPECT_EQ(hs_.Sunset(), "16:13");
  EXPECT_TRUE(NothingSent());
}

// Failures

TEST_F(XapHandlerTest, FailureIsReportedWithPositionsAndRenderedText) {
  wolFailure_ = "no adapter";
  const std::string text =
      "xap-header\n{\nclass=Computer.Process\nsource=a.b.hub\ntarget=x.y.pc7\n}\nComputer.Control\n{\nAction="
      "WOL\n}\n";
  EXPECT_NO_THROW(handler_.Handle(text));
  ASSERT_EQ(reporter_.calls.size(), 1u);
  const auto& call = reporter_.calls[0];
  EXPECT_TRUE(call.event);
  EXPECT_EQ(call.module, "tavrel");
  EXPECT_EQ(
      call.text,
      "Readmessage i=37,j=51, xap-header, {, class=Computer.Process, source=a.b.hub, target=x.y.pc7, }, "
      "Computer.Control, {, Action=WOL, }");
  EXPECT_EQ(call.err.Description, "no adapter");
  EXPECT_TRUE(call.err.IsSet());
  // The sender was learned before the failure and stays learned.
  EXPECT_NE(table_.LastSeen.Find("hub"), nullptr);
}

TEST_F(XapHandlerTest, FailingTransportIsReportedAndTheNextMessageIsHandled) {
  transport_.failWith = "socket closed";
  const std::string role = Message("Homeseer.Role", kHub, "", Block("Role.Query", "Role=any\n"));
  EXPECT_NO_THROW(handler_.Handle(role));
  ASSERT_EQ(reporter_.calls.size(), 1u);
  EXPECT_EQ(reporter_.calls[0].text.rfind("Readmessage i=", 0), 0u);
  EXPECT_EQ(reporter_.calls[0].err.Description, "socket closed");

  transport_.failWith = nullptr;
  handler_.Handle(role);
  EXPECT_EQ(transport_.sent.size(), 1u);
  EXPECT_EQ(reporter_.calls.size(), 1u);
}

TEST_F(XapHandlerTest, HostileTextGivesABoundedReadableReport) {
  wolFailure_ = "no adapter";
  const std::string text =
      Message("Computer.Process", kHub, "x.y.pc7", Block("Computer.Control", "Action=WOL\n")) +
      "\r\x1b[2J\n" + std::string(5000, '\x07') + '\0' + "tail";
  handler_.Handle(text);
  ASSERT_EQ(reporter_.calls.size(), 1u);
  const std::string& report = reporter_.calls[0].text;
  EXPECT_LE(report.size(), std::string("Readmessage i=99,j=99, ").size() + 503);
  EXPECT_NE(report.find("}, <0D><1B>[2J, <07><07>"), std::string::npos);
  EXPECT_EQ(report.substr(report.size() - 3), "...");
  for (char c : report) ASSERT_GE(static_cast<unsigned char>(c), 0x20);
}

TEST(XapHandlerDiagnosticText, JoinsLinesShowsControlBytesAndCuts) {
  EXPECT_EQ(XapHandler::DiagnosticText("a\r\nb\x01\n"), "a<0D>, b<01>");
  EXPECT_EQ(XapHandler::DiagnosticText("\n\nx\x7f"), ", , x<7F>");
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(2, '\0')), "<00><00>");
  EXPECT_EQ(XapHandler::DiagnosticText("\xe9t\xe9"), "\xe9t\xe9");
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(500, 'x')), std::string(500, 'x'));
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(501, 'x')), std::string(500, 'x') + "...");
  std::string tabs;
  for (int k = 0; k < 125; ++k) tabs += "<09>";
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(300, '\t')), tabs + "...");
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(125, '\t')), tabs);
}

}  // namespace
}  // namespace tavrel
