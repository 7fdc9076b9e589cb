#pragma once

#include <chrono>

namespace tavrel::platform {

// The wall-clock time now, in the machine's local time zone, to the second.
std::chrono::local_seconds LocalNow();

}  // namespace tavrel::platform
