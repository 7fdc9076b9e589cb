#include "xap/XapTransport.h"

#include <exception>
#include <utility>

#include <asio/ip/address_v4.hpp>

#include "core/Text.h"
#include "platform/Host.h"

namespace tavrel {

namespace {

using asio::ip::udp;

Err SocketErr(const std::error_code& ec) { return Err{ec.value(), ec.message(), 0}; }

// What the socket control said when asked to send while closed.
Err NotOpenErr() {
  return Err{Err::kWrongSocketState,
             "Wrong protocol or connection state for the requested transaction or request", 0};
}

bool IsDefault(std::string_view setting) { return setting.empty() || EqualsNoCase(setting, "default"); }

}  // namespace

XapTransport::XapTransport(asio::io_context& io, Reporter& reporter, TimerFactory& timers)
    : XapNode(reporter, timers, *this),
      io_(io),
      listener_(std::make_shared<Receiver>(io)),
      sender_(std::make_shared<Receiver>(io)),
      takeoverTimer_(timers.Create()) {}

XapTransport::~XapTransport() { Close(); }

long XapTransport::Init() {
  try {
    const std::string target =
        EqualsNoCase(BroadcastAddress(), "default") ? "255.255.255.255" : BroadcastAddress();
    std::error_code ec;
    const auto address = asio::ip::make_address_v4(target, ec);
    if (ec || Port() < 1 || Port() > 65535) {
      reporter_.WriteLog(kModule, "SocketsInitialize ",
                         Err::Of("Bad broadcast target " + target + ":" + std::to_string(Port())));
      return -1;
    }
    broadcastEndpoint_ = udp::endpoint(address, static_cast<unsigned short>(Port()));

    CloseSockets();
    sender_ = std::make_shared<Receiver>(io_);
    SetLocalPort(0);
    // The xAP port first, without address reuse: if a hub holds it, the bind fails and we take a port
    // of our own on 127.0.0.1, which the heartbeat announces so the hub relays to it. Nothing on the
    // network can reach that port directly.
    auto listener = OpenListener(asio::ip::address_v4::any(), Port());
    for (int p = kFirstFallbackPort; !listener && p < kFirstFallbackPort + kFallbackAttempts; ++p)
      listener = OpenListener(asio::ip::address_v4::loopback(), p);
    if (!listener) {
      listener_ = std::make_shared<Receiver>(io_);
      reporter_.WriteLog(kModule, "SocketsInitialize ", Err::Of("No free UDP port to listen on"));
      return 0;
    }
    listener_ = std::move(listener);
    SetLocalPort(listener_->socket.local_endpoint().port());
    if (!OpenSender(ec)) {
      reporter_.WriteLog(kModule, "SocketsInitialize ", SocketErr(ec));
      CloseSockets();
      SetLocalPort(0);
      return -2;
    }
    StartReceive(listener_);
    StartReceive(sender_);
    if (LocalPort() != Port()) takeoverTimer_->StartRepeating(kTakeoverInterval, [this] { TakeXapPort(); });
    return LocalPort();
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SocketsInitialize ", Err::From(e));
    return -3;
  }
}

std::shared_ptr<XapTransport::Receiver> XapTransport::OpenListener(const asio::ip::address_v4& address,
                                                                   int port) {
  auto listener = std::make_shared<Receiver>(io_);
  auto& socket = listener->socket;
  std::error_code ec;
  socket.open(udp::v4(), ec);
  if (!ec) socket.bind(udp::endpoint(address, static_cast<unsigned short>(port)), ec);
  if (ec) return nullptr;
  socket.non_blocking(true, ec);
  // Room for a burst while the node handles the previous one; the kernel caps the request.
  socket.set_option(asio::socket_base::receive_buffer_size(4 << 20), ec);
  return listener;
}

// The same bind as at start, so a try fails (silently) for as long as the hub holds the xAP port.
void XapTransport::TakeXapPort() {
  auto listener = OpenListener(asio::ip::address_v4::any(), Port());
  if (!listener) return;
  takeoverTimer_->Stop();
  // What the hub relayed before it went is still read; then our own port is closed.
  ReadWaiting(*listener_);
  std::error_code ec;
  listener_->socket.close(ec);
  listener_ = std::move(listener);
  SetLocalPort(Port());
  reporter_.WriteLog(kModule, "Took over xAP port " + std::to_string(Port()) +
                                  ": the hub is gone, serving the network directly");
  // The heartbeat at once, now naming the xAP port, so other nodes see where this one listens.
  SendHeartbeat(HeartbeatTimerInterval() / 1000);
  if (!QueueFull()) StartReceive(listener_);
}

bool XapTransport::OpenSender(std::error_code& ec) {
  auto& socket = sender_->socket;
  socket.open(udp::v4(), ec);
  if (!ec) socket.set_option(asio::socket_base::broadcast(true), ec);
  // Bound at once, so its receive (replies to our port) is valid before the first send.
  if (!ec) socket.bind(udp::endpoint(asio::ip::address_v4::any(), 0), ec);
  // A full send buffer fails the send (and is logged) rather than stalling the loop; receives are
  // made only when a datagram waits.
  if (!ec) socket.non_blocking(true, ec);
  return !ec;
}

// Receiving waits for readiness and then reads what is waiting, without blocking. No receive is ever
// left pending on a socket; while the node's queue is full the wait is not renewed, and the kernel
// buffer holds (or drops) what comes until the node has drained.
void XapTransport::StartReceive(const std::shared_ptr<Receiver>& receiver) {
  if (receiver->waiting || !receiver->socket.is_open()) return;
  receiver->waiting = true;
  // The handler holds the receiver, so its buffer outlives a wait still pending at Close.
  receiver->socket.async_wait(udp::socket::wait_read, [this, receiver](const std::error_code& ec) {
    receiver->waiting = false;
    if (ec == asio::error::operation_aborted || !receiver->socket.is_open()) return;
    ReadWaiting(*receiver);
    if (!QueueFull()) StartReceive(receiver);
  });
}

void XapTransport::ReadWaiting(Receiver& receiver) {
  // Bounded, so a flood still lets timers and the other socket have their turn.
  for (int i = 0; i < 1024 && receiver.socket.is_open() && !QueueFull(); ++i) {
    std::error_code ec;
    const size_t size = receiver.socket.receive_from(asio::buffer(receiver.buffer), receiver.from, 0, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) return;
    // Any other error (a port-unreachable reported back on Windows, say) leaves the socket usable.
    if (!ec) ProcessReceivedMessage(std::string(receiver.buffer.data(), size));
  }
}

void XapTransport::Drained() {
  if (QueueFull()) return;
  StartReceive(listener_);
  StartReceive(sender_);
}

Err XapTransport::SendDatagram(std::string_view text) {
  if (!sender_->socket.is_open()) return NotOpenErr();
  std::error_code ec;
  sender_->socket.send_to(asio::buffer(text.data(), text.size()), broadcastEndpoint_, 0, ec);
  return ec ? SocketErr(ec) : Err{};
}

std::string XapTransport::LocalIP() const {
  try {
    if (!IsDefault(InterfaceAddress())) return InterfaceAddress();
    std::string ip = platform::PrimaryIPv4();
    return ip.empty() ? "127.0.0.1" : ip;
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "GetIP", Err::From(e));
    return "127.0.0.1";
  }
}

void XapTransport::CloseSockets() {
  takeoverTimer_->Stop();
  std::error_code ec;
  listener_->socket.close(ec);
  sender_->socket.close(ec);
}

void XapTransport::Close() {
  StopNode();
  CloseSockets();
}

}  // namespace tavrel
