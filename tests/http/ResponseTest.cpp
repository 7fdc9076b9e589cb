#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpFakes.h"
#include "TestSupport.h"
#include "http/Response.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class FakeSink : public ConnectionSink {
 public:
  int Index() const override { return 3; }
  int State() const override { return state; }
  void SetTag(std::string_view t) override { tag = t; }
  void SendData(std::string bytes) override { sent.push_back(std::move(bytes)); }
  void StartBody(std::unique_ptr<BinaryBody> b) override { body = std::move(b); }

  int state = kConnected;
  std::string tag = "?";
  Lines sent;
  std::unique_ptr<BinaryBody> body;
};

std::string Golden(const std::string& name) { return test::ReadFile(fs::path(TAVREL_HTTP_GOLDEN) / name); }

// The answers themselves, binary pieces and escapes from the HTML folder are checked end to end over real
// sockets; here what a plain client cannot reach.
class ResponseTest : public ::testing::Test {
 protected:
  Response Make() { return Response(sink, {home.Path() / "HTML", clock, reporter, &log}); }

  test::TempDir home;
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::RecordingLog log;
  FakeSink sink;
};

// The plain redirect is checked end to end; here the Audrey jump, the escaped resubmit page and the refusal.
TEST_F(ResponseTest, RedirectsToHomeSeerAsAudreyJumpOrEscapedResubmitPage) {
  Request audrey, post;
  audrey.ParsePage("GET /wol/?x=1 HTTP/1.1\r\nUser-Agent: Mozilla (QNX; audrey)\r\n\r\n");
  post.ParsePage(
      "POST /Dir\\Page.asp?q=<b>&n='x' HTTP/1.1\r\nUser-Agent: Audrey\r\n\r\nname=A+%26+B&go=\"1\"&q=again");
  Make().RedirectToHS("203.0.113.5:80", audrey);
  Make().RedirectToHS("203.0.113.5:80", post);
  Make().Redirect("/elsewhere");
  ASSERT_EQ(sink.sent.size(), 3u);
  EXPECT_EQ(sink.sent[0],
            "HTTP/1.0 307 NoSupport\r\nServer: zel\r\nDate: 22-Nov-26\r\nConnection: close\r\n"
            "Content-Type: text/html\r\nLocation: http://203.0.113.5:80/wol/\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(sink.sent[1], Golden("resubmit.http"));
  EXPECT_EQ(sink.sent[2].substr(sink.sent[2].find("\r\n\r\n")), "\r\n\r\n<HTML>Unauthorized Access<HTML>");
  EXPECT_EQ(log.lines[1],
            ">>>>>>>>>>> Resubmit/Dir\\Page.asp to location http://203.0.113.5:80/Dir/Page.asp socket 3");
}

TEST_F(ResponseTest, ClosedConnectionGetsNothingAndSaysWhy) {
  test::WriteFile(home.Path() / "HTML" / "style.css", "b{}");
  sink.state = 0;
  Make().SendTextString("x");
  Make().SendErrorResponse();
  Make().SendTextFile("\\style.css");
  EXPECT_TRUE(sink.sent.empty());
  EXPECT_EQ(sink.tag, "0");
  EXPECT_EQ(Lines(log.lines.begin() + 1, log.lines.end()),
            (Lines{"Unable to send TextString to socket 3 because State is 0",
                   "Unable to send Error Resonse to socket 3 because State is 0"}));
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].text,
            "TCPServer Unable to send TextFile \\style.css to socket 3 because State is 0");
}

TEST(ResponseContentType, FirstMatchingNameWinsCaseCounts) {
  for (const std::string c :
       {"a.txt text/plain T", "a.htm.jpg text/html T", "a.jpg image/jpg ", "a.gif image/gif ",
        "a.bmp image/bmp ", "a.php text/html TS", "a.png unknown/binary ", "a.GIF unknown/binary "}) {
    const std::string path = c.substr(0, c.find(' '));
    const ContentType t = Response::GetContentType(path);
    EXPECT_EQ(path + " " + t.type + " " + (t.isText ? "T" : "") + (t.isScript ? "S" : ""), c);
  }
}

}  // namespace
}  // namespace tavrel
