#pragma once

#include <memory>
#include <string>

#include "core/Reporter.h"
#include "core/Timer.h"
#include "pages/RemoteASP.h"
#include "settings/ComputerRegistry.h"
#include "settings/Settings.h"

namespace asio {
class io_context;
}

namespace tavrel {

// What the MQTT link works with: the computers it announces, and the page's own actions for its buttons.
struct MqttContext {
  asio::io_context& io;
  TimerFactory& timers;
  ComputerRegistry& computers;
  Reporter& reporter;
  PageActions actions;
  std::string nodeName;  // this machine's name: the device in the hub
  MqttSettings settings;
};

// The computers in a home-automation hub over MQTT, for as long as the program runs.
class MqttService {
 public:
  virtual ~MqttService() = default;
  // Says "offline" and disconnects, at once.
  virtual void Stop() = 0;
};

// Starts the link when "MQTTBroker" is set; nothing when it is empty, or where MQTT is not available (then
// with one log line saying so).
std::unique_ptr<MqttService> StartMqtt(MqttContext ctx);

}  // namespace tavrel
