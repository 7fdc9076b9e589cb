#include "ManualTimers.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tavrel::test {

using std::chrono::milliseconds;

struct ManualTimers::State {
  Timer::Callback callback;
  milliseconds due{0}, period{0};
  unsigned long sequence = 0;
  bool armed = false;
};

class ManualTimer final : public Timer {
 public:
  explicit ManualTimer(ManualTimers& owner) : owner_(owner) { owner_.timers_.push_back(state_); }

  void Start(milliseconds delay, Callback callback) override {
    Arm(delay, milliseconds(0), std::move(callback));
  }
  void StartRepeating(milliseconds period, Callback callback) override {
    Arm(period, period, std::move(callback));
  }
  void Stop() override { state_->armed = false; }
  bool Armed() const override { return state_->armed; }

 private:
  void Arm(milliseconds delay, milliseconds period, Callback callback) {
    *state_ = {std::move(callback), owner_.now_ + delay, period, ++owner_.sequence_, true};
  }

  ManualTimers& owner_;
  std::shared_ptr<ManualTimers::State> state_ = std::make_shared<ManualTimers::State>();
};

std::unique_ptr<Timer> ManualTimers::Create() { return std::make_unique<ManualTimer>(*this); }

void ManualTimers::Advance(milliseconds by) {
  const auto end = now_ + by;
  for (;;) {
    std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
    std::shared_ptr<State> next;
    for (const auto& weak : timers_) {
      auto s = weak.lock();
      if (s && s->armed && s->due <= end &&
          (!next || std::tie(s->due, s->sequence) < std::tie(next->due, next->sequence)))
        next = s;
    }
    if (!next) break;
    now_ = next->due;
    next->armed = next->period.count() > 0;  // a repeating timer is due again one period on
    next->due += next->period;
    next->sequence = ++sequence_;
    Timer::Callback callback = next->callback;  // the callback may stop, restart or destroy its timer
    next.reset();
    if (callback) callback();
  }
  now_ = end;
}

size_t ManualTimers::ArmedCount() const {
  return std::ranges::count_if(timers_,
                               [](const auto& weak) { return !weak.expired() && weak.lock()->armed; });
}

}  // namespace tavrel::test
