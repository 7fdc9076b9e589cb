#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace tavrel {

// The program's one timer type. Start fires the callback once after delay, StartRepeating every period
// (counted from the previous due time, so the rhythm does not drift). Arming again replaces the earlier
// arming; Stop and destruction drop it, and a completion already on its way is dropped with it, so a
// callback never runs for an arming that was replaced or stopped. A callback may stop, re-arm or destroy
// its own timer.
class Timer {
 public:
  using Callback = std::function<void()>;

  virtual ~Timer() = default;
  virtual void Start(std::chrono::milliseconds delay, Callback callback) = 0;
  virtual void StartRepeating(std::chrono::milliseconds period, Callback callback) = 0;
  virtual void Stop() = 0;
  virtual bool Armed() const = 0;
};

// Where the parts of the program get their timers: the loop's in the program, a hand-driven clock in
// tests.
class TimerFactory {
 public:
  virtual ~TimerFactory() = default;
  virtual std::unique_ptr<Timer> Create() = 0;
};

// Timers on the io_context's steady clock.
class LoopTimers final : public TimerFactory {
 public:
  explicit LoopTimers(asio::io_context& io) : io_(io) {}
  std::unique_ptr<Timer> Create() override;

 private:
  asio::io_context& io_;
};

}  // namespace tavrel
