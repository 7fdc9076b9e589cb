#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/ComputerRegistry.h"

namespace tavrel {

// One message for the broker. An empty retained payload takes an announcement back.
struct MqttMessage {
  std::string topic, payload;
  bool retain = true;

  bool operator==(const MqttMessage&) const = default;
};

// The computers as Home Assistant sees them over MQTT discovery: one device for this node, and for every
// computer a connectivity sensor "seen" and its buttons (wake where a MAC is known, reboot and shut down
// where a name is known), plus the node's "Query LAN" button. It remembers what the hub was last told, so
// each Update says only what changed; it owns no socket and is tested with plain rows.
//
// Topics (node and computer keys hold only a-z, 0-9, "_" and "-"):
//   <prefix>/<node>/availability          "online", "offline" (the last will)
//   <prefix>/<node>/<key>/seen            "ON", "OFF"
//   <prefix>/<node>/<key>/<button>        command: wake, reboot, shutdown
//   <prefix>/<node>/scan                  command: Query LAN
//   <discovery>/<component>/<node>/<object>/config
class HomeAssistant {
 public:
  HomeAssistant(std::string_view nodeName, std::string prefix, std::string discoveryPrefix);

  enum class Button { Wake, Reboot, Shutdown };
  // A computer as announced: what its buttons act on.
  struct Computer {
    std::string label, name, ip, mac;
    bool seen = false;

    bool operator==(const Computer&) const = default;
  };
  // What a command topic asks for: a computer's button, or the node's scan (no computer).
  struct Command {
    std::optional<Button> button;
    const Computer* computer = nullptr;
  };

  // The key of a row in topics and unique ids: its MAC's twelve digits where known, else its name, else
  // its IP, in lower case with every other byte than a-z, 0-9, "_" and "-" made "_".
  static std::string Key(const ComputerRegistry::Row& row);
  static std::string Sanitised(std::string_view text);

  const std::string& AvailabilityTopic() const { return availability_; }
  // The hub's own availability: "online" there asks every device to announce itself again.
  std::string HubStatusTopic() const { return discovery_ + "/status"; }
  // The filters that take every command.
  std::vector<std::string> CommandFilters() const;

  // The messages that bring the hub in line with rows: announcements of new or changed entities, empty
  // ones for entities gone, and changed states. With all, every announcement and state is sent again
  // (after a connect, or when the hub comes back); announcements of entities gone are still taken back.
  std::vector<MqttMessage> Update(const std::vector<ComputerRegistry::Row>& rows, bool all);

  // What a message on a command topic asks for; nothing for a topic that is no command of ours, a
  // computer not announced, or a button it does not have.
  enum class Parsed { Command, Unknown, NotOurs };
  Parsed Parse(std::string_view topic, Command& command) const;

 private:
  static bool Has(const Computer& c, Button b);
  std::string ConfigTopic(std::string_view component, std::string_view object) const;
  std::string SensorConfig(const std::string& key, const Computer& c) const;
  std::string ButtonConfig(const std::string& key, const Computer& c, std::string_view topic,
                           std::string_view label) const;
  nlohmann::ordered_json Device() const;
  std::string ScanConfig() const;
  void Announce(std::vector<MqttMessage>& out, const std::string& key, const Computer* now,
                const Computer* before, bool all) const;

  std::string node_, prefix_, discovery_, base_, availability_, nodeName_;
  // What the hub was told, by key.
  std::map<std::string, Computer> announced_;
  bool scanAnnounced_ = false;
};

}  // namespace tavrel
