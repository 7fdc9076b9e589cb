#include "settings/Settings.h"

#include <cctype>
#include <climits>

#include "core/Text.h"

namespace tavrel {

namespace {

// One key of a section: its name, the text it has when missing or empty, and how that text is read.
template <class Section>
struct Key {
  std::string_view name;
  std::string_view fallback;
  void (*read)(Section&, std::string text);
};

std::optional<long> Milliseconds(const std::string& text) {
  long long value = 0;
  // -1 is the script engine's "no time-out".
  if (!ParseInt(Trim(text), -1, LONG_MAX, value)) return std::nullopt;
  return static_cast<long>(value);
}

// Whole seconds from lowest up; anything else reads as fallback.
int Seconds(const std::string& text, long long lowest, int fallback) {
  long long value = 0;
  if (!ParseInt(Trim(text), lowest, 86400LL * 365, value)) return fallback;
  return static_cast<int>(value);
}

constexpr Key<WolSettings> kWolKeys[] = {
    {"HTTPPort", "8019", [](WolSettings& s, std::string t) { s.httpPort = std::move(t); }},
    {"HTTPAllow", "", [](WolSettings& s, std::string t) { s.httpAllow = std::move(t); }},
    {"HTTPHosts", "", [](WolSettings& s, std::string t) { s.httpHosts = std::move(t); }},
    {"HTTPPasswordHash", "", [](WolSettings& s, std::string t) { s.passwordHash = std::move(t); }},
    {"HSAddress", "", [](WolSettings& s, std::string t) { s.hsAddress = std::move(t); }},
    {"HSWebPort", "80", [](WolSettings& s, std::string t) { s.hsWebPort = std::move(t); }},
    {"ScriptPages", "0", [](WolSettings& s, std::string t) { s.scriptPages = t == "1"; }},
    {"ScriptTimeout", "60000", [](WolSettings& s, std::string t) { s.scriptTimeoutMs = Milliseconds(t); }},
    {"Subnet", "", [](WolSettings& s, std::string t) { s.subnet = std::move(t); }},
    {"ScanMethod", "", [](WolSettings& s, std::string t) { s.scanMethod = LCase(Trim(t)); }},
    // A presence sweep more often than every 10 s would only load the network.
    {"ScanInterval", "0",
     [](WolSettings& s, std::string t) {
       s.scanInterval = Seconds(t, 0, 0);
       if (s.scanInterval > 0 && s.scanInterval < 10) s.scanInterval = 10;
     }},
    {"AwayAfter", "180", [](WolSettings& s, std::string t) { s.awayAfter = Seconds(t, 1, 180); }},
    {"Sort", "Name", [](WolSettings& s, std::string t) { s.sort = std::move(t); }},
    {"SortDir", "ASC", [](WolSettings& s, std::string t) { s.sortDir = std::move(t); }},
};

constexpr Key<InterfaceSettings> kInterfaceKeys[] = {
    {"InterfaceAddress", "Default",
     [](InterfaceSettings& s, std::string t) { s.interfaceAddress = std::move(t); }},
    {"BroadcastAddress", "Default",
     [](InterfaceSettings& s, std::string t) { s.broadcastAddress = std::move(t); }},
    {"Port", "3639",
     [](InterfaceSettings& s, std::string t) {
       long long value = 0;
       if (ParseInt(Trim(t), 1, 65535, value)) {
         s.port = static_cast<int>(value);
       } else {
         s.refusedPort = std::move(t);
       }
     }},
};

constexpr Key<MqttSettings> kMqttKeys[] = {
    {"MQTTBroker", "", [](MqttSettings& s, std::string t) { s.broker = Trim(t); }},
    {"MQTTUser", "", [](MqttSettings& s, std::string t) { s.user = std::move(t); }},
    {"MQTTPassword", "", [](MqttSettings& s, std::string t) { s.password = std::move(t); }},
    {"MQTTTLSCAFile", "", [](MqttSettings& s, std::string t) { s.tlsCaFile = Trim(t); }},
    {"MQTTPrefix", "tavrel", [](MqttSettings& s, std::string t) { s.prefix = Trim(t); }},
    {"MQTTDiscoveryPrefix", "homeassistant",
     [](MqttSettings& s, std::string t) { s.discoveryPrefix = Trim(t); }},
};

template <class Section, size_t N>
Section ReadSection(const Hs& hs, std::string_view section, std::string_view file,
                    const Key<Section> (&keys)[N]) {
  const Hs::Pin pin(hs);  // the file looked at on disk once for all its keys
  Section settings;
  for (const Key<Section>& key : keys)
    key.read(settings, hs.GetINISetting(section, key.name, key.fallback, file));
  return settings;
}

}  // namespace

WolSettings ReadWolSettings(const Hs& hs) { return ReadSection(hs, "WOL", kIniFile, kWolKeys); }

std::string HttpPortText(std::string_view httpPort) { return Replace(httpPort, "\"", ""); }

long HttpPortNumber(std::string_view httpPort) {
  const std::string text = HttpPortText(httpPort);
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && value < 1000000; ++i) {
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

InterfaceSettings ReadInterfaceSettings(const Hs& hs) {
  return ReadSection(hs, "Interface", kXapIniFile, kInterfaceKeys);
}

MqttSettings ReadMqttSettings(const Hs& hs) { return ReadSection(hs, "MQTT", kIniFile, kMqttKeys); }

}  // namespace tavrel
