#include "platform/LocalTime.h"

namespace tavrel::platform {

std::chrono::local_seconds LocalNow() { return LocalTimeAt(std::time(nullptr)); }

std::chrono::local_seconds LocalTimeAt(std::time_t t) {
  std::tm tm{};
  localtime_r(&t, &tm);
  using namespace std::chrono;
  auto date = local_days{year{tm.tm_year + 1900} / month{static_cast<unsigned>(tm.tm_mon + 1)} /
                         day{static_cast<unsigned>(tm.tm_mday)}};
  return date + hours{tm.tm_hour} + minutes{tm.tm_min} + seconds{tm.tm_sec};
}

}  // namespace tavrel::platform
