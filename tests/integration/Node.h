// The real program and a stand-in xAP hub, for the tests that talk to it over loopback.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

extern char** environ;

namespace tavrel::test {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

inline sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A socket bound to a port of the system's choosing on 127.0.0.1, the port written to port.
inline int BoundSocket(int type, int& port) {
  int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof addr;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    throw std::runtime_error("loopback port");
  port = ntohs(addr.sin_port);
  return fd;
}

// A free port on 127.0.0.1; given held, kept by a socket listening on it (TCP), whose descriptor goes there.
inline int LoopbackPort(int type, int* held = nullptr) {
  int port = 0, fd = BoundSocket(type, port);
  held&& listen(fd, 1) == 0 ? void(*held = fd) : void(close(fd));
  return port;
}

// Starts argv[0] with this process's environment, standard input, output and error opened on the named
// files ("" leaves one as it is); the pid, or -1.
inline pid_t Spawn(std::vector<const char*> argv, const std::string& in = "", const std::string& out = "",
                   const std::string& err = "") {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  const std::string* names[] = {&in, &out, &err};
  for (int fd = 0; fd < 3; ++fd)
    if (!names[fd]->empty())
      posix_spawn_file_actions_addopen(&files, fd, names[fd]->c_str(),
                                       fd ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY, 0600);
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &files, nullptr, const_cast<char**>(argv.data()), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&files);
  return pid;
}

// The exit code of pid (128 + signal when killed), or -1 when it did not end within the deadline.
inline int WaitExit(pid_t& pid, std::chrono::milliseconds deadline = 10s) {
  int status = 0;
  if (pid <= 0 || !WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, deadline)) return -1;
  pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A UDP socket on 127.0.0.1 standing in for an xAP hub: it holds the node's xAP port, so the node binds
// a port of its own and every datagram the node broadcasts (to 127.0.0.1) arrives here.
class Hub {
 public:
  Hub() : fd_(BoundSocket(SOCK_DGRAM, port_)) {}
  ~Hub() { close(fd_); }

  int Port() const { return port_; }
  // The next datagram, or "" when none arrives before the deadline.
  std::string Receive(std::chrono::milliseconds deadline = 5s) {
    pollfd p{fd_, POLLIN, 0};
    std::string buf(65536, '\0');
    ssize_t n =
        poll(&p, 1, static_cast<int>(deadline.count())) == 1 ? recv(fd_, buf.data(), buf.size(), 0) : 0;
    return buf.substr(0, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  // Datagrams until one satisfies pred (returned), skipping the others; "" after 5 s.
  template <class Pred>
  std::string ReceiveUntil(Pred pred) {
    for (auto end = steady_clock::now() + 5s; steady_clock::now() < end;)
      if (std::string text = Receive(100ms); !text.empty() && pred(text)) return text;
    return {};
  }
  std::string Heartbeat() {
    return ReceiveUntil([](const std::string& t) { return t.rfind("xap-hbeat", 0) == 0; });
  }
  void SendTo(int port, const std::string& text) {
    sockaddr_in to = Loopback(port);
    sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  }

 private:
  int port_ = 0, fd_;
};

// This machine's name up to its first ".", as the program names itself.
inline std::string HostName() {
  char buf[256] = {};
  gethostname(buf, sizeof buf - 1);
  return std::string(buf).substr(0, std::string(buf).find('.'));
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
    if (pid_ > 0) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
  }

  // Starts the program; debug adds --debug (the server log in Data/tavrel/server.log). With tray it may
  // offer its icon.
  void Start(bool debug = false, bool tray = false) {
    const std::string home = Home().string();
    std::vector<const char*> argv = {TAVREL_BINARY, "--home", home.c_str()};
    if (!tray) argv.push_back("--no-tray");
    if (debug) argv.push_back("--debug");
    if ((pid_ = Spawn(argv, "", "", (Home() / "stderr.txt").string())) < 0)
      throw std::runtime_error("cannot start the program");
  }
  // The first line the program wrote to standard error, or "" when none came before the deadline.
  std::string StderrLine() const {
    std::string text;
    WaitFor([&] { return (text = ReadFile(Home() / "stderr.txt")).find('\n') != std::string::npos; });
    return text.substr(0, text.find('\n') + 1);
  }
  void Signal(int sig) { kill(pid_, sig); }
  pid_t Pid() const { return pid_; }
  // The program's exit code, or -1 when it did not end within 10 s.
  int WaitExit() { return test::WaitExit(pid_); }

  const std::filesystem::path& Home() const { return home_.Path(); }
  std::string Ini() const { return ReadFile(Home() / "Config" / "tavrel.ini"); }

 private:
  TempDir home_;
  pid_t pid_ = -1;
};

// A network namespace of the test's own that has loopback only, under a fixed host name: the program
// started inside listens and sends nowhere else, and names itself alike on every machine.
class PrivateNet {
 public:
  PrivateNet() {
    ready_ = net_ >= 0 && uts_ >= 0 && unshare(CLONE_NEWNET | CLONE_NEWUTS) == 0;
    ready_ = ready_ && sethostname(kHost, sizeof kHost - 1) == 0 && std::system("ip link set lo up") == 0;
  }
  ~PrivateNet() { setns(net_, CLONE_NEWNET), setns(uts_, CLONE_NEWUTS), close(net_), close(uts_); }
  bool Ready() const { return ready_; }
  static constexpr char kHost[] = "tavrelhost";

 private:
  int net_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  int uts_ = open("/proc/thread-self/ns/uts", O_RDONLY | O_CLOEXEC);
  bool ready_ = false;
};

}  // namespace tavrel::test
