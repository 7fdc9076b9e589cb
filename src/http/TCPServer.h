#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <asio/io_context.hpp>

#include "http/TCPServerModule.h"

namespace tavrel {

// The web server's sockets: the listener on "HTTPPort" and the connection sockets behind the slots of
// TCPServerModule. Every socket event becomes one of the module's Socket_ calls; everything runs on
// the one thread of the io_context.
class TCPServer final : public TCPServerModule {
 public:
  struct Settings {
    // "HTTPPort" of section "WOL" as written (HttpPortText, HttpPortNumber read it). Empty, or no
    // number, means no listener.
    std::string httpPort = "8019";
    // "HSAddress" and "HSWebPort" of section "WOL": where everything not ours is redirected.
    std::string hsAddress = "127.0.0.1";
    std::string hsWebPort = "80";
    // The address the listener binds; tests use 127.0.0.1.
    std::string listenAddress = "0.0.0.0";
    // False when no "HSAddress" is set: the web root then leads to the page.
    bool hsNamed = true;
  };

  // log is the server log stream under --debug, else null; pages may also be set later.
  TCPServer(asio::io_context& io, TimerFactory& timers, const Clock& clock, Reporter& reporter,
            std::filesystem::path htmlFolder, Settings settings, ServerLog* log, PageHandler* pages,
            Guard* guard = nullptr, ApiHandler* api = nullptr);
  ~TCPServer() override;

  // Starts listening on the port setting; false (reported, unless the setting asks for no listener)
  // when nothing listens.
  bool Form_Load();
  // Closes the listener and every connection; may be called again.
  void Form_Unload();

  bool Listening() const { return localPort_ != 0; }
  int LocalPort() const { return localPort_; }

 private:
  struct Listener;
  class TcpSlot;

  std::shared_ptr<ConnectionSlot> CreateSlot(int index, ConnectionSlot::Owner& owner) override;
  void StartAccept();

  asio::io_context& io_;
  Settings settings_;
  std::shared_ptr<Listener> listener_;
  std::unique_ptr<Timer> acceptRetry_;
  bool acceptFailing_ = false;
  int localPort_ = 0;
};

}  // namespace tavrel
