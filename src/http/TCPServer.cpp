#include "http/TCPServer.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <stdexcept>
#include <utility>

#include <asio/ip/tcp.hpp>

#include "core/Text.h"
#include "settings/Settings.h"

namespace tavrel {

namespace {

using asio::ip::tcp;

constexpr auto kAcceptRetry = std::chrono::milliseconds(100);

}  // namespace

struct TCPServer::Listener {
  explicit Listener(asio::io_context& io) : acceptor(io) {}
  tcp::acceptor acceptor;
  TCPServer* server = nullptr;
};

// One connection socket. Handlers hold the slot while an operation is pending and do nothing once the
// server has let go of it or the slot has moved on to another connection.
class TCPServer::TcpSlot final : public ConnectionSlot, public std::enable_shared_from_this<TcpSlot> {
 public:
  TcpSlot(asio::io_context& io, int index, Owner& owner, TimerFactory& timers, TCPServerModule& server)
      : ConnectionSlot(index, owner, timers), socket_(io), server_(&server) {}

  void Accept(tcp::socket socket) {
    ++generation_;
    socket_ = std::move(socket);
    std::error_code ec;
    socket_.non_blocking(true, ec);
    const auto peer = socket_.remote_endpoint(ec);
    Opened(ec ? std::string() : peer.address().to_string());
    WaitRead();
  }

  void Detach() { server_ = nullptr; }

 private:
  bool Current(unsigned generation) const { return server_ && generation == generation_; }

  // Reads on readiness, taking what is waiting as one packet (at most one byte over the limit, so the
  // queue can tell an oversized one).
  void WaitRead() {
    socket_.async_wait(tcp::socket::wait_read,
                       [self = shared_from_this(), gen = generation_](const std::error_code& ec) {
                         if (!self->Current(gen) || ec == asio::error::operation_aborted) return;
                         if (ec) {
                           self->server_->Socket_Close(self->Index());
                           return;
                         }
                         self->ReadWaiting();
                       });
  }

  void ReadWaiting() {
    std::error_code ec;
    const size_t waiting = socket_.available(ec);
    std::string data(std::clamp<size_t>(waiting, 1, Request::kMaxPacket + 1), '\0');
    const size_t n = socket_.read_some(asio::buffer(data), ec);
    if (ec == asio::error::would_block || ec == asio::error::try_again) {
      WaitRead();
      return;
    }
    if (ec) {  // the client closed (end of file) or the connection broke
      server_->Socket_Close(Index());
      return;
    }
    data.resize(n);
    const unsigned gen = generation_;
    server_->Socket_DataArrival(Index(), std::move(data));
    if (Current(gen) && State() == kConnected) WaitRead();
  }

  // One write of what the socket takes now, so every bit of progress reaches the slot's time-out.
  void StartWrite(std::string_view bytes, std::shared_ptr<const std::string> owner) override {
    // The operation holds the bytes' owner, so a close while it is pending frees nothing it uses.
    socket_.async_write_some(asio::buffer(bytes.data(), bytes.size()),
                             [self = shared_from_this(), gen = generation_, owner = std::move(owner)](
                                 const std::error_code& ec, size_t n) {
                               if (!self->Current(gen) || ec == asio::error::operation_aborted) return;
                               if (ec) {
                                 self->server_->Socket_Close(self->Index());
                                 return;
                               }
                               self->Wrote(n);
                             });
  }

  void CloseSocket() override {
    ++generation_;
    std::error_code ec;
    socket_.close(ec);
  }

  tcp::socket socket_;
  TCPServerModule* server_;
  unsigned generation_ = 0;
};

TCPServer::TCPServer(asio::io_context& io, TimerFactory& timers, const Clock& clock, Reporter& reporter,
                     std::filesystem::path htmlFolder, Settings settings, ServerLog* log, PageHandler* pages,
                     Guard* guard, ApiHandler* api)
    : TCPServerModule(Context{std::move(htmlFolder), clock, reporter, timers, log, settings.hsAddress,
                              settings.hsWebPort, pages, settings.hsNamed, guard, api}),
      io_(io),
      settings_(std::move(settings)),
      acceptRetry_(timers.Create()) {}

TCPServer::~TCPServer() { Form_Unload(); }

bool TCPServer::Form_Load() {
  try {
    const std::string port = HttpPortText(settings_.httpPort);
    const long value = HttpPortNumber(port);
    if (port.empty() || value == localPort_) return Listening();
    if (value > 65535) throw std::invalid_argument("HTTPPort " + port + " is not a port");
    auto listener = std::make_shared<Listener>(io_);
    const tcp::endpoint endpoint(asio::ip::make_address(settings_.listenAddress),
                                 static_cast<unsigned short>(value));
    listener->acceptor.open(endpoint.protocol());
    listener->acceptor.set_option(tcp::acceptor::reuse_address(true));
    listener->acceptor.bind(endpoint);
    listener->acceptor.listen();
    Form_Unload();
    listener->server = this;
    listener_ = std::move(listener);
    localPort_ = static_cast<int>(value);
    CreateSockets();
    StartAccept();
    return true;
  } catch (const std::exception& e) {
    reporter().ReportEvent(kModule, "Server Form_Load ", Err::From(e));
    return false;
  }
}

void TCPServer::StartAccept() {
  listener_->acceptor.async_accept([listener = listener_](const std::error_code& ec, tcp::socket socket) {
    TCPServer* server = listener->server;
    if (!server || ec == asio::error::operation_aborted) return;
    if (ec) {
      // Out of descriptors, say: try again shortly instead of spinning on the failure.
      if (!server->acceptFailing_) {
        server->acceptFailing_ = true;
        server->reporter().ReportEvent(kModule, "socket_ConnectionRequest ",
                                       Err{ec.value(), ec.message(), 0});
      }
      server->acceptRetry_->Start(kAcceptRetry, [server] { server->StartAccept(); });
      return;
    }
    server->acceptFailing_ = false;
    const int index = server->Socket_ConnectionRequest(std::to_string(socket.native_handle()));
    if (index > 0) {
      static_cast<TcpSlot*>(server->Slot(index))->Accept(std::move(socket));
    } else {
      std::error_code ignored;
      socket.close(ignored);
    }
    server->StartAccept();
  });
}

std::shared_ptr<ConnectionSlot> TCPServer::CreateSlot(int index, ConnectionSlot::Owner& owner) {
  return std::make_shared<TcpSlot>(io_, index, owner, timers(), *this);
}

void TCPServer::Form_Unload() {
  acceptRetry_->Stop();
  if (listener_) {
    listener_->server = nullptr;
    std::error_code ignored;
    listener_->acceptor.close(ignored);
    listener_.reset();
  }
  for (int i = 1; i <= SocketsDefined(); ++i) static_cast<TcpSlot*>(Slot(i))->Detach();
  CloseAll();
  localPort_ = 0;
}

}  // namespace tavrel
