#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <asio/io_context.hpp>

namespace tavrel::platform {

// An IPv4 address as a number in host byte order (198.51.100.7 is 0xC6336407).
using Ipv4 = std::uint32_t;
using MacAddress = std::array<std::uint8_t, 6>;

// A neighbour that answered: its address and the MAC it answered from.
struct Neighbour {
  Ipv4 Ip = 0;
  MacAddress Mac{};

  bool operator==(const Neighbour&) const = default;
};

// One sweep's access to the link: probes addresses and collects the neighbours that proved to be there
// after the probe was opened. An entry the OS merely remembers from earlier does not count, so a
// computer that has left is not reported even while the OS cache still holds it.
// Everything runs on the io_context the probe was opened on; no call blocks it.
class NeighbourProbe {
 public:
  virtual ~NeighbourProbe() = default;

  // Sends one probe to each address (non-blocking; sending may finish on later turns of the loop).
  virtual void Probe(const std::vector<Ipv4>& addresses) = 0;

  // Every probed address that has answered so far, each once with the first MAC seen.
  virtual std::vector<Neighbour> Answered() = 0;

  // How the probe works, for reports ("ARP requests", "neighbour table").
  virtual std::string Method() const = 0;

  // Probes that could not be sent so far, and the first reason.
  virtual std::size_t SendFailures() const = 0;
  virtual std::error_code FirstSendError() const = 0;
};

// Opens the best probe this process may use: its own ARP requests where it has the privilege to send
// them, otherwise datagrams that make the OS resolve each address, checked against the OS neighbour
// table. Returns null with ec set when neither can be opened.
std::shared_ptr<NeighbourProbe> OpenNeighbourProbe(asio::io_context& io, std::error_code& ec);

}  // namespace tavrel::platform
