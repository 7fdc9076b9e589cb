#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Reporter.h"
#include "core/Text.h"
#include "core/Timer.h"
#include "http/ConnectionSlot.h"
#include "http/Guard.h"
#include "http/Request.h"
#include "http/RequestQueue.h"
#include "http/Response.h"
#include "http/ServerLog.h"

namespace tavrel {

// The program's own pages, above the HTTP layer; the application hands one to the server.
class PageHandler {
 public:
  virtual ~PageHandler() = default;
  // The page "\wol" or "\stat": the text to answer with, or "" to send nothing.
  virtual std::string RemotePage(Request& request, Response& response) = 0;
};

// The JSON interface under "/api/", above the HTTP layer as the pages are.
class ApiHandler {
 public:
  virtual ~ApiHandler() = default;
  // Answers one request for a path under "/api/" through response.
  virtual void ServeApi(const Request& request, Response& response) = 0;
};

// The web server's rules, without a socket: the connection slots with their growth rule and round-robin
// cursor, the request queue with its 50 ms ServerTimer, and ProcessRequestQueue, which routes each
// queued packet to a static file, the program's pages, the JSON interface or the HomeSeer redirect. The
// sockets around it live in TCPServer.
class TCPServerModule : private ConnectionSlot::Owner {
 public:
  // Socket 0 is the listener; connections get 1 to kMaxSocketIndex.
  static constexpr int kMaxSocketIndex = 100;
  static constexpr int kFirstSockets = 5;
  static constexpr std::chrono::milliseconds kServeDelay{50};

  struct Context {
    // Static files come from this folder only.
    std::filesystem::path htmlFolder;
    const Clock& clock;
    Reporter& reporter;
    TimerFactory& timers;
    // The server log stream under --debug, else null.
    ServerLog* log = nullptr;
    // Where everything that is not ours is sent: the "HSAddress" and "HSWebPort" settings.
    std::string hsAddress = "127.0.0.1";
    std::string hsWebPort = "80";
    // The pages "\wol" and "\stat"; without one they get the not-found page.
    PageHandler* pages = nullptr;
    // False when no "HSAddress" is set at all: the web root then leads to the page instead.
    bool hsNamed = true;
    // Decides who is served; without one, everyone is.
    Guard* guard = nullptr;
    // Paths under "/api/"; without it they take the route of any other path.
    ApiHandler* api = nullptr;
  };

  explicit TCPServerModule(Context ctx);
  ~TCPServerModule() override;
  TCPServerModule(const TCPServerModule&) = delete;
  TCPServerModule& operator=(const TCPServerModule&) = delete;

  // Sockets 1 to kFirstSockets, nothing open, the cursor at 0: the state of a listener just started.
  void CreateSockets();
  // A connection is coming: grows the array while fewer than four sockets are spare, then takes the
  // next closed socket round-robin and counts it open. 0 when every socket is busy: the newcomer is
  // refused (reported once until a connection is taken again). requestId appears in the debug line.
  int Socket_ConnectionRequest(std::string_view requestId);
  // A packet arrived: queued as "index~data" (unless over the limits: then dropped with one line), and
  // the ServerTimer started unless it runs.
  void Socket_DataArrival(int index, std::string data);
  // Serves every queued packet.
  void ProcessRequestQueue();
  // Ends a connection: closes its socket if open, drops its oldest queued packet.
  void Socket_Close(int index);
  // Closes every socket and drops them, the queue and the timer.
  void CloseAll();

  // One debug line (date and time, " | ", text) when debugging.
  void WriteServerLog(std::string_view text) const;
  // The same line from pieces, put together only when debugging.
  void WriteServerLog(std::initializer_list<std::string_view> pieces) const {
    if (ctx_.log) WriteServerLog(std::string_view(Concat(pieces)));
  }

  int SocketsOpen() const { return socketsOpen_; }
  // The highest socket index made so far (0: none).
  int SocketsDefined() const { return slots_.empty() ? 0 : static_cast<int>(slots_.size()) - 1; }
  size_t QueueCount() const { return queue_.Count(); }
  // The slot of a connection socket, null for 0 or an index not made.
  ConnectionSlot* Slot(int index) const;

 protected:
  virtual std::shared_ptr<ConnectionSlot> CreateSlot(int index, ConnectionSlot::Owner& owner) = 0;
  Reporter& reporter() const { return ctx_.reporter; }
  TimerFactory& timers() const { return ctx_.timers; }

 private:
  void Socket_SendComplete(int index) override;
  void SendTimedOut(int index) override;
  void RequestTimedOut(int index) override;
  void AddSlot();
  void Serve(RequestQueue::Entry entry);
  void JoinPostData(Request& request, int index);
  void Route(Request& request, ConnectionSlot& slot);
  void Dropped(const std::string& line);
  void Fail(std::string_view label, const std::exception& e) const;

  Context ctx_;
  std::vector<std::shared_ptr<ConnectionSlot>> slots_;
  int socketsOpen_ = 0;
  int nextSocketIndex_ = 0;
  bool refusing_ = false;
  RequestQueue queue_;
  std::unique_ptr<Timer> serverTimer_;
  // Drops are logged once, then counted for a minute, so a flood does not flood the log.
  std::unique_ptr<Timer> dropLogTimer_;
  size_t dropsUnlogged_ = 0;
};

}  // namespace tavrel
