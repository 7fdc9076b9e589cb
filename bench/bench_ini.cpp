// The INI store on the program's own file with 1,000 computers (sections "Computer" and "ARP"): loading
// and reading, loading and saving one change, and reading a whole section through the settings object.
// Beside them the floors: reading the same file into a std::map with std::getline, and that plus writing
// it back through a temporary file renamed over the original.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

#include "settings/Hs.h"
#include "settings/IniTool.h"

namespace fs = std::filesystem;

namespace {

constexpr int kComputers = 1000;

class NullReporter : public tavrel::Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view, const tavrel::Err&) override {}
  void ReportEvent(std::string_view, std::string_view, const tavrel::Err&) override {}
};

std::string Ip(int i) { return "192.168." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250); }

std::string Mac(int i) {
  char text[18];
  std::snprintf(text, sizeof text, "00-1A-2B-%02X-%02X-%02X", (i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff);
  return text;
}

// A Config folder holding tavrel.ini, written once for the whole run and removed at the end.
class Home {
 public:
  Home() {
    dir_ = fs::temp_directory_path() / ("tavrel-bench-ini-" + std::to_string(std::random_device{}()));
    fs::create_directories(dir_);
    std::ofstream out(File(), std::ios::binary);
    out << "[WOL]\nSubnet=198.51.100,203.0.113\nHTTPPort=8019\nSort=Name\nSortDir=asc\n";
    out << "[Computer]\n";
    for (int i = 0; i < kComputers; ++i) out << "pc" << i << '=' << Ip(i) << '\n';
    out << "[ARP]\n";
    for (int i = 0; i < kComputers; ++i) out << Ip(i) << '=' << Mac(i) << '\n';
  }
  ~Home() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  const fs::path& Folder() const { return dir_; }
  fs::path File() const { return dir_ / "tavrel.ini"; }
  int64_t Bytes() const { return static_cast<int64_t>(fs::file_size(File())); }

 private:
  fs::path dir_;
};

Home& TheHome() {
  static Home home;
  return home;
}

void IniLoadRead(benchmark::State& state) {
  NullReporter reporter;
  for (auto _ : state) {
    tavrel::IniTool ini(reporter);
    ini.Load(TheHome().File());
    std::string ip = ini.Read("Computer", "pc500", "");
    std::string port = ini.Read("WOL", "HTTPPort", "8019");
    benchmark::DoNotOptimize(ip);
    benchmark::DoNotOptimize(port);
  }
  state.SetBytesProcessed(state.iterations() * TheHome().Bytes());
}
BENCHMARK(IniLoadRead);

void IniLoadWriteKeySave(benchmark::State& state) {
  NullReporter reporter;
  int n = 0;
  for (auto _ : state) {
    tavrel::IniTool ini(reporter);
    ini.Load(TheHome().File());
    ini.WriteKey("WOL", "Sort", (++n % 2) != 0 ? "IP" : "Name");
    ini.Save();
  }
  state.SetBytesProcessed(state.iterations() * TheHome().Bytes());
}
BENCHMARK(IniLoadWriteKeySave);

void HsGetINISection(benchmark::State& state) {
  NullReporter reporter;
  tavrel::Hs hs(TheHome().Folder(), reporter);
  for (auto _ : state) {
    std::string pairs = hs.GetINISection("Computer", "tavrel.ini");
    benchmark::DoNotOptimize(pairs);
  }
  state.SetBytesProcessed(state.iterations() * TheHome().Bytes());
}
BENCHMARK(HsGetINISection);

// The floor of reading: every line into a map under section + "~" + key, nothing else.
std::map<std::string, std::string> ReadMap(const fs::path& file) {
  std::map<std::string, std::string> map;
  std::ifstream in(file, std::ios::binary);
  std::string line, section;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
      section = line.substr(1, line.size() - 2);
      continue;
    }
    size_t equal = line.find('=');
    if (equal != std::string::npos)
      map.emplace(section + "~" + line.substr(0, equal), line.substr(equal + 1));
  }
  return map;
}

void ReferenceMapRead(benchmark::State& state) {
  for (auto _ : state) {
    auto map = ReadMap(TheHome().File());
    auto it = map.find("Computer~pc500");
    benchmark::DoNotOptimize(it);
  }
  state.SetBytesProcessed(state.iterations() * TheHome().Bytes());
}
BENCHMARK(ReferenceMapRead);

void ReferenceMapReadWrite(benchmark::State& state) {
  int n = 0;
  const fs::path temp = TheHome().Folder() / "reference.tmp";
  const fs::path target = TheHome().Folder() / "reference.ini";
  fs::copy_file(TheHome().File(), target, fs::copy_options::overwrite_existing);
  for (auto _ : state) {
    auto map = ReadMap(target);
    map["WOL~Sort"] = (++n % 2) != 0 ? "IP" : "Name";
    {
      std::ofstream out(temp, std::ios::binary);
      std::string_view previous;
      for (const auto& [key, value] : map) {
        std::string_view k(key);
        std::string_view section = k.substr(0, k.find('~'));
        if (section != previous) out << '[' << section << "]\n";
        previous = section;
        out << k.substr(section.size() + 1) << '=' << value << '\n';
      }
    }
    fs::rename(temp, target);
  }
  state.SetBytesProcessed(state.iterations() * TheHome().Bytes());
}
BENCHMARK(ReferenceMapReadWrite);

}  // namespace

BENCHMARK_MAIN();
