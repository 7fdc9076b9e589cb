#include "platform/LocalTime.h"

namespace tavrel::platform {

std::chrono::local_seconds LocalNow() { return LocalTimeAt(std::time(nullptr)); }

std::chrono::local_seconds LocalTimeAt(std::time_t t) {
  std::tm tm{};
  localtime_s(&tm, &t);
  using namespace std::chrono;
  auto date = local_days{year{tm.tm_year + 1900} / month{static_cast<unsigned>(tm.tm_mon + 1)} /
                         day{static_cast<unsigned>(tm.tm_mday)}};
  return date + hours{tm.tm_hour} + minutes{tm.tm_min} + seconds{tm.tm_sec};
}

std::time_t TimeOfLocal(std::chrono::local_seconds local) {
  using namespace std::chrono;
  const local_days day = floor<days>(local);
  const year_month_day date{day};
  const hh_mm_ss<seconds> time{local - day};
  std::tm tm{};
  tm.tm_year = static_cast<int>(date.year()) - 1900;
  tm.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  tm.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  tm.tm_hour = static_cast<int>(time.hours().count());
  tm.tm_min = static_cast<int>(time.minutes().count());
  tm.tm_sec = static_cast<int>(time.seconds().count());
  tm.tm_isdst = -1;  // the zone's own rule for that date
  return std::mktime(&tm);
}

}  // namespace tavrel::platform
