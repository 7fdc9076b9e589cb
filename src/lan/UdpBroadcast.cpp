#include "lan/UdpBroadcast.h"

#include <asio/io_context.hpp>
#include <asio/ip/address_v4.hpp>
#include <asio/ip/udp.hpp>

namespace tavrel {

std::error_code SendUdpBroadcast(const std::string& address, unsigned short port,
                                 const std::vector<unsigned char>& payload) {
  std::error_code ec;
  asio::ip::address_v4 to = asio::ip::make_address_v4(address, ec);
  if (ec) return ec;
  asio::io_context io;
  asio::ip::udp::socket socket(io);
  socket.open(asio::ip::udp::v4(), ec);
  if (!ec) socket.set_option(asio::socket_base::broadcast(true), ec);
  if (!ec) socket.send_to(asio::buffer(payload), asio::ip::udp::endpoint(to, port), 0, ec);
  return ec;
}

}  // namespace tavrel
