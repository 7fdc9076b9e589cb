#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapHandler.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;

// Most test messages come from a source without an instance name: served, but never learned.
constexpr const char* kHub = "hub";
const std::string kRoleAnswer =
    "transport||Homeseer.Role|Role.Notification|Role\001Computer Management\0Path\001/opt/tavrel/tavrel"s;

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

std::string Message(const std::string& msgClass, const std::string& source, const std::string& target,
                    const std::string& section, const std::string& items) {
  std::string text = "xap-header\n{\nv=12\nhop=1\nclass=" + msgClass + "\nsource=" + source + "\n";
  if (!target.empty()) text += "target=" + target + "\n";
  return text + "}\n" + section + "\n{\n" + items + "}\n";
}

class XapHandlerTest : public ::testing::Test {
 protected:
  XapHandlerTest() {
    xap_.SetTransport(&xapSent_);
    test::WriteFile(hs_.FilePath(kIniFile), "[ARP]\n198.51.100.7=00-11-22-33-44-55\n");
    computers_.Load("pc7", "198.51.100.7", reporter_);
  }
  Lines Outputs(const std::string& text) {
    out_.clear();
    handler_.Handle(text);
    return out_;
  }
  // A role query from the instance name: the query to a newly learned sender, then the answer.
  Lines RoleQueryFrom(const std::string& name) {
    return Outputs(Message("Homeseer.Role", "acme.tester." + name, "", "Role.Query", "Role=any\n"));
  }
  test::TempDir home_;
  test::RecordingReporter reporter_;
  Hs hs_{home_.Path() / "Config", reporter_};
  ManualClock clock_{MakeDateTime(2026, 11, 22, 8, 30, 0)};
  ComputerRegistry computers_{hs_, clock_};
  XapGlobal xap_;
  Lines out_;
  RecordingSend xapSent_{"xap", out_};
  RecordingSend transport_{"transport", out_};
  const char* wolFailure_ = nullptr;
  XapHandler handler_{XapHandler::Context{computers_, hs_, xap_, transport_, reporter_, clock_,
                                          [this](const std::string& mac, const std::string& ip) {
                                            if (wolFailure_) throw std::runtime_error(wolFailure_);
                                            out_.push_back("wake|" + mac + "|" + ip);
                                          },
                                          "zel.WOL.host1", "/opt/tavrel/tavrel"}};
};

TEST_F(XapHandlerTest, SendersAreHandedOnByTheLastSourcePartAndOnlyNewOnesQueried) {
  // The sub-address is cut before the last "." is looked for; the last five sources name no instance.
  for (const char* line :
       {"source=zel.agent.pc5:disk\n", "source=ACME.Agent.Office\n", "source=acme.agent.den:a.b\n",
        "SOURCE=acme.agent.attic\n", "source=acme.agent.cellar", "source=pc7\n", "source=pc8:disk\n",
        "source=acme.agent.\n", "source=a.b.:c\n", "source=\n"})
    handler_.Handle("xap-header\n{\nclass=x.y\n" + std::string(line));
  EXPECT_EQ(out_.size(), 5u);  // one query to each new computer
  EXPECT_EQ(computers_.Count(), 6u);
  for (const char* name : {"pc5", "office", "den", "attic", "cellar"})
    EXPECT_NE(computers_.FindByName(name), nullptr) << name;
  // A known sender is not queried again.
  EXPECT_EQ(Outputs("xap-hbeat\n{\nclass=xap-hbeat.alive\nsource=acme.agent.Den\n}\n"), Lines{});
}

// A sender the registry declines (by its rules, tested there) is still served; the first of a reason is
// reported at once, later ones are counted and reported together once a minute has passed.
TEST_F(XapHandlerTest, DeclinedSendersAreServedAndReportedAtOnceThenAtMostOnceAMinute) {
  const auto skipped = [](const char* count) {
    return Lines{"event|tavrel|LearnSender skipped "s + count +
                 " sender name(s) the settings file cannot hold|0|"};
  };
  EXPECT_EQ(RoleQueryFrom("a=1"), Lines{kRoleAnswer});
  EXPECT_EQ(reporter_.Take(), skipped("1"));
  for (auto [wait, name] : {std::pair{0, "b=1"}, {59, "c=1"}, {0, "pc8"}}) {
    clock_.Advance(std::chrono::seconds(wait));
    RoleQueryFrom(name);
  }
  EXPECT_EQ(reporter_.Take(), Lines{});
  clock_.Advance(std::chrono::seconds(1));
  RoleQueryFrom("pc9");  // any message brings the count out once the minute is over
  EXPECT_EQ(reporter_.Take(), skipped("2"));
  clock_.Advance(std::chrono::seconds(60));
  RoleQueryFrom("d=1");  // after a quiet minute, at once again
  EXPECT_EQ(reporter_.Take(), skipped("1"));
}

