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
// tag, the binary body under way, the time limit on the request and the socket's own send time-out.
// Every slot has them, whatever its index. The socket side (TCPServer) writes what StartWrite hands it
// and reports each write, whole or partial, through Wrote.
class ConnectionSlot : public ConnectionSink {
 public:
  // Nothing written for this long: a binary body goes on with its next piece, any other answer is
  // given up and the connection closed.
  static constexpr std::chrono::milliseconds kSendTimeout = BinaryBody::kPieceTimeout;
  // A connection not answered this long after it opened is closed, so silent clients cannot hold
  // every slot.
  static constexpr std::chrono::milliseconds kRequestTimeout{10000};

  // What a slot tells the server that owns it.
  class Owner {
   public:
    virtual ~Owner() = default;
    // Everything queued has been written and no body is under way.
    virtual void Socket_SendComplete(int index) = 0;
    // An answer that is over could not be written within kSendTimeout.
    virtual void SendTimedOut(int index) = 0;
    // Nothing was answered within kRequestTimeout of the connection's opening.
    virtual void RequestTimedOut(int index) = 0;
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
  void StopSendTimer() { sendTimer_->Stop(); }

  // The socket side: a connection was accepted on this slot; its request time limit starts.
  void Opened(std::string remoteIp);
  // The socket side: n of the bytes last handed to StartWrite have been written.
  void Wrote(size_t n);
  // Closes the socket; whatever waits to be written is dropped. Nothing happens on a closed slot.
  void Close();

 protected:
  // Writes some of bytes, which lie in owner: a write still under way when the slot closes keeps owner
  // alive. Must not call back before it returns.
  virtual void StartWrite(std::string_view bytes, std::shared_ptr<const std::string> owner) = 0;
  virtual void CloseSocket() = 0;

 private:
  void WriteNext();
  void Pump();
  void OnTimeout();
  void ArmSendTimer();

  int index_;
  Owner& owner_;
  std::unique_ptr<Timer> sendTimer_;
  std::unique_ptr<Timer> requestTimer_;
  int state_ = 0;
  std::string tag_ = "0";
  std::string remoteIp_;
  std::deque<std::shared_ptr<const std::string>> outbox_;
  // How much of the front of the outbox is written.
  size_t written_ = 0;
  bool writing_ = false;
  std::unique_ptr<BinaryBody> body_;
};

}  // namespace tavrel
