#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "settings/Hs.h"

namespace tavrel {

// The settings file of the xAP interface, in the Config folder.
inline constexpr std::string_view kXapIniFile = "zelXap.ini";

// Section "WOL" of tavrel.ini: the web server and its page, the LAN scan and the script pages. A key that
// is missing or empty reads as its default. The file is read as it stands at that moment (a user may edit
// it while the program runs); the keys with their defaults and readings are one table in Settings.cpp.
struct WolSettings {
  std::string httpPort;                 // "HTTPPort" as written; read by HttpPortText and HttpPortNumber
  std::string httpAllow;                // "HTTPAllow": who may connect ("" = this machine's networks)
  std::string httpHosts;                // "HTTPHosts": host names the page answers to besides this machine's
  std::string passwordHash;             // "HTTPPasswordHash": the page's password ("" = none)
  std::string hsAddress;                // "HSAddress": the home-automation web server ("" = none named)
  std::string hsWebPort;                // "HSWebPort"
  bool scriptPages = false;             // "ScriptPages" is 1
  std::optional<long> scriptTimeoutMs;  // "ScriptTimeout"; nothing when it is no number from -1 up
  std::string subnet;                   // "Subnet", the list as written ("" = this machine's /24)
  std::string scanMethod;               // "ScanMethod" trimmed, in lower case ("" = the platform's choice)
  int scanInterval = 0;  // "ScanInterval": seconds between presence sweeps (0 = none, else >= 10)
  int awayAfter = 180;   // "AwayAfter": seconds a computer stays seen after its last answer
  std::string sort;      // "Sort", the page's sort column
  std::string sortDir;   // "SortDir"
};

// Section "Interface" of zelXap.ini: where the xAP node listens and sends.
struct InterfaceSettings {
  std::string interfaceAddress;  // "InterfaceAddress"; "Default": the first network adapter's
  std::string broadcastAddress;  // "BroadcastAddress"; "Default": 255.255.255.255
  int port = 3639;               // "Port"
  std::string refusedPort;       // the "Port" text when it is no port number (port keeps its default)
};

WolSettings ReadWolSettings(const Hs& hs);

// An "HTTPPort" text as the web server reads it: double quotes removed; empty means no web server.
std::string HttpPortText(std::string_view httpPort);
// The port it names: after leading blanks, the digits up to the first other character; 0 when none.
long HttpPortNumber(std::string_view httpPort);

InterfaceSettings ReadInterfaceSettings(const Hs& hs);

// Section "MQTT" of tavrel.ini: the broker that carries the computers to a home-automation hub.
struct MqttSettings {
  std::string broker;           // "MQTTBroker": host[:port] ("" = off)
  std::string user;             // "MQTTUser"
  std::string password;         // "MQTTPassword"
  std::string tlsCaFile;        // "MQTTTLSCAFile": TLS when set
  std::string prefix;           // "MQTTPrefix": our own topics
  std::string discoveryPrefix;  // "MQTTDiscoveryPrefix": where the hub looks for announcements
};

MqttSettings ReadMqttSettings(const Hs& hs);

}  // namespace tavrel
