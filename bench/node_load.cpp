// Whole-program load on the xAP node, seen only from outside: the command line, Config/zelXap.ini and
// Config/tavrel.ini of a temporary home, UDP on 127.0.0.1, signals and /proc. Nothing here uses the
// program's own code, so the same measurement runs on any build of it.
//   stream:  two senders flood the node with echo queries for 5 s; the node's peak resident memory, and
//            how long SIGTERM waits for its turn (sent 1 s into the stream, and right after it).
//   senders: 3,000 messages from 3,000 invented senders at 1,000 a second; the node's CPU time, memory
//            growth and the size of tavrel.ini, beside the same messages from one sender it knows.
//   stall:   an echo query every millisecond while SIGUSR1 starts a native sweep and its results are
//            stored; the longest wait for an answer, beside the same before the sweep. Runs where a test
//            network answers the sweep (bench/scan-store.sh builds one).
//   presence: the same while the node sweeps by itself every 10 s ("ScanInterval").
// Usage: node_load stream|senders|stall|presence TAVREL_BINARY [--runs N] [--subnets LIST --expect N]
// The scripts bench/stream.sh, bench/senders.sh and bench/scan-store.sh run it inside a network
// namespace of their own.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

std::string Message(const std::string& cls, const std::string& source, const std::string& block,
                    const std::string& items) {
  return "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=" + cls + "\nsource=" + source + "\n}\n" + block +
         "\n{\n" + items + "}\n";
}

// The node answers an echo query without a target to its source; the answer carries the query in lower
// case.
std::string EchoQuery(const std::string& source, const std::string& id) {
  return Message("WDT.Echo", source, "Echo.Query", "Query=" + id + "\n");
}

long StatusKb(pid_t pid, const char* key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  const size_t n = std::strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, n, key) == 0) return std::atol(line.c_str() + n);
  }
  return -1;
}

long RssKb(pid_t pid) { return StatusKb(pid, "VmRSS:"); }

