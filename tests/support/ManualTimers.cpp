#include "ManualTimers.h"

#include <algorithm>
#include <utility>

namespace tavrel::test {

struct ManualTimers::State {
  Timer::Callback callback;
  std::chrono::milliseconds due{0};
  std::chrono::milliseconds period{0};
  unsigned long sequence = 0;
  bool armed = false;
};

class ManualTimer final : public Timer {
 public:
  explicit ManualTimer(ManualTimers& owner) : owner_(owner), state_(std::make_shared<ManualTimers::State>()) {
    owner_.timers_.push_back(state_);
  }

  void Start(std::chrono::milliseconds delay, Callback callback) override {
    Arm(delay, std::chrono::milliseconds(0), std::move(callback));
  }
  void StartRepeating(std::chrono::milliseconds period, Callback callback) override {
    Arm(period, period, std::move(callback));
  }
  void Stop() override { state_->armed = false; }
  bool Armed() const override { return state_->armed; }

 private:
  void Arm(std::chrono::milliseconds delay, std::chrono::milliseconds period, Callback callback) {
    state_->callback = std::move(callback);
    state_->period = period;
    state_->due = owner_.now_ + delay;
    state_->sequence = ++owner_.sequence_;
    state_->armed = true;
  }

  ManualTimers& owner_;
  std::shared_ptr<ManualTimers::State> state_;
};

std::unique_ptr<Timer> ManualTimers::Create() { return std::make_unique<ManualTimer>(*this); }

void ManualTimers::Advance(std::chrono::milliseconds by) {
  const auto end = now_ + by;
  for (;;) {
    std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
    std::shared_ptr<State> next;
    for (const auto& weak : timers_) {
      auto s = weak.lock();
      if (!s || !s->armed || s->due > end) continue;
      if (!next || s->due < next->due || (s->due == next->due && s->sequence < next->sequence)) next = s;
    }
    if (!next) break;
    now_ = next->due;
    if (next->period.count() > 0) {
      next->due += next->period;
      next->sequence = ++sequence_;
    } else {
      next->armed = false;
    }
    Timer::Callback callback = next->callback;
    next.reset();
    if (callback) callback();
  }
  now_ = end;
}

size_t ManualTimers::ArmedCount() const {
  return static_cast<size_t>(std::count_if(timers_.begin(), timers_.end(), [](const auto& weak) {
    auto s = weak.lock();
    return s && s->armed;
  }));
}

}  // namespace tavrel::test
