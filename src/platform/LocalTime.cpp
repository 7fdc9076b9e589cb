#include "platform/LocalTime.h"

namespace tavrel::platform {

// mktime reads the zone the same way on every platform; only the other direction needs each one's call.
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
