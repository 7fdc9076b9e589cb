#include "mqtt/MqttLink.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/Text.h"

namespace tavrel {
namespace {

// The library's global state, set up once for the program's run.
struct Library {
  Library() { mosquitto_lib_init(); }
  ~Library() { mosquitto_lib_cleanup(); }
};

std::string ErrorText(int rc) {
  return rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : std::string(mosquitto_strerror(rc));
}

}  // namespace

std::optional<std::pair<std::string, int>> MqttLink::ParseBroker(std::string_view text, bool tls) {
  std::string host(Trim(text));
  std::string port;
  if (host.starts_with("[")) {
    const size_t close = host.find(']');
    if (close == std::string::npos) return std::nullopt;
    if (close + 1 < host.size()) {
      if (host[close + 1] != ':') return std::nullopt;
      port = host.substr(close + 2);
    }
    host = host.substr(1, close - 1);
  } else if (const size_t colon = host.find(':');
             colon != std::string::npos && host.find(':', colon + 1) == std::string::npos) {
    port = host.substr(colon + 1);
    host.resize(colon);
  }
  long long number = tls ? 8883 : 1883;
  if (host.empty() || (!port.empty() && !ParseInt(port, 1, 65535, number))) return std::nullopt;
  return std::pair{host, static_cast<int>(number)};
}

MqttLink::MqttLink(asio::io_context& io, TimerFactory& timers, Reporter& reporter, Settings settings,
                   Events events)
    : io_(io),
      reporter_(reporter),
      settings_(std::move(settings)),
      events_(std::move(events)),
      resolver_(io),
      retry_(timers.Create()),
      keepAlive_(timers.Create()) {
  static Library library;
  mosq_ = mosquitto_new(settings_.clientId.c_str(), true, this);
  if (!mosq_) throw std::runtime_error("MQTT: cannot create a client");
  mosquitto_connect_callback_set(
      mosq_, [](mosquitto*, void* self, int rc) { static_cast<MqttLink*>(self)->OnConnect(rc); });
  mosquitto_message_callback_set(mosq_, [](mosquitto*, void* self, const mosquitto_message* message) {
    if (message) static_cast<MqttLink*>(self)->OnMessage(*message);
  });
  mosquitto_will_set(mosq_, settings_.willTopic.c_str(), 7, "offline", 1, true);
  if (!settings_.user.empty())
    mosquitto_username_pw_set(mosq_, settings_.user.c_str(),
                              settings_.password.empty() ? nullptr : settings_.password.c_str());
  if (!settings_.caFile.empty()) {
    const int rc = mosquitto_tls_set(mosq_, settings_.caFile.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (rc != MOSQ_ERR_SUCCESS)
      reporter_.WriteLog(kModule,
                         "MQTT: cannot use MQTTTLSCAFile " + settings_.caFile + ": " + ErrorText(rc));
  }
}

MqttLink::~MqttLink() {
  Unwatch();
  mosquitto_destroy(mosq_);
}

std::string MqttLink::Broker() const { return settings_.host + ":" + std::to_string(settings_.port); }

void MqttLink::Start() {
  // The library's keep-alive: a ping when the line has been quiet, a drop when the broker stopped answering.
  keepAlive_->StartRepeating(std::chrono::seconds(5), [this] {
    if (!socket_) return;
    After(mosquitto_loop_misc(mosq_));
  });
  Connect();
}

void MqttLink::Connect() {
  if (closed_) return;
  refused_ = 0;
  std::weak_ptr<int> life = life_;
  resolver_.async_resolve(
      settings_.host, std::to_string(settings_.port),
      [this, life](const std::error_code& ec, const asio::ip::tcp::resolver::results_type& found) {
        if (life.expired() || ec == asio::error::operation_aborted) return;
        if (ec || found.empty()) {
          Fail("cannot find " + settings_.host + ": " + ec.message());
        } else {
          ConnectTo(found.begin()->endpoint().address().to_string());
        }
      });
}

void MqttLink::ConnectTo(const std::string& address) {
  const std::string& target = settings_.caFile.empty() ? address : settings_.host;
  const int rc = mosquitto_connect_async(mosq_, target.c_str(), settings_.port, kKeepAliveSeconds);
  if (rc != MOSQ_ERR_SUCCESS) return Fail(ErrorText(rc));
  // A connection that neither completes nor fails (a host that drops what we send) counts as failed.
  retry_->Start(std::chrono::seconds(kKeepAliveSeconds), [this] { Fail("no answer"); });
  Watch();
}

void MqttLink::Watch() {
  const int fd = mosquitto_socket(mosq_);
  if (fd < 0) return Fail("no connection");
  Unwatch();
  socket_.emplace(io_, fd);
  Arm();
}

// Before the library closes or replaces its socket, so Asio never watches a number that was reused.
void MqttLink::Unwatch() {
  ++watch_;
  reading_ = writing_ = false;
  if (!socket_) return;
  socket_->release();
  socket_.reset();
}

void MqttLink::Arm() {
  if (!socket_) return;
  std::weak_ptr<int> life = life_;
  const unsigned watch = watch_;
  auto ready = [this, life, watch](bool write) {
    return [this, life, watch, write](const std::error_code& ec) {
      if (life.expired() || watch != watch_) return;
      (write ? writing_ : reading_) = false;
      if (ec) return Fail(ec.message());
      After(write ? mosquitto_loop_write(mosq_, 1) : mosquitto_loop_read(mosq_, 1));
    };
  };
  if (!reading_) {
    reading_ = true;
    socket_->async_wait(asio::posix::stream_descriptor::wait_read, ready(false));
  }
  if (!writing_ && mosquitto_want_write(mosq_)) {
    writing_ = true;
    socket_->async_wait(asio::posix::stream_descriptor::wait_write, ready(true));
  }
}

// After each step of the library: watch on, or, when it dropped the connection, try again later.
void MqttLink::After(int rc) {
  if (closed_) return;
  if (rc == MOSQ_ERR_SUCCESS && mosquitto_socket(mosq_) >= 0) return Arm();
  if (refused_ != 0)
    return Fail(std::string("the broker refused the login: ") + mosquitto_connack_string(refused_));
  Fail(rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_CONN_LOST ? "connection lost" : ErrorText(rc));
}

void MqttLink::Fail(const std::string& reason) {
  Unwatch();
  if (closed_) return;
  const bool wasUp = connected_;
  connected_ = false;
  if (!failing_) {
    failing_ = true;
    std::string why = reason;  // the library's texts end with a full stop
    if (why.ends_with('.')) why.pop_back();
    reporter_.WriteLog(kModule,
                       std::string(wasUp ? "MQTT: lost the broker " : "MQTT: cannot connect to the broker ") +
                           Broker() + ": " + why + "; trying again, at most every minute");
  }
  retry_->Start(backoff_, [this] { Connect(); });
  backoff_ = std::min(backoff_ * 2, std::chrono::seconds(60));
}

void MqttLink::OnConnect(int rc) {
  if (rc != 0) {
    refused_ = rc;
    return;
  }
  retry_->Stop();
  connected_ = true;
  backoff_ = std::chrono::seconds(1);
  if (failing_ || !wasConnected_)
    reporter_.WriteLog(kModule,
                       "MQTT: connected to the broker " + Broker() + (wasConnected_ ? " again" : ""));
  failing_ = false;
  wasConnected_ = true;
  if (events_.connected) events_.connected();
}

void MqttLink::OnMessage(const mosquitto_message& message) {
  if (!events_.message || !message.topic) return;
  const char* payload = static_cast<const char*>(message.payload);
  events_.message(message.topic,
                  std::string(payload ? payload : "", payload ? static_cast<size_t>(message.payloadlen) : 0),
                  message.retain);
}

void MqttLink::Publish(const MqttMessage& message) {
  if (!connected_) return;
  mosquitto_publish(mosq_, nullptr, message.topic.c_str(), static_cast<int>(message.payload.size()),
                    message.payload.data(), 0, message.retain);
  Arm();
}

void MqttLink::Subscribe(const std::string& filter) {
  if (!connected_) return;
  mosquitto_subscribe(mosq_, nullptr, filter.c_str(), 0);
  Arm();
}

void MqttLink::Close() {
  if (closed_) return;
  if (connected_) {
    mosquitto_publish(mosq_, nullptr, settings_.willTopic.c_str(), 7, "offline", 1, true);
    mosquitto_disconnect(mosq_);
  }
  closed_ = true;
  connected_ = false;
  retry_->Stop();
  keepAlive_->Stop();
  resolver_.cancel();
  Unwatch();
}

}  // namespace tavrel
