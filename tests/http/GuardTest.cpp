#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSink.h"
#include "TestSupport.h"
#include "http/Guard.h"

namespace tavrel {
namespace {

using V = Guard::Verdict;

// A guard on a hand-set clock, on a machine named "tavrelhost" with an adapter in 203.0.113.0/24; a
// stored hash "h:PASSWORD" verifies PASSWORD, and every derivation is counted.
struct Fixture {
  Guard::Settings settings;
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  int derivations = 0;
  Guard guard{Guard::Context{clock, reporter, [this] { return settings; }, "TavrelHost",
                             [] {
                               return std::vector<platform::IPv4Network>{{0xCB007105, 24}};
                             },
                             [this](std::string_view stored, std::string_view password) {
                               ++derivations;
                               return stored == "h:" + std::string(password);
                             },
                             [](std::string_view stored) { return stored.starts_with("h:"); }}};

  static Request Make(const std::string& peer, const std::string& headers,
                      const std::string& method = "GET") {
    Request request;
    request.SetRemoteIp(peer);
    request.ParsePage(method + " /wol HTTP/1.1\r\n" + headers + "\r\n");
    return request;
  }
  V Check(const std::string& peer, const std::string& headers, const std::string& method = "GET") {
    return guard.Check(Make(peer, headers, method));
  }
};

const std::string kLocal = "Host: 127.0.0.1:8019\r\n";
// "user:secret" and "x:wrong"
const std::string kRight = kLocal + "Authorization: Basic dXNlcjpzZWNyZXQ=\r\n";
const std::string kWrong = kLocal + "Authorization: Basic eDp3cm9uZw==\r\n";

TEST(GuardTest, DecidesByAddressHostOriginAndPassword) {
  // Who may connect by default: loopback, private ranges and this machine's networks, not a forwarded
  // port from outside.
  for (const char* peer :
       {"127.0.0.1", "192.168.1.20", "10.9.8.7", "172.31.255.255", "169.254.10.1", "203.0.113.77"})
    EXPECT_EQ(Fixture().Check(peer, kLocal), V::kServe) << peer;
  for (const char* peer : {"172.32.0.1", "198.51.100.7", ""})
    EXPECT_EQ(Fixture().Check(peer, kLocal), V::kAddress) << peer;
  const std::string lan = "192.168.1.20";
  // clang-format off
  const struct {
    V verdict;
    std::string headers, method = "GET", peer = "192.168.1.20", hash = {}, allow = {}, hosts = {};
  } cases[] = {
      // With HTTPAllow set, its list decides.
      {V::kServe, kLocal, "GET", "198.51.100.7", "", "bogus, 198.51.100.0/25"},
      {V::kAddress, kLocal, "GET", "198.51.100.200", "", "198.51.100.0/25"},
      {V::kAddress, kLocal, "GET", lan, "", "198.51.100.7"},        // the list narrows it
      {V::kServe, kLocal, "GET", "127.0.0.1", "", "198.51.100.7"},  // loopback stays in
      {V::kServe, kLocal, "GET", "8.8.8.8", "", " * "},
      // The names this server answers to.
      {V::kServe, ""},  // no Host: no browser
      {V::kHost, "Host: evil.example:8019\r\n"},
      {V::kServe, "Host: EVIL.example.:8019\r\n", "GET", lan, "", "", "other, evil.example"},
      {V::kServe, "Host: anything\r\n", "GET", lan, "", "", "*"},
      {V::kServe, "Host: TAVRELHOST.fritz.box:8019\r\n"}, {V::kHost, "Host: tavrelhostile.example\r\n"},
      {V::kServe, "Host: localhost:8019\r\n"}, {V::kServe, "Host: [::1]:8019\r\n"},
      {V::kHost, "Host: 192.168.1.10:99999\r\n"}, {V::kHost, "Host: 192.168.1.10\r\nhost: evil.example\r\n"},
      {V::kServe, "Host:192.168.1.10\r\nOrigin:http://192.168.1.10\r\n", "POST"},
      // Forms from other sites.
      {V::kServe, kLocal + "Origin: http://127.0.0.1:8019\r\n", "POSTx"},
      {V::kOrigin, kLocal + "Origin: http://evil.example\r\n", "POSTx"},
      {V::kOrigin, kLocal + "Origin: http://127.0.0.1:8020\r\n", "POST"},
      {V::kOrigin, kLocal + "Referer: http://evil.example/x?http://127.0.0.1:8019/\r\n", "POSTx"},
      {V::kServe, kLocal + "Referer: http://127.0.0.1:8019/wol\r\n", "POSTx"},
      {V::kOrigin, kLocal + "Referer: http://user@127.0.0.1:8019/\r\n", "POSTx"},
      {V::kServe, kLocal + "Origin: http://evil.example\r\n"},
      {V::kServe, kLocal, "POSTx"},  // curl and scripts send neither
      {V::kServe, "Host: pc.example\r\nOrigin: https://pc.example\r\n", "POSTx", lan, "", "", "pc.example"},
      // The password.
      {V::kNoCredentials, kLocal, "GET", lan, "h:secret"}, {V::kServe, kRight, "GET", lan, "h:secret"},
      {V::kWrongPassword, kWrong, "GET", lan, "h:secret"},
      {V::kWrongPassword, kLocal + "Authorization: Bearer dXNlcjpzZWNyZXQ=\r\n", "GET", lan, "h:secret"},
      {V::kWrongPassword, kRight, "GET", lan, "secret"},  // not a hash: nobody gets in
      {V::kAddress, kRight, "GET", "198.51.100.7", "h:secret"},
  };
  // clang-format on
  for (const auto& c : cases) {
    Fixture f;
    f.settings = {c.allow, c.hosts, c.hash};
    EXPECT_EQ(f.Check(c.peer, c.headers, c.method), c.verdict) << c.peer << " " << c.method << "\n"
                                                               << c.headers;
  }
}

TEST(GuardTest, LocksOutAfterFiveFailuresAndRemembersAGoodPassword) {
  Fixture f;
  f.settings.passwordHash = "h:secret";
  for (int i = 0; i < 4; ++i) ASSERT_EQ(f.Check("192.168.1.20", kWrong), V::kWrongPassword);
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kServe);  // a success forgets the failures
  for (int i = 0; i < 5; ++i) ASSERT_EQ(f.Check("192.168.1.20", kWrong), V::kWrongPassword);
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kLockedOut);
  EXPECT_EQ(f.Check("192.168.1.21", kRight), V::kServe);  // only that address
  f.clock.Advance(std::chrono::seconds(59));
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kLockedOut);
  f.clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kServe);

  // A credential that verified is not derived again for a while, nor after the hash changed.
  const int derived = f.derivations;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(f.Check("192.168.1.20", kRight), V::kServe);
  EXPECT_EQ(f.derivations, derived);
  f.clock.Advance(Guard::kRemember);
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kServe);
  EXPECT_EQ(f.derivations, derived + 1);
  f.settings.passwordHash = "h:other";
  EXPECT_EQ(f.Check("192.168.1.20", kRight), V::kWrongPassword);
}

