#include "platform/Neighbours.h"

namespace tavrel::platform {

std::shared_ptr<NeighbourProbe> OpenNeighbourProbe(asio::io_context&, std::error_code& ec) {
  ec = std::make_error_code(std::errc::operation_not_supported);
  return nullptr;
}

}  // namespace tavrel::platform
