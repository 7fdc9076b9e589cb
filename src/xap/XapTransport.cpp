#include "xap/XapTransport.h"

#include <exception>
#include <utility>

#include <asio/ip/address_v4.hpp>

#include "core/Text.h"
#include "platform/Host.h"
#include "xap/XapMessage.h"

namespace tavrel {

namespace {

using asio::ip::udp;

// The timer control takes at most 65535 ms; a longer interval is refused as an invalid property value.
constexpr long kMaxTimerInterval = 65535;
constexpr auto kReceiveDelay = std::chrono::milliseconds(50);
constexpr auto kOversizeLogWindow = std::chrono::seconds(60);

Err SocketErr(const std::error_code& ec) { return Err{ec.value(), ec.message(), 0}; }

// What the socket control said when asked to send while closed.
Err NotOpenErr() {
  return Err{40006, "Wrong protocol or connection state for the requested transaction or request", 0};
}

bool IsDefault(std::string_view setting) { return setting.empty() || EqualsNoCase(setting, "default"); }

}  // namespace

XapTransport::XapTransport(asio::io_context& io, Reporter& reporter)
    : io_(io),
      reporter_(reporter),
      listener_(std::make_shared<Receiver>(io)),
      sender_(std::make_shared<Receiver>(io)),
      heartbeatTimer_(io),
      receiveTimer_(io),
      oversizeTimer_(io) {
  RebuildTexts();
}

XapTransport::~XapTransport() { Close(); }

void XapTransport::SetXapSource(std::string value) {
  xapSource_ = std::move(value);
  RebuildTexts();
}

void XapTransport::SetXapTarget(std::string value) {
  xapTarget_ = std::move(value);
  RebuildTexts();
}

void XapTransport::SetXapUID(std::string value) {
  xapUID_ = std::move(value);
  RebuildTexts();
}

void XapTransport::RebuildTexts() {
  headerPrefix_ = "xap-header\n{\nv=12\nhop=1\nuid=" + xapUID_ + "\n";
  // The heartbeat comes from a template with "|" for the line feed; every "|" becomes one, those in
  // the UID and the source included.
  heartbeatText_ = Replace(
      "xap-hbeat|{|v=12|hop=1|uid=" + xapUID_ + "|class=xap-hbeat.alive|source=" + xapSource_ + "|interval=",
      "|", "\n");
}

long XapTransport::Init() {
  try {
    broadcastTarget_ = EqualsNoCase(broadcastAddress_, "default") ? "255.255.255.255" : broadcastAddress_;
    std::error_code ec;
    const auto address = asio::ip::make_address_v4(broadcastTarget_, ec);
    if (ec || port_ < 1 || port_ > 65535) {
      reporter_.WriteLog(kModule, "SocketsInitialize ",
                         Err::Of("Bad broadcast target " + broadcastTarget_ + ":" + std::to_string(port_)));
      return -1;
    }
    broadcastEndpoint_ = udp::endpoint(address, static_cast<unsigned short>(port_));

    CloseSockets();
    listener_ = std::make_shared<Receiver>(io_);
    sender_ = std::make_shared<Receiver>(io_);
    localPort_ = 0;
    // The xAP port first, without address reuse: if a hub holds it, the bind fails and we take a port
    // of our own, which the heartbeat announces so the hub relays to it.
    if (!BindListener(port_)) {
      for (int p = kFirstFallbackPort; p < kFirstFallbackPort + kFallbackAttempts; ++p) {
        if (BindListener(p)) break;
      }
    }
    if (localPort_ == 0) {
      reporter_.WriteLog(kModule, "SocketsInitialize ", Err::Of("No free UDP port to listen on"));
      return 0;
    }
    if (!OpenSender(ec)) {
      reporter_.WriteLog(kModule, "SocketsInitialize ", SocketErr(ec));
      CloseSockets();
      localPort_ = 0;
      return -2;
    }
    heartbeatTail_ = "0\nport=" + std::to_string(localPort_) + "\n}\n";
    StartReceive(listener_);
    StartReceive(sender_);
    return localPort_;
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SocketsInitialize ", Err::From(e));
    return -3;
  }
}

bool XapTransport::BindListener(int port) {
  std::error_code ec;
  auto& socket = listener_->socket;
  socket.close(ec);
  socket.open(udp::v4(), ec);
  if (ec) return false;
  socket.bind(udp::endpoint(asio::ip::address_v4::any(), static_cast<unsigned short>(port)), ec);
  if (ec) {
    socket.close(ec);
    return false;
  }
  socket.non_blocking(true, ec);
  // Room for a burst; the kernel caps the request at its own limit.
  socket.set_option(asio::socket_base::receive_buffer_size(4 << 20), ec);
  localPort_ = port;
  return true;
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

// Receiving waits for readiness and then reads every datagram that is waiting, without blocking. No
// receive is ever left pending on a socket, so GetMessage can read the socket too: a long drain of the
// queue keeps taking new datagrams in, and the kernel buffer never overflows behind a busy handler.
void XapTransport::StartReceive(const std::shared_ptr<Receiver>& receiver) {
  // The handler holds the receiver, so its buffer outlives a wait still pending at Close.
  receiver->socket.async_wait(udp::socket::wait_read, [this, receiver, alive = std::weak_ptr<int>(alive_)](
                                                          const std::error_code& ec) {
    if (ec == asio::error::operation_aborted || alive.expired() || !receiver->socket.is_open()) return;
    ReadWaiting(*receiver);
    StartReceive(receiver);
  });
}

void XapTransport::ReadWaiting(Receiver& receiver) {
  // Bounded, so a flood still lets timers and the other socket have their turn.
  for (int i = 0; i < 4096 && receiver.socket.is_open(); ++i) {
    std::error_code ec;
    const size_t size = receiver.socket.receive_from(asio::buffer(receiver.buffer), receiver.from, 0, ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) return;
    // Any other error (a port-unreachable reported back on Windows, say) leaves the socket usable.
    if (!ec) ProcessReceivedMessage(std::string(receiver.buffer.data(), size));
  }
}

void XapTransport::SendHeartbeat(long interval) {
  try {
    if (interval > 60) {
      interval = 60000;
    } else if (interval <= 0) {
      interval = 0;
    } else if (interval < 5) {
      interval = 5;
    }
    const long ms = interval * 1000;
    if (ms > kMaxTimerInterval) {
      reporter_.WriteLog(kModule, "SendHeartbeat", Err{380, "Invalid property value", 0});
      return;
    }
    heartbeatMs_ = ms;
    heartbeatEnabled_ = ms > 0;
    StartHeartbeatTimer();
    SendDatagram(heartbeatText_ + std::to_string(interval) + heartbeatTail_, "SendHeartbeat");
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SendHeartbeat", Err::From(e));
  }
}

void XapTransport::StartHeartbeatTimer() {
  ++heartbeatGeneration_;
  heartbeatTimer_.cancel();
  if (!heartbeatEnabled_) return;
  heartbeatTimer_.expires_after(timerSecond_ * heartbeatMs_ / 1000);
  WaitHeartbeat();
}

void XapTransport::WaitHeartbeat() {
  heartbeatTimer_.async_wait([this, generation = heartbeatGeneration_,
                              alive = std::weak_ptr<int>(alive_)](const std::error_code& ec) {
    // A wait that was replaced may still complete without an error; its generation tells.
    if (ec || alive.expired() || generation != heartbeatGeneration_) return;
    OnHeartbeatTick();
  });
}

void XapTransport::OnHeartbeatTick() {
  heartbeatTimer_.expires_at(heartbeatTimer_.expiry() + timerSecond_ * heartbeatMs_ / 1000);
  WaitHeartbeat();
  tickCounter_ = (tickCounter_ + 1) % 10;
  if (tickCounter_ == 0) SendHeartbeat(heartbeatMs_ / 1000);
}

void XapTransport::ProcessReceivedMessage(std::string text) {
  try {
    if (text.size() > kMaxDatagram) {
      NoteOversized();
      return;
    }
    if (filterHeartbeats_ && LCase(std::string_view(text).substr(0, 8)) != "xap-head") return;
    queue_.push_back(std::move(text));
    ArmReceiveTimer();
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "ProcessReceivedMessage", Err::From(e));
  }
}

// The timer runs from the first message of a burst: a steady stream of messages cannot keep pushing
// the callback back.
void XapTransport::ArmReceiveTimer() {
  if (receiveTimerArmed_) return;
  receiveTimerArmed_ = true;
  const unsigned generation = ++receiveGeneration_;
  receiveTimer_.expires_after(kReceiveDelay);
  receiveTimer_.async_wait([this, generation, alive = std::weak_ptr<int>(alive_)](const std::error_code& ec) {
    if (ec || alive.expired() || generation != receiveGeneration_) return;
    OnReceiveTimer();
  });
}

void XapTransport::OnReceiveTimer() {
  receiveTimerArmed_ = false;
  if (!callback_) return;
  try {
    callback_();
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "ProcessReceivedMessage", Err::From(e));
  }
}

