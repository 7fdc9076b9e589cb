#pragma once

#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace tavrel::platform {

// Calls onEnd on the loop when the session asks the program to end: SIGINT or SIGTERM on Linux; on
// Windows Ctrl+C or Ctrl+Break, a closed console, logoff and shutdown (the console's events and the
// session's end messages to a hidden window). Windows ends the process as soon as such a notice has been
// answered, so the answer waits (up to about 4 s) until the returned object is gone, that is until the
// loop has done onEnd's work and stopped. Watching lasts while the returned object lives; it is dropped
// before the loop is.
std::shared_ptr<void> WatchSessionEnd(asio::io_context& io, std::function<void()> onEnd);

}  // namespace tavrel::platform
