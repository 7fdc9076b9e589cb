#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "xap/XapGlobal.h"
#include "xap/XapTransport.h"

namespace tavrel {
namespace {

using asio::ip::udp;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Every transport here sends to 127.0.0.1 only: its "broadcast" target is a peer socket of the test,
// bound on loopback, whose port stands in for the xAP port.
class TransportTest : public ::testing::Test {
 protected:
  TransportTest() : peer_(io_, udp::endpoint(Loopback(), 0)), client_(io_, udp::v4()), xap_(io_, log_) {
    xap_.SetBroadcastAddress("127.0.0.1");
    xap_.SetPort(peer_.local_endpoint().port());
    xap_.SetXapSource("zel.WOL.host");
    xap_.SetXapUID("FF001500");
    xap_.RegisterNewMessageCallback([this] { ++callbacks_; });
  }

  static asio::ip::address_v4 Loopback() { return asio::ip::make_address_v4("127.0.0.1"); }

  // Runs the loop until cond holds or the deadline passes.
  bool RunUntil(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 3s) {
    const auto end = Clock::now() + deadline;
    while (!cond()) {
      const auto now = Clock::now();
      if (now >= end) return false;
      io_.restart();
      io_.run_one_for(end - now);
    }
    return true;
  }

  void RunFor(std::chrono::milliseconds span) {
    io_.restart();
    io_.run_for(span);
  }

  // The next datagram that reaches the peer socket, if one comes within the deadline.
  std::optional<std::string> Receive(std::chrono::milliseconds deadline = 3s) {
    std::optional<std::string> got;
    bool done = false;
    peer_.async_receive_from(asio::buffer(buffer_), from_, [&](const std::error_code& ec, size_t n) {
      done = true;
      if (!ec) got = std::string(buffer_.data(), n);
    });
    if (!RunUntil([&] { return done; }, deadline)) {
      peer_.cancel();
      RunUntil([&] { return done; });
    }
    return got;
  }

  // Sends text to the transport's listening port on loopback.
  void SendToTransport(const std::string& text) {
    client_.send_to(asio::buffer(text),
                    udp::endpoint(Loopback(), static_cast<unsigned short>(xap_.LocalPort())));
  }

  long InitOnLoopback() {
    const long port = xap_.Init();
    EXPECT_GT(port, 0);
    return port;
  }

  std::string Heartbeat(const std::string& interval) const {
    return "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=zel.WOL.host\ninterval=" +
           interval + "0\nport=" + std::to_string(xap_.LocalPort()) + "\n}\n";
  }

  asio::io_context io_;
  test::RecordingReporter log_;
  udp::socket peer_;
  udp::socket client_;
  XapTransport xap_;
  int callbacks_ = 0;
  std::vector<char> buffer_ = std::vector<char>(65536);
  udp::endpoint from_;
};

TEST_F(TransportTest, TakenPortFallsBackFromTheHighRangeAndStillReceives) {
  // The peer holds the xAP port on loopback, as a hub would.
  const long port = InitOnLoopback();
  EXPECT_EQ(port, xap_.LocalPort());
  EXPECT_NE(port, peer_.local_endpoint().port());
  EXPECT_GE(port, XapTransport::kFirstFallbackPort);
  EXPECT_LT(port, XapTransport::kFirstFallbackPort + XapTransport::kFallbackAttempts);

  SendToTransport("xap-header\n{\nclass=a.b\n}\n");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n{\nclass=a.b\n}\n");
  EXPECT_EQ(xap_.GetMessage(), "");
}

TEST_F(TransportTest, FreeXapPortIsBoundFirst) {
  unsigned short freePort = 0;
  {
    udp::socket probe(io_, udp::endpoint(Loopback(), 0));
    freePort = probe.local_endpoint().port();
  }
  xap_.SetPort(freePort);
  EXPECT_EQ(xap_.Init(), freePort);
  EXPECT_EQ(xap_.HeartbeatTail(), "0\nport=" + std::to_string(freePort) + "\n}\n");
}

TEST_F(TransportTest, HeartbeatBytesNameTheBoundPort) {
  InitOnLoopback();
  xap_.SendHeartbeat(60);
  EXPECT_EQ(Receive(), Heartbeat("60"));
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 60000);
  EXPECT_TRUE(xap_.HeartbeatTimerEnabled());
  EXPECT_TRUE(log_.calls.empty());
}

TEST_F(TransportTest, HeartbeatIntervalIsClamped) {
  InitOnLoopback();
  xap_.SendHeartbeat(3);
  EXPECT_EQ(Receive(), Heartbeat("5"));
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 5000);
  EXPECT_TRUE(xap_.HeartbeatTimerEnabled());

