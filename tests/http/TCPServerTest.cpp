#include <string>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include "ManualTimers.h"
#include "TestSupport.h"
#include "http/TCPServer.h"

namespace tavrel {
namespace {

// Only the port setting here: what the listener serves is tested end to end over real sockets.
TEST(ListenerTest, PortSettingDecidesWhetherAndWhereItListens) {
  asio::io_context io;
  test::ManualTimers timers;
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::TempDir home;
  const int port = asio::ip::tcp::acceptor(io, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
  const struct {
    std::string port;
    int listens;
    bool reported;
  } cases[] = {{"", 0, false},
               {"\"\"", 0, false},
               {"abc", 0, false},
               {"70000", 0, true},
               {"\"" + std::to_string(port) + "\"", port, false}};
  for (const auto& c : cases) {
    reporter.calls.clear();
    TCPServer server(io, timers, clock, reporter, home.Path(), {c.port, "203.0.113.9", "8080", "127.0.0.1"},
                     nullptr, nullptr);
    EXPECT_EQ(server.Form_Load(), c.listens != 0) << c.port;
    EXPECT_EQ(server.LocalPort(), c.listens) << c.port;
    EXPECT_EQ(server.SocketsDefined(), c.listens ? 5 : 0) << c.port;
    EXPECT_EQ(!reporter.calls.empty() && reporter.calls[0].text == "Server Form_Load ", c.reported) << c.port;
  }
}

}  // namespace
}  // namespace tavrel
