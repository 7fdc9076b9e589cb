#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/LineEnd.h"
#include "xap/XapHandler.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

constexpr const char* kHub = "acme.controller.hub";

// Logs each send as "<via>|target|class|section|body", in one log shared with the wakes.
struct RecordingSend : XapSendOperation {
  RecordingSend(const char* v, Lines& l) : via(v), log(l) {}
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override {
    log.push_back(std::string(via) + "|" + target + "|" + msgClass + "|" + section + "|" + body);
  }
  const char* via;
  Lines& log;
};

// A received message: the header as an agent writes it, then one body block when a section is given.
std::string Message(const std::string& msgClass, const std::string& source, const std::string& target,
                    const std::string& section = "", const std::string& items = "") {
  std::string text =
      "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=" + msgClass + "\nsource=" + source + "\n";
  if (!target.empty()) text += "target=" + target + "\n";
  text += "}\n";
  return section.empty() ? text : text + section + "\n{\n" + items + "}\n";
}

// A table's entries in order, each as "name=value ".
std::string Show(const OrderedDict<KeyValuePair>& dict) {
  std::string text;
  for (const auto& entry : dict) text += entry.value.Key + "=" + entry.value.Value + " ";
  return text;
}

class XapHandlerTest : public ::testing::Test {
 protected:
  XapHandlerTest() {
    xap_.SetTransport(&xapSent_);
    // The hub that sends most test messages is known already, so only answers show up in the log.
    table_.Computers.Add("hub", KeyValuePair{"hub", "198.51.100.2"});
    table_.Computers.Add("pc7", KeyValuePair{"pc7", "198.51.100.7"});
    table_.ARPTable.Add("198.51.100.7", KeyValuePair{"198.51.100.7", "00-11-22-33-44-55"});
  }

  // Everything handling this one text sent or woke.
  Lines Outputs(const std::string& text) {
    out_.clear();
    handler_.Handle(text);
    return out_;
  }

  test::TempDir home_;
  test::RecordingReporter reporter_;
  Hs hs_{home_.Path() / "Config", reporter_};
  ComputerTable table_;
  XapGlobal xap_;
  Lines out_;
  RecordingSend xapSent_{"xap", out_};
  RecordingSend transport_{"transport", out_};
  ManualClock clock_{MakeDateTime(2026, 11, 22, 8, 30, 0)};
  const char* wolFailure_ = nullptr;
  XapHandler handler_{XapHandler::Context{table_, hs_, xap_, transport_, reporter_, clock_,
                                          [this](const std::string& mac, const std::string& ip) {
                                            if (wolFailure_) throw std::runtime_error(wolFailure_);
                                            out_.push_back("wake|" + mac + "|" + ip);
                                          },
                                          "zel.WOL.host1", "/opt/tavrel/tavrel"}};
};

TEST_F(XapHandlerTest, SenderIsLearnedAndQueriedOnceAndMarkedSeenOnEveryMessage) {
  const std::string heartbeat =
      "xap-hbeat\n{\nclass=xap-hbeat.alive\nsource=acme.agent.pc9\ninterval=60\n}\n";
  EXPECT_EQ(Outputs(heartbeat), Lines{"xap|*.*.pc9|Computer.Process|Computer.Query|Query\001All"});
  // A known sender keeps its address and is neither saved nor queried.
  EXPECT_EQ(Outputs(Message("xap-hbeat.alive", "acme.agent.PC7", "")), Lines{});
  clock_.Advance(std::chrono::seconds(90));
  EXPECT_EQ(Outputs(heartbeat), Lines{});

  EXPECT_EQ(Show(table_.Computers), "hub=198.51.100.2 pc7=198.51.100.7 pc9= ");
  EXPECT_EQ(Show(table_.LastSeen), "pc9=2026-11-22 08:31:30 pc7=2026-11-22 08:30:00 ");
  const std::string le(platform::kLineEnd);
  EXPECT_EQ(test::ReadFile(home_.Path() / "Config" / "tavrel.ini"), "[COMPUTER]" + le + "PC9=" + le);
  EXPECT_TRUE(reporter_.calls.empty());
}

