// The real program's web server over raw TCP: whole answers, byte for byte.
#include <algorithm>
#include <memory>
#include <regex>

#include <gtest/gtest.h>

#include "Node.h"
#include "Version.h"

namespace tavrel::test {
namespace {

// The listener binds every address of its machine, so the test keeps it (and the program's clients) in a
// private network namespace (Node.h).

using namespace std::string_literals;

constexpr int kPort = 8080;  // free: nothing else lives in the namespace
const std::string kIni =
    "[WOL]\r\nHTTPPort=8080\r\nHSAddress=127.0.0.9\r\nHSWebPort=8081\r\n[Computer]\r\nalpha=127.0.0.2\r\n"
    "beta=127.0.0.3\r\n[ARP]\r\n127.0.0.2=00-11-22-33-44-02\r\n127.0.0.3=00-11-22-33-44-03\r\n"
    "127.0.0.4=00-11-22-33-44-04\r\n";

// A connection to the server.
int Connect() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to = Loopback(kPort);
  if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) return fd;
  close(fd);
  return -1;
}
void Send(int fd, const std::string& bytes) {
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
}
// Everything the server sends until it closes; what came so far once it stalls for 5 s.
std::string ReadToClose(int fd) {
  std::string got;
  char buf[4096];
  pollfd p{fd, POLLIN, 0};
  for (ssize_t n; poll(&p, 1, 5000) == 1 && (n = recv(fd, buf, sizeof buf, 0)) > 0;)
    got.append(buf, static_cast<size_t>(n));
  return got;
}
// One request on a fresh connection and its whole answer.
std::string Ask(const std::string& request) {
  int fd = Connect();
  if (fd < 0) return {};
  Send(fd, request);
  std::string answer = ReadToClose(fd);
  close(fd);
  return answer;
}
std::string Get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nUser-Agent: itest\r\n\r\n";
}

// The parts of an answer that depend on the clock: dates and file times are masked; the page's ages are
// taken out (Content-Length with them), giving the page as it is in the program's first second.
std::string Masked(const std::string& text) {
  static const std::regex date("(\r\nDate: ?)\\d{2}-[A-Z][a-z]{2}-\\d{2}\r\n");
  static const std::regex stamp("(\r\nLast-Modified:? )\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}\r\n");
  static const std::regex age("(\\.gif'>&nbsp;) \\d+:\\d{2}:\\d{2}</td>");
  std::string out = std::regex_replace(text, date, "$1@DATE@\r\n", std::regex_constants::format_first_only);
  out = std::regex_replace(out, stamp, "$1@TIME@\r\n", std::regex_constants::format_first_only);
  const std::string aged = out;
  out = std::regex_replace(out, age, "$1</td>");
  std::smatch length;
  if (out.size() < aged.size() &&
      std::regex_search(out, length, std::regex("\r\nContent-Length: (\\d+)\r\n"))) {
    out.replace(static_cast<size_t>(length.position(1)), static_cast<size_t>(length.length(1)),
                std::to_string(std::stoul(length[1]) - (aged.size() - out.size())));
  }
  return out;
}
std::string Bytes(int size) {
  std::string bytes;
  for (int i = 0; i < size; ++i) bytes += static_cast<char>(i % 251);
  return bytes;
}
std::string Golden(const std::string& name) {
  return std::regex_replace(ReadFile(std::filesystem::path(TAVREL_INTEGRATION_GOLDEN) / name),
                            std::regex("@VERSION@"),
                            std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor) + "." +
                                std::to_string(kVersionRevision));
}

class HttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!net_.Ready()) GTEST_SKIP() << "needs root: the program's listener is kept in a network namespace";
    hub_ = std::make_unique<Hub>();
    node_ = std::make_unique<Node>(hub_->Port(), kIni);
    WriteFile(node_->Home() / "secret.css", "SECRET");
    WriteFile(node_->Home() / "secret.gif", "SECRET");
    for (const char* name : {"2000.gif", "2500.gif", "a.htm.jpg", "b.jpg"})
      WriteFile(node_->Home() / "HTML" / name, Bytes(std::max(std::atoi(name), 10)));
    std::filesystem::create_symlink(node_->Home() / "secret.gif", node_->Home() / "HTML" / "link.gif");
    node_->Start(true);
    // Served once: the listener is up and the probe's socket is free again.
    ASSERT_TRUE(WaitFor([] { return !Ask(Get("/probe.gif")).empty(); })) << "the server never answered";
  }
  std::string ServerLog() const { return ReadFile(node_->Home() / "Data" / "tavrel" / "server.log"); }

  PrivateNet net_;
  std::unique_ptr<Hub> hub_;
  std::unique_ptr<Node> node_;
};