// The answers themselves are checked byte for byte end to end; here, which messages are meant for this node.
TEST_F(XapHandlerTest, RoleEchoComputerAndTimeMessagesAreServedOnlyWhenMeantForThisNode) {
  ComputerRegistry::Edits edits;
  computers_.Rename("", "pc8", "198.51.100.8", edits);  // no ARP entry
  auto role = [](const char* role, const char* section = "Role.Query") {
    return Message("Homeseer.Role", kHub, "", section, "Role="s + role + "\n");
  };
  auto echo = [](const char* target, const char* items = "Query=ABC\n") {
    return Message("WDT.Echo", kHub, target, "Echo.Query", items);
  };
  // Both blocks are always there; an empty value counts as missing.
  auto process = [](const std::string& target, const std::string& action, const std::string& query) {
    return Message("computer.PROCESS", kHub, target, "Computer.Control", "Action=" + action + "\n") +
           "Computer.Query\n{\nQuery=" + query + "\n}\n";
  };
  const std::string answer =
      "xap||Computer.Process|Computer.Notification|MAC\001198.51.100.7\0IP\001198.51.100.7\0Name\001"s;
  const std::pair<std::string, Lines> served[] = {
      {role("computer MANAGEMENT"), {kRoleAnswer}},
      {echo("ZEL.wol.HOST1"), {"xap|hub|WDT.Echo|Echo.Response|Response\001abc"}},
      {process("x.y.PC7", "wol", "all"), {"wake|00-11-22-33-44-55|198.51.100.7"}},  // no answer
      {process("x.y.PC7", "", "mac"), {answer + "PC7"}},
      {process("x.y.pc7", "Reboot", "ALL"), {answer + "pc7"}},  // other actions: only the query
  };
  for (const auto& [text, out] : served) EXPECT_EQ(Outputs(text), out) << text;
  // Refused: another role or section, another node, no query, (before its class) no source, a computer
  // without address and ARP entry, or a target that names no single computer.
  Lines refused = {role("Lighting"),
                   role("any", "Role.Other"),
                   echo("zel.WOL.host2"),
                   echo("", "Id=ABC\n"),
                   "xap-header\n{\nclass=Homeseer.Role\n}\nRole.Query\n{\nRole=any\n}\n"s,
                   process("x.y.pc7", "Shutdown", "status")};
  for (const char* target : {"x.y.pc8", "x.y.nobody", "pc7", "x.y.pc7:nic", "x.y.", "*.*.*", ""})
    refused.push_back(process(target, "WOL", "all"));
  for (const auto& text : refused) EXPECT_EQ(Outputs(text), Lines{}) << text;
  handler_.Handle(Message("Time.Today", kHub, "", "Time.Today", "Sunrise=07:41 AM\nSunset= 4:12 PM\n"));
  EXPECT_EQ(hs_.Sunrise() + "|" + hs_.Sunset(), "07:41 AM| 4:12 PM");
  EXPECT_EQ(Outputs(Message("Time.Today", kHub, "", "Time.Today", "Sunset=16:13\n")), Lines{});
  EXPECT_EQ(hs_.Sunrise() + "|" + hs_.Sunset(), "Unknown|16:13");
}

TEST_F(XapHandlerTest, FailureIsReportedAsAnEventWithPositionsAndTheReceivedText) {
  wolFailure_ = "no adapter";
  handler_.Handle(
      "xap-header\n{\nclass=Computer.Process\nsource=a.b.hub\ntarget=x.y.pc7\n}\nComputer.Control\n"
      "{\nAction=WOL\n}\n");
  EXPECT_EQ(reporter_.Take(),
            Lines{"event|tavrel|Readmessage i=37,j=51, xap-header, {, class=Computer.Process, "
                  "source=a.b.hub, target=x.y.pc7, }, Computer.Control, {, Action=WOL, }|5|no adapter"});
  EXPECT_NE(computers_.FindByName("hub"), nullptr);  // learned before the failure, and kept
  // Control bytes are shown as hex, lines joined with ", " and the text is cut after 500 bytes.
  EXPECT_EQ(XapHandler::DiagnosticText("a\r\nb\x01\0\x7f\xe9\n"s), "a<0D>, b<01><00><7F>\xe9");
  EXPECT_EQ(XapHandler::DiagnosticText(std::string(501, 'x')), std::string(500, 'x') + "...");
}

}  // namespace
}  // namespace tavrel
