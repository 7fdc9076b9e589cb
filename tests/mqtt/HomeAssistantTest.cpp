// The hub's view of the computer table: topics, keys and payloads, and what each change sends.
#include <gtest/gtest.h>

#include "mqtt/HomeAssistant.h"
#include "mqtt/MqttLink.h"

namespace tavrel {
namespace {

using Row = ComputerRegistry::Row;

Row Computer(std::string name, std::string ip, std::string mac, bool seen) {
  Row row{std::move(name), std::move(ip), std::move(mac), {}, true};
  row.bySweep = seen;
  return row;
}
Row ArpOnly(std::string ip, std::string mac) { return Row{"", std::move(ip), std::move(mac), {}, false}; }

// "topic payload" per message, a retained empty payload as "topic -"; announcements shortened to their
// entity's name, as the payloads themselves are checked byte for byte below.
std::vector<std::string> Brief(const std::vector<MqttMessage>& messages) {
  std::vector<std::string> out;
  for (const MqttMessage& m : messages) {
    std::string payload = m.payload.empty() ? "-" : m.payload;
    if (payload.starts_with("{\"name\":\"")) payload = payload.substr(9, payload.find('"', 9) - 9);
    out.push_back(m.topic + " " + payload + (m.retain ? "" : " (not retained)"));
  }
  return out;
}

TEST(HomeAssistantTest, KeysAreTheMacElseTheNameElseTheAddressInTopicSafeBytes) {
  const struct {
    Row row;
    std::string key;
  } cases[] = {
      {Computer("Alpha", "198.51.100.2", "", true), "alpha"},
      {Computer("B\xFCro PC/+#", "", "", false), "b_ro_pc___"},
      {Computer("gamma", "198.51.100.3", "not a mac", false), "gamma"},
      {ArpOnly("198.51.100.7", "00:1a:2b:3c:4d:5f"), "001a2b3c4d5f"},
      {ArpOnly("198.51.100.7", ""), "198_51_100_7"},
  };
  for (const auto& c : cases) EXPECT_EQ(HomeAssistant::Key(c.row), c.key) << c.row.name << c.row.ip;
}

TEST(HomeAssistantTest, AnnouncesOnceThenOnlyWhatChangedAndTakesBackWhatWent) {
  HomeAssistant hub("Node.One", "tavrel", "homeassistant");
  std::vector<Row> rows{Computer("alpha", "198.51.100.2", "00-1A-2B-3C-4D-5E", true),
                        Computer("beta", "", "", false), ArpOnly("198.51.100.7", "00-1A-2B-3C-4D-5F"),
                        // the same MAC again: the first row keeps the key
                        ArpOnly("198.51.100.8", "00-1A-2B-3C-4D-5F")};
  const std::vector<MqttMessage> first = hub.Update(rows, false);
  const std::string c = "homeassistant/button/node_one/";
  EXPECT_EQ(Brief(first), (std::vector<std::string>{
                              c + "scan/config Query LAN",
                              "homeassistant/binary_sensor/node_one/001a2b3c4d5e/config alpha",
                              c + "001a2b3c4d5e_wake/config Wake alpha",
                              c + "001a2b3c4d5e_reboot/config Reboot alpha",
                              c + "001a2b3c4d5e_shutdown/config Shut down alpha",
                              "tavrel/node_one/001a2b3c4d5e/seen ON",
                              "homeassistant/binary_sensor/node_one/001a2b3c4d5f/config 198.51.100.7",
                              c + "001a2b3c4d5f_wake/config Wake 198.51.100.7",
                              "tavrel/node_one/001a2b3c4d5f/seen OFF",
                              "homeassistant/binary_sensor/node_one/beta/config beta",
                              c + "beta_reboot/config Reboot beta",
                              c + "beta_shutdown/config Shut down beta",
                              "tavrel/node_one/beta/seen OFF",
                          }));
  const std::string device = R"("availability_topic":"tavrel/node_one/availability","device":{"identifiers":)"
                             R"(["tavrel_node_one"],"name":"Node.One","manufacturer":"Tavrel"}})";
  EXPECT_EQ(first[1].payload,
            R"({"name":"alpha","unique_id":"tavrel_node_one_001a2b3c4d5e_seen",)"
            R"("device_class":"connectivity","state_topic":"tavrel/node_one/001a2b3c4d5e/seen",)" +
                device);
  EXPECT_TRUE(hub.Update(rows, false).empty());

  // alpha goes away; beta gets an address with a MAC (a new key: the old entities go); the ARP-only row
  // is named (its buttons change); a byte that is no UTF-8 is replaced, not refused.
  rows[0].bySweep = false;
  rows[1] = Computer("beta", "198.51.100.3", "00-1A-2B-3C-4D-60", true);
  rows[2] = Computer("gamma\xFF", "198.51.100.7", "00-1A-2B-3C-4D-5F", false);
  const std::vector<MqttMessage> second = hub.Update(rows, false);
  EXPECT_EQ(Brief(second), (std::vector<std::string>{
                               "homeassistant/binary_sensor/node_one/beta/config -",
                               c + "beta_reboot/config -",
                               c + "beta_shutdown/config -",
                               "tavrel/node_one/001a2b3c4d5e/seen OFF",
                               "homeassistant/binary_sensor/node_one/001a2b3c4d5f/config gamma\xEF\xBF\xBD",
                               c + "001a2b3c4d5f_wake/config Wake gamma\xEF\xBF\xBD",
                               c + "001a2b3c4d5f_reboot/config Reboot gamma\xEF\xBF\xBD",
                               c + "001a2b3c4d5f_shutdown/config Shut down gamma\xEF\xBF\xBD",
                               "homeassistant/binary_sensor/node_one/001a2b3c4d60/config beta",
                               c + "001a2b3c4d60_wake/config Wake beta",
                               c + "001a2b3c4d60_reboot/config Reboot beta",
                               c + "001a2b3c4d60_shutdown/config Shut down beta",
                               "tavrel/node_one/001a2b3c4d60/seen ON",
                           }));

  // Removed on the page: every entity taken back. Everything again (a reconnect) says all that is left.
  rows.erase(rows.begin() + 1);
  EXPECT_EQ(Brief(hub.Update(rows, false)), (std::vector<std::string>{
                                                "homeassistant/binary_sensor/node_one/001a2b3c4d60/config -",
                                                c + "001a2b3c4d60_wake/config -",
                                                c + "001a2b3c4d60_reboot/config -",
                                                c + "001a2b3c4d60_shutdown/config -",
                                            }));
  EXPECT_EQ(hub.Update(rows, true).size(), 1u + 2 * 5);
}

TEST(HomeAssistantTest, CommandsNameAnAnnouncedComputerAndAButtonItHas) {
  HomeAssistant hub("node", "home/tavrel", "ha");
  hub.Update({Computer("alpha", "198.51.100.2", "00-1A-2B-3C-4D-5E", true),
              ArpOnly("198.51.100.7", "00-1A-2B-3C-4D-5F")},
             false);
  // What each topic asks for: button number, name, MAC and address of the computer; "scan"; or why not.
  const std::pair<std::string, std::string> cases[] = {
      {"home/tavrel/node/001a2b3c4d5e/wake", "0 alpha 00-1A-2B-3C-4D-5E 198.51.100.2"},
      {"home/tavrel/node/001a2b3c4d5e/shutdown", "2 alpha 00-1A-2B-3C-4D-5E 198.51.100.2"},
      {"home/tavrel/node/001a2b3c4d5f/wake", "0  00-1A-2B-3C-4D-5F 198.51.100.7"},
      {"home/tavrel/node/scan", "scan"},
      {"home/tavrel/node/001a2b3c4d5f/reboot", "unknown"},  // no name to reboot
      {"home/tavrel/node/alpha/wake", "unknown"},
      {"home/tavrel/node/001a2b3c4d5e/seen", "not ours"},
      {"home/tavrel/other/scan", "not ours"},
      {"ha/status", "not ours"},
  };
  for (const auto& [topic, expected] : cases) {
    HomeAssistant::Command command;
    const HomeAssistant::Parsed parsed = hub.Parse(topic, command);
    std::string acted = parsed == HomeAssistant::Parsed::Unknown   ? "unknown"
                        : parsed == HomeAssistant::Parsed::NotOurs ? "not ours"
                                                                   : "scan";
    if (command.button) {
      const HomeAssistant::Computer& c = *command.computer;
      acted = std::to_string(static_cast<int>(*command.button)) + " " + c.name + " " + c.mac + " " + c.ip;
    }
    EXPECT_EQ(acted, expected) << topic;
  }
}

TEST(HomeAssistantTest, BrokerSettingIsHostAndOptionalPort) {
  const struct {
    std::string text;
    bool tls;
    std::string parsed;  // "host port" or "" when refused
  } cases[] = {
      {"broker.lan", true, "broker.lan 8883"},
      {" 198.51.100.9:1884 ", false, "198.51.100.9 1884"},
      {"[2001:db8::1]:1885", false, "2001:db8::1 1885"},
      {"2001:db8::1", false, "2001:db8::1 1883"},
      {"broker:65536", false, ""},
      {":1883", false, ""},
  };
  for (const auto& c : cases) {
    const auto broker = MqttLink::ParseBroker(c.text, c.tls);
    EXPECT_EQ(broker ? broker->first + " " + std::to_string(broker->second) : "", c.parsed) << c.text;
  }
}

}  // namespace
}  // namespace tavrel