const std::string kNotFoundImage = "HTTP/1.1 404 Not Found\r\nServer: zel\r\nDate:@DATE@\r\n\r\n";
const std::string kNotFoundPage =
    "HTTP/1.1 200 Object Not Found\r\nServer: zel\r\nDate: @DATE@\r\nConnection: Close\r\nContent-Type: "
    "text/html\r\nContent-Length: 40\r\n\r\n<html><h1>404 File Not Found</h1></html>";
std::string Resubmit(const std::string& page, const std::string& inputs = "") {
  const std::string location = "http://127.0.0.9:8081" + page;
  const std::string body =
      "<HTML><HEAD><SCRIPT LANGUAGE=\"JavaScript\">function initialize() {document.redo.submit();}</script>"
      "</HEAD><body onLoad='initialize()'><form name='redo' action='" +
      location + "' method='GET'>" + inputs + "</form></HTML>";
  return "HTTP/1.0 200 OK\r\nServer: zel\r\nDate: @DATE@\r\nConnection: close\r\nContent-Type: "
         "text/html\r\nLocation: " +
         location + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST_F(HttpTest, StaticFilesPagesRedirectsAndNotFound) {
  const std::string css = ReadFile(node_->Home() / "HTML" / "StyleNoBody.css");
  ASSERT_FALSE(css.empty());
  // Images go out in pieces of 1000 bytes, the last one padded with zeros.
  auto gifAnswer = [](const std::string& bytes, const std::string& type = "image/gif") {
    return "HTTP/1.1 200 OK\r\nServer: zel\r\nDate:@DATE@\r\nLast-Modified: @TIME@\r\nAccept-Ranges: bytes"
           "\r\nContent-Length: " +
           std::to_string(bytes.size()) + "\r\nConnection: Close\r\nContent-Type: " + type + "\r\n\r\n" +
           bytes + std::string((1000 - bytes.size() % 1000) % 1000, '\0');
  };
  const std::string cssAnswer =
      "HTTP/1.0 200 OK\r\nServer: zel\r\nDate: @DATE@\r\nAccept-Ranges: bytes\r\n"
      "Content-Type: text/html\r\nLast-Modified @TIME@\r\nContent-Length: " +
      std::to_string(css.size()) + "\r\n\r\n" + css;
  const std::string page = Golden("wol.http");
  const struct {
    std::string target, expected;
  } cases[] = {
      {"/2500.gif", gifAnswer(Bytes(2500))},
      {"/2000.gif", gifAnswer(Bytes(2000))},
      {"/a.htm.jpg", gifAnswer(Bytes(10), "text/html")},  // the first name part that has a type wins
      {"/b.jpg", gifAnswer(Bytes(10), "image/jpg")},
      {"/StyleNoBody.css", cssAnswer},
      {"/wol", page},
      {"/WOL", page},
      {"/wol/", Resubmit("/wol/")},
      {"/index.html?a=1&b=c+d&q=<b>&n='x'&A=2",
       Resubmit("/index.html",
                "<input type='hidden' name='a' value='1'>"
                "<input type='hidden' name='b' value='c d'>"
                "<input type='hidden' name='q' value='&lt;b&gt;'>"
                "<input type='hidden' name='n' value='&#39;x&#39;'>")},
      {"/%2E%2E%2FConfig%2Ftavrel.ini", Resubmit("/../Config/tavrel.ini")},
      {"/.%2E%5Csecret.css", kNotFoundPage},
      {"/link.gif", kNotFoundImage},  // a link out of the folder
      {"/c:%5Cled-Red.gif", kNotFoundImage},
  };
  for (const auto& c : cases) EXPECT_EQ(Masked(Ask(Get(c.target))), c.expected) << c.target;
  // The Audrey gets a jump of its own.
  EXPECT_EQ(Masked(Ask("GET /wol/?x=1 HTTP/1.1\r\nUser-Agent: Mozilla (QNX; audrey)\r\n\r\n")),
            "HTTP/1.0 307 NoSupport\r\nServer: zel\r\nDate: @DATE@\r\nConnection: close\r\nContent-Type: "
            "text/html\r\nLocation: http://127.0.0.9:8081/wol/\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(HttpTest, PostInTwoPacketsRenamesAComputer) {
  ASSERT_EQ(Masked(Ask(Get("/wol"))), Golden("wol.http"));  // the rows the post refers to
  const std::string body =
      "clientinput=yes&subnet=127.0.0&Name0=tavrelhost&Name1=alpha&Name2=gamma&Save=Save+Changes";
  int fd = Connect();
  ASSERT_GE(fd, 0);
  Send(fd,
       "POST /wol HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nContent-Type: application/x-www-form-urlencoded\r\n"
       "Content-Length: " +
           std::to_string(body.size()) + "\r\n\r\n");
  // The body follows once the header is read, within the server's 50 ms batching delay.
  ASSERT_TRUE(WaitFor([&] { return ServerLog().find("with data POST /wol") != std::string::npos; }, 5s));
  Send(fd, body);
  // Joined: the page comes back with beta renamed (upper case, not seen yet).
  EXPECT_EQ(Masked(ReadToClose(fd)), Golden("renamed.http"));
  close(fd);
  // The new name is written at once; the old line stays until the section is next rewritten.
  EXPECT_EQ(node_->Ini(),
            "[ARP]\n127.0.0.1=\n"  // this machine, no adapter but loopback in the namespace
            "127.0.0.2=00-11-22-33-44-02\n127.0.0.3=00-11-22-33-44-03\n127.0.0.4=00-11-22-33-44-04\n"
            "[COMPUTER]\nALPHA=127.0.0.2\nBETA=127.0.0.3\nGAMMA=127.0.0.3\n"
            "[WOL]\nHSADDRESS=127.0.0.9\nHSWEBPORT=8081\nHTTPPORT=8080\nSUBNET=127.0.0\n");
}

// The 101st connection on is closed at once, unanswered; the hundred held are still served. (Silent ones
// let go after 10 s is the server module's unit test's, on its manual clock.)
TEST_F(HttpTest, PastOneHundredConnectionsTheRestAreTurnedAway) {
  std::vector<int> held;
  for (int i = 0; i < 120; ++i) held.push_back(Connect());
  ASSERT_EQ(std::count(held.begin(), held.end(), -1), 0);
  auto closed = [](int fd) {
    pollfd p{fd, POLLIN, 0};
    char c;
    return poll(&p, 1, 0) == 1 && recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
  };
  EXPECT_TRUE(WaitFor([&] { return std::count_if(held.begin(), held.end(), closed) == 20; }));
  const auto open = std::find_if_not(held.begin(), held.end(), closed);
  ASSERT_NE(open, held.end());
  Send(*open, Get("/missing.gif"));
  EXPECT_EQ(Masked(ReadToClose(*open)), kNotFoundImage);
  for (int fd : held) close(fd);
}

// With a password set (a hash of "secret" as set-password makes it, at fewer rounds), every request needs
// it; the platform's PBKDF2 checks it.
TEST_F(HttpTest, APasswordGuardsEveryRequest) {
  node_ = std::make_unique<Node>(hub_->Port(),
                                 "[WOL]\r\nHTTPPort=8080\r\nHTTPPasswordHash=pbkdf2-sha256$1000$"
                                 "00112233445566778899aabbccddeeff$"
                                 "588372775fb38b5711b6f36b465e293dc7b793e008550ee8a10bb26a8e7f85b8\r\n");
  node_->Start();
  auto status = [](const std::string& target, const std::string& credentials = "") {
    const std::string answer =
        Ask("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n" +
            (credentials.empty() ? "" : "Authorization: Basic " + credentials + "\r\n") + "\r\n");
    return answer.substr(0, answer.find("\r\n"));
  };
  ASSERT_TRUE(WaitFor([&] { return !status("/wol").empty(); }));
  EXPECT_EQ(status("/wol") + status("/led-Red.gif") + status("/api/computers"),
            "HTTP/1.1 401 UnauthorizedHTTP/1.1 401 UnauthorizedHTTP/1.1 401 Unauthorized");
  EXPECT_EQ(status("/led-Red.gif", "eDpzZWNyZXQ=") + status("/api/computers", "eDpzZWNyZXQ="),
            "HTTP/1.1 200 OKHTTP/1.1 200 OK");                             // "x:secret"
  EXPECT_EQ(status("/wol", "eDpTZWNyZXQ="), "HTTP/1.1 401 Unauthorized");  // "x:Secret"
}

}  // namespace
}  // namespace tavrel::test
