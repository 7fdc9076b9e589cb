#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>

#include "xap/XapNode.h"

namespace tavrel {

// The xAP node's sockets: the listening socket and the sending one. Datagrams are read when a socket is
// ready, between the node's callbacks, never inside one; while the node's queue is full the sockets are
// left unread. Everything runs on the one thread of the io_context.
//
// Behind a hub the node listens on a port of its own and tries every 10 s to take the xAP port; once the
// hub has gone it takes it, closes its own and serves the network directly, as a node started without a
// hub does.
class XapTransport final : private DatagramSink, public XapNode {
 public:
  // Where the search for a free listening port starts when the xAP port is taken (a hub runs here).
  static constexpr int kFirstFallbackPort = 32768;
  static constexpr int kFallbackAttempts = 200;
  static constexpr std::chrono::seconds kTakeoverInterval{10};

  XapTransport(asio::io_context& io, Reporter& reporter, TimerFactory& timers);
  ~XapTransport() override;
  XapTransport(const XapTransport&) = delete;
  XapTransport& operator=(const XapTransport&) = delete;

  // Fixes the broadcast target, binds the listening socket (the xAP port on every address, else the
  // first free port from 32768 on, on 127.0.0.1 only, where a hub relays to), opens the sending socket
  // and starts receiving; behind a hub, arms the tries for the xAP port. Returns the bound port; 0 when
  // no port could be bound, negative when the broadcast address or the sending socket is unusable.
  long Init();

  // This node's address: the interface address when one is set, else the primary adapter's IPv4
  // address, else 127.0.0.1.
  std::string LocalIP() const;

  // Stops the timers and closes both sockets; may be called again.
  void Close();

 private:
  struct Receiver {
    explicit Receiver(asio::io_context& io) : socket(io), buffer(65536) {}
    asio::ip::udp::socket socket;
    asio::ip::udp::endpoint from;
    std::vector<char> buffer;
    bool waiting = false;
  };

  Err SendDatagram(std::string_view text) override;
  void Drained() override;
  std::shared_ptr<Receiver> OpenListener(const asio::ip::address_v4& address, int port);
  void TakeXapPort();
  bool OpenSender(std::error_code& ec);
  void CloseSockets();
  void StartReceive(const std::shared_ptr<Receiver>& receiver);
  void ReadWaiting(Receiver& receiver);

  asio::io_context& io_;
  asio::ip::udp::endpoint broadcastEndpoint_;
  std::shared_ptr<Receiver> listener_;
  std::shared_ptr<Receiver> sender_;
  std::unique_ptr<Timer> takeoverTimer_;
};

}  // namespace tavrel
