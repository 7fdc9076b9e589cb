#include <gtest/gtest.h>

#include "TestSupport.h"
#include "app/Log.h"
#include "platform/LineEnd.h"

namespace tavrel {
namespace {

using namespace std::string_literals;

class RecordingSend : public XapSendOperation {
 public:
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override {
    sent.push_back({target, msgClass, section, body});
  }
  std::vector<XapQueuedMessage> sent;
};

struct LogFixture : ::testing::Test {
  test::TempDir home;
  ManualClock clock{MakeDateTime(2026, 11, 22, 9, 30, 5)};
  XapGlobal xap;
  Log log{home.Path() / "Data", clock, xap};
};

TEST_F(LogFixture, WriteLogAppendsOneLineWithLineNumberAndDescription) {
  log.WriteLog("tavrel", "Main Load");
  log.WriteLog("tavrel", "SendHeartbeat", Err{380, "Invalid property value", 0});
  log.WriteLog("IniTool", "x", Err{5, "bad", 12});
  const std::string nl(platform::kLineEnd);
  EXPECT_EQ(test::ReadFile(home.Path() / "Data" / "tavrel.txt"),
            "tavrel Main Load 0 " + nl + "tavrel SendHeartbeat 0 Invalid property value" + nl +
                "IniTool x 12 bad" + nl);
}

TEST_F(LogFixture, ReportEventWaitsForTheTransportAndKeepsOrder) {
  log.ReportEvent("tavrel", "Using xAP port 3639");
  log.ReportEvent("IniTool", " Equal sign not found on line abc", Err{5, "Invalid call", 3});
  ASSERT_EQ(xap.Pending().size(), 2u);
  EXPECT_EQ(xap.Pending()[0],
            (XapQueuedMessage{"", "Homeseer.Event", "Event.Log",
                              "Time\x01"
                              "2026-11-22 09:30:05\0Type\x01tavrel\0Data\x01Using xAP port 3639"s}));
  EXPECT_EQ(xap.Pending()[1].Body,
            "Time\x01"
            "2026-11-22 09:30:05\0Type\x01IniTool\0Data\x01 Equal sign not found on line abc"
            " Line 3 Invalid call"s);

  RecordingSend transport;
  xap.SetTransport(&transport);
  log.ReportEvent("tavrel", "third");
  ASSERT_EQ(transport.sent.size(), 3u);
  EXPECT_EQ(transport.sent[0].Body.substr(transport.sent[0].Body.size() - 19), "Using xAP port 3639");
  EXPECT_NE(transport.sent[1].Body.find("IniTool"), std::string::npos);
  EXPECT_NE(transport.sent[2].Body.find("Data\x01third"), std::string::npos);
  EXPECT_TRUE(xap.Pending().empty());
}

TEST(XapBody, JoinsPairsWithControlCharacters) {
  EXPECT_EQ(XapBody({{"Query", "All"}}),
            "Query\x01"
            "All");
  EXPECT_EQ(XapBody({{"a", "1"}, {"b", ""}}),
            "a\x01"
            "1\0b\x01"s);
  EXPECT_EQ(XapBody({}), "");
}

}  // namespace
}  // namespace tavrel