  xap_.SendHeartbeat(-7);
  EXPECT_EQ(Receive(), Heartbeat("0"));
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 0);
  EXPECT_FALSE(xap_.HeartbeatTimerEnabled());

  xap_.SendHeartbeat(12);
  EXPECT_EQ(Receive(), Heartbeat("12"));
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 12000);

  // Above 60 becomes 60000 s, which the timer refuses: logged, nothing sent, the timer unchanged.
  xap_.SendHeartbeat(61);
  ASSERT_EQ(log_.calls.size(), 1u);
  EXPECT_EQ(log_.calls[0].text, "SendHeartbeat");
  EXPECT_EQ(log_.calls[0].err.Number, 380);
  EXPECT_EQ(log_.calls[0].err.Description, "Invalid property value");
  EXPECT_EQ(Receive(300ms), std::nullopt);
  EXPECT_EQ(xap_.HeartbeatTimerInterval(), 12000);
  EXPECT_TRUE(xap_.HeartbeatTimerEnabled());
}

TEST_F(TransportTest, TimerSendsOnEveryTenthTickAndZeroStopsIt) {
  xap_.SetTimerSecond(10ms);
  InitOnLoopback();
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
  xap_.ProcessReceivedMessage(beat);
  xap_.ProcessReceivedMessage("xap");
  xap_.ProcessReceivedMessage("");
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
  InitOnLoopback();
  SendToTransport("xap-header\n1\n");
  SendToTransport("xap-header\n2\n");
  SendToTransport("xap-header\n3\n");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  RunFor(150ms);
  EXPECT_EQ(callbacks_, 1);
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n1\n");
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n2\n");
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n3\n");
  EXPECT_EQ(xap_.GetMessage(), "");

  // A later message starts the timer again.
  SendToTransport("xap-header\n4\n");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 2; }));
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n4\n");
}

TEST_F(TransportTest, DrainingTakesInDatagramsThatArriveMeanwhile) {
  InitOnLoopback();
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
  InitOnLoopback();
  const std::string fits = "xap-header\n" + std::string(XapTransport::kMaxDatagram - 11, 'x');
  const std::string tooLong = fits + "y";
  SendToTransport(tooLong);
  SendToTransport(tooLong);
  SendToTransport(fits);
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_EQ(xap_.GetMessage(), fits);
  EXPECT_EQ(xap_.GetMessage(), "");
  ASSERT_EQ(log_.calls.size(), 1u);
  EXPECT_FALSE(log_.calls[0].event);
  EXPECT_EQ(log_.calls[0].text, "ProcessReceivedMessage dropped 1 datagram(s) over 1500 bytes");
}