TEST(GuardTest, AnswersRefusalsItselfAndLogsEachCauseOnceAMinute) {
  Fixture f;
  f.settings.passwordHash = "h:secret";
  auto admit = [&](const std::string& peer, const std::string& headers) {
    test::TestSink sink;
    Response response(sink, {"", f.clock, f.reporter, nullptr});
    Request request = Fixture::Make(peer, headers);
    const bool admitted = f.guard.Admit(request, response);
    EXPECT_EQ(admitted, sink.sent.empty());
    return sink.sent;
  };
  EXPECT_EQ(admit("192.168.1.20", kLocal),
            "HTTP/1.1 401 Unauthorized\r\nServer: zel\r\nDate: 22-Nov-26\r\nWWW-Authenticate: Basic "
            "realm=\"Tavrel\"\r\nConnection: close\r\nContent-Type: text/plain\r\nContent-Length: 31\r\n\r\n"
            "This page needs its password.\r\n");
  EXPECT_EQ(admit("192.168.1.20", kRight), "");
  EXPECT_TRUE(f.reporter.calls.empty());  // asking for the password is no trouble
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(admit("198.51.100.7", kLocal).starts_with("HTTP/1.1 403 Forbidden\r\n"));
    EXPECT_TRUE(admit("192.168.1.20", "Host: evil.example\r\n").starts_with("HTTP/1.1 403 Forbidden\r\n"));
  }
  EXPECT_EQ(f.reporter.calls.size(), 2u);
  f.clock.Advance(std::chrono::seconds(60));
  admit("198.51.100.7", kLocal);
  EXPECT_EQ(f.reporter.calls.size(), 3u);
}

}  // namespace
}  // namespace tavrel
