#include "lan/LanScan.h"

#include <fstream>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "core/Files.h"
#include "core/Text.h"
#include "settings/Settings.h"

namespace tavrel {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kBuildLabel = "BuildARPTable";
constexpr std::string_view kTimerLabel = "ARPTimer_Timer";

// These two faults carry the run-time error numbers and texts of the classic runtime.
const Err kNoDotInLocalIP{Err::kInvalidCall, "Invalid procedure call or argument"};
const Err kShortArpLine{Err::kSubscriptOutOfRange, "Subscript out of range"};

// "p0.log", "p21.bat": a scan file name of subnet number i. (Built by appending: g++ 12 warns falsely
// on a literal + temporary string.)
std::string ScanFile(std::string_view prefix, size_t i, std::string_view extension) {
  std::string name(prefix);
  name += std::to_string(i);
  name += extension;
  return name;
}

void WriteBytes(const fs::path& file, const std::string& bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot create " + file.string());
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

void RemoveIfExists(const fs::path& file) {
  std::error_code ec;
  if (fs::exists(file, ec)) fs::remove(file);  // throws when it cannot
}

// The pieces between single blanks, empty pieces left out.
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  for (auto& piece : Split(line, " ")) {
    if (!piece.empty()) words.push_back(std::move(piece));
  }
  return words;
}

}  // namespace

BatchFiles MakeBatchFiles(int i, const std::string& subnet, const std::string& tempFolder) {
  const size_t n = static_cast<size_t>(i);
  BatchFiles files;
  files.p = "ping -n 1 -l 1 %1.%2\r\narp -a %1.%2\r\n";
  files.p2 =
      "for /l %%i in (1,1,254) do " + tempFolder + "\\" + ScanFile("p", n, ".bat ") + subnet + " %%i\r\n";
  files.p3 =
      tempFolder + "\\" + ScanFile("p2", n, ".bat > ") + tempFolder + "\\" + ScanFile("p", n, ".log\r\n");
  return files;
}

std::string BatchTempFolder(const std::string& home) { return home.substr(0, 3) + "Temp"; }

LanScan::LanScan(asio::io_context& io, TimerFactory& timers, ComputerRegistry& computers, Hs& hs,
                 XapGlobal& xap, Reporter& reporter, std::function<std::string()> localIP, fs::path home,
                 CommandShell shell)
    : computers_(computers),
      hs_(hs),
      xap_(xap),
      reporter_(reporter),
      localIP_(std::move(localIP)),
      home_(std::move(home)),
      shell_(std::move(shell)),
      timer_(timers.Create()),
      presenceTimer_(timers.Create()),
      sweep_(io, reporter, timers) {}

LanScan::~LanScan() = default;

void LanScan::QueryLAN() {
  try {
    xap_.SendXap("", "Computer.Process", "Computer.Query", XapBody({{"Query", "All"}}));
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, "QueryLAN", Err::From(e));
  }
  BuildARPTable();
}

// The configured subnets, or the one of this machine's address, each checked and numbered by its place in
// the list. A local address without "." gives the sweep nothing (its caller reports that) and the reader
// the placeholder "a.b.c", which is no subnet either.
std::optional<SubnetList> LanScan::Subnets(bool forTimer) const {
  std::string list = ReadWolSettings(hs_).subnet;
  if (list.empty()) {
    std::string ip = localIP_();
    size_t dot = ip.rfind('.');
    if (dot != std::string::npos) {
      list = ip.substr(0, dot);
    } else if (forTimer) {
      list = "a.b.c";
    } else {
      return std::nullopt;
    }
  }
  return CheckSubnets(Split(list, ","));
}

