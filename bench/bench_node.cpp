// Whole-program measurements of the xAP node, each beside a reference in the same run:
//   burst:   10,000 echo queries sent at once over loopback; how many the node answers and how fast,
//            against a bare receive-and-answer loop on a plain socket.
//   startup: time from start until the program answers an echo query, and idle resident memory with 1,000
//   computers in
//            tavrel.ini, against a bare program that binds a socket and sends one datagram.
// Usage: bench_node TAVREL_BINARY [burst|startup|all]. Everything stays on 127.0.0.1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LoopbackUdp.h"

extern char** environ;

namespace {

using bench::Field;
using bench::Loopback;
using bench::PortOf;
using bench::Recv;
using bench::SendTo;
using bench::UdpSocket;

using Clock = std::chrono::steady_clock;
constexpr int kBurst = 10000;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

std::string EchoQuery(int i) {
  return "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=WDT.Echo\nsource=bench.burst.hub\n}\nEcho.Query\n{"
         "\n"
         "Query=q" +
         std::to_string(i) + "\n}\n";
}

// Addresses from the two documentation ranges only; the node never contacts them at start.
std::string TestIp(int i) {
  return std::string(i % 2 ? "203.0.113." : "198.51.100.") + std::to_string(i / 2 % 254 + 1);
}

struct Node {
  std::filesystem::path home;
  pid_t pid = -1;

  Node(const std::string& binary, int xapPort, int computers) {
    home = std::filesystem::temp_directory_path() / ("tavrel-bench-" + std::to_string(getpid()));
    std::filesystem::remove_all(home);
    std::filesystem::create_directories(home / "Config");
    std::ofstream(home / "Config" / "zelXap.ini")
        << "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" << xapPort << "\n";
    std::ofstream ini(home / "Config" / "tavrel.ini");
    ini << "[ARP]\n";
    for (int i = 0; i < computers; ++i) {
      char line[96];
      std::snprintf(line, sizeof line, "%s=02-00-00-00-%02X-%02X\n", TestIp(i).c_str(), i / 256, i % 256);
      ini << line;
    }
    ini << "[COMPUTER]\n";
    for (int i = 0; i < computers; ++i) ini << "PC" << i << "=" << TestIp(i) << "\n";
    ini.close();
    std::string homeText = home.string();
    const char* argv[] = {binary.c_str(), "--home", homeText.c_str(), "--no-tray", nullptr};
    if (posix_spawn(&pid, binary.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
      std::perror("spawn");
      std::exit(1);
    }
  }
  ~Node() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
    // Anything the node logged during the run is worth seeing beside the figures.
    std::ifstream log(home / "Data" / "tavrel.txt");
    std::string line;
    for (int n = 0; n < 5 && std::getline(log, line); ++n) std::printf("  node log: %s\n", line.c_str());
    std::filesystem::remove_all(home);
  }
};

long RssKb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// User plus system CPU time of a process so far, in clock ticks.
long CpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t at = stat.rfind(')');
  if (at == std::string::npos) return -1;
  std::istringstream rest(stat.substr(at + 2));
  std::string field;
  long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && rest >> field; ++i) {
    if (i == 14) utime = std::atol(field.c_str());
    if (i == 15) stime = std::atol(field.c_str());
  }
  return utime + stime;
}

// Sends the burst to port and counts echo answers arriving at hub until all are in or 3 s pass quietly.
std::pair<int, double> Burst(int hub, int port) {
  std::vector<std::string> queries;
  for (int i = 0; i < kBurst; ++i) queries.push_back(EchoQuery(i));
  auto start = Clock::now();
  auto last = start;
  for (const auto& q : queries) SendTo(hub, port, q);
  int answers = 0;
  while (answers < kBurst) {
    std::string text = Recv(hub, 3000);
    if (text.empty()) break;
    if (Field(text, "class") == "WDT.Echo") {
      ++answers;
      last = Clock::now();
    }
  }
  return {answers, Ms(last - start)};
}

