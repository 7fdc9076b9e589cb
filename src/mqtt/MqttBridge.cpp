#include "mqtt/MqttBridge.h"

#include <utility>

namespace tavrel {

std::unique_ptr<MqttService> StartMqtt(MqttContext ctx) {
  const MqttSettings& s = ctx.settings;
  if (s.broker.empty()) return nullptr;
  const auto broker = MqttLink::ParseBroker(s.broker, !s.tlsCaFile.empty());
  if (!broker) {
    ctx.reporter.WriteLog(
        kModule, "MQTT: MQTTBroker " + s.broker + " names no broker (host or host:port); MQTT is off");
    return nullptr;
  }
  for (const std::string* prefix : {&s.prefix, &s.discoveryPrefix}) {
    if (prefix->empty() || prefix->find_first_of("+#") != std::string::npos) {
      ctx.reporter.WriteLog(kModule, "MQTT: " + *prefix + " is no topic prefix; MQTT is off");
      return nullptr;
    }
  }
  return std::make_unique<MqttBridge>(std::move(ctx), broker->first, broker->second);
}

MqttBridge::MqttBridge(MqttContext ctx, const std::string& host, int port)
    : ctx_(std::move(ctx)),
      hub_(ctx_.nodeName, ctx_.settings.prefix, ctx_.settings.discoveryPrefix),
      link_(
          ctx_.io, ctx_.timers, ctx_.reporter,
          MqttLink::Settings{host, port, ctx_.settings.user, ctx_.settings.password, ctx_.settings.tlsCaFile,
                             "tavrel-" + HomeAssistant::Sanitised(ctx_.nodeName), hub_.AvailabilityTopic()},
          MqttLink::Events{[this] { Connected(); },
                           [this](const std::string& topic, const std::string& payload, bool retained) {
                             Received(topic, payload, retained);
                           }}),
      gather_(ctx_.timers.Create()),
      look_(ctx_.timers.Create()) {
  ctx_.computers.OnChange([this] { Changed(); });
  look_->StartRepeating(kLook, [this] { Publish(false); });
  link_.Start();
}

MqttBridge::~MqttBridge() { ctx_.computers.OnChange(nullptr); }

void MqttBridge::Stop() {
  ctx_.computers.OnChange(nullptr);
  gather_->Stop();
  look_->Stop();
  link_.Close();
}

void MqttBridge::Connected() {
  link_.Publish({hub_.AvailabilityTopic(), "online", true});
  link_.Subscribe(hub_.HubStatusTopic());
  for (const std::string& filter : hub_.CommandFilters()) link_.Subscribe(filter);
  Publish(true);
}

// The table may change many times a second (every xAP message refreshes a sender): one look for them all.
void MqttBridge::Changed() {
  if (!gather_->Armed()) gather_->Start(kGather, [this] { Publish(false); });
}

void MqttBridge::Publish(bool all) {
  // While there is no broker nothing is compared: the next connect sends everything.
  if (!link_.Connected()) return;
  for (const MqttMessage& message : hub_.Update(ctx_.computers.Rows(), all)) link_.Publish(message);
}

void MqttBridge::Received(const std::string& topic, const std::string& payload, bool retained) {
  // A retained press would act again at every connect; a retained "online" is the hub's old news.
  if (retained) return;
  if (topic == hub_.HubStatusTopic()) {
    if (payload == "online") Publish(true);
    return;
  }
  HomeAssistant::Command command;
  switch (hub_.Parse(topic, command)) {
    case HomeAssistant::Parsed::NotOurs:
      return;
    case HomeAssistant::Parsed::Unknown:
      ctx_.reporter.WriteLog(kModule, "MQTT: no such computer or button: " + topic + "; ignored");
      return;
    case HomeAssistant::Parsed::Command:
      break;
  }
  const PageActions& act = ctx_.actions;
  if (!command.button) {
    // As the page, which offers no "Query LAN" while a scan runs.
    if (act.QueryLAN && !(act.ProcessExists && act.ProcessExists())) act.QueryLAN();
  } else if (*command.button == HomeAssistant::Button::Wake) {
    if (act.SendWOL) act.SendWOL(command.computer->mac, command.computer->ip);
  } else if (act.SendComputerControl) {
    act.SendComputerControl(command.computer->name,
                            *command.button == HomeAssistant::Button::Reboot ? "Reboot" : "Shutdown");
  }
}

}  // namespace tavrel
