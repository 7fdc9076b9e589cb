#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace tavrel::test {

// A UDP socket on 127.0.0.1 standing in for an xAP hub: it holds the node's xAP port, so the node binds
// a port of its own and every datagram the node broadcasts (to 127.0.0.1) arrives here.
class Hub {
 public:
  Hub();
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  int Port() const { return port_; }
  // The next datagram, or "" when none arrives before the deadline.
  std::string Receive(std::chrono::milliseconds deadline = std::chrono::seconds(5));
  // Datagrams until one satisfies pred (returned), skipping the others; "" at the deadline.
  std::string ReceiveUntil(const std::function<bool(const std::string&)>& pred,
                           std::chrono::milliseconds deadline = std::chrono::seconds(5));
  void SendTo(int port, const std::string& text, const std::string& address = "127.0.0.1");

 private:
  int fd_ = -1;
  int port_ = 0;
};

// The real program started with a temporary home whose zelXap.ini keeps it on loopback.
class Node {
 public:
  // Writes Config/zelXap.ini (BroadcastAddress 127.0.0.1, Port xapPort, plus extraInterfaceLines) and,
  // when given, Config/tavrel.ini.
  Node(int xapPort, const std::string& tavrelIni = "", const std::string& extraInterfaceLines = "");
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  void Start(const std::vector<std::string>& extraArgs = {});
  void Signal(int sig);
  // Waits for the program to end; its exit code, or -1 when it did not end before the deadline (it is
  // then killed).
  int WaitExit(std::chrono::milliseconds deadline = std::chrono::seconds(10));
  bool Running() const { return pid_ > 0; }

  const std::filesystem::path& Home() const { return home_.Path(); }
  std::string Ini() const;  // Config/tavrel.ini as it is now

 private:
  TempDir home_;
  pid_t pid_ = -1;
};

// This machine's name as the node reports it: the host name up to the first ".".
std::string HostName();
// The value of "key=" in an xAP text ("" when absent).
std::string Field(const std::string& text, const std::string& key);
// The node's source address.
std::string NodeSource();

}  // namespace tavrel::test
