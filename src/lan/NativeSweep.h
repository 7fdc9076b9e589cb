#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <asio/io_context.hpp>

#include "core/Reporter.h"
#include "core/Timer.h"
#include "platform/Neighbours.h"

namespace tavrel {

// One address found by a sweep: dotted IPv4 text and the MAC in the form "arp -a" prints
// ("00-11-22-aa-bb-cc", lower case).
struct ArpEntry {
  std::string Ip;
  std::string Mac;

  bool operator==(const ArpEntry&) const = default;
};

// The fast sweep: every host 1-254 of every subnet probed at once, then the OS neighbour table read until
// the sweep's deadline. Runs on the io_context and never blocks it.
class NativeSweep {
 public:
  // Results per subnet, in the order the subnets were given.
  using Done = std::function<void(const std::vector<std::vector<ArpEntry>>& perSubnet)>;

  // How long a sweep waits: silent addresses are probed again at RetryAfter, and the sweep ends at
  // Deadline, both counted from Start.
  struct Timing {
    std::chrono::milliseconds RetryAfter;
    std::chrono::milliseconds Deadline;
  };
  static const Timing kTiming;
  using ProbeOpener =
      std::function<std::shared_ptr<platform::NeighbourProbe>(asio::io_context&, std::error_code&)>;

  NativeSweep(asio::io_context& io, Reporter& reporter, TimerFactory& timers);
  // With another way to reach the link and other timing (tests).
  NativeSweep(asio::io_context& io, Reporter& reporter, TimerFactory& timers, ProbeOpener opener,
              Timing timing);
  ~NativeSweep();
  NativeSweep(const NativeSweep&) = delete;
  NativeSweep& operator=(const NativeSweep&) = delete;

  // subnets are "a.b.c" texts, checked by the caller with ParseSubnet. A sweep already
  // running is cancelled first (its Done is not called). done runs on the io_context.
  void Start(std::vector<std::string> subnets, Done done);
  bool Running() const;
  void Cancel();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// True when the sweep probes the hosts of subnet (an "a.b.c" text): not 0.x.x, not 127.x.x loopback,
// not 224 and above.
bool IsSweptSubnet(const std::string& subnet);

// The results of one subnet as "arp -a" prints them: per entry two blanks, the IP, blanks to column 24,
// the MAC, blanks, "dynamic", line end; read back by the scan timer's log reader.
std::string ArpLogText(const std::vector<ArpEntry>& entries);

}  // namespace tavrel
