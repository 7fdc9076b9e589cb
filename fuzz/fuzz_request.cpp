// Parses any bytes as a received HTTP packet, the bytes after each NUL as further body packets joined to
// it, and asks every reader about what it found: no crash, no hang, and answers that hold for every parse.
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "http/Request.h"

namespace {

using tavrel::fuzz::Check;

struct CountingLog : tavrel::ServerLog {
  void WriteLine(std::string_view) override { ++lines; }
  void Write(std::string_view) override { ++lines; }
  size_t lines = 0;
};

// Every pair can be found again under its key, and its value is the first one added.
void CheckCollection(const tavrel::Request::Collection& col, bool form, const tavrel::Request& r) {
  for (const auto& e : col) {
    Check(e.key == e.value.Key);
    Check((form ? r.Form(e.key) : r.QueryString(e.key)) == e.value.Value);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The listener refuses anything longer before it is parsed.
  if (size > tavrel::Request::kMaxPacket) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view packet = input.substr(0, input.find('\0'));

  CountingLog log;
  tavrel::Request r(&log);
  r.ParsePage(packet);
  for (size_t at = input.find('\0'); at != std::string_view::npos;) {
    const size_t next = input.find('\0', at + 1);
    r.AddPostData(input.substr(at + 1, next == std::string_view::npos ? next : next - at - 1));
    at = next;
  }
  Check(log.lines >= r.QueryStringCol().Count() + r.FormCol().Count());

  Check(r.Method() == "POSTx" || packet.substr(0, r.Method().size()) == r.Method());
  Check(r.page().find('?') == std::string::npos);
  // Removing CR LF once can leave a new pair ("\r\r\n\n"), as it always has; the body only shrinks.
  Check(r.Payload().size() <= packet.size());
  Check(r.header().empty() || packet.find(r.header()) != std::string_view::npos);
  CheckCollection(r.QueryStringCol(), false, r);
  CheckCollection(r.FormCol(), true, r);
  for (const auto& e : r.HeaderCol()) {
    Check(e.value.find("\r\n") == std::string::npos);
    if (!tavrel::EqualsNoCase(e.key, "http_user_agent") && !tavrel::EqualsNoCase(e.key, "remote_addr")) {
      Check(r.ServerVariables(e.key) == e.value);
    }
  }
  Check(r.ServerVariables("remote_addr").find(':') == std::string::npos);

  const std::string content = tavrel::Request::GetContent(packet);
  Check(content.size() <= packet.size() && packet.substr(packet.size() - content.size()) == content);
  Check(tavrel::Request::Decode(packet).size() <= packet.size());
  return 0;
}
