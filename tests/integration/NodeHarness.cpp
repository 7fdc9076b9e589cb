#include "NodeHarness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>

extern char** environ;

namespace tavrel::test {

Hub::Hub() {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    throw std::runtime_error("hub socket");
  }
  socklen_t len = sizeof addr;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
}

Hub::~Hub() {
  if (fd_ >= 0) close(fd_);
}

std::string Hub::Receive(std::chrono::milliseconds deadline) {
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(deadline.count())) <= 0) return {};
  std::string buf(65536, '\0');
  ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
  return n > 0 ? buf.substr(0, static_cast<size_t>(n)) : std::string();
}

std::string Hub::ReceiveUntil(const std::function<bool(const std::string&)>& pred,
                              std::chrono::milliseconds deadline) {
  auto end = std::chrono::steady_clock::now() + deadline;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return {};
    std::string text = Receive(left);
    if (!text.empty() && pred(text)) return text;
  }
}

void Hub::SendTo(int port, const std::string& text, const std::string& address) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &to.sin_addr);
  sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

Node::Node(int xapPort, const std::string& tavrelIni, const std::string& extraInterfaceLines) {
  WriteFile(home_.Path() / "Config" / "zelXap.ini", "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" +
                                                        std::to_string(xapPort) + "\n" + extraInterfaceLines);
  if (!tavrelIni.empty()) WriteFile(home_.Path() / "Config" / "tavrel.ini", tavrelIni);
}

Node::~Node() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Node::Start(const std::vector<std::string>& extraArgs) {
  std::vector<std::string> args = {TAVREL_BINARY, "--home", home_.Path().string(), "--no-tray"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, TAVREL_BINARY, nullptr, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start the program");
  }
}

void Node::Signal(int sig) {
  if (pid_ > 0) kill(pid_, sig);
}

int Node::WaitExit(std::chrono::milliseconds deadline) {
  if (pid_ <= 0) return -1;
  auto end = std::chrono::steady_clock::now() + deadline;
  int status = 0;
  while (std::chrono::steady_clock::now() < end) {
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
  return -1;
}

std::string Node::Ini() const { return ReadFile(home_.Path() / "Config" / "tavrel.ini"); }

std::string HostName() {
  char buf[256] = {};
  gethostname(buf, sizeof buf - 1);
  std::string name(buf);
  return name.substr(0, name.find('.'));
}

std::string Field(const std::string& text, const std::string& key) {
  std::string needle = "\n" + key + "=";
  size_t at = text.find(needle);
  if (at == std::string::npos) return {};
  at += needle.size();
  return text.substr(at, text.find('\n', at) - at);
}

std::string NodeSource() { return "zel.WOL." + HostName(); }

}  // namespace tavrel::test
