#include <filesystem>

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Clock.h"
#include "core/Folders.h"
#include "core/Timer.h"

namespace tavrel {
namespace {

using Names = std::vector<std::string>;
using std::chrono::milliseconds;

// The text forms are checked in pages, events and settings; here what they refuse and the minute count,
// which counts the calendar minute boundaries crossed.
TEST(Clock, ParsingRefusesImpossibleTimesAndMinutesCountBoundariesCrossed) {
  DateTime back;  // well-formed times are read in the page tests, as when each computer was seen
  for (const char* bad : {"2026-02-30 00:00:00", "2026-11-22 24:00:00", "2026-11-22T09:05:07", ""})
    EXPECT_FALSE(ParseDateTime(bad, back)) << bad;
  const int cases[][8] = {
      {10, 0, 59, 1, 10, 1, 0, 1}, {10, 1, 0, 1, 10, 1, 59, 0}, {23, 59, 0, 2, 0, 1, 0, 2}};
  for (const auto& c : cases)
    EXPECT_EQ(DateDiffMinutes(MakeDateTime(2026, 1, 1, c[0], c[1], c[2]),
                              MakeDateTime(2026, 1, c[3], c[4], c[5], c[6])),
              c[7]);
}

TEST(Folders, ChainStopsBeforeTheFileNameAndAFileInTheWayIsReported) {
  EXPECT_EQ(FolderChain("\\\\server\\share\\x\\y\\f.txt"),
            (Names{"\\\\server\\share\\x", "\\\\server\\share\\x\\y"}));
  EXPECT_TRUE(FolderChain("file.ini").empty() && FolderChain("\\\\server\\share").empty());
  test::TempDir dir;
  test::RecordingReporter reporter;
  test::WriteFile(dir.Path() / "plain", "x");
  CreateFolders((dir.Path() / "plain" / "sub" / "f").string(), reporter);
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_TRUE(reporter.calls[0].err.IsSet());
}

// The loop's timers: what a replaced, stopped or destroyed arming leaves behind must never fire, even
// when its completion is already queued on the loop; a repeating one runs until its callback stops it.
TEST(LoopTimerTest, OnlyTheLatestArmingOfALiveTimerFiresAndARepeatingOneRunsUntilStopped) {
  asio::io_context io;
  LoopTimers timers(io);
  std::string fired;
  auto replaced = timers.Create();
  replaced->Start(milliseconds(0), [&] { fired += "old "; });
  replaced->Start(milliseconds(0), [&] { fired += "new "; });
  auto stopped = timers.Create(), destroyed = timers.Create(), first = timers.Create();
  // All three fall due together; the first to run stops and destroys the others, whose completions are
  // then already queued on the loop.
  first->Start(milliseconds(0), [&] {
    stopped->Stop();
    destroyed.reset();
  });
  stopped->Start(milliseconds(0), [&] { fired += "stopped "; });
  destroyed->Start(milliseconds(0), [&] { fired += "destroyed "; });
  auto self = timers.Create();
  self->Start(milliseconds(0), [&] {
    self.reset();
    fired += "self ";
  });
  int ticks = 0;
  auto repeating = timers.Create();
  repeating->StartRepeating(milliseconds(1), [&] {
    if (++ticks == 3) repeating->Stop();
  });
  io.run();
  EXPECT_EQ(fired, "new self ");
  EXPECT_EQ(ticks, 3);
  EXPECT_FALSE(replaced->Armed() || repeating->Armed());
}

}  // namespace
}  // namespace tavrel
