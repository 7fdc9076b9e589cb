#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace tavrel {

// Date and time values are local civil time to the second, as the program shows and stores them.
using DateTime = std::chrono::local_seconds;

// The one source of "now"; tests hand in a clock they set.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual DateTime Now() const = 0;
};

class SystemClock final : public Clock {
 public:
  DateTime Now() const override;
};

class ManualClock final : public Clock {
 public:
  explicit ManualClock(DateTime now) : now_(now) {}
  DateTime Now() const override { return now_; }
  void Set(DateTime now) { now_ = now; }
  void Advance(std::chrono::seconds by) { now_ += by; }

 private:
  DateTime now_;
};

// A DateTime from its parts (month 1-12).
DateTime MakeDateTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// "yyyy-mm-dd hh:mm:ss": the log, event report "Time" and Last-Modified form.
std::string FormatDateTime(DateTime t);
// Parses the form above; false when the text is not exactly that form with a valid date.
bool ParseDateTime(std::string_view text, DateTime& out);
// The "Medium Date" form "dd-Mmm-yy", for example "22-Nov-26".
std::string FormatMediumDate(DateTime t);
// Minutes from a to b, counted as calendar minute boundaries crossed (negative when b is earlier).
long long DateDiffMinutes(DateTime a, DateTime b);

}  // namespace tavrel
