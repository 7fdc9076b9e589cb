// The one line the program prints once it has started, byte for byte, for each state of its web server
// and of its xAP port; and `tavrel set-password`, which writes the page's password into a home.
#include <gtest/gtest.h>

#include "Node.h"
#include "http/PasswordHash.h"
#include "settings/Hs.h"

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
      {"page served", true, "\"" + freePort + "\"",  // quotes and all, as the setting may be written
       "page http://localhost:" + freePort + "/wol for this machine's networks"},
      {"page narrowed", false, freePort + "\nHTTPAllow= 198.51.100.0/24 \nHTTPPasswordHash=h",
       "page http://localhost:" + freePort + "/wol for HTTPAllow 198.51.100.0/24, with its password"},
      {"port taken", false, heldPort, "web server failed to listen on HTTPPort " + heldPort},
      {"server off", true, "\"\"", "web server off (HTTPPort=\"\")"},
      {"not a port", true, "70000", "web server failed to listen on HTTPPort 70000"},
  };
  for (const Case& c : cases) {
    Hub hub;  // a fresh one: nothing left over from the node before
    const int xapPort = c.behindHub ? hub.Port() : LoopbackPort(SOCK_DGRAM);
    Node tavrel(xapPort, "[WOL]\nHTTPPort=" + c.httpPort + "\n");
    tavrel.Start();
    std::string listening = "listening on UDP port " + std::to_string(xapPort);
    if (c.behindHub) {
      const std::string hb = hub.Heartbeat();
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

TEST(SetPasswordTest, StoresAHashOfTheLineReadRefusesNoPasswordAndClears) {
  TempDir scratch, home;  // home has no Config folder yet
  const std::string h = home.Path().string();
  RecordingReporter reporter;
  Hs hs(home.Path() / "Config", reporter);
  auto stored = [&] { return hs.GetINISetting(kPasswordHashSection, kPasswordHashKey, "", kIniFile); };
  struct Case {
    std::vector<const char*> args;
    std::string input;
    int exitCode;
    const char* password;  // the one the stored hash must verify; "" none stored
  } const cases[] = {
      {{"set-password", "--home", h.c_str()}, "secret\n", 0, "secret"},
      {{"--home", h.c_str(), "set-password"}, "", 2, "secret"},      // end of input: nothing written
      {{"--home", h.c_str(), "set-password"}, "\r\n", 2, "secret"},  // empty
      {{"--home", h.c_str(), "--clear"}, "", 2, "secret"},           // --clear alone
      {{"--home", h.c_str(), "set-password"}, "an other\r\nnext\n", 0, "an other"},
      {{"set-password", "--clear", "--home", h.c_str()}, "", 0, ""},
  };
  for (const Case& c : cases) {
    const std::string what = c.input + " after " + std::to_string(&c - cases);
    WriteFile(scratch.Path() / "stdin.txt", c.input);
    std::vector<const char*> argv = c.args;
    argv.insert(argv.begin(), TAVREL_BINARY);
    pid_t pid = Spawn(argv, (scratch.Path() / "stdin.txt").string(), "/dev/null", "/dev/null");
    EXPECT_EQ(WaitExit(pid), c.exitCode) << what;
    EXPECT_EQ(IsPasswordHash(stored()), *c.password != '\0') << what << stored();
    EXPECT_TRUE(*c.password == '\0' || VerifyPassword(stored(), c.password)) << what;
  }
  EXPECT_TRUE(reporter.Take().empty());
}

}  // namespace
}  // namespace tavrel::test
