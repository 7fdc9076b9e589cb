#include "mqtt/HomeAssistant.h"

#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "core/Text.h"
#include "lan/ComputerActions.h"

namespace tavrel {
namespace {

using Json = nlohmann::ordered_json;

struct ButtonText {
  HomeAssistant::Button button;
  std::string_view topic, label;
};
constexpr std::array<ButtonText, 3> kButtons = {{{HomeAssistant::Button::Wake, "wake", "Wake"},
                                                 {HomeAssistant::Button::Reboot, "reboot", "Reboot"},
                                                 {HomeAssistant::Button::Shutdown, "shutdown", "Shut down"}}};

// Names are bytes of the system code page; a byte that is no UTF-8 becomes U+FFFD rather than an error.
std::string Compact(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace

HomeAssistant::HomeAssistant(std::string_view nodeName, std::string prefix, std::string discoveryPrefix)
    : node_(Sanitised(nodeName)),
      prefix_(std::move(prefix)),
      discovery_(std::move(discoveryPrefix)),
      base_(prefix_ + "/" + node_ + "/"),
      availability_(base_ + "availability"),
      nodeName_(nodeName) {}

std::string HomeAssistant::Sanitised(std::string_view text) {
  std::string out = LCase(text);
  for (char& c : out)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-')) c = '_';
  return out.empty() ? "_" : out;
}

std::string HomeAssistant::Key(const ComputerRegistry::Row& row) {
  if (const std::string digits = MacDigits(row.mac); !digits.empty()) return Sanitised(digits);
  return Sanitised(row.computer ? row.name : row.ip);
}

std::vector<std::string> HomeAssistant::CommandFilters() const {
  std::vector<std::string> filters{base_ + "scan"};
  for (const ButtonText& b : kButtons) filters.push_back(base_ + "+/" + std::string(b.topic));
  return filters;
}

bool HomeAssistant::Has(const Computer& c, Button b) {
  return b == Button::Wake ? !c.mac.empty() : !c.name.empty();
}

std::string HomeAssistant::ConfigTopic(std::string_view component, std::string_view object) const {
  return discovery_ + "/" + std::string(component) + "/" + node_ + "/" + std::string(object) + "/config";
}

Json HomeAssistant::Device() const {
  return Json{
      {"identifiers", Json::array({"tavrel_" + node_})}, {"name", nodeName_}, {"manufacturer", "Tavrel"}};
}

std::string HomeAssistant::SensorConfig(const std::string& key, const Computer& c) const {
  return Compact(Json{{"name", c.label},
                      {"unique_id", "tavrel_" + node_ + "_" + key + "_seen"},
                      {"device_class", "connectivity"},
                      {"state_topic", base_ + key + "/seen"},
                      {"availability_topic", availability_},
                      {"device", Device()}});
}

std::string HomeAssistant::ButtonConfig(const std::string& key, const Computer& c, std::string_view button,
                                        std::string_view label) const {
  const std::string topic(button);
  return Compact(Json{{"name", std::string(label) + " " + c.label},
                      {"unique_id", "tavrel_" + node_ + "_" + key + "_" + topic},
                      {"command_topic", base_ + key + "/" + topic},
                      {"availability_topic", availability_},
                      {"device", Device()}});
}

std::string HomeAssistant::ScanConfig() const {
  return Compact(Json{{"name", "Query LAN"},
                      {"unique_id", "tavrel_" + node_ + "_scan"},
                      {"command_topic", base_ + "scan"},
                      {"availability_topic", availability_},
                      {"device", Device()}});
}

// The entities of one computer: announced when new, changed or all; taken back when gone. now or before
// is nullptr for a computer that comes or goes.
void HomeAssistant::Announce(std::vector<MqttMessage>& out, const std::string& key, const Computer* now,
                             const Computer* before, bool all) const {
  const bool relabelled = now && before && now->label != before->label;
  if (now && (all || !before || relabelled))
    out.push_back({ConfigTopic("binary_sensor", key), SensorConfig(key, *now)});
  if (!now) out.push_back({ConfigTopic("binary_sensor", key), ""});
  for (const ButtonText& b : kButtons) {
    const bool has = now && Has(*now, b.button), had = before && Has(*before, b.button);
    const std::string object = key + "_" + std::string(b.topic);
    if (has && (all || !had || relabelled))
      out.push_back({ConfigTopic("button", object), ButtonConfig(key, *now, b.topic, b.label)});
    if (!has && had) out.push_back({ConfigTopic("button", object), ""});
  }
  if (now && (all || !before || before->seen != now->seen))
    out.push_back({base_ + key + "/seen", now->seen ? "ON" : "OFF"});
}

std::vector<MqttMessage> HomeAssistant::Update(const std::vector<ComputerRegistry::Row>& rows, bool all) {
  std::map<std::string, Computer> next;
  for (const ComputerRegistry::Row& row : rows) {
    // Two rows with one key (one MAC at two addresses): the first is the one announced.
    next.try_emplace(Key(row), Computer{row.computer ? row.name : row.ip, row.computer ? row.name : "",
                                        row.ip, MacDigits(row.mac).empty() ? "" : row.mac, row.Seen()});
  }
  std::vector<MqttMessage> out;
  if (all || !scanAnnounced_) out.push_back({ConfigTopic("button", "scan"), ScanConfig()});
  scanAnnounced_ = true;
  for (const auto& [key, before] : announced_)
    if (!next.contains(key)) Announce(out, key, nullptr, &before, all);
  for (const auto& [key, now] : next) {
    const auto before = announced_.find(key);
    Announce(out, key, &now, before == announced_.end() ? nullptr : &before->second, all);
  }
  announced_ = std::move(next);
  return out;
}

HomeAssistant::Parsed HomeAssistant::Parse(std::string_view topic, Command& command) const {
  if (!topic.starts_with(base_)) return Parsed::NotOurs;
  const std::string_view rest = topic.substr(base_.size());
  command = {};
  if (rest == "scan") return Parsed::Command;
  const size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return Parsed::NotOurs;
  const std::string_view button = rest.substr(slash + 1);
  for (const ButtonText& b : kButtons) {
    if (button != b.topic) continue;
    const auto found = announced_.find(std::string(rest.substr(0, slash)));
    if (found == announced_.end() || !Has(found->second, b.button)) return Parsed::Unknown;
    command = {b.button, &found->second};
    return Parsed::Command;
  }
  return Parsed::NotOurs;
}

}  // namespace tavrel
