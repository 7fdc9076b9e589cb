#include "http/ConnectionSlot.h"

#include <utility>

namespace tavrel {

ConnectionSlot::ConnectionSlot(int index, Owner& owner, TimerFactory& timers)
    : index_(index), owner_(owner), sendTimer_(timers.Create()), requestTimer_(timers.Create()) {}

ConnectionSlot::~ConnectionSlot() = default;

void ConnectionSlot::Opened(std::string remoteIp) {
  state_ = kConnected;
  tag_ = "0";
  remoteIp_ = std::move(remoteIp);
  requestTimer_->Start(kRequestTimeout, [this] {
    if (state_ == kConnected) owner_.RequestTimedOut(index_);
  });
}

// Once an answer begins, only the send time-out limits the connection.
void ConnectionSlot::SendData(std::string bytes) {
  if (state_ != kConnected) return;
  requestTimer_->Stop();
  outbox_.push_back(std::make_shared<const std::string>(std::move(bytes)));
  if (!writing_) WriteNext();
  // A body arms the time-out itself, piece by piece.
  if (!body_) ArmSendTimer();
}

void ConnectionSlot::StartBody(std::unique_ptr<BinaryBody> body) {
  if (state_ != kConnected) return;
  requestTimer_->Stop();
  body_ = std::move(body);
  Pump();
}

void ConnectionSlot::WriteNext() {
  writing_ = true;
  StartWrite(std::string_view(*outbox_.front()).substr(written_), outbox_.front());
}

void ConnectionSlot::Wrote(size_t n) {
  if (state_ != kConnected || outbox_.empty()) return;
  written_ += n;
  if (written_ < outbox_.front()->size()) {
    // Progress restarts a text answer's time-out; a body keeps its piece's.
    WriteNext();
    if (!body_ && n > 0) ArmSendTimer();
    return;
  }
  outbox_.pop_front();
  written_ = 0;
  writing_ = false;
  if (!outbox_.empty()) {
    WriteNext();
    if (!body_) ArmSendTimer();
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
    ArmSendTimer();
    return;
  }
  body_.reset();
  if (outbox_.empty()) {
    owner_.Socket_SendComplete(index_);
  } else {
    ArmSendTimer();
  }
}

void ConnectionSlot::ArmSendTimer() {
  sendTimer_->Start(kSendTimeout, [this] { OnTimeout(); });
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
  requestTimer_->Stop();
  body_.reset();
  outbox_.clear();
  written_ = 0;
  writing_ = false;
  CloseSocket();
}

}  // namespace tavrel