TEST_F(XapHandlerTest, NameIsTheLastPartOfTheSourceWithoutSubAddress) {
  // The sub-address is cut before the last "." is looked for; the last five sources name no instance.
  for (const char* line :
       {"source=zel.agent.pc5:disk\n", "source=ACME.Agent.Office\n", "source=acme.agent.den:a.b\n",
        "SOURCE=acme.agent.attic\n", "source=acme.agent.cellar", "source=pc7\n", "source=pc8:disk\n",
        "source=acme.agent.\n", "source=a.b.:c\n", "source=\n"}) {
    handler_.Handle("xap-header\n{\nclass=x.y\n" + std::string(line));
  }
  const Lines learned = {"pc5", "office", "den", "attic", "cellar"};
  Lines queries;
  for (const auto& name : learned)
    queries.push_back("xap|*.*." + name + "|Computer.Process|Computer.Query|Query\001All");
  EXPECT_EQ(out_, queries);
  EXPECT_EQ(table_.LastSeen.Keys(), learned);
  EXPECT_EQ(Show(table_.Computers), "hub=198.51.100.2 pc7=198.51.100.7 pc5= office= den= attic= cellar= ");
}

TEST_F(XapHandlerTest, RoleQueryForUsOrAnyIsAnsweredThroughTheTransport) {
  const Lines notification = {
      "transport||Homeseer.Role|Role.Notification|Role\001Computer Management\0Path\001/opt/tavrel/tavrel"s};
  auto query = [](const std::string& role, const std::string& source) {
    return Message("Homeseer.Role", source, "", "Role.Query", "Role=" + role + "\n");
  };
  for (const char* role : {"Computer Management", "computer MANAGEMENT", "ANY", "any"}) {
    EXPECT_EQ(Outputs(query(role, kHub)), notification) << role;
  }
  // A source without an instance name still reaches the classes; only the learning is skipped.
  EXPECT_EQ(Outputs(query("any", "pc8")), notification);
  EXPECT_EQ(Outputs(query("Lighting", kHub)), Lines{});
  EXPECT_EQ(Outputs(Message("Homeseer.Role", kHub, "", "Role.Other", "Role=any\n")), Lines{});
  // Without a source the message is dropped before its class is looked at.
  EXPECT_EQ(Outputs("xap-header\n{\nclass=Homeseer.Role\n}\nRole.Query\n{\nRole=any\n}\n"), Lines{});
}

TEST_F(XapHandlerTest, ComputerProcessWakesOrAnswersOnlyAComputerWithAddressAndArpEntry) {
  table_.Computers.Add("pc8", KeyValuePair{"pc8", "198.51.100.8"});  // no ARP entry
  // Both blocks are always there; an empty value counts as missing.
  auto process = [this](const std::string& target, const std::string& action, const std::string& query) {
    return Outputs(Message("computer.PROCESS", kHub, target, "Computer.Control", "Action=" + action + "\n") +
                   "Computer.Query\n{\nQuery=" + query + "\n}\n");
  };
  // The answer carries the IP address under "MAC" as well, and the name as the target wrote it.
  auto answer = [](const std::string& name) {
    return Lines{
        "xap||Computer.Process|Computer.Notification|MAC\001198.51.100.7\0IP\001198.51.100.7\0Name\001"s +
        name};
  };
  const Lines wake = {"wake|00-11-22-33-44-55|198.51.100.7"};
  EXPECT_EQ(process("x.y.pc7", "Wol", ""), wake);
  EXPECT_EQ(process("x.y.PC7", "wol", "all"), wake);  // a wake request with a query is only a wake
  EXPECT_EQ(process("x.y.pc7", "", "All"), answer("pc7"));
  EXPECT_EQ(process("x.y.PC7", "", "mac"), answer("PC7"));
  EXPECT_EQ(process("x.y.pc7", "Reboot", "ALL"), answer("pc7"));  // other actions fall through to the query
  EXPECT_EQ(process("x.y.pc7", "", "status"), Lines{});
  EXPECT_EQ(process("x.y.pc7", "Shutdown", ""), Lines{});
  for (const char* target : {"x.y.pc8", "x.y.nobody", "pc7", "x.y.pc7:nic", "x.y.", "*.*.*", ""}) {
    EXPECT_EQ(process(target, "WOL", ""), Lines{}) << target;
    EXPECT_EQ(process(target, "", "all"), Lines{}) << target;
  }
}

