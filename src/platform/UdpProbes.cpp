#include "platform/UdpProbes.h"

#include <chrono>

namespace tavrel::platform {

namespace {

constexpr std::size_t kProbesPerSocket = 128;
constexpr std::size_t kMaxSockets = 64;
constexpr int kAttemptsPerAddress = 3;
constexpr std::chrono::milliseconds kPause{2};

// Errors a send reports on behalf of an earlier datagram (an ICMP answer that arrived meanwhile):
// the datagram in hand was not sent and is tried again.
bool ReportsEarlierDatagram(const std::error_code& ec) {
  return ec == asio::error::connection_refused || ec == asio::error::connection_reset ||
         ec == asio::error::host_unreachable || ec == asio::error::network_unreachable;
}

}  // namespace

std::shared_ptr<UdpProbes> UdpProbes::Create(asio::io_context& io,
                                             std::function<void(asio::ip::udp::socket&)> opened) {
  return std::shared_ptr<UdpProbes>(new UdpProbes(io, std::move(opened)));
}

UdpProbes::UdpProbes(asio::io_context& io, std::function<void(asio::ip::udp::socket&)> opened)
    : io_(io), opened_(std::move(opened)), pause_(io) {}

void UdpProbes::Send(const std::vector<Ipv4>& addresses) {
  queue_.insert(queue_.end(), addresses.begin(), addresses.end());
  if (!pausing_) Pump();
}

asio::ip::udp::socket* UdpProbes::Current(std::error_code& ec) {
  if (!sockets_.empty() && sentOnCurrent_ < kProbesPerSocket) return sockets_.back().get();
  if (sockets_.size() >= kMaxSockets) return nullptr;
  auto socket = std::make_unique<asio::ip::udp::socket>(io_);
  socket->open(asio::ip::udp::v4(), ec);
  if (!ec) socket->non_blocking(true, ec);
  if (ec) return nullptr;
  if (opened_) opened_(*socket);
  sockets_.push_back(std::move(socket));
  sentOnCurrent_ = 0;
  return sockets_.back().get();
}

void UdpProbes::Fail(const std::error_code& ec) {
  if (failures_++ == 0) firstError_ = ec;
  queue_.pop_front();
  attempts_ = 0;
}

void UdpProbes::Pump() {
  static const unsigned char kPayload[1] = {0};
  while (!queue_.empty()) {
    std::error_code ec;
    asio::ip::udp::socket* socket = Current(ec);
    if (!socket) {
      if (ec) {
        Fail(ec);
        continue;
      }
      // Every socket is full: wait for the kernel to release some buffer.
      pausing_ = true;
      pause_.expires_after(kPause);
      pause_.async_wait([weak = weak_from_this()](std::error_code waitEc) {
        auto self = weak.lock();
        if (waitEc || !self) return;
        self->pausing_ = false;
        self->sentOnCurrent_ = 0;  // try the last socket again
        self->Pump();
      });
      return;
    }
    asio::ip::udp::endpoint to(asio::ip::address_v4(queue_.front()), kPort);
    socket->send_to(asio::buffer(kPayload), to, 0, ec);
    if (!ec) {
      queue_.pop_front();
      attempts_ = 0;
      ++sentOnCurrent_;
    } else if (ec == asio::error::would_block || ec == asio::error::no_buffer_space) {
      sentOnCurrent_ = kProbesPerSocket;  // this socket is full; go on with the next one
    } else if (ReportsEarlierDatagram(ec) && ++attempts_ < kAttemptsPerAddress) {
      continue;
    } else {
      Fail(ec);
    }
  }
}

}  // namespace tavrel::platform
