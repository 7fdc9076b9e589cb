#include "lan/NativeSweep.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <utility>

#include <asio/post.hpp>

#include "core/Text.h"
#include "lan/Subnet.h"
#include "platform/LineEnd.h"
#include "platform/Neighbours.h"

namespace tavrel {

using platform::Ipv4;
using platform::MacAddress;

namespace {

constexpr int kFirstHost = 1;
constexpr int kLastHost = 254;

// The base address a.b.c.0 of a subnet text, or nothing for text that is not a subnet or names no
// unicast hosts (0.x.x, 127.x.x loopback, 224 and above multicast and reserved).
bool SubnetBase(const std::string& text, Ipv4& base) {
  auto subnet = ParseSubnet(text);
  if (!subnet) return false;
  std::vector<std::string> parts = Split(*subnet, ".");
  Ipv4 value = 0;
  for (const std::string& part : parts) value = (value << 8) | static_cast<Ipv4>(std::stoul(part));
  Ipv4 first = value >> 16;
  if (first == 0 || first == 127 || first >= 224) return false;
  base = value << 8;
  return true;
}

std::string IpText(Ipv4 ip) {
  return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xFF) + "." +
         std::to_string((ip >> 8) & 0xFF) + "." + std::to_string(ip & 0xFF);
}

std::string MacText(const MacAddress& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x-%02x-%02x-%02x-%02x-%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

// One sweep in flight. Handlers hold it weakly, so a cancelled or replaced sweep simply stops.
struct SweepRun {
  SweepRun(TimerFactory& timers, std::vector<Ipv4> bases, NativeSweep::Done done)
      : timer(timers.Create()), bases(std::move(bases)), done(std::move(done)) {}

  std::unique_ptr<Timer> timer;
  std::vector<Ipv4> bases;  // per subnet given; 0 for one that is not probed
  std::vector<Ipv4> addresses;
  NativeSweep::Done done;
  std::shared_ptr<platform::NeighbourProbe> probe;
};

}  // namespace

// The sweep's timing, measured on the namespace testbed (scripts/testbed.sh, bench/sweep.sh): a live
// host there answers within 1 ms, one made 200 ms late within 201 ms of its request.
// - RetryAfter 300 ms: addresses still silent then are asked once more, so a request or reply lost on
//   a busy or wireless link does not lose the host. It lies past the 200 ms a late host takes, so
//   such a host is normally asked once, and past the time the first round takes to leave (under
//   170 ms for 1,016 probes even on the testbed, where every broadcast reaches 200 namespaces).
// - Deadline 800 ms: a host 200 ms late still answers the second probe well before it (300 + 200 ms),
//   and the rest is margin for slow links (Wi-Fi clients in power save answer a beacon interval or
//   three late, 100-300 ms) and busy machines. The sweep ends there, whatever is still missing; one
//   /24 then takes 0.82 s of wall time for the whole command, four /24s the same.
const NativeSweep::Timing NativeSweep::kTiming{std::chrono::milliseconds(300),
                                               std::chrono::milliseconds(800)};

struct NativeSweep::Impl {
  Impl(asio::io_context& io, Reporter& reporter, TimerFactory& timers, ProbeOpener opener, Timing timing)
      : io(io), reporter(reporter), timers(timers), opener(std::move(opener)), timing(timing) {}

  asio::io_context& io;
  Reporter& reporter;
  TimerFactory& timers;
  ProbeOpener opener;
  Timing timing;
  std::shared_ptr<SweepRun> run;

