#pragma once

#include <chrono>
#include <ctime>

namespace tavrel::platform {

// The wall-clock time now, in the machine's local time zone, to the second.
std::chrono::local_seconds LocalNow();

// A moment (seconds since the epoch, as file times and time() give) in the machine's local time zone.
std::chrono::local_seconds LocalTimeAt(std::time_t t);

// The moment a local time of this machine's time zone names, as seconds since the epoch: the inverse of
// LocalTimeAt (an hour that a change to summer time skips, or that the change back repeats, is taken
// as the C library decides).
std::time_t TimeOfLocal(std::chrono::local_seconds local);

}  // namespace tavrel::platform