LanScan::Method LanScan::ScanMethod(bool logFallback) const {
  const bool haveCmd = shell_.Available;
  const std::string fallback = haveCmd ? "batch" : "native";
  std::string value = ReadWolSettings(hs_).scanMethod;
  if (value.empty()) value = fallback;
  if (value == "native") return Method::Native;
  if (value == "batch" && haveCmd) return Method::Batch;
  if (logFallback) {
    reporter_.WriteLog(kModule, value == "batch" ? "ScanMethod batch needs CMD.EXE, using native"
                                                 : "ScanMethod " + value + " unknown, using " + fallback);
  }
  return haveCmd ? Method::Batch : Method::Native;
}

// CMD.EXE wants "\" in the paths of the batch files, whatever form the home was given in.
std::string LanScan::BatchFolder() const {
  return BatchTempFolder(fs::path(home_).make_preferred().string());
}

fs::path LanScan::LogFolder(Method method) const {
  if (method == Method::Batch) return fs::path(BatchFolder());
  return home_ / "Temp";
}

void LanScan::BuildARPTable() {
  std::vector<ListedSubnet> subnets;
  try {
    if (auto list = Subnets(false)) {
      for (const std::string& entry : list->Invalid)
        reporter_.ReportEvent(kModule, kBuildLabel, Err::Of("Invalid subnet " + entry));
      subnets = std::move(list->Valid);
    } else {
      reporter_.ReportEvent(kModule, kBuildLabel, kNoDotInLocalIP);
    }
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
  }
  try {
    if (ScanMethod(true) == Method::Batch) {
      sweep_.Cancel();
      for (const ListedSubnet& listed : subnets) StartBatchSweep(listed);
    } else {
      StartNativeSweep(subnets);
    }
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
  }
  EnableTimer();
}

void LanScan::StartBatchSweep(const ListedSubnet& listed) {
  // Each step reports its own failure and the sweep goes on with the next one.
  auto step = [this](auto&& action) {
    try {
      action();
    } catch (const std::exception& e) {
      reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
    }
  };
  const std::string temp = BatchFolder();
  const fs::path folder(temp);
  const size_t n = listed.Number;
  // A fresh Windows has no drive Temp folder; without it no sweep could ever run.
  step([&] { fs::create_directories(folder); });
  const BatchFiles files = MakeBatchFiles(static_cast<int>(n), listed.Subnet, temp);
  const std::pair<std::string, const std::string*> batches[] = {{ScanFile("p", n, ".bat"), &files.p},
                                                                {ScanFile("p2", n, ".bat"), &files.p2},
                                                                {ScanFile("p3", n, ".bat"), &files.p3}};
  for (const auto& batch : batches) {
    const std::string& name = batch.first;
    step([&] { RemoveIfExists(folder / name); });
    step([&] { WriteBytes(folder / name, *batch.second); });
  }
  step([&] { RemoveIfExists(folder / ScanFile("p", n, ".log")); });
  step([&] { WatchProcess(shell_.Start(temp + "\\" + ScanFile("p3", n, ".bat"))); });
}

void LanScan::StartNativeSweep(const std::vector<ListedSubnet>& subnets) {
  const fs::path folder = LogFolder(Method::Native);
  std::vector<std::string> probe;
  std::vector<size_t> numbers;
  for (const ListedSubnet& listed : subnets) {
    try {
      RemoveIfExists(folder / ScanFile("p", listed.Number, ".log"));
    } catch (const std::exception& e) {
      reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
    }
    probe.push_back(listed.Subnet);
    numbers.push_back(listed.Number);
  }
  if (probe.empty()) {
    sweep_.Cancel();
    return;
  }
  // The sweep belongs to this scan: it is cancelled, and never calls back, once the scan is gone.
  sweep_.Start(std::move(probe), [this, numbers](const std::vector<std::vector<ArpEntry>>& results) {
    OnSweepDone(numbers, results);
  });
}

void LanScan::StartPresence(std::chrono::seconds interval) {
  presenceTimer_->StartRepeating(interval, [this] { PresenceSweep(); });
  PresenceSweep();
}

