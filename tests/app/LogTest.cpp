#include <gtest/gtest.h>

#include "TestSupport.h"
#include "app/Log.h"
#include "platform/LineEnd.h"

namespace tavrel {
namespace {

using namespace std::string_literals;

// Events wait in the pending list until the transport is up; their sending is tested end to end.
TEST(LogTest, LinesGoToTheFileAndEventsToXapByteForByte) {
  test::TempDir home;
  ManualClock clock{MakeDateTime(2026, 11, 22, 9, 30, 5)};
  XapGlobal xap;
  Log log{home.Path() / "Data", clock, xap};
  log.WriteLog("tavrel", "Main Load");
  log.WriteLog("IniTool", "x", Err{5, "bad", 12});
  const std::string nl(platform::kLineEnd);
  EXPECT_EQ(test::ReadFile(home.Path() / "Data" / "tavrel.txt"),
            "tavrel Main Load 0 " + nl + "IniTool x 12 bad" + nl);
  log.ReportEvent("tavrel", "Using xAP port 3639");
  log.ReportEvent("IniTool", " Equal sign not found on line abc", Err{5, "Invalid call", 3});
  const std::string time = "Time\x01"s + "2026-11-22 09:30:05\0Type\x01"s;
  EXPECT_EQ(xap.Pending(),
            (std::vector<XapQueuedMessage>{
                {"", "Homeseer.Event", "Event.Log", time + "tavrel\0Data\x01Using xAP port 3639"s},
                {"", "Homeseer.Event", "Event.Log",
                 time + "IniTool\0Data\x01 Equal sign not found on line abc Line 3 Invalid call"s}}));
}

}  // namespace
}  // namespace tavrel