// User plus system CPU time so far, in seconds.
double CpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t at = stat.rfind(')');
  if (at == std::string::npos) return -1;
  std::istringstream rest(stat.substr(at + 2));
  std::string field;
  long ticks = 0;
  for (int i = 3; i <= 15 && rest >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::atol(field.c_str());
  }
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string ReadText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The real program with a temporary home that keeps it on loopback. A thread waits for its end, so the
// moment it exits is known to the microsecond.
class Node {
 public:
  Node(const std::string& binary, int xapPort, const std::string& tavrelIni) {
    char templ[] = "/tmp/tavrel-load-XXXXXX";
    if (!mkdtemp(templ)) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    home_ = templ;
    fs::create_directories(home_ / "Config");
    std::ofstream(home_ / "Config" / "zelXap.ini")
        << "[Interface]\nBroadcastAddress=127.0.0.1\nPort=" << xapPort << "\n";
    if (!tavrelIni.empty()) std::ofstream(home_ / "Config" / "tavrel.ini") << tavrelIni;
    std::string homeText = home_.string();
    const char* argv[] = {binary.c_str(), "--home", homeText.c_str(), "--no-tray", nullptr};
    if (posix_spawn(&pid_, binary.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
      std::perror("spawn");
      std::exit(1);
    }
    waiter_ = std::thread([this] {
      int status = 0;
      waitpid(pid_, &status, 0);
      code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      exitedAt_ = Clock::now();
      exited_ = true;
    });
  }
  ~Node() {
    if (!exited_) kill(pid_, SIGKILL);
    waiter_.join();
    fs::remove_all(home_);
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  pid_t Pid() const { return pid_; }
  bool Exited() const { return exited_; }
  Clock::time_point ExitedAt() const { return exitedAt_; }
  int Code() const { return code_; }
  fs::path Ini() const { return home_ / "Config" / "tavrel.ini"; }
  // Waits up to timeout for the end; false if the program still runs.
  bool WaitExit(milliseconds timeout) {
    auto end = Clock::now() + timeout;
    while (!exited_ && Clock::now() < end) std::this_thread::sleep_for(milliseconds(1));
    return exited_;
  }

 private:
  fs::path home_;
  pid_t pid_ = -1;
  std::thread waiter_;
  std::atomic<bool> exited_{false};
  Clock::time_point exitedAt_;
  int code_ = -1;
};

// The node's own port, from its first heartbeat (the hub holds the xAP port), once it answers an echo
// query from source; 0 when it does not start.
int ReadyPort(int hub, const std::string& source) {
  int port = 0;
  for (std::string text = Recv(hub, 5000); !text.empty() && port == 0; text = Recv(hub, 5000)) {
    if (text.rfind("xap-hbeat", 0) == 0) port = std::atoi(Field(text, "port").c_str());
  }
  if (port <= 0) return 0;
  SendTo(hub, port, EchoQuery(source, "ready"));
  for (std::string text = Recv(hub, 5000); !text.empty(); text = Recv(hub, 5000)) {
    if (Field(text, "Response") == "ready") return port;
  }
  return 0;
}

// ---- stream

struct StreamRun {
  double offeredPerSec = 0;  // both senders together
  long idleKb = 0;
  long peakKb = 0;
  double exitMs = -1;  // from SIGTERM to the end of the process; -1: not within the deadline
  int code = -1;
};

// One sender: the same datagram, in batches of 64 per system call, until stop.
void Flood(int port, const std::string& text, const std::atomic<bool>& stop, std::atomic<long>& sent) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to = Loopback(port);
  constexpr int kBatch = 64;
  iovec iov{const_cast<char*>(text.data()), text.size()};
  std::vector<mmsghdr> msgs(kBatch);
  for (auto& m : msgs) {
    m.msg_hdr = {};
    m.msg_hdr.msg_name = &to;
    m.msg_hdr.msg_namelen = sizeof to;
    m.msg_hdr.msg_iov = &iov;
    m.msg_hdr.msg_iovlen = 1;
  }
  long count = 0;
  while (!stop.load(std::memory_order_relaxed)) {
    int n = sendmmsg(fd, msgs.data(), kBatch, 0);
    if (n > 0) count += n;
    if (n < 0 && errno != EINTR) std::this_thread::yield();
  }
  sent += count;
  close(fd);
}

// signalAt < 0: SIGTERM right after the stream ends; otherwise that far into the stream.
StreamRun RunStreamOnce(const std::string& binary, milliseconds streamFor, milliseconds signalAt) {
  StreamRun run;
  int hub = UdpSocket();
  Node node(binary, PortOf(hub), "");
  int port = ReadyPort(hub, "bench.stream.hub");
  if (port == 0) {
    std::printf("  stream: the node did not start\n");
    close(hub);
    return run;
  }
  // Learned once before the clock starts, so the stream itself is all repeat traffic.
  const std::string texts[] = {EchoQuery("acme.stream.one", "s1"), EchoQuery("acme.stream.two", "s2")};
  for (const auto& t : texts) SendTo(hub, port, t);
  std::this_thread::sleep_for(milliseconds(300));
  run.idleKb = RssKb(node.Pid());
  run.peakKb = run.idleKb;

  std::atomic<bool> stop{false};
  std::atomic<long> sent{0};
  auto start = Clock::now();
  std::vector<std::thread> senders;
  for (const auto& t : texts)
    senders.emplace_back(Flood, port, std::cref(t), std::cref(stop), std::ref(sent));
  Clock::time_point signalled{};
  bool flooding = true;
  double floodMs = 0;
  auto endStream = [&] {
    stop = true;
    for (auto& s : senders) s.join();
    floodMs = Ms(Clock::now() - start);
    flooding = false;
  };
  while (!node.Exited()) {
    auto now = Clock::now();
    if (flooding && (now - start >= streamFor)) endStream();
    if (signalled == Clock::time_point{} && (signalAt.count() < 0 ? !flooding : now - start >= signalAt)) {
      kill(node.Pid(), SIGTERM);
      signalled = Clock::now();
    }
    if (now - start > streamFor + std::chrono::seconds(60)) break;
    long kb = RssKb(node.Pid());
    run.peakKb = std::max(run.peakKb, kb);
    std::this_thread::sleep_for(milliseconds(20));
  }
  if (flooding) endStream();
  run.offeredPerSec = static_cast<double>(sent) / (floodMs / 1000.0);
  if (node.Exited() && signalled != Clock::time_point{}) {
    run.exitMs = Ms(node.ExitedAt() - signalled);
    run.code = node.Code();
  }
  close(hub);
  return run;
}

void Stream(const std::string& binary, int runs) {
  const milliseconds streamFor(5000);
  double worstDuring = 0, worstAfter = 0;
  long worstPeak = 0, idle = 0;
  double offered = 0;
  bool allClean = true;
  for (int r = 0; r < runs; ++r) {
    StreamRun during = RunStreamOnce(binary, streamFor, milliseconds(1000));
    StreamRun after = RunStreamOnce(binary, streamFor, milliseconds(-1));
    std::printf(
        "  run %d: SIGTERM 1 s into the stream: exit %.0f ms later (code %d), peak RSS %ld KiB; SIGTERM at "
        "the "
        "end of the 5 s stream: exit %.0f ms later (code %d), peak RSS %ld KiB (idle %ld KiB); offered %.0f "
        "msg/s\n",
        r + 1, during.exitMs, during.code, during.peakKb, after.exitMs, after.code, after.peakKb,
        after.idleKb, after.offeredPerSec);
    std::fflush(stdout);
    for (const StreamRun* s : {&during, &after}) {
      if (s->exitMs < 0 || s->code != 0) allClean = false;
    }
    worstDuring = std::max(worstDuring, during.exitMs < 0 ? 1e9 : during.exitMs);
    worstAfter = std::max(worstAfter, after.exitMs < 0 ? 1e9 : after.exitMs);
    worstPeak = std::max({worstPeak, during.peakKb, after.peakKb});
    idle = std::max(idle, after.idleKb);
    offered += after.offeredPerSec / runs;
  }
  std::printf(
      "stream: 2 senders, %.0fk echo queries/s for 5 s (worst of %d runs): SIGTERM 1 s in took effect after "
      "%.0f "
      "ms, at the stream's end after %.0f ms, exit %s; peak RSS %.1f MiB (idle %.1f MiB, x%.1f); goal <= 100 "
      "ms and < 16 MiB\n",
      offered / 1000, runs, worstDuring, worstAfter, allClean ? "clean (code 0)" : "NOT clean",
      worstPeak / 1024.0, idle / 1024.0,
      static_cast<double>(worstPeak) / static_cast<double>(std::max(idle, 1L)));
}

// ---- senders

struct SendersRun {
  double cpuS = 0;
  long rssGrowthKb = 0;
  long iniBytes = 0;
  int learned = 0;      // NAME lines in tavrel.ini
  int queries = 0;      // Computer.Query messages the node sent to learn a sender
  double drainMs = -1;  // from the last message until the closing echo answer
  double wallMs = 0;    // from the first message until the closing echo answer
};

constexpr int kSenders = 3000;

SendersRun RunSendersOnce(const std::string& binary, bool invented) {
  SendersRun run;
  int hub = UdpSocket();
  Node node(binary, PortOf(hub), "");
  int port = ReadyPort(hub, "bench.senders.hub");
  if (port == 0) {
    std::printf("  senders: the node did not start\n");
    close(hub);
    return run;
  }
  auto source = [&](int i) {
    char name[40];
    std::snprintf(name, sizeof name, "acme.tester.name%04d", invented ? i : 0);
    return std::string(name);
  };
  std::vector<std::string> texts;
  for (int i = 0; i < kSenders; ++i) {
    texts.push_back(Message("xap.bench", source(i), "bench.hello", "n=" + std::to_string(i) + "\n"));
  }
  // The one known sender is learned before the clock starts.
  if (!invented) {
    SendTo(hub, port, texts[0]);
    SendTo(hub, port, EchoQuery("bench.senders.hub", "known"));
    for (std::string t = Recv(hub, 5000); !t.empty() && Field(t, "Response") != "known";
         t = Recv(hub, 5000)) {
    }
  }
  std::this_thread::sleep_for(milliseconds(200));
  while (!Recv(hub, 0).empty()) {
  }

  std::atomic<bool> done{false};
  Clock::time_point answeredAt{};
  std::atomic<int> queries{0};
  std::thread reader([&] {
    for (auto end = Clock::now() + std::chrono::seconds(120); !done && Clock::now() < end;) {
      std::string t = Recv(hub, 50);
      if (t.empty()) continue;
      if (Field(t, "class") == "Computer.Process" && Field(t, "target").rfind("*.*.name", 0) == 0) ++queries;
      if (Field(t, "Response") == "done") {
        answeredAt = Clock::now();
        done = true;
      }
    }
  });

  const double cpu0 = CpuSeconds(node.Pid());
  const long rss0 = RssKb(node.Pid());
  auto start = Clock::now();
  for (int i = 0; i < kSenders; ++i) {
    std::this_thread::sleep_until(start + std::chrono::microseconds(1000) * i);
    SendTo(hub, port, texts[static_cast<size_t>(i)]);
  }
  auto last = Clock::now();
  SendTo(hub, port, EchoQuery("bench.senders.hub", "done"));
  reader.join();
  run.cpuS = CpuSeconds(node.Pid()) - cpu0;
  run.rssGrowthKb = RssKb(node.Pid()) - rss0;
  if (done) {
    run.drainMs = Ms(answeredAt - last);
    run.wallMs = Ms(answeredAt - start);
  }
  run.queries = queries;
  std::error_code ec;
  run.iniBytes = static_cast<long>(fs::file_size(node.Ini(), ec));
  std::istringstream ini(ReadText(node.Ini()));
  for (std::string line; std::getline(ini, line);) {
    if (line.rfind("NAME", 0) == 0) ++run.learned;
  }
  kill(node.Pid(), SIGTERM);
  node.WaitExit(milliseconds(5000));
  close(hub);
  return run;
}

void Senders(const std::string& binary, int runs) {
  SendersRun worstNew, worstKnown;
  bool allAnswered = true;
  int learned = kSenders;
  for (int r = 0; r < runs; ++r) {
    SendersRun fresh = RunSendersOnce(binary, true);
    SendersRun known = RunSendersOnce(binary, false);
    for (const auto& [label, s] :
         {std::pair{"3,000 invented senders", &fresh}, {"one known sender", &known}}) {
      std::printf(
          "  run %d, %s: CPU %.2f s, RSS +%ld KiB, tavrel.ini %ld bytes with %d names, %d computer queries "
          "sent, answered %.0f ms after the last message (%.0f ms in all)\n",
          r + 1, label, s->cpuS, s->rssGrowthKb, s->iniBytes, s->learned, s->queries, s->drainMs, s->wallMs);
    }
    std::fflush(stdout);
    if (fresh.drainMs < 0 || known.drainMs < 0) allAnswered = false;
    learned = std::min(learned, fresh.learned);
    worstNew.cpuS = std::max(worstNew.cpuS, fresh.cpuS);
    worstNew.rssGrowthKb = std::max(worstNew.rssGrowthKb, fresh.rssGrowthKb);
    worstNew.iniBytes = std::max(worstNew.iniBytes, fresh.iniBytes);
    worstNew.drainMs = std::max(worstNew.drainMs, fresh.drainMs);
    worstKnown.cpuS = std::max(worstKnown.cpuS, known.cpuS);
    worstKnown.rssGrowthKb = std::max(worstKnown.rssGrowthKb, known.rssGrowthKb);
  }
  std::printf(
      "senders: 3,000 messages at 1,000/s (worst of %d runs): from 3,000 invented senders CPU %.2f s, RSS "
      "+%.1f "
      "MiB, tavrel.ini %.0f KiB, last answer %.0f ms after the last message; from one known sender CPU %.2f "
      "s, "
      "RSS +%.1f MiB; learning costs x%.1f CPU; %d of the names learned (the table takes at most 1,024 "
      "computers)%s\n",
      runs, worstNew.cpuS, worstNew.rssGrowthKb / 1024.0, worstNew.iniBytes / 1024.0, worstNew.drainMs,
      worstKnown.cpuS, worstKnown.rssGrowthKb / 1024.0, worstNew.cpuS / std::max(worstKnown.cpuS, 0.01),
      learned, allAnswered ? "" : "; NOT all answered");
}

// ---- stall

struct StallRun {
  double baseLatencyMs = 0, baseGapMs = 0;     // before the sweep
  double latencyMs = 0, gapMs = 0;             // from SIGUSR1 until the results are stored and a second more
  double storedMs = -1;                        // from SIGUSR1 until tavrel.ini holds every expected entry
  double firstWriteMs = -1, lastWriteMs = -1;  // tavrel.ini's first and last change after SIGUSR1
  double longestFromMs = 0;                    // when the probe that waited longest was sent
  int lost = 0;                                // probes of the scan window never answered
  int entries = 0;
};

// ARP lines of the two test ranges (IP=MAC), the scanner's own .1 left out.
int ArpEntries(const fs::path& ini) {
  std::istringstream in(ReadText(ini));
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    const std::string ip = line.substr(0, line.find('='));
    if (ip.size() == line.size() || ip == "198.51.100.1" || ip == "203.0.113.1") continue;
    if (ip.rfind("198.51.100.", 0) == 0 || ip.rfind("203.0.113.", 0) == 0) ++n;
  }
  return n;
}

