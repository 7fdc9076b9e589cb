#pragma once

#include <chrono>
#include <ctime>

namespace tavrel::platform {

// The wall-clock time now, in the machine's local time zone, to the second.
std::chrono::local_seconds LocalNow();

// A moment (seconds since the epoch, as file times and time() give) in the machine's local time zone.
std::chrono::local_seconds LocalTimeAt(std::time_t t);

}  // namespace tavrel::platform
