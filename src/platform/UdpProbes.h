#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <system_error>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>

#include "platform/Neighbours.h"

namespace tavrel::platform {

// Sends one small datagram to each address so that the OS resolves its link address: the portable half
// of a sweep without ARP privileges. Datagrams to addresses not yet resolved wait in the kernel and
// hold their socket's send buffer until resolution ends (seconds for an absent host), so the probes
// are spread over several sockets, and a full socket is relieved by a fresh one rather than waited for.
class UdpProbes : public std::enable_shared_from_this<UdpProbes> {
 public:
  // Port 9 (discard): nothing listens there as a rule, so a host that is there says so with an ICMP
  // "port unreachable", and one that runs the service throws the byte away.
  static constexpr unsigned short kPort = 9;

  // opened runs for each socket the probes open, before the first datagram leaves it.
  static std::shared_ptr<UdpProbes> Create(asio::io_context& io,
                                           std::function<void(asio::ip::udp::socket&)> opened = {});

  void Send(const std::vector<Ipv4>& addresses);

  std::size_t Failures() const { return failures_; }
  std::error_code FirstError() const { return firstError_; }

 private:
  UdpProbes(asio::io_context& io, std::function<void(asio::ip::udp::socket&)> opened);
  void Pump();
  asio::ip::udp::socket* Current(std::error_code& ec);
  void Fail(const std::error_code& ec);

  asio::io_context& io_;
  std::function<void(asio::ip::udp::socket&)> opened_;
  std::vector<std::unique_ptr<asio::ip::udp::socket>> sockets_;
  std::size_t sentOnCurrent_ = 0;
  std::deque<Ipv4> queue_;
  int attempts_ = 0;  // of the address at the head of the queue
  asio::steady_timer pause_;
  bool pausing_ = false;
  std::size_t failures_ = 0;
  std::error_code firstError_;
};

}  // namespace tavrel::platform