// presence: no SIGUSR1; the node sweeps by itself every 10 s ("ScanInterval"), and the scan window is the
// 25 s after the first sweep's results are in (two more sweeps).
StallRun RunStallOnce(const std::string& binary, const std::string& subnets, int expect, bool presence) {
  StallRun run;
  int hub = UdpSocket();
  Node node(binary, PortOf(hub),
            "[WOL]\nSubnet=" + subnets + "\nScanMethod=native\n" + (presence ? "ScanInterval=10\n" : ""));
  const std::string source = "bench.stall.prober";
  int port = ReadyPort(hub, source);
  if (port == 0) {
    std::printf("  stall: the node did not start\n");
    close(hub);
    return run;
  }
  constexpr int kMaxProbes = 30000;
  std::vector<Clock::time_point> sentAt(kMaxProbes), answeredAt(kMaxProbes);
  std::vector<std::string> probes;
  for (int i = 0; i < kMaxProbes; ++i) probes.push_back(EchoQuery(source, "p" + std::to_string(i)));
  std::atomic<bool> stopProbe{false}, stopRead{false};
  std::atomic<int> probesSent{0};
  std::thread reader([&] {
    while (!stopRead) {
      std::string t = Recv(hub, 20);
      std::string id = Field(t, "Response");
      if (id.size() < 2 || id[0] != 'p') continue;
      int i = std::atoi(id.c_str() + 1);
      if (i >= 0 && i < kMaxProbes) answeredAt[static_cast<size_t>(i)] = Clock::now();
    }
  });
  auto start = Clock::now();
  std::thread prober([&] {
    for (int i = 0; i < kMaxProbes && !stopProbe; ++i) {
      std::this_thread::sleep_until(start + milliseconds(i));
      sentAt[static_cast<size_t>(i)] = Clock::now();
      SendTo(hub, port, probes[static_cast<size_t>(i)]);
      probesSent = i + 1;
    }
  });

  const auto quietEnd = start + milliseconds(1000);
  auto signalAt = quietEnd;
  std::this_thread::sleep_until(signalAt);
  if (presence) {
    while (ArpEntries(node.Ini()) < expect && Clock::now() < signalAt + std::chrono::seconds(10))
      std::this_thread::sleep_for(milliseconds(5));
    signalAt = Clock::now();
  } else {
    kill(node.Pid(), SIGUSR1);
  }
  // The results count as stored once every expected entry is in tavrel.ini; probing goes on until the
  // file has not changed for a second (later subnets may write the same entries again).
  Clock::time_point stored{}, firstWrite{}, lastWrite{};
  std::error_code ec;
  auto seen = fs::last_write_time(node.Ini(), ec);
  for (auto now = Clock::now(); now < signalAt + std::chrono::seconds(25); now = Clock::now()) {
    auto written = fs::last_write_time(node.Ini(), ec);
    if (!ec && written != seen) {
      seen = written;
      lastWrite = now;
      if (firstWrite == Clock::time_point{}) firstWrite = now;
    }
    if (stored == Clock::time_point{}) {
      run.entries = ArpEntries(node.Ini());
      if (run.entries >= expect) stored = now;
    }
    if (!presence && stored != Clock::time_point{} && now - std::max(stored, lastWrite) > milliseconds(1000))
      break;
    std::this_thread::sleep_for(milliseconds(5));
  }
  stopProbe = true;
  prober.join();
  std::this_thread::sleep_for(milliseconds(500));
  stopRead = true;
  reader.join();
  if (stored != Clock::time_point{}) run.storedMs = Ms(stored - signalAt);
  if (firstWrite != Clock::time_point{}) run.firstWriteMs = Ms(firstWrite - signalAt);
  if (lastWrite != Clock::time_point{}) run.lastWriteMs = Ms(lastWrite - signalAt);

  // Waits and gaps of the quiet second before the sweep (its first 200 ms left out) and of the scan.
  auto window = [&](Clock::time_point from, Clock::time_point to, double& latency, double& gap, int* lost,
                    double* longestFrom) {
    std::vector<Clock::time_point> replies;
    for (int i = 0; i < probesSent; ++i) {
      const auto s = sentAt[static_cast<size_t>(i)];
      const auto a = answeredAt[static_cast<size_t>(i)];
      if (s < from || s >= to) continue;
      if (a == Clock::time_point{}) {
        if (lost) ++*lost;
        continue;
      }
      if (Ms(a - s) > latency && longestFrom) *longestFrom = Ms(s - signalAt);
      latency = std::max(latency, Ms(a - s));
      replies.push_back(a);
    }
    std::sort(replies.begin(), replies.end());
    for (size_t k = 1; k < replies.size(); ++k) gap = std::max(gap, Ms(replies[k] - replies[k - 1]));
  };
  window(start + milliseconds(200), quietEnd, run.baseLatencyMs, run.baseGapMs, nullptr, nullptr);
  window(signalAt, Clock::now(), run.latencyMs, run.gapMs, &run.lost, &run.longestFromMs);
  kill(node.Pid(), SIGTERM);
  node.WaitExit(milliseconds(5000));
  close(hub);
  return run;
}