std::string XapTransport::GetMessage() {
  if (listener_) ReadWaiting(*listener_);
  if (queue_.empty()) return {};
  std::string text = std::move(queue_.front());
  queue_.pop_front();
  return text;
}

// The first oversized datagram is logged at once; later ones within the next minute are counted and
// logged together when it is over, so a flood costs one line a minute.
void XapTransport::NoteOversized() {
  ++oversized_;
  if (!oversizeWindowOpen_) FlushOversized();
}

void XapTransport::FlushOversized() {
  if (oversized_ == 0) {
    oversizeWindowOpen_ = false;
    return;
  }
  reporter_.WriteLog(kModule, "ProcessReceivedMessage dropped " + std::to_string(oversized_) +
                                  " datagram(s) over " + std::to_string(kMaxDatagram) + " bytes");
  oversized_ = 0;
  oversizeWindowOpen_ = true;
  oversizeTimer_.expires_after(kOversizeLogWindow);
  oversizeTimer_.async_wait([this, alive = std::weak_ptr<int>(alive_)](const std::error_code& ec) {
    if (ec || alive.expired()) return;
    FlushOversized();
  });
}

void XapTransport::Send(const std::string& target, const std::string& msgClass, const std::string& section,
                        const std::string& body) {
  try {
    XapMessage message(&reporter_);
    message.msgClass = msgClass;
    message.msgSource = xapSource_;
    message.msgTarget = target;
    message.msgUID = xapUID_;
    message.AddHeader(headerPrefix_);
    message.AddSection(section);
    std::string_view rest(body);
    while (!rest.empty()) {
      const size_t end = rest.find('\0');
      const std::string_view piece = rest.substr(0, end);
      const size_t mark = piece.find('\x01');
      if (mark != std::string_view::npos) message.AddItem(piece.substr(0, mark), piece.substr(mark + 1));
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
    SendDatagram(message.ToXap(), "SendXap ");
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SendXap ", Err::From(e));
  }
}

void XapTransport::SendDatagram(const std::string& text, std::string_view label) {
  if (!sender_->socket.is_open()) {
    reporter_.WriteLog(kModule, label, NotOpenErr());
    return;
  }
  std::error_code ec;
  sender_->socket.send_to(asio::buffer(text), broadcastEndpoint_, 0, ec);
  if (ec) reporter_.WriteLog(kModule, label, SocketErr(ec));
}

std::string XapTransport::LocalIP() const {
  try {
    if (!IsDefault(interfaceAddress_)) return interfaceAddress_;
    std::string ip = platform::PrimaryIPv4();
    return ip.empty() ? "127.0.0.1" : ip;
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "GetIP", Err::From(e));
    return "127.0.0.1";
  }
}

void XapTransport::CloseSockets() {
  std::error_code ec;
  listener_->socket.close(ec);
  sender_->socket.close(ec);
}

void XapTransport::Close() {
  ++heartbeatGeneration_;
  ++receiveGeneration_;
  heartbeatTimer_.cancel();
  receiveTimer_.cancel();
  oversizeTimer_.cancel();
  heartbeatEnabled_ = false;
  receiveTimerArmed_ = false;
  oversizeWindowOpen_ = false;
  oversized_ = 0;
  CloseSockets();
}

}  // namespace tavrel
