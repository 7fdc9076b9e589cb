#include <memory>
#include <string>

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "core/Timer.h"

namespace tavrel {
namespace {

using std::chrono::milliseconds;

// The loop's timers: what a replaced, stopped or destroyed arming leaves behind must never fire, even
// when its completion is already queued on the loop.
TEST(LoopTimerTest, OnlyTheLatestArmingOfALiveTimerFires) {
  asio::io_context io;
  LoopTimers timers(io);
  std::string fired;

  auto replaced = timers.Create();
  replaced->Start(milliseconds(0), [&] { fired += "old "; });
  replaced->Start(milliseconds(0), [&] { fired += "new "; });

  auto stopped = timers.Create();
  auto destroyed = timers.Create();
  // All three fall due together; the first to run stops and destroys the others, whose completions are
  // then already queued on the loop.
  auto first = timers.Create();
  first->Start(milliseconds(0), [&] {
    stopped->Stop();
    destroyed.reset();
  });
  stopped->Start(milliseconds(0), [&] { fired += "stopped "; });
  destroyed->Start(milliseconds(0), [&] { fired += "destroyed "; });
  io.run();
  EXPECT_EQ(fired, "new ");
  EXPECT_FALSE(replaced->Armed());
}

TEST(LoopTimerTest, RepeatsUntilItsCallbackStopsOrDestroysIt) {
  asio::io_context io;
  LoopTimers timers(io);
  int ticks = 0;
  auto repeating = timers.Create();
  repeating->StartRepeating(milliseconds(1), [&] {
    if (++ticks == 3) repeating->Stop();
  });
  EXPECT_TRUE(repeating->Armed());
  io.run();
  EXPECT_EQ(ticks, 3);
  EXPECT_FALSE(repeating->Armed());

  auto self = timers.Create();
  self->Start(milliseconds(0), [&] {
    self.reset();
    ++ticks;
  });
  io.restart();
  io.run();
  EXPECT_EQ(ticks, 4);
}

}  // namespace
}  // namespace tavrel
