#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpFakes.h"
#include "TestSupport.h"
#include "http/Response.h"

namespace tavrel {
namespace {

using Lines = std::vector<std::string>;

class ClosedSink : public ConnectionSink {
 public:
  int Index() const override { return 3; }
  int State() const override { return 0; }
  void SetTag(std::string_view t) override { tag = t; }
  void SendData(std::string bytes) override { sent.push_back(std::move(bytes)); }
  void StartBody(std::unique_ptr<BinaryBody>) override {}
  std::string tag = "?";
  Lines sent;
};

// The answers, their pieces, redirects and escapes from the HTML folder are checked end to end over real
// sockets; here a connection that went before its answer.
TEST(ResponseTest, ClosedConnectionGetsNothingAndSaysWhy) {
  test::TempDir home;
  test::WriteFile(home.Path() / "HTML" / "style.css", "b{}");
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30)};
  test::RecordingReporter reporter;
  test::RecordingLog log;
  ClosedSink sink;
  for (int kind = 0; kind < 3; ++kind) {
    Response response(sink, {home.Path() / "HTML", clock, reporter, &log});
    kind == 0   ? response.SendTextString("x")
    : kind == 1 ? response.SendErrorResponse()
                : response.SendTextFile("\\style.css");
  }
  EXPECT_TRUE(sink.sent.empty());
  EXPECT_EQ(sink.tag, "0");
  EXPECT_EQ(Lines(log.lines.begin() + 1, log.lines.end()),
            (Lines{"Unable to send TextString to socket 3 because State is 0",
                   "Unable to send Error Resonse to socket 3 because State is 0"}));
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].text,
            "TCPServer Unable to send TextFile \\style.css to socket 3 because State is 0");
}

}  // namespace
}  // namespace tavrel