void RunBurst(const std::string& binary) {
  int hub = UdpSocket(0);
  Node node(binary, PortOf(hub), 1);
  std::string hb;
  while (hb.rfind("xap-hbeat", 0) != 0) {
    hb = Recv(hub, 5000);
    if (hb.empty()) {
      std::printf("burst: no heartbeat\n");
      return;
    }
  }
  int port = std::atoi(Field(hb, "port").c_str());
  // Let the start-up reports pass, then learn the bench's source once.
  SendTo(hub, port, EchoQuery(-1));
  while (!Recv(hub, 300).empty()) {
  }
  auto [nodeAnswers, nodeMs] = Burst(hub, port);

  // Reference: a bare loop that answers every datagram with one fixed datagram.
  int bare = UdpSocket(0);
  std::atomic<bool> stop{false};
  std::thread loop([&] {
    const std::string reply = "xap-header\n{\nclass=WDT.Echo\n}\n";
    char buf[2048];
    while (!stop) {
      pollfd p{bare, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      if (recv(bare, buf, sizeof buf, 0) > 0) SendTo(bare, PortOf(hub), reply);
    }
  });
  auto [bareAnswers, bareMs] = Burst(hub, PortOf(bare));
  stop = true;
  loop.join();
  close(bare);
  close(hub);
  std::printf(
      "burst: node answered %d/%d in %.1f ms (%.0f msg/s); bare loop %d/%d in %.1f ms; node/bare time %.2f\n",
      nodeAnswers, kBurst, nodeMs, nodeAnswers / (nodeMs / 1000.0), bareAnswers, kBurst, bareMs,
      nodeMs / bareMs);
}

// Start-up is over when the program answers: the first datagram it sends names its port, an echo
// query goes there, and the answer ends the clock.
Clock::duration ReadyAfter(int hub, Clock::time_point start) {
  std::string first = Recv(hub, 5000);
  int port = std::atoi(Field(first, "port").c_str());
  if (port <= 0) return Clock::duration::zero();
  SendTo(hub, port, EchoQuery(0));
  for (std::string text = Recv(hub, 5000); !text.empty(); text = Recv(hub, 5000)) {
    if (Field(text, "class") == "WDT.Echo") break;
  }
  return Clock::now() - start;
}

void RunStartup(const std::string& binary) {
  constexpr int kRuns = 5;
  double nodeMs = 0;
  long nodeRss = 0;
  long idleTicks = -1;
  for (int r = 0; r < kRuns; ++r) {
    int hub = UdpSocket(0);
    auto start = Clock::now();
    Node node(binary, PortOf(hub), 1000);
    nodeMs += Ms(ReadyAfter(hub, start));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    nodeRss = RssKb(node.pid);
    if (r == 0) {
      // Idle means no work at all between heartbeats: timers only, no polling.
      long before = CpuTicks(node.pid);
      std::this_thread::sleep_for(std::chrono::seconds(5));
      idleTicks = CpuTicks(node.pid) - before;
    }
    close(hub);
  }
  // Reference: this same program re-run as a bare node: bind a socket, send one datagram, sit idle.
  double bareMs = 0;
  long bareRss = 0;
  for (int r = 0; r < kRuns; ++r) {
    int hub = UdpSocket(0);
    auto start = Clock::now();
    pid_t pid = -1;
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string port = std::to_string(PortOf(hub));
    const char* argv[] = {self.c_str(), "bare", port.c_str(), nullptr};
    posix_spawn(&pid, self.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ);
    bareMs += Ms(ReadyAfter(hub, start));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    bareRss = RssKb(pid);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    close(hub);
  }
  std::printf(
      "startup: node with 1,000 computers: ready (answers) after %.1f ms, idle RSS %ld KiB, "
      "CPU over 5 s idle %ld ticks; bare socket program %.1f ms, %ld KiB; ratios %.2f (time) "
      "%.2f (memory)\n",
      nodeMs / kRuns, nodeRss, idleTicks, bareMs / kRuns, bareRss, nodeMs / bareMs,
      static_cast<double>(nodeRss) / static_cast<double>(bareRss));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "bare") {
    // The reference program: announce a port, answer every datagram once, otherwise sleep.
    int fd = UdpSocket(0);
    const int hub = std::atoi(argv[2]);
    SendTo(fd, hub, "xap-hbeat\n{\nport=" + std::to_string(PortOf(fd)) + "\n}\n");
    char buf[2048];
    while (recv(fd, buf, sizeof buf, 0) >= 0) SendTo(fd, hub, "xap-header\n{\nclass=WDT.Echo\n}\n");
    return 0;
  }
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench_node TAVREL_BINARY [burst|startup|all]\n");
    return 2;
  }
  std::string what = argc > 2 ? argv[2] : "all";
  if (what == "burst" || what == "all") RunBurst(argv[1]);
  if (what == "startup" || what == "all") RunStartup(argv[1]);
  return 0;
}
