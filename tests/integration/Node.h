// The real program and a stand-in xAP hub, for the tests that talk to it over loopback.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

extern char** environ;

namespace tavrel::test {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// A UDP socket on 127.0.0.1 standing in for an xAP hub: it holds the node's xAP port, so the node binds
// a port of its own and every datagram the node broadcasts (to 127.0.0.1) arrives here.
class Hub {
 public:
  Hub() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = Loopback(0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      throw std::runtime_error("hub socket");
    }
    // Room for a whole burst of answers (root may go past the system's cap).
    int room = 16 << 20;
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0) {
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    }
    socklen_t len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~Hub() { close(fd_); }

  int Port() const { return port_; }
  // The next datagram, or "" when none arrives before the deadline.
  std::string Receive(std::chrono::milliseconds deadline = 5s) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(deadline.count())) <= 0) return {};
    std::string buf(65536, '\0');
    ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
    return n > 0 ? buf.substr(0, static_cast<size_t>(n)) : std::string();
  }
  // Datagrams until one satisfies pred (returned), skipping the others; "" at the deadline.
  std::string ReceiveUntil(const std::function<bool(const std::string&)>& pred) {
    auto end = steady_clock::now() + 5s;
    for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
      std::string text = Receive(std::chrono::duration_cast<std::chrono::milliseconds>(end - now));
      if (!text.empty() && pred(text)) return text;
    }
    return {};
  }
  void SendTo(int port, const std::string& text) {
    sockaddr_in to = Loopback(port);
    sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  }

  static sockaddr_in Loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A port of the system's choosing on 127.0.0.1, free again on return; or, given held, kept by a socket
// listening on it (TCP), whose descriptor goes there.
inline int LoopbackPort(int type, int* held = nullptr) {
  int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in addr = Hub::Loopback(0);
  socklen_t len = sizeof addr;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || (held && listen(fd, 1) != 0))
    throw std::runtime_error("loopback port");
  held ? void(*held = fd) : void(close(fd));
  return ntohs(addr.sin_port);
}

// This machine's name up to its first ".", as the program names itself.
inline std::string HostName() {
  char buf[256] = {};
  gethostname(buf, sizeof buf - 1);
  const std::string name(buf);
  return name.substr(0, name.find('.'));
}

// The real program started with a temporary home whose zelXap.ini keeps it on loopback.
class Node {
 public:
  Node(int xapPort, const std::string& tavrelIni = "", const std::string& extraInterfaceLines = "") {
    WriteFile(Home() / "Config" / "zelXap.ini", "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" +
                                                    std::to_string(xapPort) + "\n" + extraInterfaceLines);
    if (!tavrelIni.empty()) WriteFile(Home() / "Config" / "tavrel.ini", tavrelIni);
  }
  ~Node() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Starts the program, with this process's environment; debug adds --debug (the server log in
  // Data/tavrel/server.log). With tray it may offer its icon.
  void Start(bool debug = false, bool tray = false) {
    std::string home = Home().string();
    std::vector<const char*> argv = {TAVREL_BINARY, "--home", home.c_str()};
    if (!tray) argv.push_back("--no-tray");
    if (debug) argv.push_back("--debug");
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string errFile = (Home() / "stderr.txt").string();  // read by StderrLine
    posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int failed =
        posix_spawn(&pid_, TAVREL_BINARY, &actions, nullptr, const_cast<char**>(argv.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("cannot start the program");
  }
  // The first line the program wrote to standard error, or "" when none came before the deadline.
  std::string StderrLine() const {
    for (auto end = steady_clock::now() + 5s; steady_clock::now() < end;) {
      std::string text = ReadFile(Home() / "stderr.txt");
      if (size_t nl = text.find('\n'); nl != std::string::npos) return text.substr(0, nl + 1);
      std::this_thread::sleep_for(10ms);
    }
    return {};
  }
  void Signal(int sig) { kill(pid_, sig); }
  pid_t Pid() const { return pid_; }
  // The program's resident memory in KiB, from /proc.
  long RssKiB() const {
    std::string status = ReadFile("/proc/" + std::to_string(pid_) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::atol(status.c_str() + at + 6);
  }
  // The program's exit code, or -1 when it did not end within the deadline (it is then killed).
  int WaitExit() {
    auto end = steady_clock::now() + 10s;
    int status = 0;
    while (steady_clock::now() < end) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(10ms);
    }
    return -1;
  }

  const std::filesystem::path& Home() const { return home_.Path(); }
  std::string Ini() const { return ReadFile(Home() / "Config" / "tavrel.ini"); }

 private:
  TempDir home_;
  pid_t pid_ = -1;
};

}  // namespace tavrel::test
