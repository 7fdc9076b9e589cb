#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpFakes.h"
#include "ManualTimers.h"
#include "TestSupport.h"
#include "http/TCPServerModule.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

// A slot whose writes complete only when the test says so.
class FakeSlot final : public ConnectionSlot {
 public:
  using ConnectionSlot::ConnectionSlot;
  void StartWrite(const std::string& bytes) override {
    written.push_back(bytes);
    ++pending;
  }
  void CloseSocket() override { ++closes; }
  // Completes every write, those started on the way included.
  void Flush() {
    while (pending > 0 && State() == kConnected) {
      --pending;
      Written();
    }
  }
  Lines written;
  int pending = 0;
  int closes = 0;
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
  ServerModuleTest() {
    test::WriteFile(html / "a.gif", std::string(2500, 'g'));
    test::WriteFile(html / "s.css", "b{}");
    test::WriteFile(home.Path() / "secret.gif", "secret");
  }
  std::unique_ptr<TestModule> Make() {
    auto made = std::make_unique<TestModule>(
        TCPServerModule::Context{html, clock, reporter, timers, &log, "203.0.113.9", "8080", &pages});
    made->CreateSockets();
    return made;
  }
  // Packets in order, each "index|text"; "tick" lets the 50 ms timer run, as does the end.
  void Arrive(TCPServerModule& to, const Lines& packets) {
    for (const auto& p : packets) {
      if (p == "tick") {
        timers.Advance(TCPServerModule::kServeDelay);
      } else {
        to.Socket_DataArrival(std::stoi(p.substr(0, p.find('|'))), p.substr(p.find('|') + 1));
      }
    }
    timers.Advance(TCPServerModule::kServeDelay);
  }
  size_t Count(const std::string& line) const {
    return static_cast<size_t>(std::count(log.lines.begin(), log.lines.end(), line));
  }

  test::TempDir home;
  fs::path html = home.Path() / "HTML";
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::RecordingLog log;
  test::ManualTimers timers;
  test::RecordingPages pages;
};

// Which route each path takes, and the close once the answer is out; the answers over real sockets are
// checked end to end.
TEST_F(ServerModuleTest, RoutesEachPathAndClosesOnceTheAnswerIsOut) {
  const struct {
    const char* target;
    std::string start, has;
  } cases[] = {
      {"/a.gif", "HTTP/1.1 200 OK", "image/gif\r\n\r\n" + std::string(2500, 'g') + std::string(500, '\0')},
      {"/%2E%2E/secret.wmz", "HTTP/1.1 404 Not Found", ""},
      {"/none.css", "HTTP/1.1 200 Object Not Found", "404 File Not Found"},
      {"/WOL", "HTTP/1.1 200 OK", "<p>hi</p>"},
      {"/stat?a=1", "HTTP/1.1 200 OK", "<p>hi</p>"},
      {"/wol/", "HTTP/1.0 200 OK", "Location: http://203.0.113.9:8080/wol/\r\n"},
      {"/x.htm?q=1", "HTTP/1.0 200 OK", "name='q' value='1'"},
  };
  auto server = Make();
  Lines packets;
  for (const auto& c : cases)
    packets.push_back(std::to_string(server->Connect()) + "|GET " + c.target + " HTTP/1.1\r\n\r\n");
  Arrive(*server, packets);
  for (int i = 1; i <= static_cast<int>(std::size(cases)); ++i) {
    FakeSlot& slot = server->At(i);
    slot.Flush();
    std::string answer;
    for (const auto& w : slot.written) answer += w;
    EXPECT_TRUE(answer.starts_with(cases[i - 1].start) && answer.find(cases[i - 1].has) != std::string::npos)
        << cases[i - 1].target << ": " << answer;
    EXPECT_EQ(std::to_string(slot.State()) + " closed " + std::to_string(slot.closes), "0 closed 1")
        << cases[i - 1].target;
  }
  EXPECT_EQ(pages.calls, (Lines{"4 GET /WOL ", "5 GET /stat "}));
  EXPECT_EQ(Count("Popped socket 6 for page \\wol\\"), 1u);
  EXPECT_TRUE(reporter.calls.empty());
}

TEST_F(ServerModuleTest, PostBodyIsJoinedFromItsOwnSocketOnlyAndNeverLoops) {
  const std::string post = "POST /wol HTTP/1.1\r\n\r\n";
  const std::string big(40000, 'x');
  const struct {
    Lines packets;
    Lines calls;
    size_t foreign;  // "Post data expected" lines
  } cases[] = {
      {{"1|" + post, "1|a=1"}, {"1 POST /wol 1"}, 0},
      // The other socket's packet ends the joining; the late body is then a request of its own.
      {{"1|" + post, "2|GET /stat HTTP/1.1\r\n\r\n", "1|a=1"}, {"1 POST /wol ", "2 GET /stat "}, 1},
      {{"1|" + post, "tick", "1|a=1"}, {"1 POST /wol "}, 0},
      // Past 64 KiB the rest of the body is dropped.
      {{"1|" + post, "1|a=1&b=" + big, "1|" + big, "1|zz", "2|GET /wol HTTP/1.1\r\n\r\n"},
       {"1 POST /wol 1", "2 GET /wol "},
       0},
  };
  for (const auto& c : cases) {
    pages.calls.clear();
    log.lines.clear();
    auto server = Make();
    server->Connect();
    server->Connect();
    Arrive(*server, c.packets);
    EXPECT_EQ(pages.calls, c.calls) << c.packets.size();
    EXPECT_EQ(Count("Post data expected from socket 1 but next packet was from socket 2"), c.foreign);
    EXPECT_EQ(server->QueueCount(), 0u);
  }
  EXPECT_EQ(Count("Post data of 40002 bytes from socket 1 dropped: body longer than 65536"), 1u);
}

