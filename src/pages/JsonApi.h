#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "http/Request.h"
#include "http/Response.h"
#include "http/TCPServerModule.h"
#include "pages/RemoteASP.h"
#include "settings/ComputerRegistry.h"

namespace tavrel {

// The JSON interface for scripts and home-automation hubs: the computer table with its presence, and the
// page's own buttons (wake, reboot, shut down one computer; "Query LAN") through the same PageActions.
// No sockets: a Request in, an answer out. Every answer is one compact JSON document ending in "\n";
// refusals are {"error":"..."} saying what was wrong.
class JsonApi : public ApiHandler {
 public:
  // The longest body read, and how deep its values may nest.
  static constexpr size_t kMaxBody = 4096;
  static constexpr int kMaxDepth = 4;

  struct Answer {
    std::string status;  // "200 OK"
    std::string body;
    // The methods the path takes, for a "405 Method Not Allowed"; "" otherwise.
    std::string allow;
  };

  JsonApi(ComputerRegistry& computers, PageActions actions)
      : computers_(computers), actions_(std::move(actions)) {}

  // The answer to one request for a path under "/api/". Never throws.
  Answer Handle(const Request& request) const;
  void ServeApi(const Request& request, Response& response) override;

 private:
  Answer Computers() const;
  Answer Act(std::string_view action, const Request& request) const;
  Answer Scan() const;

  ComputerRegistry& computers_;
  PageActions actions_;
};

}  // namespace tavrel