TEST_F(XapHandlerTest, EchoToThisNodeIsAnsweredLowerCasedToTheSender) {
  auto echo = [this](const std::string& target, const std::string& items) {
    return Outputs(Message("WDT.Echo", kHub, target, "Echo.Query", items));
  };
  const Lines response = {"xap|acme.controller.hub|WDT.Echo|Echo.Response|Response\001abc"};
  for (const char* target : {"zel.WOL.host1", "ZEL.wol.HOST1", "zel.WOL.*", "zel.>", ""}) {
    EXPECT_EQ(echo(target, "Query=ABC\n"), response) << target;
  }
  for (const char* target : {"zel.WOL.host2", "zel.WOL"})
    EXPECT_EQ(echo(target, "Query=ABC\n"), Lines{}) << target;
  EXPECT_EQ(echo("", "Id=ABC\n"), Lines{});  // without a query there is nothing to echo
}

TEST_F(XapHandlerTest, TimeTodayStoresSunriseAndSunsetAsReceived) {
  handler_.Handle(Message("Time.Today", kHub, "", "Time.Today", "Sunrise=07:41 AM\nSunset= 4:12 PM\n"));
  EXPECT_EQ(hs_.Sunrise(), "07:41 AM");
  EXPECT_EQ(hs_.Sunset(), " 4:12 PM");
  EXPECT_EQ(Outputs(Message("Time.Today", kHub, "", "Time.Today", "Sunset=16:13\n")), Lines{});
  EXPECT_EQ(hs_.Sunrise(), "Unknown");
  EXPECT_EQ(hs_.Sunset(), "16:13");
}

TEST_F(XapHandlerTest, FailureIsReportedAsAnEventWithPositionsAndTheReceivedText) {
  wolFailure_ = "no adapter";
  handler_.Handle(
      "xap-header\n{\nclass=Computer.Process\nsource=a.b.hub\ntarget=x.y.pc7\n}\nComputer.Control\n"
      "{\nAction=WOL\n}\n");
  ASSERT_EQ(reporter_.calls.size(), 1u);
  EXPECT_TRUE(reporter_.calls[0].event);
  EXPECT_EQ(reporter_.calls[0].module, "tavrel");
  EXPECT_EQ(
      reporter_.calls[0].text,
      "Readmessage i=37,j=51, xap-header, {, class=Computer.Process, source=a.b.hub, target=x.y.pc7, }, "
      "Computer.Control, {, Action=WOL, }");
  EXPECT_EQ(reporter_.calls[0].err.Description, "no adapter");
  EXPECT_EQ(table_.LastSeen.Keys(), Lines{"hub"});  // learned before the failure, and kept
}

TEST(XapHandlerDiagnosticText, JoinsLinesShowsControlBytesAndCutsTheRenderedText) {
  std::string tabs;
  for (int k = 0; k < 125; ++k) tabs += "<09>";
  const std::pair<std::string, std::string> cases[] = {
      {"a\r\nb\x01\0\n"s, "a<0D>, b<01><00>"},  // one final line feed is dropped
      {"\n\nx\x7f\xe9", ", , x<7F>\xe9"},
      {std::string(125, '\t'), tabs},
      {std::string(300, '\t'), tabs + "..."},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(XapHandler::DiagnosticText(text), shown);
}

}  // namespace
}  // namespace tavrel
