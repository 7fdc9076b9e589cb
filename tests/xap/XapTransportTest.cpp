#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
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

  bool RunUntil(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 3s) {
    for (const auto end = Clock::now() + deadline; !cond() && Clock::now() < end;) RunFor(5ms);
    return cond();
  }
  void RunFor(std::chrono::milliseconds span) {
    io_.restart();
    io_.run_for(span);
  }
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

TEST_F(TransportTest, HeartbeatIntervalIsClampedAndAnOutOfRangeOneIsRefused) {
  Init();
  const std::tuple<long, const char*, long> cases[] = {
      {60, "60", 60000}, {3, "5", 5000}, {-7, "0", 0}, {12, "12", 12000}};
  for (const auto& [asked, sent, timerMs] : cases) {
    xap_.SendHeartbeat(asked);
    EXPECT_EQ(Receive(), Heartbeat(sent)) << asked;
    EXPECT_EQ(xap_.HeartbeatTimerInterval(), timerMs);
  }
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
  // A later message starts the timer again; what arrives while the queue drains is read in order.
  SendToTransport("xap-header\n4");
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 2; }));
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n4");
  SendToTransport("xap-header\n5");
  SendToTransport("xap-header\n6");
  std::string next;
  ASSERT_TRUE(test::WaitFor([&] { return !(next = xap_.GetMessage()).empty(); }, 2s));
  EXPECT_EQ(next, "xap-header\n5");
  EXPECT_EQ(xap_.GetMessage(), "xap-header\n6");
}

TEST_F(TransportTest, OversizedDatagramsAreDroppedWithOneLogLine) {
  Init();
  const std::string fits = "xap-header\n" + std::string(XapTransport::kMaxDatagram - 11, 'x');
  for (const auto& text : {fits + "y", fits + "y", fits}) SendToTransport(text);
  ASSERT_TRUE(RunUntil([&] { return callbacks_ == 1; }));
  EXPECT_EQ(xap_.GetMessage(), fits);
  EXPECT_EQ(xap_.GetMessage(), "");
  EXPECT_EQ(Logged(), "tavrel|ProcessReceivedMessage dropped 1 datagram(s) over 1500 bytes|0\n");
}

TEST_F(TransportTest, SendSkipsBodyPiecesWithoutASeparatorAndBarsBecomeLineFeeds) {
  Init();
  xap_.Send("*.*.pc7", "Computer.Process", "Computer.Query", "a\0b\x01"s + "2");
  EXPECT_EQ(Receive(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\nsource=zel.WOL.host\n"
            "target=*.*.pc7\n}\nComputer.Query\n{\nb=2\n}\n");
  xap_.SetXapSource("zel.WOL.a|b");
  EXPECT_EQ(xap_.HeartbeatText(),
            "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\nsource=zel.WOL.a\nb\ninterval=");
  EXPECT_EQ(Logged(), "");
}

TEST_F(TransportTest, SendingWhileClosedAndAnUnusableTargetAreLogged) {
  xap_.Send("", "C", "B", "");
  xap_.SendHeartbeat(60);
  xap_.SetBroadcastAddress("not an address");
  EXPECT_LT(xap_.Init(), 0);
  EXPECT_EQ(xap_.LocalPort(), 0);
  xap_.SetBroadcastAddress("127.0.0.1");
  Init();
  for (int i = 0; i < 2; ++i) xap_.Close();  // a second close is harmless
  xap_.Send("", "C", "B", "");
  EXPECT_EQ(Logged(),
            "tavrel|SendXap |40006\ntavrel|SendHeartbeat|40006\ntavrel|SocketsInitialize |5\n"
            "tavrel|SendXap |40006\n");
  RunFor(50ms);  // the receives cancelled by Close end quietly
  EXPECT_EQ(callbacks_, 0);
}

}  // namespace
}  // namespace tavrel
