#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "core/Clock.h"
#include "core/ComputerTable.h"
#include "core/Reporter.h"
#include "settings/Hs.h"
#include "xap/XapGlobal.h"

namespace tavrel {

class XapMessage;

// Handles one received xAP message text: learns the sending computer into the computer table, then
// answers role discovery, computer control and query, the echo test and the daily times.
// Keeps no state of its own; everything it reads and changes is handed in through the context.
class XapHandler {
 public:
  struct Context {
    ComputerTable& table;
    Hs& hs;
    XapGlobal& xap;
    // The transport's own send operation: the role notification goes out through it directly.
    XapSendOperation& transport;
    Reporter& reporter;
    const Clock& clock;
    // Wakes one computer (MAC as stored in the ARP table, IP address).
    std::function<void(const std::string& mac, const std::string& ip)> sendWol;
    // This node's source address ("zel.WOL.<name>").
    std::string xapSource;
    // Full path of the program's executable, named in the role notification.
    std::string executablePath;
  };

  explicit XapHandler(Context ctx);

  // Never throws: a failure is reported as an event and the message is dropped.
  void Handle(const std::string& text);

  // A readable, bounded rendering of a received text for error reports: lines joined by ", ",
  // control bytes shown as <hh>, cut at maxBytes (with "..." appended when cut).
  static std::string DiagnosticText(std::string_view text, size_t maxBytes = 500);

 private:
  void LearnSender(const std::string& text, size_t& i, size_t& j);
  void Dispatch(const XapMessage& msg);
  void HandleRole(const XapMessage& msg);
  void HandleComputerProcess(const XapMessage& msg);
  void HandleEcho(const XapMessage& msg);
  void HandleTimeToday(const XapMessage& msg);
  void ReportFailure(const std::string& text, size_t i, size_t j, const Err& err);

  Context ctx_;
};

}  // namespace tavrel
