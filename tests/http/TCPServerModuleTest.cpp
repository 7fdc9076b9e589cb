#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ManualTimers.h"
#include "TestSupport.h"
#include "http/TCPServerModule.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

// Answers the two pages with a fixed text and notes each call as "socket method page form-a".
class RecordingPages : public PageHandler {
 public:
  std::string RemotePage(Request& request, Response& response) override {
    calls.push_back(std::to_string(response.index()) + " " + request.Method() + " " + request.page() + " " +
                    request.Form("a"));
    return answer;
  }
  std::string answer = "<p>hi</p>";
  std::vector<std::string> calls;
};

// A slot whose writes complete only when the test says so: each StartWrite is noted, and what the
// client has taken collects in sent.
class FakeSlot final : public ConnectionSlot {
 public:
  using ConnectionSlot::ConnectionSlot;
  void StartWrite(std::string_view bytes, std::shared_ptr<const std::string>) override {
    written.emplace_back(bytes);
    ++pending;
  }
  void CloseSocket() override {}
  // The pending write takes its first n bytes (all of them by default).
  void Take(size_t n = std::string::npos) {
    --pending;
    sent += written.back().substr(0, n);
    Wrote(std::min(n, written.back().size()));
  }
  Lines written;
  std::string sent;
  int pending = 0;
};

class TestModule final : public TCPServerModule {
 public:
  using TCPServerModule::TCPServerModule;
  FakeSlot& At(int index) { return static_cast<FakeSlot&>(*Slot(index)); }
  // A connection accepted on the next socket; its index.
  int Connect() {
    const int index = Socket_ConnectionRequest("7");
    if (index > 0) At(index).Opened("198.51.100.7");
    return index;
  }

 private:
  std::shared_ptr<ConnectionSlot> CreateSlot(int index, ConnectionSlot::Owner& owner) override {
    return std::make_shared<FakeSlot>(index, owner, timers());
  }
};

class ServerModuleTest : public ::testing::Test {
 protected:
  std::unique_ptr<TestModule> Make() {
    auto made = std::make_unique<TestModule>(
        TCPServerModule::Context{html, clock, reporter, timers, nullptr, "203.0.113.9", "8080", &pages});
    made->CreateSockets();
    return made;
  }
  // Packets in order, each "index|text"; "tick" lets the 50 ms timer run, as does the end.
  void Arrive(TCPServerModule& to, const Lines& packets) {
    for (const auto& p : packets)
      p == "tick" ? timers.Advance(TCPServerModule::kServeDelay)
                  : to.Socket_DataArrival(std::stoi(p.substr(0, p.find('|'))), p.substr(p.find('|') + 1));
    timers.Advance(TCPServerModule::kServeDelay);
  }

  test::TempDir home;
  fs::path html = home.Path() / "HTML";
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::ManualTimers timers;
  RecordingPages pages;
};

// Routes and answers are checked end to end over real sockets; here the queue and time-out rules a
// plain client cannot steer.
TEST_F(ServerModuleTest, PostBodyIsJoinedFromItsOwnSocketOnlyAndNeverLoops) {
  const std::string post = "POST /wol HTTP/1.1\r\n\r\n";
  const std::string big(40000, 'x');
  const std::pair<Lines, Lines> cases[] = {
      // The other socket's packet ends the joining; the late body is then a request of its own.
      {{"1|" + post, "2|GET /stat HTTP/1.1\r\n\r\n", "1|a=1"}, {"1 POST /wol ", "2 GET /stat "}},
      {{"1|" + post, "tick", "1|a=1"}, {"1 POST /wol "}},
      // Past 64 KiB the rest of the body is dropped.
      {{"1|" + post, "1|a=1&b=" + big, "1|" + big, "1|zz", "2|GET /wol HTTP/1.1\r\n\r\n"},
       {"1 POST /wol 1", "2 GET /wol "}},
  };
  for (const auto& [packets, calls] : cases) {
    pages.calls.clear();
    auto server = Make();
    server->Connect();
    server->Connect();
    Arrive(*server, packets);
    EXPECT_EQ(pages.calls, calls) << packets.size();
    EXPECT_EQ(server->QueueCount(), 0u);
  }
}

