#include "xap/XapHandler.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "core/Text.h"
#include "xap/XapMessage.h"

namespace tavrel {

namespace {

constexpr std::string_view kSourceKey = "source=";
constexpr std::chrono::minutes kSkipReportInterval{1};

// The instance part of an address: the text after its last "."; "" when it has no ".".
std::string NameAfterLastDot(std::string_view address) {
  size_t dot = address.rfind('.');
  return dot == std::string_view::npos ? std::string() : std::string(address.substr(dot + 1));
}

void AppendControl(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out += '<';
  out += kHex[c >> 4];
  out += kHex[c & 0x0F];
  out += '>';
}

}  // namespace

XapHandler::XapHandler(Context ctx) : ctx_(std::move(ctx)) {}

void XapHandler::Handle(const std::string& text) {
  size_t i = 0;
  size_t j = 0;
  try {
    ReportSkipped(unstorableNames_);
    ReportSkipped(pastLimit_);
    LearnSender(text, i, j);
    if (i == 0) return;  // no source: nothing to learn, nobody to answer
    XapMessage msg(&ctx_.reporter);
    msg.FromXap(text);
    Dispatch(msg);
  } catch (const std::exception& e) {
    ReportFailure(text, i, j, Err::From(e));
  } catch (...) {
    ReportFailure(text, i, j, Err::Of("unknown error"));
  }
}

// Learns the sender from the raw text, before any parsing: the name is the last part of the source
// address, without a sub-address. i and j are the 1-based positions of "source=" and of the line feed
// that ends it (0 when absent); they go into the failure report.
void XapHandler::LearnSender(const std::string& text, size_t& i, size_t& j) {
  size_t found = FindNoCase(text, kSourceKey);
  if (found == std::string::npos) return;
  i = found + 1;
  size_t start = found + kSourceKey.size();
  size_t lineEnd = text.find('\n', start);
  j = lineEnd == std::string::npos ? 0 : lineEnd + 1;

  std::string address = LCase(std::string_view(text).substr(
      start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start));
  address = std::string(Before(address, ":"));
  std::string name = NameAfterLastDot(address);
  if (name.empty()) return;  // no instance named: nothing to learn
  switch (ctx_.computers.Learn(name)) {
    case ComputerRegistry::Learned::Learned:
      ctx_.xap.SendXap("*.*." + name, "Computer.Process", "Computer.Query", XapBody({{"Query", "All"}}));
      break;
    case ComputerRegistry::Learned::Unstorable:
      NoteSkipped(unstorableNames_);
      break;
    case ComputerRegistry::Learned::Full:
      NoteSkipped(pastLimit_);
      break;
    case ComputerRegistry::Learned::Refreshed:
      break;
  }
}

void XapHandler::Dispatch(const XapMessage& msg) {
  if (msg.CompareClass("Homeseer.Role")) {
    HandleRole(msg);
  } else if (msg.CompareClass("Computer.Process")) {
    HandleComputerProcess(msg);
  } else if (msg.CompareClass("WDT.Echo")) {
    HandleEcho(msg);
  } else if (msg.CompareClass("Time.Today")) {
    HandleTimeToday(msg);
  }
}

void XapHandler::HandleRole(const XapMessage& msg) {
  std::string role = LCase(msg.GetItem("Role.Query", "Role"));
  if (role != "computer management" && role != "any") return;
  ctx_.transport.Send("", "Homeseer.Role", "Role.Notification",
                      XapBody({{"Role", "Computer Management"}, {"Path", ctx_.executablePath}}));
}

void XapHandler::HandleComputerProcess(const XapMessage& msg) {
  std::string name = NameAfterLastDot(msg.msgTarget);
  const KeyValuePair* computer = name.empty() ? nullptr : ctx_.computers.FindByName(name);
  const KeyValuePair* arp = computer == nullptr ? nullptr : ctx_.computers.FindByIP(computer->Value);

  if (LCase(msg.GetItem("Computer.Control", "Action")) == "wol") {
    if (arp != nullptr && ctx_.sendWol) ctx_.sendWol(arp->Value, computer->Value);
    return;
  }
  std::string query = LCase(msg.GetItem("Computer.Query", "Query"));
  if (query != "all" && query != "mac") return;
  if (arp == nullptr) return;
  // "MAC" carries the IP address as well: the agents on the network expect exactly this answer.
  const std::string& ip = computer->Value;
  ctx_.xap.SendXap("", "Computer.Process", "Computer.Notification",
                   XapBody({{"MAC", ip}, {"IP", ip}, {"Name", name}}));
}

void XapHandler::HandleEcho(const XapMessage& msg) {
  if (!msg.CompareTarget(ctx_.xapSource) && !msg.CompareTarget("Unknown")) return;
  std::string id = LCase(msg.GetItem("Echo.Query", "Query"));
  if (id == "unknown") return;
  ctx_.xap.SendXap(msg.msgSource, "WDT.Echo", "Echo.Response", XapBody({{"Response", id}}));
}

void XapHandler::HandleTimeToday(const XapMessage& msg) {
  ctx_.hs.SetSunrise(msg.GetItem("Time.Today", "Sunrise"));
  ctx_.hs.SetSunset(msg.GetItem("Time.Today", "Sunset"));
}

void XapHandler::ReportFailure(const std::string& text, size_t i, size_t j, const Err& err) {
  try {
    ctx_.reporter.ReportEvent(
        kModule,
        "Readmessage i=" + std::to_string(i) + ",j=" + std::to_string(j) + ", " + DiagnosticText(text), err);
  } catch (...) {
    // Reporting is the last resort; the message is dropped either way.
  }
}

void XapHandler::NoteSkipped(SkipCount& skipped) {
  ++skipped.count;
  ReportSkipped(skipped);
}

// Reports what was counted unless the last report is less than a minute old. A clock set back since
// then does not hold reports back.
void XapHandler::ReportSkipped(SkipCount& skipped) {
  if (skipped.count == 0) return;
  const DateTime now = ctx_.clock.Now();
  if (skipped.lastReport && now >= *skipped.lastReport && now - *skipped.lastReport < kSkipReportInterval)
    return;
  ctx_.reporter.ReportEvent(kModule, "LearnSender skipped " + std::to_string(skipped.count) + skipped.reason);
  skipped.count = 0;
  skipped.lastReport = now;
}

std::string XapHandler::DiagnosticText(std::string_view text, size_t maxBytes) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  std::string out;
  out.reserve(std::min(maxBytes, text.size() * 2) + 8);
  for (char ch : text) {
    if (out.size() >= maxBytes) {
      out.resize(maxBytes);
      out += "...";
      return out;
    }
    auto c = static_cast<unsigned char>(ch);
    if (c == '\n') {
      out += ", ";
    } else if (c < 0x20 || c == 0x7F) {
      AppendControl(out, c);
    } else {
      out += ch;
    }
  }
  if (out.size() > maxBytes) {
    out.resize(maxBytes);
    out += "...";
  }
  return out;
}

}  // namespace tavrel
