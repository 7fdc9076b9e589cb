// Feeds arbitrary bytes to the xAP message handler, once as a whole received text and once behind a valid
// header of each class it serves, so the class handlers see hostile bodies too. Nothing may crash or hang.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include "core/Clock.h"
#include "core/ComputerTable.h"
#include "core/Reporter.h"
#include "settings/Hs.h"
#include "xap/XapGlobal.h"
#include "xap/XapHandler.h"

namespace {

using namespace tavrel;

class QuietReporter : public Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view, const Err&) override {}
  void ReportEvent(std::string_view, std::string_view, const Err&) override {}
};

class CountingSend : public XapSendOperation {
 public:
  void Send(const std::string&, const std::string&, const std::string&, const std::string&) override {
    ++count;
  }
  size_t count = 0;
};

// One temporary home for the whole run, removed at exit.
struct Harness {
  std::filesystem::path home;
  QuietReporter reporter;
  Hs hs;
  XapGlobal xap;
  CountingSend sent;
  CountingSend transport;
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 30, 0)};
  size_t wakes = 0;

  Harness() : home(MakeHome()), hs(home / "Config", reporter) { xap.SetTransport(&sent); }
  ~Harness() {
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
  }

  static std::filesystem::path MakeHome() {
    std::random_device rd;
    auto path = std::filesystem::temp_directory_path() / ("tavrel-fuzz-handler-" + std::to_string(rd()));
    std::filesystem::create_directories(path / "Config");
    return path;
  }

  // The INI file is dropped before every input so learned names do not pile up across a long run.
  void ForgetIni() {
    std::error_code ec;
    std::filesystem::remove(home / "Config" / "tavrel.ini", ec);
    std::filesystem::remove(home / "Config" / "tavrel.ini_bck", ec);
  }
};

struct ClassHeader {
  const char* msgClass;
  const char* target;
};

constexpr ClassHeader kHeaders[] = {
    {"Homeseer.Role", ""},
    {"Computer.Process", "x.y.pc7"},
    {"WDT.Echo", "zel.WOL.host1"},
    {"Time.Today", ""},
};

std::string Header(const ClassHeader& h) {
  std::string text = "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=" + std::string(h.msgClass) +
                     "\nsource=acme.controller.hub\n";
  if (*h.target != '\0') text += "target=" + std::string(h.target) + "\n";
  return text + "}\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Harness harness;
  harness.ForgetIni();

  ComputerTable table;
  table.Computers.Add("hub", KeyValuePair{"hub", "198.51.100.2"});
  table.Computers.Add("pc7", KeyValuePair{"pc7", "198.51.100.7"});
  table.ARPTable.Add("198.51.100.7", KeyValuePair{"198.51.100.7", "00-11-22-33-44-55"});

  XapHandler handler(XapHandler::Context{table, harness.hs, harness.xap, harness.transport, harness.reporter,
                                         harness.clock,
                                         [](const std::string&, const std::string&) { ++harness.wakes; },
                                         "zel.WOL.host1", "/opt/tavrel/tavrel"});
  const std::string input(reinterpret_cast<const char*>(data), size);
  handler.Handle(input);
  for (const auto& h : kHeaders) handler.Handle(Header(h) + input);
  return 0;
}
