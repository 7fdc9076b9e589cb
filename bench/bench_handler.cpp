// Messages handled per second by the message handler in-process, for the two kinds a busy network
// brings most: an echo query (parsed, answered) and a known computer's heartbeat-like message (parsed,
// sender marked seen). The reference is parsing the same text alone, the floor of any handling.
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "core/Clock.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "xap/XapHandler.h"
#include "xap/XapMessage.h"
#include "xapsend/XapGlobal.h"

namespace {

using namespace tavrel;

class NullReporter final : public Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view, const Err&) override {}
  void ReportEvent(std::string_view, std::string_view, const Err&) override {}
};

class CountingSend final : public XapSendOperation {
 public:
  void Send(const std::string&, const std::string&, const std::string&, const std::string& body) override {
    bytes += body.size();
  }
  size_t bytes = 0;
};

const std::string kEcho =
    "xap-header\n{\nv=12\nhop=1\nuid=FF00AA00\nclass=WDT.Echo\nsource=acme.watch.pc7\n}\nEcho.Query\n{\n"
    "Query=ABC\n}\n";
const std::string kStatus =
    "xap-header\n{\nv=12\nhop=1\nuid=FF00AA00\nclass=xAPBSC.info\nsource=acme.agent.pc7\n}\ninput.state\n{\n"
    "state=on\n}\n";

struct World {
  World() {
    home = std::filesystem::temp_directory_path() / "tavrel-bench-handler";
    std::filesystem::create_directories(home / "Config");
    xap.SetTransport(&send);
    // The sender is known already: no INI write on the measured path.
    ComputerRegistry::Edits edits;
    computers.Rename("", "pc7", "198.51.100.7", edits);
  }
  ~World() { std::filesystem::remove_all(home); }

  std::filesystem::path home;
  NullReporter reporter;
  CountingSend send;
  XapGlobal xap;
  ManualClock clock{MakeDateTime(2026, 11, 22, 12, 0, 0)};
  Hs hs{home / "Config", reporter};
  ComputerRegistry computers{hs, clock};
  XapHandler handler{XapHandler::Context{computers, hs, xap, send, reporter, clock,
                                         [](const std::string&, const std::string&) {}, "zel.WOL.host",
                                         "/usr/bin/tavrel"}};
};

void Handle(benchmark::State& state, const std::string& text) {
  World world;
  for (auto _ : state) world.handler.Handle(text);
  state.SetItemsProcessed(state.iterations());
  benchmark::DoNotOptimize(world.send.bytes);
}

void HandleEchoQuery(benchmark::State& state) { Handle(state, kEcho); }
void HandleKnownSenderStatus(benchmark::State& state) { Handle(state, kStatus); }

void ReferenceParseOnly(benchmark::State& state) {
  for (auto _ : state) {
    XapMessage m;
    m.FromXap(kEcho);
    std::string id = m.GetItem("Echo.Query", "Query");
    benchmark::DoNotOptimize(id);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(HandleEchoQuery);
BENCHMARK(HandleKnownSenderStatus);
BENCHMARK(ReferenceParseOnly);

}  // namespace

BENCHMARK_MAIN();
