#pragma once

#include <memory>
#include <string>

#include "mqtt/HomeAssistant.h"
#include "mqtt/Mqtt.h"
#include "mqtt/MqttLink.h"

namespace tavrel {

// The computer table in the hub: announces every computer on connect and when the hub comes back,
// publishes what changed (changes of the table gathered for a moment, and a look every few seconds for
// computers that went away with no change at all), and carries out the hub's button presses through the
// page's own actions.
class MqttBridge final : public MqttService {
 public:
  static constexpr std::chrono::milliseconds kGather{250};
  static constexpr std::chrono::seconds kLook{10};

  MqttBridge(MqttContext ctx, const std::string& host, int port);
  ~MqttBridge() override;
  void Stop() override;

 private:
  void Connected();
  void Changed();
  void Publish(bool all);
  void Received(const std::string& topic, const std::string& payload, bool retained);

  MqttContext ctx_;
  HomeAssistant hub_;
  MqttLink link_;
  std::unique_ptr<Timer> gather_, look_;
};

}  // namespace tavrel
