#include "xap/XapNode.h"

#include <exception>
#include <utility>

#include "core/Text.h"
#include "xap/XapMessage.h"

namespace tavrel {

namespace {

// The timer control takes at most 65535 ms; a longer interval is refused as an invalid property value.
constexpr long kMaxTimerInterval = 65535;
constexpr auto kOversizeLogWindow = std::chrono::seconds(60);

}  // namespace

XapNode::XapNode(Reporter& reporter, TimerFactory& timers, DatagramSink& sink)
    : reporter_(reporter),
      sink_(sink),
      heartbeatTimer_(timers.Create()),
      receiveTimer_(timers.Create()),
      oversizeTimer_(timers.Create()) {
  RebuildTexts();
}

XapNode::~XapNode() = default;

void XapNode::SetXapSource(std::string value) {
  xapSource_ = std::move(value);
  RebuildTexts();
}

void XapNode::SetXapUID(std::string value) {
  xapUID_ = std::move(value);
  RebuildTexts();
}

void XapNode::SetLocalPort(int port) {
  localPort_ = port;
  heartbeatTail_ = "0\nport=" + std::to_string(port) + "\n}\n";
}

void XapNode::RebuildTexts() {
  headerPrefix_ = "xap-header\n{\nv=12\nhop=1\nuid=" + xapUID_ + "\n";
  // The heartbeat comes from a template with "|" for the line feed; every "|" becomes one, those in
  // the UID and the source included.
  heartbeatText_ = Replace(
      "xap-hbeat|{|v=12|hop=1|uid=" + xapUID_ + "|class=xap-hbeat.alive|source=" + xapSource_ + "|interval=",
      "|", "\n");
}

void XapNode::SendHeartbeat(long interval) {
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
      reporter_.WriteLog(kModule, "SendHeartbeat",
                         Err::Of("Invalid property value", Err::kInvalidPropertyValue));
      return;
    }
    heartbeatMs_ = ms;
    lastInterval_ = interval;
    if (ms > 0) {
      heartbeatTimer_->StartRepeating(std::chrono::milliseconds(ms), [this] { OnHeartbeatTick(); });
    } else {
      heartbeatTimer_->Stop();
    }
    SendText(heartbeatText_ + std::to_string(interval) + heartbeatTail_, "SendHeartbeat");
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SendHeartbeat", Err::From(e));
  }
}

void XapNode::SendStoppedHeartbeat() {
  heartbeatTimer_->Stop();
  try {
    SendText(Replace(heartbeatText_, "class=xap-hbeat.alive", "class=xap-hbeat.stopped") +
                 std::to_string(lastInterval_) + heartbeatTail_,
             "SendHeartbeat");
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SendHeartbeat", Err::From(e));
  }
}

void XapNode::OnHeartbeatTick() {
  tickCounter_ = (tickCounter_ + 1) % 10;
  if (tickCounter_ == 0) SendHeartbeat(heartbeatMs_ / 1000);
}

void XapNode::ProcessReceivedMessage(std::string text) {
  try {
    if (text.size() > kMaxDatagram) {
      ++oversized_;
      NoteOversized();
      return;
    }
    if (filterHeartbeats_ && LCase(std::string_view(text).substr(0, 8)) != "xap-head") return;
    if (QueueFull()) {
      ++overflowed_;
      NoteOversized();
      return;
    }
    queueBytes_ += text.size();
    queue_.push_back(std::move(text));
    ArmReceiveTimer();
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "ProcessReceivedMessage", Err::From(e));
  }
}

// The timer runs from the first message of a burst: a steady stream of messages cannot keep pushing
// the callback back.
void XapNode::ArmReceiveTimer() {
  if (receiveTimer_->Armed()) return;
  receiveTimer_->Start(kReceiveDelay, [this] { OnReceiveTimer(); });
}

void XapNode::OnReceiveTimer() {
  if (callback_) {
    try {
      callback_();
    } catch (const std::exception& e) {
      reporter_.WriteLog(kModule, "ProcessReceivedMessage", Err::From(e));
    }
  }
  if (!queue_.empty()) ArmReceiveTimer();
  Drained();
}

std::string XapNode::GetMessage() {
  if (queue_.empty()) return {};
  std::string text = std::move(queue_.front());
  queue_.pop_front();
  queueBytes_ -= text.size();
  return text;
}

// The first dropped datagram is logged at once; later ones within the next minute are counted and
// logged together when it is over, so a flood costs one line a minute.
void XapNode::NoteOversized() {
  if (!oversizeTimer_->Armed()) FlushOversized();
}

void XapNode::FlushOversized() {
  if (oversized_ == 0 && overflowed_ == 0) return;
  if (oversized_ > 0) {
    reporter_.WriteLog(kModule, "ProcessReceivedMessage dropped " + std::to_string(oversized_) +
                                    " datagram(s) over " + std::to_string(kMaxDatagram) + " bytes");
  }
  if (overflowed_ > 0) {
    reporter_.WriteLog(kModule, "ProcessReceivedMessage dropped " + std::to_string(overflowed_) +
                                    " message(s), receive queue full");
  }
  oversized_ = 0;
  overflowed_ = 0;
  oversizeTimer_->Start(kOversizeLogWindow, [this] { FlushOversized(); });
}

void XapNode::Send(const std::string& target, const std::string& msgClass, const std::string& section,
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
    SendText(message.ToXap(), "SendXap ");
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "SendXap ", Err::From(e));
  }
}

void XapNode::SendText(const std::string& text, std::string_view label) {
  const Err err = sink_.SendDatagram(text);
  if (err.IsSet()) reporter_.WriteLog(kModule, label, err);
}

void XapNode::StopNode() {
  heartbeatTimer_->Stop();
  receiveTimer_->Stop();
  oversizeTimer_->Stop();
  oversized_ = 0;
  overflowed_ = 0;
  queue_.clear();
  queueBytes_ = 0;
}

}  // namespace tavrel
