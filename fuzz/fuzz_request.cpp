// Parses any bytes as a received HTTP packet, the bytes after each NUL as further body packets joined to
// it, and asks every reader about what it found: no crash, no hang, and answers that hold for every parse.
// The JSON interface then answers the request as if its path were under "/api/".
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "core/Clock.h"
#include "http/Request.h"
#include "pages/JsonApi.h"

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

// A small table (two computers, one of them with a MAC, and an address with a MAC only) whose actions
// count their calls.
struct Api {
  Api() {
    std::filesystem::create_directories(folder);
    tavrel::ComputerRegistry::Edits edits;
    computers.Rename("", "pc1", "198.51.100.10", edits);
    computers.Rename("", "nas", "198.51.100.12", edits);
    computers.MergeArp({{"198.51.100.10", "00-11-22-33-44-55"}, {"203.0.113.7", "AA-BB-CC-DD-EE-FF"}});
    tavrel::PageActions actions;
    actions.SendWOL = [this](const std::string&, const std::string&) { return ++calls, true; };
    actions.SendComputerControl = [this](const std::string&, const std::string&) { ++calls; };
    actions.QueryLAN = [this] { ++calls; };
    api = std::make_unique<tavrel::JsonApi>(computers, clock, actions);
  }
  ~Api() { std::filesystem::remove_all(folder); }

  std::filesystem::path folder = std::filesystem::temp_directory_path() /
                                 ("tavrel-fuzz-request-" + std::to_string(std::random_device()()));
  tavrel::fuzz::CountingReporter reporter;
  tavrel::Hs hs{folder, reporter};
  tavrel::ManualClock clock{tavrel::MakeDateTime(2026, 11, 22, 10, 30)};
  tavrel::ComputerRegistry computers{hs, clock};
  int calls = 0;
  std::unique_ptr<tavrel::JsonApi> api;
};

// One JSON document and "\n" with a status of the interface; an action runs only when accepted.
void CheckApi(const tavrel::Request& r) {
  static Api api;
  const int before = api.calls;
  const tavrel::JsonApi::Answer answer = api.api->Handle(r);
  const std::string_view status = answer.status;
  Check(status == "200 OK" || status == "202 Accepted" || status == "400 Bad Request" ||
        status == "404 Not Found" || status == "405 Method Not Allowed" || status == "409 Conflict");
  Check(!answer.body.empty() && answer.body.back() == '\n' && nlohmann::json::accept(answer.body));
  Check(api.calls == before + (status == "202 Accepted" ? 1 : 0));
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
  CheckApi(r);
  return 0;
}
