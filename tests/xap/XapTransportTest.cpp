#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapGlobal.h"
#include "xap/XapTransport.h"

namespace tavrel {
namespace {

using asio::ip::udp;
using namespace std::chrono_literals;
using namespace std::string_literals;
using Clock = std::chrono::steady_clock;

const asio::ip::address_v4 kLoopback = asio::ip::address_v4::loopback();

// Every transport here sends to 127.0.0.1 only: its "broadcast" target is a peer socket of the test,
// bound on loopback, whose port stands in for the xAP port (so the transport listens on a fallback port).
class TransportTest : public ::testing::Test {
 protected:
  TransportTest() : peer_(io_, udp::endpoint(kLoopback, 0)), xap_(io_, log_) {
    xap_.SetBroadcastAddress("127.0.0.1");
    xap_.SetPort(peer_.local_endpoint().port());
    xap_.SetXapSource("zel.WOL.host");
    xap_.SetXapUID("FF001500");
    xap_.RegisterNewMessageCallback([this] { ++callbacks_; });
  }

  // Runs the loop in short slices until cond holds or the deadline passes.
  bool RunUntil(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 3s) {
    for (const auto end = Clock::now() + deadline; !cond() && Clock::now() < end;) RunFor(5ms);
    return cond();
  }
  void RunFor(std::chrono::milliseconds span) {
    io_.restart();
    io_.run_for(span);
  }
  // The next datagram that reaches the peer socket, if one comes within the deadline.
  std::optional<std::string> Receive(std::chrono::milliseconds deadline = 3s) {
    if (!RunUntil([&] { return peer_.available() > 0; }, deadline)) return std::nullopt;
    return std::string(buffer_.data(), peer_.receive(asio::buffer(buffer_)));
  }
  void SendToTransport(const std::string& text) {
    peer_.send_to(asio::buffer(text),
                  udp::endpoint(kLoopback, static_cast<unsigned short>(xap_.LocalPort())));
  }
  void Init() { ASSERT_GT(xap_.Init(), 0); }
  std::string Heartbeat(const std::string& interval) const {
    return "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=zel.WOL.host\ninterval=" +
           interval + "0\nport=" + std::to_string(xap_.LocalPort()) + "\n}\n";
  }
  // The logged texts with their error numbers, one a line.
  std::string Logged() const {
    std::string text;
    for (const auto& c : log_.calls)
      text += c.module + "|" + c.text + "|" + std::to_string(c.err.Number) + "\n";
    return text;
  }

  asio::io_context io_;
  test::RecordingReporter log_;
  udp::socket peer_;
  XapTransport xap_;
  int callbacks_ = 0;
  std::vector<char> buffer_ = std::vector<char>(65536);
};

TEST_F(TransportTest, BindsTheXapPortWhenFreeElseOneFromTheHighRange) {
  // The peer holds the xAP port, as a hub would.
  const long port = xap_.Init();
  EXPECT_GE(port, XapTransport::kFirstFallbackPort);
  EXPECT_LT(port, XapTransport::kFirstFallbackPort + XapTransport::kFallbackAttempts);

  const unsigned short xapPort = peer_.local_endpoint().port();
  peer_.close();
  EXPECT_EQ(xap_.Init(), xapPort);
  EXPECT_EQ(xap_.HeartbeatTail(), "0\nport=" + std::to_string(xapPort) + "\n}\n");
}

TEST_F(TransportTest, HeartbeatNamesTheBoundPortAndItsIntervalIsClamped) {
  Init();
  const struct {
    long asked;
    const char* sent;
    long timerMs;
  } cases[] = {{60, "60", 60000}, {3, "5", 5000}, {-7, "0", 0}, {12, "12", 12000}};
  for (const auto& c : cases) {
    xap_.SendHeartbeat(c.asked);
    EXPECT_EQ(Receive(), Heartbeat(c.sent)) << c.asked;
    EXPECT_EQ(xap_.HeartbeatTimerInterval(), c.timerMs);
  }
  EXPECT_EQ(Logged(), "");

  // Above 60 becomes 60000 s, which the timer refuses: logged, nothing sent, the timer unchanged.
  xap_.SendHeartbeat(61);
  EXPECT_EQ(Logged(), "tavrel|SendHeartbeat|380\n");
  EXPECT_EQ(log_.calls[0].err.Description, "Invalid property value");
  EXPECT_EQ(Receive(300ms), std::nullopt);
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 12000);
}

TEST_F(TransportTest, TimerSendsOnEveryTenthTickAndZeroStopsIt) {
  xap_.SetTimerSecond(10ms);
  Init();
  xap_.SendHeartbeat(5);  // ticks every 50 ms, so a heartbeat every 500 ms
  ASSERT_EQ(Receive(), Heartbeat("5"));
  const auto first = Clock::now();
  ASSERT_EQ(Receive(), Heartbeat("5"));
  const auto gap = Clock::now() - first;
  EXPECT_GE(gap, 450ms);
  EXPECT_LT(gap, 2000ms);

  xap_.SendHeartbeat(0);
  EXPECT_EQ(Receive(), Heartbeat("0"));
  EXPECT_EQ(Receive(800ms), std::nullopt);
}

TEST_F(TransportTest, HeartbeatsAreFilteredUnlessFilteringIsOff) {
  const std::string beat = "xap-hbeat\n{\nv=12\n}\n";
  for (const auto& text : {beat, "xap"s, ""s}) xap_.ProcessReceivedMessage(text);
  RunFor(150ms);
  EXPECT_EQ(callbacks_, 0);
  EXPECT_EQ(xap_.GetMessage(), "");

  xap_.ProcessReceivedMessage("XAP-HEADER\n{\n}\n");
  xap_.SetFilterHeartbeats(false);
  xap_.ProcessReceivedMessage(beat);
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_EQ(xap_.GetMessage(), "XAP-HEADER\n{\n}\n");
  EXPECT_EQ(xap_.GetMessage(), beat);
  EXPECT_EQ(xap_.GetMessage(), "");
}

TEST_F(TransportTest, BurstGivesOneCallbackAndMessagesInOrder) {
  Init();
  for (const char* n : {"1", "2", "3"}) SendToTransport("xap-header\n"s + n);
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  RunFor(150ms);
  EXPECT_EQ(callbacks_, 1);
  for (const char* n : {"1", "2", "3"}) EXPECT_EQ(xap_.GetMessage(), "xap-header\n"s + n);
  EXPECT_EQ(xap_.GetMessage(), "");

  // A later message starts the timer again.
  SendToTransport("xap-header\n4");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 2; }));
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n4");
}

