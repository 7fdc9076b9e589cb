#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include "core/Reporter.h"
#include "core/Timer.h"
#include "mqtt/HomeAssistant.h"

struct mosquitto;
struct mosquitto_message;

namespace tavrel {

// One connection to an MQTT broker through libmosquitto, driven by the loop: Asio watches the library's
// socket for readiness and calls its read and write steps, a timer of ours runs its keep-alive, and no
// thread of its own is ever started. A broker that cannot be reached, refuses the login or goes away is
// tried again after 1 s, then after twice as long each time up to a minute; the first failure and the
// recovery are logged, not every attempt. Nothing is queued while there is no connection.
//
// Connecting never waits on the network: the broker's name is looked up with Asio's resolver and the
// address handed to the library's non-blocking connect. With TLS the library must be given the name
// itself (it checks the certificate against it) and looks it up once more, blocking; our own lookup just
// before makes that quick, and a name that does not resolve never reaches it.
class MqttLink {
 public:
  struct Settings {
    std::string host;
    int port = 1883;
    std::string user, password, caFile, clientId;
    std::string willTopic;  // takes "offline" (retained) when the connection drops
  };
  struct Events {
    std::function<void()> connected;
    std::function<void(const std::string& topic, const std::string& payload, bool retained)> message;
  };

  // host[:port] ("[v6]:port" for an IPv6 address); the port defaults to 1883, or 8883 with TLS. Nothing for
  // an empty host or a port that is no number from 1 to 65535.
  static std::optional<std::pair<std::string, int>> ParseBroker(std::string_view text, bool tls);

  MqttLink(asio::io_context& io, TimerFactory& timers, Reporter& reporter, Settings settings, Events events);
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  void Start();
  bool Connected() const { return connected_; }
  // Sent while connected; dropped otherwise (what matters is sent again on the next connect).
  void Publish(const MqttMessage& message);
  void Subscribe(const std::string& filter);
  // A clean goodbye: "offline" on the will topic and the disconnect written at once, so they leave even
  // when the loop stops right after.
  void Close();

 private:
  static constexpr int kKeepAliveSeconds = 30;

  void Connect();
  void ConnectTo(const std::string& address);
  void Watch();
  void Unwatch();
  void Arm();
  void After(int rc);
  void Fail(const std::string& reason);
  void OnConnect(int rc);
  void OnMessage(const mosquitto_message& message);
  std::string Broker() const;

  asio::io_context& io_;
  Reporter& reporter_;
  Settings settings_;
  Events events_;
  mosquitto* mosq_ = nullptr;
  asio::ip::tcp::resolver resolver_;
  // libmosquitto's socket, watched but never closed by us: released before the library closes it.
  std::optional<asio::posix::stream_descriptor> socket_;
  unsigned watch_ = 0;
  bool reading_ = false, writing_ = false;
  std::unique_ptr<Timer> retry_, keepAlive_;
  std::chrono::seconds backoff_{1};
  bool connected_ = false, wasConnected_ = false, failing_ = false, closed_ = false;
  int refused_ = 0;
  // Handlers that outlive the link (a lookup or a wait cancelled by its end) see it gone.
  std::shared_ptr<int> life_ = std::make_shared<int>(0);
};

}  // namespace tavrel
