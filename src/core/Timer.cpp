#include "core/Timer.h"

#include <utility>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace tavrel {

namespace {

using SteadyClock = std::chrono::steady_clock;

// The state lives apart from the Timer object so that a completion can tell, through a weak reference,
// that its timer is gone, and through the arming number, that it was replaced.
struct LoopTimerState {
  explicit LoopTimerState(asio::io_context& io) : timer(io) {}

  asio::steady_timer timer;
  Timer::Callback callback;
  std::chrono::milliseconds period{0};
  unsigned arming = 0;
  bool armed = false;
};

void Arm(const std::shared_ptr<LoopTimerState>& state, SteadyClock::time_point due) {
  state->armed = true;
  state->timer.expires_at(due);
  state->timer.async_wait(
      [weak = std::weak_ptr<LoopTimerState>(state), arming = state->arming](const std::error_code& ec) {
        auto s = weak.lock();
        if (ec || !s || arming != s->arming || !s->armed) return;
        if (s->period.count() > 0) {
          // After a long stall the next tick comes one period from now, not in a burst of missed ones.
          auto next = s->timer.expiry() + s->period;
          const auto now = SteadyClock::now();
          if (next < now) next = now + s->period;
          Arm(s, next);
        } else {
          s->armed = false;
        }
        // A copy: the callback may re-arm (replacing the stored one) or destroy its timer.
        Timer::Callback callback = s->callback;
        s.reset();
        if (callback) callback();
      });
}

class LoopTimer final : public Timer {
 public:
  explicit LoopTimer(asio::io_context& io) : state_(std::make_shared<LoopTimerState>(io)) {}
  ~LoopTimer() override { Stop(); }
  LoopTimer(const LoopTimer&) = delete;
  LoopTimer& operator=(const LoopTimer&) = delete;

  void Start(std::chrono::milliseconds delay, Callback callback) override {
    Begin(std::chrono::milliseconds(0), std::move(callback));
    Arm(state_, SteadyClock::now() + delay);
  }

  void StartRepeating(std::chrono::milliseconds period, Callback callback) override {
    Begin(period, std::move(callback));
    Arm(state_, SteadyClock::now() + period);
  }

  void Stop() override {
    ++state_->arming;
    state_->armed = false;
    state_->timer.cancel();
  }

  bool Armed() const override { return state_->armed; }

 private:
  void Begin(std::chrono::milliseconds period, Callback callback) {
    Stop();
    state_->period = period;
    state_->callback = std::move(callback);
  }

  std::shared_ptr<LoopTimerState> state_;
};

}  // namespace

std::unique_ptr<Timer> LoopTimers::Create() { return std::make_unique<LoopTimer>(io_); }

}  // namespace tavrel
