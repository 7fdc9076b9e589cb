#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/Reporter.h"
#include "core/Timer.h"
#include "xapsend/XapGlobal.h"

// windows.h, which Asio pulls in there, maps GetMessage to GetMessageA; the node has its own.
#undef GetMessage

namespace tavrel {

// Where the node's datagrams go: the sending socket in the program, a recorder in tests.
class DatagramSink {
 public:
  virtual ~DatagramSink() = default;
  // Sends text as one datagram to the broadcast target; the error when it could not.
  virtual Err SendDatagram(std::string_view text) = 0;
};

// The xAP node's rules, without a socket: the node's identity and the texts built from it, the heartbeat
// with its timer, the receive queue with its filter and limits and the 50 ms receive timer, and the
// assembly of outgoing messages. The sockets around it live in XapTransport.
class XapNode : public XapSendOperation {
 public:
  static constexpr int kDefaultPort = 3639;
  // Longer datagrams are dropped unread.
  static constexpr size_t kMaxDatagram = 1500;
  // The receive queue holds at most this many texts or bytes; the socket is left unread while it is full,
  // so memory stays bounded whatever arrives. A burst of 10,000 messages fits with room to spare.
  static constexpr size_t kQueueLimit = 25000;
  static constexpr size_t kQueueByteLimit = size_t{8} << 20;
  static constexpr std::chrono::milliseconds kReceiveDelay{50};

  XapNode(Reporter& reporter, TimerFactory& timers, DatagramSink& sink);
  ~XapNode() override;
  XapNode(const XapNode&) = delete;
  XapNode& operator=(const XapNode&) = delete;

  // "Default" (any case) means 255.255.255.255 once the transport starts.
  const std::string& BroadcastAddress() const { return broadcastAddress_; }
  void SetBroadcastAddress(std::string value) { broadcastAddress_ = std::move(value); }
  const std::string& InterfaceAddress() const { return interfaceAddress_; }
  void SetInterfaceAddress(std::string value) { interfaceAddress_ = std::move(value); }
  const std::string& XapSource() const { return xapSource_; }
  void SetXapSource(std::string value);
  void SetXapUID(std::string value);
  // When set, only messages with an "xap-header" are queued (heartbeats are not).
  void SetFilterHeartbeats(bool value) { filterHeartbeats_ = value; }
  // The xAP port: every datagram goes there, and the listening socket tries it first.
  int Port() const { return port_; }
  void SetPort(int value) { port_ = value; }

  // The port this node listens on, announced in the heartbeat's "port=" line.
  int LocalPort() const { return localPort_; }
  void SetLocalPort(int port);

  // Clamps interval (seconds), sets the heartbeat timer to it and sends one heartbeat. The timer ticks
  // every interval; every tenth tick sends the next heartbeat, which states ten times the interval.
  void SendHeartbeat(long interval);
  // At a clean exit: the heartbeat once more with class "xap-hbeat.stopped", so a hub stops relaying to
  // this node at once. The heartbeat timer stops.
  void SendStoppedHeartbeat();

  // One received datagram: queued unless filtered out, oversized or the queue is full; the receive timer
  // then runs the registered callback once, 50 ms after the first of a burst. A callback that leaves
  // messages in the queue is called again 50 ms later, so the loop has its turn in between.
  void ProcessReceivedMessage(std::string text);
  void RegisterNewMessageCallback(std::function<void()> callback) { callback_ = std::move(callback); }
  // The oldest queued text, removed from the queue; "" when the queue is empty.
  std::string GetMessage();
  size_t QueueLength() const { return queue_.size(); }
  bool QueueFull() const { return queue_.size() >= kQueueLimit || queueBytes_ >= kQueueByteLimit; }

  // One message with one body block (pairs key, character 1, value, joined by character 0) as one
  // datagram to the broadcast target.
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override;

  // The heartbeat up to "interval=".
  const std::string& HeartbeatText() const { return heartbeatText_; }
  // The heartbeat timer: its interval in ms (0 when stopped) and whether it runs.
  long HeartbeatTimerInterval() const { return heartbeatMs_; }
  bool HeartbeatTimerEnabled() const { return heartbeatTimer_->Armed(); }

  // Stops the timers and empties the queue.
  void StopNode();

 protected:
  Reporter& reporter_;

  // Called after each run of the callback; the transport resumes reading a socket it had left unread.
  virtual void Drained() {}

 private:
  void RebuildTexts();
  void OnHeartbeatTick();
  void ArmReceiveTimer();
  void OnReceiveTimer();
  void NoteOversized();
  void FlushOversized();
  void SendText(const std::string& text, std::string_view label);

  DatagramSink& sink_;
  std::string broadcastAddress_ = "Default";
  std::string interfaceAddress_ = "Default";
  std::string xapSource_;
  std::string xapUID_;
  bool filterHeartbeats_ = true;
  int port_ = kDefaultPort;
  int localPort_ = 0;

  // "xap-header" ... "uid=<UID>", each line ended by a line feed.
  std::string headerPrefix_;
  std::string heartbeatText_;
  // What follows the interval: "0", then the port line and "}".
  std::string heartbeatTail_;

  std::unique_ptr<Timer> heartbeatTimer_;
  std::unique_ptr<Timer> receiveTimer_;
  std::unique_ptr<Timer> oversizeTimer_;
  long heartbeatMs_ = 0;
  long lastInterval_ = 0;
  int tickCounter_ = 0;
  size_t oversized_ = 0;
  size_t overflowed_ = 0;

  std::deque<std::string> queue_;
  size_t queueBytes_ = 0;
  std::function<void()> callback_;
};

}  // namespace tavrel
