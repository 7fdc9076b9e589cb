#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>

#include "core/Reporter.h"
#include "xap/XapGlobal.h"

// windows.h, which Asio pulls in there, maps GetMessage to GetMessageA; the transport has its own.
#undef GetMessage

namespace tavrel {

// The xAP node's network side: the listening and the sending UDP socket, the heartbeat timer and the
// receive queue with its 50 ms receive timer. Everything runs on the one thread of the io_context.
class XapTransport final : public XapSendOperation {
 public:
  static constexpr int kDefaultPort = 3639;
  // Where the search for a free listening port starts when the xAP port is taken (a hub runs here).
  static constexpr int kFirstFallbackPort = 32768;
  static constexpr int kFallbackAttempts = 200;
  // Longer datagrams are dropped unread.
  static constexpr size_t kMaxDatagram = 1500;

  XapTransport(asio::io_context& io, Reporter& reporter);
  ~XapTransport() override;
  XapTransport(const XapTransport&) = delete;
  XapTransport& operator=(const XapTransport&) = delete;

  const std::string& XapClass() const { return xapClass_; }
  void SetXapClass(std::string value) { xapClass_ = std::move(value); }
  // "Default" (any case) means 255.255.255.255 once Init runs.
  const std::string& BroadcastAddress() const { return broadcastAddress_; }
  void SetBroadcastAddress(std::string value) { broadcastAddress_ = std::move(value); }
  const std::string& InterfaceAddress() const { return interfaceAddress_; }
  void SetInterfaceAddress(std::string value) { interfaceAddress_ = std::move(value); }
  const std::string& XapSource() const { return xapSource_; }
  void SetXapSource(std::string value);
  const std::string& XapTarget() const { return xapTarget_; }
  void SetXapTarget(std::string value);
  const std::string& XapUID() const { return xapUID_; }
  void SetXapUID(std::string value);
  // When set, only messages with an "xap-header" are queued (heartbeats are not).
  bool FilterHeartbeats() const { return filterHeartbeats_; }
  void SetFilterHeartbeats(bool value) { filterHeartbeats_ = value; }
  // The xAP port: every datagram goes there, and the listening socket tries it first.
  int Port() const { return port_; }
  void SetPort(int value) { port_ = value; }

  // Fixes the broadcast target, binds the listening socket (the xAP port, else the first free port from
  // 32768 on), opens the sending socket and starts receiving. Returns the bound port; 0 when no port
  // could be bound, negative when the broadcast address or the sending socket is unusable.
  long Init();

  // Clamps interval (seconds), sets the heartbeat timer to it and sends one heartbeat. The timer ticks
  // every interval; every tenth tick sends the next heartbeat, which states ten times the interval.
  void SendHeartbeat(long interval);

  // One received datagram: queued unless filtered out or oversized; the receive timer then runs the
  // registered callback once, 50 ms after the first of a burst.
  void ProcessReceivedMessage(std::string text);
  void RegisterNewMessageCallback(std::function<void()> callback) { callback_ = std::move(callback); }
  // The oldest queued text, removed from the queue; "" when the queue is empty.
  std::string GetMessage();

  // One message with one body block (pairs key, character 1, value, joined by character 0) as one
  // datagram to the broadcast target.
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override;

  // "xap-header" ... "uid=<UID>", each line ended by a line feed.
  const std::string& HeaderPrefix() const { return headerPrefix_; }
  // The heartbeat up to "interval=", and the tail Init sets ("0", then the port line and "}").
  const std::string& HeartbeatText() const { return heartbeatText_; }
  const std::string& HeartbeatTail() const { return heartbeatTail_; }
  // The heartbeat timer: its interval in ms (0 when stopped) and whether it runs.
  long HeartbeatTimerInterval() const { return heartbeatMs_; }
  bool HeartbeatTimerEnabled() const { return heartbeatEnabled_; }

  // This node's address: the interface address when one is set, else the primary adapter's IPv4
  // address, else 127.0.0.1.
  std::string LocalIP() const;
  int LocalPort() const { return localPort_; }

  // Stops the timers and closes both sockets; may be called again.
  void Close();

  // The length of one second of the heartbeat timer; tests shorten it to watch the tick pattern.
  void SetTimerSecond(std::chrono::milliseconds length) { timerSecond_ = length; }

 private:
  struct Receiver {
    explicit Receiver(asio::io_context& io) : socket(io), buffer(65536) {}
    asio::ip::udp::socket socket;
    asio::ip::udp::endpoint from;
    std::vector<char> buffer;
  };

  void RebuildTexts();
  bool BindListener(int port);
  bool OpenSender(std::error_code& ec);
  void CloseSockets();
  void StartReceive(const std::shared_ptr<Receiver>& receiver);
  void ReadWaiting(Receiver& receiver);
  void StartHeartbeatTimer();
  void WaitHeartbeat();
  void OnHeartbeatTick();
  void ArmReceiveTimer();
  void OnReceiveTimer();
  void NoteOversized();
  void FlushOversized();
  void SendDatagram(const std::string& text, std::string_view label);

  asio::io_context& io_;
  Reporter& reporter_;
  std::string xapClass_;
  std::string broadcastAddress_ = "Default";
  std::string interfaceAddress_ = "Default";
  std::string xapSource_;
  std::string xapTarget_;
  std::string xapUID_;
  bool filterHeartbeats_ = true;
  int port_ = kDefaultPort;

  std::string headerPrefix_;
  std::string heartbeatText_;
  std::string heartbeatTail_;
  std::string broadcastTarget_;
  asio::ip::udp::endpoint broadcastEndpoint_;
  int localPort_ = 0;

  std::shared_ptr<Receiver> listener_;
  std::shared_ptr<Receiver> sender_;
  asio::steady_timer heartbeatTimer_;
  asio::steady_timer receiveTimer_;
  asio::steady_timer oversizeTimer_;
  long heartbeatMs_ = 0;
  bool heartbeatEnabled_ = false;
  int tickCounter_ = 0;
  // Each (re)arming of a timer gets a new number; a completion carrying an older one is stale.
  unsigned heartbeatGeneration_ = 0;
  unsigned receiveGeneration_ = 0;
  std::chrono::milliseconds timerSecond_{1000};
  bool receiveTimerArmed_ = false;
  size_t oversized_ = 0;
  bool oversizeWindowOpen_ = false;

  std::deque<std::string> queue_;
  std::function<void()> callback_;
  // Handlers still waiting in the io_context after this object is gone see this expired and do nothing.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace tavrel
