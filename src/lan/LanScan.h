#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <asio/io_context.hpp>

#include "core/Reporter.h"
#include "core/Timer.h"
#include "lan/NativeSweep.h"
#include "lan/Subnet.h"
#include "platform/Process.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "xapsend/XapGlobal.h"

namespace tavrel {

// The three batch files of one subnet's CMD.EXE sweep, each ending in CR LF: "p<i>.bat" pings one host
// and prints its ARP entry, "p2<i>.bat" runs it for hosts 1-254, "p3<i>.bat" runs that into "p<i>.log".
struct BatchFiles {
  std::string p, p2, p3;
};
BatchFiles MakeBatchFiles(int i, const std::string& subnet, const std::string& tempFolder);

// The batch sweep's folder: the drive of the home path and "Temp" ("C:\Temp" for a home on C:).
std::string BatchTempFolder(const std::string& home);

// How the batch sweep reaches CMD.EXE: whether it is there, and how a command line is started under it.
// Tests put a stand-in interpreter here.
struct CommandShell {
  bool Available = platform::HasCmdShell();
  std::function<platform::Process(const std::string&)> Start = &platform::Process::StartCommand;
};

// The LAN scan: sends the presence query, sweeps every configured subnet (through batch files under
// CMD.EXE, or the native sweep) and, once the sweep is over, hands the "p<i>.log" files to the computer
// registry, which replaces its ARP entries. All of it runs on the io_context and never blocks it.
class LanScan {
 public:
  LanScan(asio::io_context& io, TimerFactory& timers, ComputerRegistry& computers, Hs& hs, XapGlobal& xap,
          Reporter& reporter, std::function<std::string()> localIP, std::filesystem::path home,
          CommandShell shell = {});
  ~LanScan();
  LanScan(const LanScan&) = delete;
  LanScan& operator=(const LanScan&) = delete;

  // Asks every agent to announce itself, then starts a sweep.
  void QueryLAN();
  // Starts the sweep of every subnet of the list and arms ARPTimer.
  void BuildARPTable();
  // The ARPTimer tick: once the sweep is over, reads its logs (and switches the timer off).
  void ARPTimer_Timer();
  // True while the sweep last started still runs.
  bool ProcessExists() const;
  bool ARPTimerEnabled() const { return timer_->Armed(); }
  // At exit: cancels the timer and a running native sweep. A batch interpreter runs on by itself; no
  // file is touched.
  void Stop();

  // Presence: a native sweep of every subnet now and then every interval (no xAP query, no log files),
  // skipped while a sweep still runs; its answers go straight to the registry.
  void StartPresence(std::chrono::seconds interval);

  // Makes process the watched sweep process, as the batch sweep does with the interpreter it starts.
  void WatchProcess(platform::Process process);

  static constexpr std::chrono::seconds kTimerPeriod{30};

 private:
  enum class Method { Batch, Native };

  std::optional<SubnetList> Subnets(bool forTimer) const;
  Method ScanMethod(bool logFallback) const;
  std::string BatchFolder() const;
  std::filesystem::path LogFolder(Method method) const;

  void StartBatchSweep(const ListedSubnet& listed);
  void StartNativeSweep(const std::vector<ListedSubnet>& subnets);
  void PresenceSweep();
  void OnSweepDone(const std::vector<size_t>& numbers, const std::vector<std::vector<ArpEntry>>& results);
  void ReadLogs(const std::filesystem::path& folder);
  // Both add the IP and MAC pairs they read to arp.
  void ReadLog(const std::filesystem::path& file, std::vector<KeyValuePair>& arp);
  void AddArpLine(const std::string& line, std::vector<KeyValuePair>& arp);

  void EnableTimer();
  void DisableTimer();

  ComputerRegistry& computers_;
  Hs& hs_;
  XapGlobal& xap_;
  Reporter& reporter_;
  std::function<std::string()> localIP_;
  std::filesystem::path home_;
  CommandShell shell_;

  std::unique_ptr<Timer> timer_;
  std::unique_ptr<Timer> presenceTimer_;
  NativeSweep sweep_;
  platform::Process watched_;
};

}  // namespace tavrel