TEST_F(TransportTest, SendWritesOneBlockFromTheBody) {
  InitOnLoopback();
  xap_.Send("", "Homeseer.Event", "Event.Log", XapBody({{"Time", "2026-11-22 10:00:00"}, {"Data", "x=y"}}));
  EXPECT_EQ(Receive(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Homeseer.Event\nsource=zel.WOL.host\n}\n"
            "Event.Log\n{\nTime=2026-11-22 10:00:00\nData=x=y\n}\n");

  // Pieces without character 1 are skipped; the target gets its line.
  xap_.Send("*.*.pc7", "Computer.Process", "Computer.Query",
            std::string("a\0b\x01"
                        "2",
                        5));
  EXPECT_EQ(Receive(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\nsource=zel.WOL.host\n"
            "target=*.*.pc7\n}\nComputer.Query\n{\nb=2\n}\n");
  EXPECT_TRUE(log_.calls.empty());
}

TEST_F(TransportTest, PendingMessagesGoOutOldestFirstOnceAttached) {
  XapGlobal global;
  global.SendXap("", "C.One", "B", XapBody({{"k", "1"}}));
  global.SendXap("", "C.Two", "B", XapBody({{"k", "2"}}));
  InitOnLoopback();
  EXPECT_EQ(Receive(300ms), std::nullopt);

  global.SetTransport(&xap_);
  global.SendXap("", "C.Three", "B", XapBody({{"k", "3"}}));
  for (const char* cls : {"C.One", "C.Two", "C.Three"}) {
    const auto text = Receive();
    ASSERT_TRUE(text.has_value());
    EXPECT_NE(text->find(std::string("\nclass=") + cls + "\n"), std::string::npos) << *text;
  }
  EXPECT_TRUE(global.Pending().empty());
}

TEST_F(TransportTest, SendingWhileClosedIsLogged) {
  xap_.Send("", "C", "B", "");
  xap_.SendHeartbeat(60);
  InitOnLoopback();
  xap_.Close();
  xap_.Close();
  xap_.Send("", "C", "B", "");
  ASSERT_EQ(log_.calls.size(), 3u);
  EXPECT_EQ(log_.calls[0].text, "SendXap ");
  EXPECT_EQ(log_.calls[1].text, "SendHeartbeat");
  EXPECT_EQ(log_.calls[2].text, "SendXap ");
  EXPECT_EQ(log_.calls[2].err.Number, 40006);
  // The receives cancelled by Close end quietly.
  RunFor(50ms);
  EXPECT_EQ(callbacks_, 0);
}

TEST_F(TransportTest, UnusableBroadcastTargetFailsInit) {
  xap_.SetBroadcastAddress("not an address");
  EXPECT_LT(xap_.Init(), 0);
  ASSERT_EQ(log_.calls.size(), 1u);
  EXPECT_EQ(log_.calls[0].text, "SocketsInitialize ");
  EXPECT_EQ(xap_.LocalPort(), 0);
}

TEST(XapTransportIdentity, SettersRebuildHeaderPrefixAndHeartbeat) {
  asio::io_context io;
  test::RecordingReporter log;
  XapTransport xap(io, log);
  EXPECT_EQ(xap.BroadcastAddress(), "Default");
  EXPECT_EQ(xap.InterfaceAddress(), "Default");
  EXPECT_TRUE(xap.FilterHeartbeats());
  EXPECT_EQ(xap.Port(), 3639);
  xap.SetXapUID("FF00AB00");
  xap.SetXapSource("zel.WOL.a|b");
  EXPECT_EQ(xap.HeaderPrefix(), "xap-header\n{\nv=12\nhop=1\nuid=FF00AB00\n");
  EXPECT_EQ(xap.HeartbeatText(),
            "xap-hbeat\n{\nv=12\nhop=1\nuid=FF00AB00\nclass=xap-hbeat.alive\nsource=zel.WOL.a\nb\ninterval=");
}

TEST(XapTransportIdentity, LocalIpPrefersTheInterfaceSetting) {
  asio::io_context io;
  test::RecordingReporter log;
  XapTransport xap(io, log);
  xap.SetInterfaceAddress("203.0.113.7");
  EXPECT_EQ(xap.LocalIP(), "203.0.113.7");
  xap.SetInterfaceAddress("DEFAULT");
  std::error_code ec;
  asio::ip::make_address_v4(xap.LocalIP(), ec);
  EXPECT_FALSE(ec) << xap.LocalIP();
}

}  // namespace
}  // namespace tavrel
