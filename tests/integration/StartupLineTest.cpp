// The one line the program prints once it has started, byte for byte, for each state of its web server
// and of its xAP port.
#include <gtest/gtest.h>

#include "Node.h"

namespace tavrel::test {
namespace {

// A TCP socket on a port of the system's choosing; listening, it holds the port against the program.
class TcpPort {
 public:
  explicit TcpPort(bool listen) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = Hub::Loopback(0);
    socklen_t len = sizeof addr;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        (listen && ::listen(fd_, 1) != 0)) {
      throw std::runtime_error("tcp port");
    }
    port_ = ntohs(addr.sin_port);
    if (!listen) Release();
  }
  ~TcpPort() { Release(); }
  int Port() const { return port_; }

 private:
  void Release() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int fd_ = -1;
  int port_ = 0;
};

// A UDP port nobody holds once this returns.
int FreeUdpPort() {
  Hub probe;
  return probe.Port();
}

std::string HostName() {
  char buf[256] = {};
  gethostname(buf, sizeof buf - 1);
  std::string name(buf);
  return name.substr(0, name.find('.'));
}

TEST(StartupLineTest, SaysWhereTheNodeListensWhereThePageIsAndHowToStop) {
  const std::string node = "tavrel: xAP node zel.WOL." + HostName();
  struct Case {
    const char* what;
    bool behindHub;
    std::string httpPort;  // HTTPPort of tavrel.ini (empty means the default, "" none)
    std::string page;      // the line's part about the page
  };
  TcpPort held(true), free(false);
  const std::string heldPort = std::to_string(held.Port()), freePort = std::to_string(free.Port());
  const Case cases[] = {
      {"page served", true, freePort, "page http://localhost:" + freePort + "/wol"},
      {"port taken", false, heldPort, "web server failed to listen on HTTPPort " + heldPort},
      {"server off", true, "\"\"", "web server off (HTTPPort=\"\")"},
  };
  for (const Case& c : cases) {
    Hub hub;  // a fresh one: nothing left over from the node before
    const int xapPort = c.behindHub ? hub.Port() : FreeUdpPort();
    Node tavrel(xapPort, "[WOL]\nHTTPPort=" + c.httpPort + "\n");
    tavrel.CaptureStderr();
    tavrel.Start();
    std::string listening = "listening on UDP port " + std::to_string(xapPort);
    if (c.behindHub) {
      const std::string hb =
          hub.ReceiveUntil([](const std::string& t) { return t.rfind("xap-hbeat", 0) == 0; });
      const size_t at = hb.find("\nport=");
      ASSERT_NE(at, std::string::npos) << c.what;
      listening = "listening on UDP 127.0.0.1:" + std::to_string(std::atoi(hb.c_str() + at + 6)) +
                  " behind the hub on " + std::to_string(xapPort);
    }
    EXPECT_EQ(tavrel.StderrLine(), node + " " + listening +
                                       ", sending to 127.0.0.1:" + std::to_string(xapPort) + "; " + c.page +
                                       "; home " + tavrel.Home().string() + "; Ctrl+C stops it\n")
        << c.what;
    tavrel.Signal(SIGINT);
    EXPECT_EQ(tavrel.WaitExit(), 0) << c.what;
  }
}

}  // namespace
}  // namespace tavrel::test
