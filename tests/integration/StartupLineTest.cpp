// The one line the program prints once it has started, byte for byte, for each state of its web server
// and of its xAP port.
#include <gtest/gtest.h>

#include "Node.h"

namespace tavrel::test {
namespace {

TEST(StartupLineTest, SaysWhereTheNodeListensWhereThePageIsAndHowToStop) {
  const std::string node = "tavrel: xAP node zel.WOL." + HostName();
  struct Case {
    const char* what;
    bool behindHub;
    std::string httpPort;  // HTTPPort of tavrel.ini (empty means the default, "" none)
    std::string page;      // the line's part about the page
  };
  int held = -1;
  const std::string heldPort = std::to_string(LoopbackPort(SOCK_STREAM, &held));
  const std::string freePort = std::to_string(LoopbackPort(SOCK_STREAM));
  const Case cases[] = {
      {"page served", true, freePort,
       "page http://localhost:" + freePort + "/wol for this machine's networks"},
      {"page narrowed", false, freePort + "\nHTTPAllow= 198.51.100.0/24 \nHTTPPasswordHash=h",
       "page http://localhost:" + freePort + "/wol for HTTPAllow 198.51.100.0/24, with its password"},
      {"port taken", false, heldPort, "web server failed to listen on HTTPPort " + heldPort},
      {"server off", true, "\"\"", "web server off (HTTPPort=\"\")"},
  };
  for (const Case& c : cases) {
    Hub hub;  // a fresh one: nothing left over from the node before
    const int xapPort = c.behindHub ? hub.Port() : LoopbackPort(SOCK_DGRAM);
    Node tavrel(xapPort, "[WOL]\nHTTPPort=" + c.httpPort + "\n");
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
  close(held);
}

}  // namespace
}  // namespace tavrel::test
