#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrel {

// A message handed to SendXap while the transport was down, kept to be sent later.
struct XapQueuedMessage {
  std::string Target;
  std::string Class;
  std::string Section;
  std::string Body;

  bool operator==(const XapQueuedMessage&) const = default;
};

// The transport's send operation: one message with one body block, as one datagram.
class XapSendOperation {
 public:
  virtual ~XapSendOperation() = default;
  virtual void Send(const std::string& target, const std::string& msgClass, const std::string& section,
                    const std::string& body) = 0;
};

// A message body: pairs written as key, character 1, value, with character 0 between pairs.
std::string XapBody(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);

// The one way the program sends an xAP message. Until a transport is attached every message waits in
// the pending-send list; the first send afterwards sends all of them first, oldest first.
class XapGlobal {
 public:
  void SendXap(const std::string& target, const std::string& msgClass, const std::string& section,
               const std::string& body);

  // Attaches the transport once it is up (nullptr takes it down again).
  void SetTransport(XapSendOperation* transport) { transport_ = transport; }
  const std::vector<XapQueuedMessage>& Pending() const { return pending_; }

 private:
  XapSendOperation* transport_ = nullptr;
  std::vector<XapQueuedMessage> pending_;
};

}  // namespace tavrel
