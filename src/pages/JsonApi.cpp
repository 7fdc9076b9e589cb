#include "pages/JsonApi.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "core/Text.h"
#include "lan/ComputerActions.h"
#include "platform/LocalTime.h"

namespace tavrel {

namespace {

// Objects keep their keys in the order written, so every answer has one stable spelling.
using Json = nlohmann::ordered_json;
using Row = ComputerRegistry::Row;

constexpr std::string_view kOk = "200 OK";
constexpr std::string_view kAccepted = "202 Accepted";
constexpr std::string_view kBadRequest = "400 Bad Request";
constexpr std::string_view kNotFound = "404 Not Found";
constexpr std::string_view kNotAllowed = "405 Method Not Allowed";
constexpr std::string_view kConflict = "409 Conflict";
constexpr std::string_view kFailed = "500 Internal Server Error";

constexpr std::string_view kHowToName =
    "give ?computer=NAME or the body {\"computer\":\"NAME\"}: a name, an IP address or a MAC address";

// Names and form values are bytes as the network gave them; whatever is not UTF-8 is written as U+FFFD.
std::string Text(const Json& doc) { return doc.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"; }

JsonApi::Answer Reply(std::string_view status, const Json& doc) {
  return {std::string(status), Text(doc), {}};
}

JsonApi::Answer Error(std::string_view status, const std::string& message, std::string allow = {}) {
  return {std::string(status), Text(Json{{"error", message}}), std::move(allow)};
}

Json NullIfEmpty(std::string text) { return text.empty() ? Json(nullptr) : Json(std::move(text)); }

// "2026-11-22T09:15:00Z" for local times of this machine. The C library's conversion from local time may
// look at the zone's file on every call, so the offset of the time converted last is tried first: it is
// right whenever the moment it gives shows as the same local time.
class UtcTimes {
 public:
  Json operator()(const std::optional<DateTime>& local) {
    if (!local) return nullptr;
    using namespace std::chrono;
    std::time_t at = -1;
    if (offset_) {
      const std::time_t guess = (local->time_since_epoch() - *offset_).count();
      if (platform::LocalTimeAt(guess) == *local) at = guess;
    }
    if (at == -1) {
      at = platform::TimeOfLocal(*local);
      if (at == -1) return nullptr;
      offset_ = local->time_since_epoch() - seconds{at};
    }
    const sys_seconds t{seconds{at}};
    const sys_days day = floor<days>(t);
    const year_month_day date{day};
    const hh_mm_ss<seconds> time{t - day};
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
  }

 private:
  // Local time less UTC, as last found.
  std::optional<std::chrono::seconds> offset_;
};

// The value of "computer" in a query as sent ("a=1&computer=pc%201"), decoded; none when absent.
std::optional<std::string> FromQuery(std::string_view rawQuery) {
  for (const std::string& part : Split(rawQuery, "&")) {
    const size_t eq = part.find('=');
    if (Request::DecodeFormValue(std::string_view(part).substr(0, eq)) != "computer") continue;
    return eq == std::string::npos ? std::string()
                                   : Request::DecodeFormValue(std::string_view(part).substr(eq + 1));
  }
  return std::nullopt;
}

// What the body says "computer" is; none without a body or without the field. error tells a bad body.
std::optional<std::string> FromBody(const Request& request, std::string& error) {
  std::string_view body = request.Body();
  const std::string tooLong = "the body is longer than " + std::to_string(JsonApi::kMaxBody) + " bytes";
  if (const std::string length = Trim(request.ServerVariables("Content-Length")); !length.empty()) {
    long long declared = 0;
    if (!ParseInt(length, 0, 999'999'999'999, declared)) {
      error = "Content-Length \"" + length.substr(0, 20) + "\" is not a number";
      return std::nullopt;
    }
    const auto size = static_cast<size_t>(declared);
    if (size > JsonApi::kMaxBody) {
      error = tooLong;
      return std::nullopt;
    }
    if (size > body.size()) {
      error = "the body came with " + std::to_string(body.size()) + " of the " + length +
              " bytes its Content-Length announces";
      return std::nullopt;
    }
    body = body.substr(0, size);
  }
  if (body.size() > JsonApi::kMaxBody) {
    error = tooLong;
    return std::nullopt;
  }
  if (Trim(body).empty()) return std::nullopt;

  bool tooDeep = false;
  Json doc;
  try {
    doc = Json::parse(body.begin(), body.end(), [&tooDeep](int depth, Json::parse_event_t, Json&) {
      tooDeep = tooDeep || depth > JsonApi::kMaxDepth;
      return !tooDeep;
    });
  } catch (const Json::parse_error& e) {
    error = "the body is not JSON: it goes wrong at byte " + std::to_string(e.byte);
    return std::nullopt;
  } catch (const Json::out_of_range&) {
    error = "the body holds a number out of range";
    return std::nullopt;
  }
  if (tooDeep) {
    error = "the body nests deeper than " + std::to_string(JsonApi::kMaxDepth) + " levels";
    return std::nullopt;
  }
  if (!doc.is_object()) {
    error = "the body is not a JSON object such as {\"computer\":\"pc1\"}";
    return std::nullopt;
  }
  const auto field = doc.find("computer");
  if (field == doc.end()) return std::nullopt;
  if (!field->is_string()) {
    error = "\"computer\" is not a string but " + std::string(field->type_name());
    return std::nullopt;
  }
  return field->get<std::string>();
}

// The computer a request names, or what is wrong with how it names one.
std::string NamedComputer(const Request& request, std::string& error) {
  const std::optional<std::string> query = FromQuery(request.RawQuery());
  const std::optional<std::string> body = FromBody(request, error);
  if (!error.empty()) return {};
  if (query && body && *query != *body) {
    error = "the query and the body name different computers";
  } else if (!query && !body) {
    error = "no computer named: " + std::string(kHowToName);
  } else {
    const std::string& name = query ? *query : *body;
    if (name.empty()) {
      error = "\"computer\" is empty: " + std::string(kHowToName);
    } else if (name.size() > kMaxComputerName) {
      error = "\"computer\" is longer than " + std::to_string(kMaxComputerName) + " bytes";
    } else if (std::any_of(name.begin(), name.end(),
                           [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '\x7F'; })) {
      error = "\"computer\" holds a control character";
    } else {
      return name;
    }
  }
  return {};
}

// The row a text names: a computer's name (any case), else an IP address, else a MAC address in any
// spelling the magic packet takes. The first row in the table's order wins.
std::optional<Row> FindRow(const std::vector<Row>& rows, const std::string& text) {
  for (const Row& row : rows) {
    if (row.computer && EqualsNoCase(row.name, text)) return row;
  }
  for (const Row& row : rows) {
    if (row.ip == text) return row;
  }
  if (const std::string digits = UCase(MacDigits(text)); !digits.empty()) {
    for (const Row& row : rows) {
      if (!row.mac.empty() && UCase(MacDigits(row.mac)) == digits) return row;
    }
  }
  return std::nullopt;
}

std::string Who(const Row& row) { return row.computer ? "\"" + row.name + "\"" : row.ip; }

}  // namespace

JsonApi::Answer JsonApi::Handle(const Request& request) {
  try {
    const std::string page = Response::PagePath(request.page());
    const std::string& method = request.Method();
    const bool post = method == "POST" || method == "POSTx";
    if (page == "\\api\\computers") {
      return method == "GET" ? Computers() : Error(kNotAllowed, "/api/computers takes GET", "GET");
    }
    for (std::string_view action : {"wake", "reboot", "shutdown", "scan"}) {
      if (page != "\\api\\" + std::string(action)) continue;
      if (!post) return Error(kNotAllowed, "/api/" + std::string(action) + " takes POST", "POST");
      return action == "scan" ? Scan() : Act(action, request);
    }
    return Error(kNotFound, "no such path: " + request.page());
  } catch (const std::exception& e) {
    return Error(kFailed, e.what());
  }
}

void JsonApi::ServeApi(const Request& request, Response& response) {
  const Answer answer = Handle(request);
  const std::string allow = answer.allow.empty() ? std::string() : "Allow: " + answer.allow;
  response.SendJson(answer.status, answer.body, allow);
}

JsonApi::Answer JsonApi::Computers() {
  const bool scanning = actions_.ProcessExists && actions_.ProcessExists();
  const DateTime now = clock_.Now();
  if (table_ && table_->version == computers_.Version() && table_->at == now &&
      table_->scanning == scanning) {
    return {std::string(kOk), table_->text, {}};
  }
  std::vector<Row> rows = computers_.Rows();
  Json list(Json::value_t::array);
  list.get_ref<Json::array_t&>().reserve(rows.size());
  UtcTimes utc;
  // Filled in place and moved, so each value is made once.
  for (Row& row : rows) {
    Json seenBy(Json::value_t::array);
    if (row.byXap) seenBy.push_back("xap");
    if (row.bySweep) seenBy.push_back("sweep");
    Json& entry = list.emplace_back(Json::value_t::object);
    entry.get_ref<Json::object_t&>().reserve(6);
    entry.emplace("name", row.computer ? Json(std::move(row.name)) : Json(nullptr));
    entry.emplace("ip", NullIfEmpty(std::move(row.ip)));
    entry.emplace("mac", NullIfEmpty(std::move(row.mac)));
    entry.emplace("lastSeen", utc(row.lastSeen));
    entry.emplace("seen", row.Seen());
    entry.emplace("seenBy", std::move(seenBy));
  }
  Json doc(Json::value_t::object);
  doc.emplace("computers", std::move(list));
  doc.emplace("scanning", scanning);
  table_ = Table{computers_.Version(), now, scanning, Text(doc)};
  return {std::string(kOk), table_->text, {}};
}

JsonApi::Answer JsonApi::Act(std::string_view action, const Request& request) const {
  std::string error;
  const std::string named = NamedComputer(request, error);
  if (!error.empty()) return Error(kBadRequest, error);
  const std::optional<Row> row = FindRow(computers_.Rows(), named);
  if (!row)
    return Error(kNotFound, "no computer \"" + named + "\": no name, IP address or MAC address in the table");

  Json done{{"computer", row->computer ? Json(row->name) : Json(nullptr)},
            {"ip", NullIfEmpty(row->ip)},
            {"action", action}};
  if (action == "wake") {
    if (row->mac.empty()) {
      return Error(kConflict, "no MAC address is known for " + Who(*row) +
                                  ": a sweep learns it while the computer is on");
    }
    if (std::string problem = WolInputError(row->mac, row->ip); !problem.empty()) {
      return Error(kConflict, "cannot wake " + Who(*row) + ": " + problem);
    }
    const std::string broadcast = WolBroadcast(row->ip);
    if (!actions_.SendWOL || !actions_.SendWOL(row->mac, row->ip)) {
      return Error(kFailed, "the magic packet to " + broadcast + " was not sent (the log says why)");
    }
    done["mac"] = row->mac;
    done["broadcast"] = broadcast;
    done["port"] = kWolPort;
  } else {
    if (!row->computer) {
      return Error(kConflict, row->ip + " has no name: " + std::string(action) +
                                  " goes to the xAP agent of a computer by its name");
    }
    if (actions_.SendComputerControl)
      actions_.SendComputerControl(row->name, action == "reboot" ? "Reboot" : "Shutdown");
    done["via"] = "xap";
  }
  return Reply(kAccepted, done);
}

JsonApi::Answer JsonApi::Scan() const {
  if (actions_.ProcessExists && actions_.ProcessExists()) return Error(kConflict, "a scan is running");
  if (actions_.QueryLAN) actions_.QueryLAN();
  return Reply(kAccepted, Json{{"action", "scan"}});
}

}  // namespace tavrel
