#include "mqtt/Mqtt.h"

namespace tavrel {

// This build has no MQTT client library.
std::unique_ptr<MqttService> StartMqtt(MqttContext ctx) {
  if (!ctx.settings.broker.empty())
    ctx.reporter.WriteLog(kModule, "MQTT: MQTTBroker is set, but MQTT is not available on Windows");
  return nullptr;
}

}  // namespace tavrel