TEST_F(TransportTest, DrainingTakesInDatagramsThatArriveMeanwhile) {
  Init();
  SendToTransport("xap-header\n1\n");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  // While the handler drains the queue the loop does not run; what arrives meanwhile is read by
  // GetMessage itself, in order, instead of piling up in the socket.
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n1\n");
  SendToTransport("xap-header\n2\n");
  SendToTransport("xap-header\n3\n");
  std::string second;
  ASSERT_TRUE(test::WaitFor([&] { return !(second = xap_.GetMessage()).empty(); }, 2s));
  EXPECT_EQ(second, "xap-header\n2\n");
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n3\n");
  EXPECT_EQ(xap_.GetMessage(), "");
}

TEST_F(TransportTest, OversizedDatagramsAreDroppedWithOneLogLine) {
  Init();
  const std::string fits = "xap-header\n" + std::string(XapTransport::kMaxDatagram - 11, 'x');
  SendToTransport(fits + "y");
  SendToTransport(fits + "y");
  SendToTransport(fits);
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_EQ(xap_.GetMessage(), fits);
  EXPECT_EQ(xap_.GetMessage(), "");
  EXPECT_EQ(Logged(), "tavrel|ProcessReceivedMessage dropped 1 datagram(s) over 1500 bytes|0\n");
}

TEST_F(TransportTest, SendWritesOneBlockFromTheBody) {
  Init();
  xap_.Send("", "Homeseer.Event", "Event.Log", XapBody({{"Time", "2026-11-22 10:00:00"}, {"Data", "x=y"}}));
  EXPECT_EQ(Receive(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Homeseer.Event\nsource=zel.WOL.host\n}\n"
            "Event.Log\n{\nTime=2026-11-22 10:00:00\nData=x=y\n}\n");
  // Pieces without character 1 are skipped; the target gets its line.
  xap_.Send("*.*.pc7", "Computer.Process", "Computer.Query", "a\0b\x01"s + "2");
  EXPECT_EQ(Receive(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\nsource=zel.WOL.host\n"
            "target=*.*.pc7\n}\nComputer.Query\n{\nb=2\n}\n");
  EXPECT_EQ(Logged(), "");
}

TEST_F(TransportTest, PendingMessagesGoOutOldestFirstOnceAttached) {
  XapGlobal global;
  global.SendXap("", "C.One", "B", XapBody({{"k", "1"}}));
  global.SendXap("", "C.Two", "B", XapBody({{"k", "2"}}));
  Init();
  EXPECT_EQ(Receive(300ms), std::nullopt);

  global.SetTransport(&xap_);
  global.SendXap("", "C.Three", "B", XapBody({{"k", "3"}}));
  for (const char* cls : {"C.One", "C.Two", "C.Three"}) {
    const auto text = Receive();
    ASSERT_TRUE(text.has_value());
    EXPECT_NE(text->find("\nclass="s + cls + "\n"), std::string::npos) << *text;
  }
  EXPECT_TRUE(global.Pending().empty());
}

TEST_F(TransportTest, SendingWhileClosedAndAnUnusableTargetAreLogged) {
  xap_.Send("", "C", "B", "");
  xap_.SendHeartbeat(60);
  xap_.SetBroadcastAddress("not an address");
  EXPECT_LT(xap_.Init(), 0);
  EXPECT_EQ(xap_.LocalPort(), 0);
  xap_.SetBroadcastAddress("127.0.0.1");
  Init();
  xap_.Close();
  xap_.Close();
  xap_.Send("", "C", "B", "");
  EXPECT_EQ(Logged(),
            "tavrel|SendXap |40006\ntavrel|SendHeartbeat|40006\ntavrel|SocketsInitialize |5\n"
            "tavrel|SendXap |40006\n");
  // The receives cancelled by Close end quietly.
  RunFor(50ms);
  EXPECT_EQ(callbacks_, 0);
}

TEST_F(TransportTest, EveryBarInTheHeartbeatBecomesALineFeedAndLocalIpTakesTheInterface) {
  xap_.SetXapSource("zel.WOL.a|b");
  EXPECT_EQ(xap_.HeartbeatText(),
            "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=zel.WOL.a\nb\ninterval=");
  xap_.SetInterfaceAddress("203.0.113.7");
  EXPECT_EQ(xap_.LocalIP(), "203.0.113.7");
}

}  // namespace
}  // namespace tavrel
