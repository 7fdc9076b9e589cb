#pragma once

// UDP on 127.0.0.1 for the benchmarks that drive the real program from outside: a socket with room for a
// burst, sends, receives with a deadline, and the value of one "key=" line of an xAP text.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace bench {

inline sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

inline int UdpSocket(int port = 0) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int size = 8 << 20;
  // Root may go past rmem_max; otherwise the kernel caps the request.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  sockaddr_in a = Loopback(port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    std::perror("bind");
    std::exit(1);
  }
  return fd;
}

inline int PortOf(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  return ntohs(a.sin_port);
}

inline void SendTo(int fd, int port, const std::string& text) {
  sockaddr_in to = Loopback(port);
  sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
}

inline std::string Recv(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) <= 0) return {};
  char buf[4096];
  ssize_t n = recv(fd, buf, sizeof buf, 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

inline std::string Field(const std::string& text, const std::string& key) {
  size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) return {};
  at += key.size() + 2;
  return text.substr(at, text.find('\n', at) - at);
}

}  // namespace bench
