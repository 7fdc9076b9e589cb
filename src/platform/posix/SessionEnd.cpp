#include "platform/SessionEnd.h"

#include <csignal>
#include <system_error>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

namespace tavrel::platform {

std::shared_ptr<void> WatchSessionEnd(asio::io_context& io, std::function<void()> onEnd) {
  auto signals = std::make_shared<asio::signal_set>(io, SIGINT, SIGTERM);
  signals->async_wait([onEnd = std::move(onEnd)](const std::error_code& ec, int) {
    if (!ec) onEnd();
  });
  return signals;
}

}  // namespace tavrel::platform
