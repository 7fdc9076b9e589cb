#include "xapsend/XapGlobal.h"

namespace tavrel {

std::string XapBody(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  std::string body;
  bool first = true;
  for (const auto& [key, value] : pairs) {
    if (!first) body.push_back('\0');
    first = false;
    body.append(key);
    body.push_back('\x01');
    body.append(value);
  }
  return body;
}

void XapGlobal::SendXap(const std::string& target, const std::string& msgClass, const std::string& section,
                        const std::string& body) {
  if (transport_ == nullptr) {
    pending_.push_back(XapQueuedMessage{target, msgClass, section, body});
    return;
  }
  // Take the list first: a send that reports a failure comes back here, and must find it empty.
  std::vector<XapQueuedMessage> earlier;
  earlier.swap(pending_);
  for (const auto& m : earlier) transport_->Send(m.Target, m.Class, m.Section, m.Body);
  transport_->Send(target, msgClass, section, body);
}

}  // namespace tavrel