void LanScan::PresenceSweep() {
  if (ProcessExists()) return;
  std::vector<std::string> probe;
  try {
    if (auto list = Subnets(false)) {
      for (ListedSubnet& listed : list->Valid) probe.push_back(std::move(listed.Subnet));
    }
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "PresenceSweep", Err::From(e));
  }
  if (probe.empty()) return;
  sweep_.Start(std::move(probe), [this](const std::vector<std::vector<ArpEntry>>& results) {
    std::vector<KeyValuePair> answered;
    for (const auto& subnet : results) {
      for (const ArpEntry& entry : subnet) answered.push_back(KeyValuePair{entry.Ip, UCase(entry.Mac)});
    }
    try {
      computers_.MergeArp(answered);
    } catch (const std::exception& e) {
      reporter_.WriteLog(kModule, "PresenceSweep", Err::From(e));
    }
  });
}

// The native sweep's results become the logs the batch sweep would have left, and are read at once.
void LanScan::OnSweepDone(const std::vector<size_t>& numbers,
                          const std::vector<std::vector<ArpEntry>>& results) {
  const fs::path folder = LogFolder(Method::Native);
  try {
    fs::create_directories(folder);
    for (size_t k = 0; k < numbers.size() && k < results.size(); ++k) {
      try {
        WriteBytes(folder / ScanFile("p", numbers[k], ".log"), ArpLogText(results[k]));
      } catch (const std::exception& e) {
        reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
      }
    }
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, kBuildLabel, Err::From(e));
  }
  ReadLogs(folder);
}

void LanScan::ARPTimer_Timer() {
  fs::path folder;
  try {
    if (ProcessExists()) return;
    folder = LogFolder(ScanMethod(false));
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, kTimerLabel, Err::From(e));
    return;
  }
  ReadLogs(folder);
}

bool LanScan::ProcessExists() const { return watched_.Running() || sweep_.Running(); }

void LanScan::ReadLogs(const fs::path& folder) {
  std::vector<ListedSubnet> subnets;
  try {
    if (auto list = Subnets(true)) subnets = std::move(list->Valid);
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, kTimerLabel, Err::From(e));
  }
  std::vector<KeyValuePair> sweep;
  for (const ListedSubnet& listed : subnets) {
    DisableTimer();
    ReadLog(folder / ScanFile("p", listed.Number, ".log"), sweep);
  }
  try {
    computers_.MergeArp(sweep);
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, kTimerLabel, Err::From(e));
  }
}

void LanScan::ReadLog(const fs::path& file, std::vector<KeyValuePair>& arp) {
  std::string text;
  try {
    std::error_code ec;
    if (!fs::exists(file, ec)) return;
    auto bytes = ReadWholeFile(file);
    if (!bytes) throw std::runtime_error("cannot open " + file.string());
    text = std::move(*bytes);
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, kTimerLabel, Err::From(e));
    return;
  }
  // Lines end in CR LF ("arp -a", CMD.EXE), LF or CR.
  for (std::string_view line : SplitLines(text)) {
    // Static, broadcast and interface lines never say "dynamic".
    if (line.find("dynamic") == std::string::npos) continue;
    try {
      AddArpLine(std::string(line), arp);
    } catch (const std::exception& e) {
      reporter_.WriteLog(kModule, kTimerLabel, Err::From(e));
    }
  }
}

void LanScan::AddArpLine(const std::string& line, std::vector<KeyValuePair>& arp) {
  std::vector<std::string> words = Words(line);
  if (words.size() < 2) {
    reporter_.WriteLog(kModule, kTimerLabel, kShortArpLine);
    return;
  }
  arp.push_back(KeyValuePair{words[0], UCase(words[1])});
}

void LanScan::WatchProcess(platform::Process process) { watched_ = std::move(process); }

void LanScan::Stop() {
  DisableTimer();
  presenceTimer_->Stop();
  sweep_.Cancel();
  watched_ = platform::Process();
}

void LanScan::EnableTimer() {
  timer_->StartRepeating(kTimerPeriod, [this] { ARPTimer_Timer(); });
}

void LanScan::DisableTimer() { timer_->Stop(); }

}  // namespace tavrel