TEST_F(ServerModuleTest, OversizedPacketsAndAFullQueueAreDroppedWithOneLogLine) {
  auto server = Make();
  server->Connect();
  server->Socket_DataArrival(1, std::string(Request::kMaxPacket + 1, 'x'));
  for (size_t i = 0; i <= RequestQueue::kMaxEntries; ++i)
    server->Socket_DataArrival(1, "GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(server->QueueCount(), RequestQueue::kMaxEntries);
  EXPECT_EQ(Count("Packet of 65537 bytes from socket 1 dropped: longer than 65536"), 1u);
  EXPECT_EQ(Count("Packet from socket 1 dropped: 1000 requests already waiting"), 1u);
  timers.Advance(std::chrono::seconds(60));
  EXPECT_EQ(server->QueueCount(), 0u);
  ASSERT_EQ(reporter.calls.size(), 2u);
  EXPECT_EQ(reporter.calls[0].text, "HTTP Packet of 65537 bytes from socket 1 dropped: longer than 65536");
  EXPECT_EQ(reporter.calls[1].text, "HTTP 1 more packets dropped");
  EXPECT_FALSE(reporter.calls[1].event);
}

TEST_F(ServerModuleTest, SocketsGrowRoundRobinAndRefuseWhenAllAreBusy) {
  auto server = Make();
  EXPECT_EQ(server->Connect(), 1);
  EXPECT_EQ(server->Connect(), 2);
  EXPECT_EQ(server->SocketsDefined(), 6);
  server->Socket_DataArrival(1, "GET /a HTTP/1.1\r\n\r\n");
  server->Socket_DataArrival(2, "GET /b HTTP/1.1\r\n\r\n");
  server->Socket_DataArrival(1, "GET /c HTTP/1.1\r\n\r\n");
  server->Socket_Close(1);
  EXPECT_EQ(server->QueueCount(), 2u);
  EXPECT_EQ(Lines(log.lines.begin(), log.lines.begin() + 4),
            (Lines{"ConnectionRequest for socket 1 RequestID=7, Sockets Defined=5, Sockets Open=1",
                   "ConnectionRequest for socket 2 RequestID=7, Sockets Defined=6, Sockets Open=2",
                   "Pushing Index 1 for socket 1 with status 7 with data GET /a HTTP/1.1\r\n\r\n",
                   "raw:GET /a HTTP/1.1\r\n\r\n"}));
  EXPECT_EQ(
      Lines(log.lines.end() - 2, log.lines.end()),
      (Lines{"raw:2026-11-22 10:30:00 | Pending Request Removed for socket 1, 1~GET /a HTTP/1.1\r\n\r\n\r\n",
             "ConnectionClose for socket 1, Sockets Open=1, state was 7, open count was 2"}));
  // The cursor goes on past the freed socket, wraps to 1 (never 0), and stops at 100.
  Lines taken;
  for (int index; (index = server->Connect()) > 0;) taken.push_back(std::to_string(index));
  Lines expected;
  for (int i = 3; i <= 100; ++i) expected.push_back(std::to_string(i));
  expected.push_back("1");
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(server->SocketsOpen(), 100);
  EXPECT_EQ(server->SocketsDefined(), TCPServerModule::kMaxSocketIndex);
  EXPECT_EQ(server->Connect(), 0);
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].text, "socket_ConnectionRequest ");
  server->Socket_Close(50);
  EXPECT_EQ(server->Connect(), 50);
  EXPECT_EQ(server->Connect(), 0);
  EXPECT_EQ(reporter.calls.size(), 2u);
}

// Sockets past 19 have their send time-out too: a client that takes nothing is let go.
TEST_F(ServerModuleTest, ClientThatTakesNothingIsClosedAfterTheTimeOuts) {
  auto server = Make();
  for (int i = 0; i < 21; ++i) server->Connect();
  Arrive(*server, {"21|GET /a.gif HTTP/1.1\r\n\r\n", "20|GET /wol HTTP/1.1\r\n\r\n"});
  FakeSlot& image = server->At(21);
  FakeSlot& page = server->At(20);
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(page.State(), 0);
  EXPECT_EQ(Count("Send time-out for socket 20: the client takes nothing, closing"), 1u);
  // Each piece after the first waits one time-out, and the last one more before the client is given up.
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(image.State(), ConnectionSink::kConnected);
  EXPECT_EQ(Count(">>>>>>>>>>> SendingBinaryData \\a.gif to socket 21"), 3u);
  timers.Advance(ConnectionSlot::kSendTimeout);
  EXPECT_EQ(image.State(), 0);
  EXPECT_EQ(image.written.size(), 1u);
  EXPECT_EQ(server->SocketsOpen(), 19);
  EXPECT_EQ(timers.ArmedCount(), 0u);
}

}  // namespace
}  // namespace tavrel
