#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>
#include <gtest/gtest.h>

#include "HttpFakes.h"
#include "ManualTimers.h"
#include "TestSupport.h"
#include "http/TCPServer.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using asio::ip::tcp;
using namespace std::chrono_literals;

std::string FreePort() {
  asio::io_context io;
  tcp::acceptor probe(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  return std::to_string(probe.local_endpoint().port());
}

// A raw TCP client on 127.0.0.1 that collects what comes until the server closes.
struct Client {
  Client(asio::io_context& io, int port) : socket(io) {
    socket.connect(tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<unsigned short>(port)));
    socket.non_blocking(true);
  }
  void Send(const std::string& text) { asio::write(socket, asio::buffer(text)); }
  void Poll() {
    char buffer[4096];
    while (!closed) {
      std::error_code ec;
      const size_t n = socket.read_some(asio::buffer(buffer), ec);
      if (ec == asio::error::would_block || ec == asio::error::try_again) return;
      if (ec) closed = true;
      received.append(buffer, n);
    }
  }
  tcp::socket socket;
  std::string received;
  bool closed = false;
};

class ListenerTest : public ::testing::Test {
 protected:
  ListenerTest() { test::WriteFile(html / "a.gif", "GIF89a"); }

  std::unique_ptr<TCPServer> Make(const std::string& port) {
    return std::make_unique<TCPServer>(io, timers, clock, reporter, html,
                                       TCPServer::Settings{port, "203.0.113.9", "8080", "127.0.0.1"}, &log,
                                       &pages);
  }
  // Runs the loop, with the server's timers moving 10 ms a turn, until done holds or 5 s pass.
  bool Drive(std::vector<Client*> clients, const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    for (;;) {
      for (Client* c : clients) c->Poll();
      if (done()) return true;
      if (std::chrono::steady_clock::now() > end) return false;
      io.run_one_for(2ms);
      timers.Advance(10ms);
    }
  }

  test::TempDir home;
  fs::path html = home.Path() / "HTML";
  asio::io_context io;
  asio::io_context clientIo;
  test::ManualTimers timers;
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::RecordingLog log;
  test::RecordingPages pages;
  const std::string page = test::ReadFile(fs::path(TAVREL_HTTP_GOLDEN) / "text_string.http");
};

TEST_F(ListenerTest, PortSettingDecidesWhetherAndWhereItListens) {
  const struct {
    std::string port;
    bool listens, reported;
  } cases[] = {{"", false, false},
               {"\"\"", false, false},
               {"abc", false, false},
               {"70000", false, true},
               {"\"" + FreePort() + "\"", true, false}};
  for (const auto& c : cases) {
    reporter.calls.clear();
    auto server = Make(c.port);
    EXPECT_EQ(server->Form_Load(), c.listens) << c.port;
    EXPECT_EQ(server->Listening(), c.listens) << c.port;
    EXPECT_EQ(server->SocketsDefined(), c.listens ? 5 : 0) << c.port;
    EXPECT_EQ(!reporter.calls.empty() && reporter.calls[0].text == "Server Form_Load ", c.reported) << c.port;
  }
}

TEST_F(ListenerTest, ServesAPageAndAnImageThenCloses) {
  auto server = Make(FreePort());
  ASSERT_TRUE(server->Form_Load());
  Client wol(clientIo, server->LocalPort());
  Client image(clientIo, server->LocalPort());
  wol.Send("GET /wol HTTP/1.1\r\nHost: x\r\n\r\n");
  image.Send("GET /A.gif HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(Drive({&wol, &image}, [&] { return wol.closed && image.closed; }));
  EXPECT_EQ(wol.received, page);
  const std::string body = "GIF89a" + std::string(994, '\0');
  ASSERT_GT(image.received.size(), body.size());
  EXPECT_EQ(image.received.substr(image.received.size() - body.size()), body);
  EXPECT_NE(image.received.find("Content-Length: 6\r\n"), std::string::npos);
  EXPECT_EQ(server->SocketsOpen(), 0);
  EXPECT_TRUE(reporter.calls.empty());
}

// Past 100 connections newcomers are turned away at once; the loop goes on serving the others.
TEST_F(ListenerTest, HundredTwentyConnectionsHeldWhileOthersAreServed) {
  auto server = Make(FreePort());
  ASSERT_TRUE(server->Form_Load());
  std::vector<std::unique_ptr<Client>> held;
  std::vector<Client*> all;
  for (int i = 0; i < 120; ++i) {
    held.push_back(std::make_unique<Client>(clientIo, server->LocalPort()));
    all.push_back(held.back().get());
  }
  auto refused = [&] { return std::count_if(all.begin(), all.end(), [](Client* c) { return c->closed; }); };
  ASSERT_TRUE(Drive(all, [&] { return server->SocketsOpen() == 100 && refused() == 20; }));
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].text, "socket_ConnectionRequest ");

  Client* open = *std::find_if(all.begin(), all.end(), [](Client* c) { return !c->closed; });
  open->Send("GET /stat HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(Drive({open}, [&] { return open->closed; }));
  EXPECT_EQ(open->received, page);
  Client late(clientIo, server->LocalPort());
  late.Send("GET /wol HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(Drive({&late}, [&] { return late.closed; }));
  EXPECT_EQ(late.received, page);
  EXPECT_EQ(server->SocketsOpen(), 99);
  EXPECT_EQ(refused(), 21);
}

}  // namespace
}  // namespace tavrel