TEST_F(ServerModuleTest, OversizedPacketsAndAFullQueueAreDroppedWithOneLogLine) {
  auto server = Make();
  server->Connect();
  server->Socket_DataArrival(1, std::string(Request::kMaxPacket + 1, 'x'));
  for (size_t i = 0; i <= RequestQueue::kMaxEntries; ++i)
    server->Socket_DataArrival(1, "GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(server->QueueCount(), RequestQueue::kMaxEntries);
  timers.Advance(std::chrono::seconds(60));
  EXPECT_EQ(server->QueueCount(), 0u);
  // The first drop is logged, the second only counted in the line a minute later.
  EXPECT_EQ(reporter.calls.size(), 2u);
}

// Ten seconds to be answered, then an answer lives as long as it makes progress every 5 s.
TEST_F(ServerModuleTest, RequestTimeLimitAndSendTimeOutCountedFromLastProgress) {
  pages.answer = "";
  auto server = Make();
  const int silent = server->Connect(), unanswered = server->Connect();
  FakeSlot& slow = server->At(server->Connect());
  FakeSlot& stalled = server->At(server->Connect());
  auto get = [](int index) { return std::to_string(index) + "|GET /wol HTTP/1.1\r\n\r\n"; };
  Arrive(*server, {get(unanswered)});
  pages.answer = std::string(5000, 'p');
  Arrive(*server, {get(slow.Index()), get(stalled.Index())});  // answered at 100 ms
  timers.Advance(3000ms);
  slow.Take(100);
  stalled.Take(100);  // its last progress: closed at 8.1 s, not 5.1 s
  timers.Advance(4900ms);
  slow.Take(100);
  EXPECT_EQ(stalled.State(), ConnectionSink::kConnected);
  timers.Advance(100ms);
  EXPECT_EQ(stalled.State(), 0);
  timers.Advance(1899ms);
  EXPECT_EQ(server->Slot(silent)->State() + server->Slot(unanswered)->State(),
            2 * ConnectionSink::kConnected);
  timers.Advance(1ms);
  EXPECT_EQ(server->Slot(silent)->State() + server->Slot(unanswered)->State(), 0);
  slow.Take(100);
  for (int i = 0; i < 10; ++i) {
    timers.Advance(ConnectionSlot::kSendTimeout - 1ms);
    ASSERT_EQ(slow.State(), ConnectionSink::kConnected) << i;
    slow.Take(100);
  }
  while (slow.pending > 0) slow.Take();        // every write, those started on the way included
  EXPECT_EQ(slow.sent, slow.written.front());  // every byte once, in order
  EXPECT_TRUE(slow.sent.ends_with("\r\n\r\n" + pages.answer));
  EXPECT_EQ(server->SocketsOpen(), 0);
  EXPECT_EQ(timers.ArmedCount(), 0u);
}

// Sockets past 19 have their send time-out too: a client that takes nothing is let go.
TEST_F(ServerModuleTest, ClientThatTakesNothingIsClosedAfterTheTimeOuts) {
  test::WriteFile(html / "a.gif", std::string(2500, 'g'));
  auto server = Make();
  for (int i = 0; i < 21; ++i) server->Connect();
  Arrive(*server, {"21|GET /a.gif HTTP/1.1\r\n\r\n", "20|GET /wol HTTP/1.1\r\n\r\n"});
  FakeSlot& image = server->At(21);
  FakeSlot& page = server->At(20);
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(page.State(), 0);
  // Each piece after the first waits one time-out, and the last one more before the client is given up.
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(image.State(), ConnectionSink::kConnected);
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(image.State(), 0);
  EXPECT_EQ(image.written.size(), 1u);
  EXPECT_EQ(server->SocketsOpen(), 0);  // the 19 silent ones went at 10 s
  EXPECT_EQ(timers.ArmedCount(), 0u);
}

}  // namespace
}  // namespace tavrel
