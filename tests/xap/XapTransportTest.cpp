#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "ManualTimers.h"
#include "TestSupport.h"
#include "xap/XapTransport.h"

namespace tavrel {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// Every datagram the node sends, in order; fails sends while told to.
class RecordingSink : public DatagramSink {
 public:
  Err SendDatagram(std::string_view text) override {
    if (failing) return Err{10065, "No route to host", 0};
    sent.emplace_back(text);
    return {};
  }
  std::vector<std::string> Take() { return std::exchange(sent, {}); }
  std::vector<std::string> sent;
  bool failing = false;
};

// The heartbeat of the node with uid FF001500, every interval (in tens of seconds).
std::string Heartbeat(const std::string& interval, const std::string& source = "zel.WOL.host",
                      long port = 3639) {
  return "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=" + source +
         "\ninterval=" + interval + "0\nport=" + std::to_string(port) + "\n}\n";
}

class NodeRulesTest : public ::testing::Test {
 protected:
  NodeRulesTest() {
    node.SetXapSource("zel.WOL.host");
    node.SetXapUID("FF001500");
    node.SetLocalPort(3639);
    node.RegisterNewMessageCallback([this] { ++callbacks; });
  }
  std::string Logged() {
    std::string text;
    for (const auto& c : std::exchange(log.calls, {}))
      text += c.text + "|" + std::to_string(c.err.Number) + "\n";
    return text;
  }
  std::vector<std::string> Drain() {
    std::vector<std::string> texts;
    for (std::string t = node.GetMessage(); !t.empty(); t = node.GetMessage()) texts.push_back(t);
    return texts;
  }

