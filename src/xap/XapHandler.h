#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/Clock.h"
#include "core/Reporter.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "xapsend/XapGlobal.h"

namespace tavrel {

class XapMessage;

// Handles one received xAP message text: hands the sending computer to the computer registry, then
// answers role discovery, computer control and query, the echo test and the daily times.
// Everything it reads and changes is handed in through the context; its own state is only the count of
// senders it declined to learn, which it reports at most once a minute.
class XapHandler {
 public:
  struct Context {
    ComputerRegistry& computers;
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
  // Senders not learned for one reason: the first is reported at once, later ones are counted and
  // reported together once a minute has passed since the last report, so a flood costs one event a minute.
  struct SkipCount {
    explicit SkipCount(std::string text) : reason(std::move(text)) {}
    std::string reason;  // the report text after the count
    size_t count = 0;
    std::optional<DateTime> lastReport;
  };

  void LearnSender(const std::string& text, size_t& i, size_t& j);
  void Dispatch(const XapMessage& msg);
  void HandleRole(const XapMessage& msg);
  void HandleComputerProcess(const XapMessage& msg);
  void HandleEcho(const XapMessage& msg);
  void HandleTimeToday(const XapMessage& msg);
  void ReportFailure(const std::string& text, size_t i, size_t j, const Err& err);
  void NoteSkipped(SkipCount& skipped);
  void ReportSkipped(SkipCount& skipped);

  Context ctx_;
  SkipCount unstorableNames_{" sender name(s) the settings file cannot hold"};
  SkipCount pastLimit_{" new sender(s) past " + std::to_string(kMaxLearnedComputers) + " computers"};
};

}  // namespace tavrel