void Stall(const std::string& binary, int runs, const std::string& subnets, int expect, bool presence) {
  StallRun worst;
  bool allStored = true;
  for (int r = 0; r < runs; ++r) {
    StallRun s = RunStallOnce(binary, subnets, expect, presence);
    std::printf(
        "  run %d: after SIGUSR1 tavrel.ini changed from %.0f to %.0f ms, all %d/%d entries in at %.0f ms; "
        "longest wait for an echo answer %.1f ms, for a query sent at %.0f ms (longest gap between answers "
        "%.1f ms, %d unanswered); before the sweep %.1f ms (gap %.1f ms)\n",
        r + 1, s.firstWriteMs, s.lastWriteMs, s.entries, expect, s.storedMs, s.latencyMs, s.longestFromMs,
        s.gapMs, s.lost, s.baseLatencyMs, s.baseGapMs);
    std::fflush(stdout);
    if (s.storedMs < 0) allStored = false;
    worst.latencyMs = std::max(worst.latencyMs, s.latencyMs);
    worst.gapMs = std::max(worst.gapMs, s.gapMs);
    worst.baseLatencyMs = std::max(worst.baseLatencyMs, s.baseLatencyMs);
    worst.storedMs = std::max(worst.storedMs, s.storedMs);
    worst.lastWriteMs = std::max(worst.lastWriteMs, s.lastWriteMs);
    worst.lost += s.lost;
  }
  if (presence) {
    std::printf(
        "scan-store presence: sweeps every 10 s of four /24s (Subnet=%s, worst of %d runs, 25 s each): an "
        "echo "
        "query every 1 ms waited at most %.0f ms for its answer (longest gap between answers %.0f ms, %d "
        "unanswered) against %.0f ms in the first second; goal: no wait much over the Query LAN sweep's\n",
        subnets.c_str(), runs, worst.latencyMs, worst.gapMs, worst.lost, worst.baseLatencyMs);
    return;
  }
  std::printf(
      "scan-store: four /24 sweeps stored (Subnet=%s, worst of %d runs): an echo query every 1 ms waited at "
      "most %.0f ms for its answer (longest gap between answers %.0f ms, %d unanswered) against %.0f ms "
      "before the sweep, x%.1f; all results in tavrel.ini %.0f ms after SIGUSR1, its last change at %.0f "
      "ms%s; "
      "goal: no wait much over the one before the sweep\n",
      subnets.c_str(), runs, worst.latencyMs, worst.gapMs, worst.lost, worst.baseLatencyMs,
      worst.latencyMs / std::max(worst.baseLatencyMs, 1.0), worst.storedMs, worst.lastWriteMs,
      allStored ? "" : " (NOT all stored)");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr,
                 "usage: node_load stream|senders|stall|presence TAVREL_BINARY [--runs N] [--subnets LIST "
                 "--expect N]\n");
    return 2;
  }
  const std::string what = argv[1], binary = argv[2];
  int runs = 1, expect = 0;
  std::string subnets;
  for (int i = 3; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--runs") runs = std::max(1, std::atoi(argv[i + 1]));
    if (option == "--subnets") subnets = argv[i + 1];
    if (option == "--expect") expect = std::atoi(argv[i + 1]);
  }
  // A node that dies while we send must not take this program with it.
  signal(SIGPIPE, SIG_IGN);
  if (what == "stream") {
    Stream(binary, runs);
  } else if (what == "senders") {
    Senders(binary, runs);
  } else if ((what == "stall" || what == "presence") && !subnets.empty() && expect > 0) {
    Stall(binary, runs, subnets, expect, what == "presence");
  } else {
    std::fprintf(stderr, "node_load: unknown measurement or missing --subnets/--expect\n");
    return 2;
  }
  return 0;
}