  test::RecordingReporter log;
  test::ManualTimers timers;
  RecordingSink sink;
  XapNode node{log, timers, sink};
  int callbacks = 0;
};

TEST_F(NodeRulesTest, HeartbeatIntervalIsClampedAnOutOfRangeOneIsRefusedAndZeroStopsTheTimer) {
  const std::tuple<long, const char*, long> cases[] = {
      {60, "60", 60000}, {3, "5", 5000}, {-7, "0", 0}, {12, "12", 12000}};
  for (const auto& [asked, sent, timerMs] : cases) {
    node.SendHeartbeat(asked);
    EXPECT_EQ(sink.Take(), std::vector{Heartbeat(sent)}) << asked;
    EXPECT_EQ(node.HeartbeatTimerInterval(), timerMs);
    EXPECT_EQ(node.HeartbeatTimerEnabled(), timerMs > 0);
  }
  // Above 60 becomes 60000 s, which the timer refuses: logged, nothing sent, the timer unchanged.
  node.SendHeartbeat(61);
  EXPECT_EQ(Logged(), "SendHeartbeat|380\n");
  EXPECT_TRUE(sink.Take().empty());
  EXPECT_EQ(node.HeartbeatTimerInterval(), 12000);
  node.SendHeartbeat(5);  // ticks every 5 s, so a heartbeat every 50 s stating 50
  sink.Take();
  std::string sent;
  for (auto step : {49s, 1s, 50s}) {
    timers.Advance(step);
    sent += std::to_string(step.count()) + ":";
    for (const auto& text : sink.Take()) sent += text;
  }
  EXPECT_EQ(sent, "49:1:" + Heartbeat("5") + "50:" + Heartbeat("5"));
  node.SendHeartbeat(0);
  EXPECT_EQ(sink.Take(), std::vector{Heartbeat("0")});
  timers.Advance(600s);
  EXPECT_TRUE(sink.Take().empty());
}

TEST_F(NodeRulesTest, QueueKeepsHeadersInOrderCallsBackWhileMessagesWaitAndDropsWhatIsTooMuch) {
  const std::string beat = "xap-hbeat\n{\nv=12\n}\n";
  for (const auto& text : {beat, "xap"s, ""s, "XAP-HEADER\n1"s, "xap-header\n2"s})
    node.ProcessReceivedMessage(text);
  // The callback comes 50 ms after the burst, and again while messages wait.
  std::string calls;
  for (auto step : {49ms, 1ms, 50ms}) timers.Advance(step), calls += std::to_string(callbacks);
  EXPECT_EQ(calls, "012");
  EXPECT_EQ(Drain(), (std::vector{"XAP-HEADER\n1"s, "xap-header\n2"s}));

  // Oversized and overflowing messages are dropped with one log line a minute.
  const std::string fits = "xap-header\n" + std::string(XapNode::kMaxDatagram - 11, 'x');
  for (const auto& text : {fits + "y", fits + "y", fits}) node.ProcessReceivedMessage(text);
  EXPECT_EQ(Logged(), "ProcessReceivedMessage dropped 1 datagram(s) over 1500 bytes|0\n");
  timers.Advance(60s);
  EXPECT_EQ(Logged(), "ProcessReceivedMessage dropped 1 datagram(s) over 1500 bytes|0\n");
  EXPECT_EQ(Drain(), std::vector{fits});

  // Full by count: what does not fit is counted, never kept.
  for (size_t i = 0; i < XapNode::kQueueLimit + 3; ++i) node.ProcessReceivedMessage("xap-header\n");
  EXPECT_TRUE(node.QueueFull());
  EXPECT_EQ(Logged(), "");
  timers.Advance(60s);
  EXPECT_EQ(Logged(), "ProcessReceivedMessage dropped 3 message(s), receive queue full|0\n");
  EXPECT_EQ(Drain().size(), XapNode::kQueueLimit);
}

TEST_F(NodeRulesTest, SendSkipsBodyPiecesWithoutASeparatorBarsBecomeLineFeedsAndFailuresAreLogged) {
  node.Send("*.*.pc7", "Computer.Process", "Computer.Query", "a\0b\x01"s + "2");
  EXPECT_EQ(sink.Take(),
            std::vector<std::string>{"xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\n"
                                     "source=zel.WOL.host\ntarget=*.*.pc7\n}\nComputer.Query\n{\nb=2\n}\n"});
  node.SetXapSource("zel.WOL.a|b");
  EXPECT_EQ(node.HeartbeatText(),
            "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=zel.WOL.a\nb\ninterval=");
  sink.failing = true;
  node.Send("", "C", "B", "");
  node.SendHeartbeat(60);
  EXPECT_EQ(Logged(), "SendXap |10065\nSendHeartbeat|10065\n");
}

// Behind a hub the node tries for the xAP port every 10 s, silently while the hub holds it. The first try
// after the hub has gone takes it: one log line, the heartbeat at once naming it, what waited on the
// node's own port still read and the tries over.
TEST(TransportTest, BehindAHubTheNodeTakesTheXapPortOnTheFirstTryAfterTheHubHasGone) {
  using asio::ip::udp;
  const auto loopback = asio::ip::make_address_v4("127.0.0.1");
  asio::io_context io;
  test::RecordingReporter log;
  test::ManualTimers timers;
  auto hub = std::make_unique<udp::socket>(io, udp::endpoint(loopback, 0));
  const int xapPort = hub->local_endpoint().port();
  XapTransport node(io, log, timers);
  node.SetXapUID("FF001500");
  node.SetBroadcastAddress("127.0.0.1");
  node.SetPort(xapPort);
  node.SetFilterHeartbeats(false);
  std::vector<std::string> got;
  node.RegisterNewMessageCallback([&] {
    for (std::string t = node.GetMessage(); !t.empty(); t = node.GetMessage()) got.push_back(t);
  });
  const long own = node.Init();
  ASSERT_GE(own, XapTransport::kFirstFallbackPort);
  node.SendHeartbeat(60);
  std::string text(2048, '\0');
  EXPECT_EQ(text.substr(0, hub->receive(asio::buffer(text))), Heartbeat("60", "", own));

  timers.Advance(10s);
  EXPECT_EQ(node.LocalPort(), own);
  hub->send_to(asio::buffer("xap-header\nrelayed"s),
               udp::endpoint(loopback, static_cast<unsigned short>(own)));
  hub.reset();
  timers.Advance(9999ms);
  EXPECT_EQ(node.LocalPort(), own);
  EXPECT_TRUE(log.Take().empty());
  timers.Advance(1ms);
  EXPECT_EQ(node.LocalPort(), xapPort);
  EXPECT_EQ(log.Take(), std::vector{"log|tavrel|Took over xAP port " + std::to_string(xapPort) +
                                    ": the hub is gone, serving the network directly|0|"});
  // The heartbeat, sent to the xAP port, comes back to the node that now listens there.
  EXPECT_TRUE(test::WaitFor([&] { return io.poll(), node.QueueLength() == 2; }));
  timers.Advance(50ms);
  EXPECT_EQ(got, (std::vector{"xap-header\nrelayed"s, Heartbeat("60", "", xapPort)}));
  EXPECT_EQ(timers.ArmedCount(), 1u);  // the heartbeat's alone
}

}  // namespace
}  // namespace tavrel
