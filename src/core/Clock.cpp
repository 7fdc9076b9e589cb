#include "core/Clock.h"

#include <cstdio>

#include "core/Text.h"
#include "platform/LocalTime.h"

namespace tavrel {

using namespace std::chrono;

DateTime SystemClock::Now() const { return platform::LocalNow(); }

DateTime MakeDateTime(int y, int mo, int d, int h, int mi, int s) {
  return local_days{year{y} / month{static_cast<unsigned>(mo)} / day{static_cast<unsigned>(d)}} + hours{h} +
         minutes{mi} + seconds{s};
}

namespace {
struct Parts {
  int y, mo, d, h, mi, s;
};

Parts Decompose(DateTime t) {
  auto days = floor<std::chrono::days>(t);
  year_month_day ymd{days};
  hh_mm_ss hms{t - days};
  return Parts{int(ymd.year()),          int(unsigned(ymd.month())), int(unsigned(ymd.day())),
               int(hms.hours().count()), int(hms.minutes().count()), int(hms.seconds().count())};
}
}  // namespace

std::string FormatDateTime(DateTime t) {
  Parts p = Decompose(t);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", p.y, p.mo, p.d, p.h, p.mi, p.s);
  return buf;
}

bool ParseDateTime(std::string_view text, DateTime& out) {
  // yyyy-mm-dd hh:mm:ss
  if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
      text[16] != ':') {
    return false;
  }
  long long y, mo, d, h, mi, s;
  if (!ParseInt(text.substr(0, 4), 1, 9999, y) || !ParseInt(text.substr(5, 2), 1, 12, mo) ||
      !ParseInt(text.substr(8, 2), 1, 31, d) || !ParseInt(text.substr(11, 2), 0, 23, h) ||
      !ParseInt(text.substr(14, 2), 0, 59, mi) || !ParseInt(text.substr(17, 2), 0, 59, s)) {
    return false;
  }
  year_month_day ymd{year{int(y)}, month{unsigned(mo)}, day{unsigned(d)}};
  if (!ymd.ok()) return false;
  out = local_days{ymd} + hours{h} + minutes{mi} + seconds{s};
  return true;
}

std::string FormatMediumDate(DateTime t) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  Parts p = Decompose(t);
  char buf[24];
  std::snprintf(buf, sizeof buf, "%02d-%s-%02d", p.d, kMonths[p.mo - 1], ((p.y % 100) + 100) % 100);
  return buf;
}

long long DateDiffMinutes(DateTime a, DateTime b) { return (floor<minutes>(b) - floor<minutes>(a)).count(); }

}  // namespace tavrel
