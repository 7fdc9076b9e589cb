#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "core/Timer.h"
#include "http/Response.h"

namespace tavrel {

// The answer side of one connection socket, without the socket: the bytes waiting to be written, the
// tag, the binary body under way and the socket's own send time-out. Every slot has one, whatever its
// index. The socket side (TCPServer) writes what StartWrite hands it and reports back through Written.
class ConnectionSlot : public ConnectionSink {
 public:
  // Nothing written for this long: a binary body goes on with its next piece, any other answer is
  // given up and the connection closed.
  static constexpr std::chrono::milliseconds kSendTimeout = BinaryBody::kPieceTimeout;

  // What a slot tells the server that owns it.
  class Owner {
   public:
    virtual ~Owner() = default;
    // Everything queued has been written and no body is under way.
    virtual void Socket_SendComplete(int index) = 0;
    // An answer that is over could not be written within kSendTimeout.
    virtual void SendTimedOut(int index) = 0;
  };

  ConnectionSlot(int index, Owner& owner, TimerFactory& timers);
  ~ConnectionSlot() override;
  ConnectionSlot(const ConnectionSlot&) = delete;
  ConnectionSlot& operator=(const ConnectionSlot&) = delete;

  int Index() const override { return index_; }
  int State() const override { return state_; }
  void SetTag(std::string_view tag) override { tag_ = tag; }
  void SendData(std::string bytes) override;
  void StartBody(std::unique_ptr<BinaryBody> body) override;

  const std::string& Tag() const { return tag_; }
  const std::string& RemoteIp() const { return remoteIp_; }
  bool Sending() const { return !outbox_.empty() || body_ != nullptr; }
  void StopSendTimer() { sendTimer_->Stop(); }

  // The socket side: a connection was accepted on this slot.
  void Opened(std::string remoteIp);
  // The socket side: the bytes last handed to StartWrite have been written.
  void Written();
  // Closes the socket; whatever waits to be written is dropped. Nothing happens on a closed slot.
  void Close();

 protected:
  // Writes bytes (which stay valid until Written or Close); must not call back before it returns.
  virtual void StartWrite(const std::string& bytes) = 0;
  virtual void CloseSocket() = 0;

 private:
  void WriteNext();
  void Pump();
  void OnTimeout();

  int index_;
  Owner& owner_;
  std::unique_ptr<Timer> sendTimer_;
  int state_ = 0;
  std::string tag_ = "0";
  std::string remoteIp_;
  std::deque<std::string> outbox_;
  bool writing_ = false;
  std::unique_ptr<BinaryBody> body_;
};

}  // namespace tavrel
