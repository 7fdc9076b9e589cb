#include "http/ConnectionSlot.h"

#include <utility>

namespace tavrel {

ConnectionSlot::ConnectionSlot(int index, Owner& owner, TimerFactory& timers)
    : index_(index), owner_(owner), sendTimer_(timers.Create()) {}

ConnectionSlot::~ConnectionSlot() = default;

void ConnectionSlot::Opened(std::string remoteIp) {
  state_ = kConnected;
  tag_ = "0";
  remoteIp_ = std::move(remoteIp);
}

void ConnectionSlot::SendData(std::string bytes) {
  if (state_ != kConnected) return;
  outbox_.push_back(std::move(bytes));
  if (!writing_) WriteNext();
  // A body arms the time-out itself, piece by piece.
  if (!body_) sendTimer_->Start(kSendTimeout, [this] { OnTimeout(); });
}

void ConnectionSlot::StartBody(std::unique_ptr<BinaryBody> body) {
  if (state_ != kConnected) return;
  body_ = std::move(body);
  Pump();
}

void ConnectionSlot::WriteNext() {
  writing_ = true;
  StartWrite(outbox_.front());
}

void ConnectionSlot::Written() {
  if (state_ != kConnected || outbox_.empty()) return;
  outbox_.pop_front();
  writing_ = false;
  if (!outbox_.empty()) {
    WriteNext();
    if (!body_) sendTimer_->Start(kSendTimeout, [this] { OnTimeout(); });
  } else if (body_) {
    Pump();
  } else {
    owner_.Socket_SendComplete(index_);
  }
}

// The next piece of the body; once the body is over, the usual send completion follows when its last
// bytes are out, within the time-out.
void ConnectionSlot::Pump() {
  if (body_->Next()) {
    sendTimer_->Start(kSendTimeout, [this] { OnTimeout(); });
    return;
  }
  body_.reset();
  if (outbox_.empty()) {
    owner_.Socket_SendComplete(index_);
  } else {
    sendTimer_->Start(kSendTimeout, [this] { OnTimeout(); });
  }
}

void ConnectionSlot::OnTimeout() {
  if (state_ != kConnected) return;
  if (body_) {
    // The piece counts as sent; the next one is queued behind it.
    Pump();
  } else if (!outbox_.empty()) {
    owner_.SendTimedOut(index_);
  }
}

void ConnectionSlot::Close() {
  if (state_ == 0) return;
  state_ = 0;
  sendTimer_->Stop();
  body_.reset();
  outbox_.clear();
  writing_ = false;
  CloseSocket();
}

}  // namespace tavrel