  void Retry(const std::shared_ptr<SweepRun>& current);
  void Finish(const std::shared_ptr<SweepRun>& current);
  void ReportSendFailures(const SweepRun& current);
};

NativeSweep::NativeSweep(asio::io_context& io, Reporter& reporter, TimerFactory& timers)
    : NativeSweep(io, reporter, timers, platform::OpenNeighbourProbe, kTiming) {}

NativeSweep::NativeSweep(asio::io_context& io, Reporter& reporter, TimerFactory& timers, ProbeOpener opener,
                         Timing timing)
    : impl_(std::make_unique<Impl>(io, reporter, timers, std::move(opener), timing)) {}

NativeSweep::~NativeSweep() { Cancel(); }

bool NativeSweep::Running() const { return impl_->run != nullptr; }

void NativeSweep::Cancel() {
  if (!impl_->run) return;
  impl_->run->timer->Stop();
  impl_->run.reset();
}

void NativeSweep::Start(std::vector<std::string> subnets, Done done) {
  Cancel();
  std::vector<Ipv4> bases;
  for (const std::string& subnet : subnets) {
    Ipv4 base = 0;
    bases.push_back(SubnetBase(subnet, base) ? base : 0);
  }
  auto current = std::make_shared<SweepRun>(impl_->timers, std::move(bases), std::move(done));
  impl_->run = current;
  for (Ipv4 base : current->bases) {
    if (base == 0) continue;
    for (int host = kFirstHost; host <= kLastHost; ++host) current->addresses.push_back(base | host);
  }
  if (!current->addresses.empty()) {
    std::error_code ec;
    current->probe = impl_->opener(impl_->io, ec);
    if (!current->probe) {
      impl_->reporter.ReportEvent(kModule, "BuildARPTable", Err::Of("native sweep: " + ec.message()));
    }
  }
  if (!current->probe) {
    // Nothing to wait for: finish on the next turn of the loop, never inside Start.
    asio::post(impl_->io, [this, weak = std::weak_ptr<SweepRun>(current)] {
      if (auto run = weak.lock(); run && run == impl_->run) impl_->Finish(run);
    });
    return;
  }
  current->probe->Probe(current->addresses);
  current->timer->Start(impl_->timing.RetryAfter, [this, weak = std::weak_ptr<SweepRun>(current)] {
    if (auto run = weak.lock(); run && run == impl_->run) impl_->Retry(run);
  });
}

void NativeSweep::Impl::Retry(const std::shared_ptr<SweepRun>& current) {
  std::map<Ipv4, bool> answered;
  for (const platform::Neighbour& n : current->probe->Answered()) answered[n.Ip] = true;
  std::vector<Ipv4> silent;
  for (Ipv4 ip : current->addresses) {
    if (!answered.count(ip)) silent.push_back(ip);
  }
  if (silent.empty()) {
    Finish(current);
    return;
  }
  current->probe->Probe(silent);
  current->timer->Start(timing.Deadline - timing.RetryAfter, [this, weak = std::weak_ptr<SweepRun>(current)] {
    if (auto run = weak.lock(); run && run == this->run) Finish(run);
  });
}

void NativeSweep::Impl::Finish(const std::shared_ptr<SweepRun>& current) {
  std::map<Ipv4, MacAddress> found;
  if (current->probe) {
    for (const platform::Neighbour& n : current->probe->Answered()) found.emplace(n.Ip, n.Mac);
    ReportSendFailures(*current);
  }
  std::vector<std::vector<ArpEntry>> perSubnet;
  for (Ipv4 base : current->bases) {
    std::vector<ArpEntry>& entries = perSubnet.emplace_back();
    if (base == 0) continue;
    for (auto it = found.lower_bound(base | kFirstHost); it != found.end() && it->first <= (base | kLastHost);
         ++it) {
      entries.push_back({IpText(it->first), MacText(it->second)});
    }
  }
  run.reset();
  Done done = std::move(current->done);
  current->probe.reset();
  try {
    if (done) done(perSubnet);
  } catch (const std::exception& e) {
    reporter.ReportEvent(kModule, "BuildARPTable", Err::From(e));
  }
}

void NativeSweep::Impl::ReportSendFailures(const SweepRun& current) {
  std::size_t failures = current.probe->SendFailures();
  if (failures == 0) return;
  reporter.ReportEvent(kModule, "BuildARPTable",
                       Err::Of("native sweep: " + std::to_string(failures) + " probes not sent (" +
                               current.probe->FirstSendError().message() + ")"));
}

bool IsSweptSubnet(const std::string& subnet) {
  Ipv4 base = 0;
  return SubnetBase(subnet, base);
}

std::string ArpLogText(const std::vector<ArpEntry>& entries) {
  constexpr std::size_t kMacColumn = 24;
  constexpr std::size_t kTypeColumn = 46;
  std::string text;
  for (const ArpEntry& entry : entries) {
    std::string line = "  " + entry.Ip;
    line.append(line.size() < kMacColumn ? kMacColumn - line.size() : 1, ' ');
    line += entry.Mac;
    line.append(line.size() < kTypeColumn ? kTypeColumn - line.size() : 1, ' ');
    line += "dynamic";
    text += line;
    text += platform::kLineEnd;
  }
  return text;
}

}  // namespace tavrel
