#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/Clock.h"
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

  JsonApi(ComputerRegistry& computers, const Clock& clock, PageActions actions)
      : computers_(computers), clock_(clock), actions_(std::move(actions)) {}

  // The answer to one request for a path under "/api/". Never throws.
  Answer Handle(const Request& request);
  void ServeApi(const Request& request, Response& response) override;

 private:
  // The table's document and what it was written from: the requests of one batch (and of one second)
  // share it unless the table changes meanwhile.
  struct Table {
    uint64_t version = 0;
    DateTime at;
    bool scanning = false;
    std::string text;
  };

  Answer Computers();
  Answer Act(std::string_view action, const Request& request) const;
  Answer Scan() const;

  ComputerRegistry& computers_;
  const Clock& clock_;
  PageActions actions_;
  std::optional<Table> table_;
};

}  // namespace tavrel
