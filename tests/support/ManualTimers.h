#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "core/Timer.h"

namespace tavrel::test {

// Timers on a clock that moves only when the test says so. Advance fires every timer that falls due on
// the way, earliest first (in arming order at the same time), each with the clock set to its due time.
class ManualTimers final : public TimerFactory {
 public:
  struct State;

  std::unique_ptr<Timer> Create() override;
  void Advance(std::chrono::milliseconds by);
  size_t ArmedCount() const;

 private:
  std::chrono::milliseconds now_{0};
  unsigned long sequence_ = 0;
  std::vector<std::weak_ptr<State>> timers_;
  friend class ManualTimer;
};

}  // namespace tavrel::test
