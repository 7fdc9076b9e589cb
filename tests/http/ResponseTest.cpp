#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
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

const std::string kNotFound = "HTTP/1.1 404 Not Found\r\nServer: zel\r\nDate:22-Nov-26\r\n\r\n";
const std::string kCss = "body { color: red; }\r\n";

class ResponseTest : public ::testing::Test {
 protected:
  Response Make() { return Response(sink, {html, clock, reporter, &log}); }

  // Writes a file below the HTML folder, last modified 2026-11-20 08:15:30 local time.
  void Put(const std::string& relative, const std::string& bytes) {
    test::WriteFile(html / relative, bytes);
    std::tm tm{};
    tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = 20, tm.tm_hour = 8, tm.tm_min = 15, tm.tm_sec = 30;
    tm.tm_isdst = -1;
    const auto when = std::chrono::system_clock::from_time_t(std::mktime(&tm));
    fs::last_write_time(html / relative, std::chrono::file_clock::from_sys(when));
  }

  test::TempDir home;
  fs::path html = home.Path() / "HTML";
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::RecordingLog log;
  FakeSink sink;
};

TEST_F(ResponseTest, TextAnswersAreByteExactAndCloseWhenSent) {
  Put("Style.CSS", kCss);
  Make().Send("<p>hi</p>");
  Make().SendTextFile("\\style.css");
  Make().SendErrorResponse();
  EXPECT_EQ(sink.sent, (Lines{Golden("text_string.http"), Golden("text_file.http"), Golden("error.http")}));
  EXPECT_EQ(sink.tag, "0");
  EXPECT_EQ(log.lines, (Lines{"raw:>>>>>>>>>>> SendingTextString >>>>>> to socket 3\r\n" + sink.sent[0],
                              ">>>>>>>>>>> SendingTextFile \\style.css to socket 3 with length 22",
                              ">>>>>>>>>>> SendingError  to socket 3"}));
  EXPECT_TRUE(reporter.calls.empty());
}

TEST_F(ResponseTest, BinaryFileGoesOutInFullPiecesTheLastPaddedWithZeros) {
  std::string image;
  for (int i = 0; i < 2500; ++i) image += static_cast<char>(i % 251);
  Put("img/Led-Red.GIF", image);
  Make().SendBinaryFile("\\img\\led-red.gif");
  ASSERT_EQ(sink.sent, Lines{Golden("binary_header.http")});
  ASSERT_TRUE(sink.body);
  // Each call: the tag after it, then whether more is to come. The tag is "1" until the body is over.
  auto step = [&] {
    const bool more = sink.body->Next();
    return sink.tag + (more ? "1" : "0");
  };
  EXPECT_EQ((Lines{step(), step(), step(), step()}), (Lines{"11", "11", "00", "00"}));
  EXPECT_EQ(sink.sent, (Lines{sink.sent[0], image.substr(0, 1000), image.substr(1000, 1000),
                              image.substr(2000) + std::string(500, '\0')}));
  const std::string data = ">>>>>>>>>>> SendingBinaryData \\img\\led-red.gif to socket 3";
  EXPECT_EQ(log.lines,
            (Lines{">>>>>>>>>>> SendingBinaryHeader \\img\\led-red.gif to socket 3", data, data, data}));
}

TEST_F(ResponseTest, BinaryBodyEndsAtTheFileEndOrWhenTheConnectionGoes) {
  // {file size, connection lost after the first piece, pieces sent}
  for (const auto& [size, drop, pieces] :
       {std::tuple(0, false, 0), {2000, false, 2}, {1001, false, 2}, {2500, true, 1}}) {
    FakeSink fresh;
    Put("a.png", std::string(size, 'x'));
    Response(fresh, {html, clock, reporter, nullptr}).SendBinaryFile("\\a.png");
    ASSERT_TRUE(fresh.body) << size;
    for (int calls = 0; fresh.body->Next() && calls < 10; ++calls) fresh.state = drop ? 0 : fresh.state;
    EXPECT_EQ(fresh.sent.size() - 1, size_t(pieces)) << size;
    EXPECT_EQ(fresh.tag, "0");
    EXPECT_NE(fresh.sent[0].find("Content-Length: " + std::to_string(size) + "\r\n"), std::string::npos);
  }
}

TEST_F(ResponseTest, PathsLeavingTheHtmlFolderGetTheNotFoundAnswerOfTheirRoute) {
  Put("a.gif", "GIF89a");
  test::WriteFile(home.Path() / "secret.gif", "secret");
  std::error_code linkFailed;
  fs::create_symlink(home.Path() / "secret.gif", html / "link.gif", linkFailed);
  const std::string outside = (home.Path() / "secret.gif").string();
  for (const std::string& page :
       Lines{"\\..\\secret.gif", "/../secret.gif", "\\sub\\..\\a.gif", "\\.\\..\\secret.gif", "c:\\a.gif",
             "\\a.gif:stream", outside, "\\link.gif", "\\missing.gif", "\\", ""}) {
    sink.sent.clear();
    Make().SendBinaryFile(page);
    Make().SendTextFile(page);
    EXPECT_EQ(sink.sent, (Lines{kNotFound, Golden("error.http")})) << page;
    EXPECT_FALSE(sink.body) << page;
  }
  // The same file by a plain path, in any case, is served.
  sink.sent.clear();
  Make().SendBinaryFile("/./A.GIF");
  EXPECT_EQ(sink.sent.size(), 1u);
  EXPECT_NE(sink.sent[0].find("Content-Length: 6\r\n"), std::string::npos);
}

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
  Put("style.css", kCss);
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
