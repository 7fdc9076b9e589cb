// The xAP message on the hot path of every received datagram: parsing a typical computer query and
// reading its values, and building an answer. Each is measured beside a reference that does the same
// work with plain std::string find and append, the floor any parser of this text could reach.
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "xap/XapMessage.h"

namespace {

const std::string kQuery =
    "xap-header\n{\nv=12\nhop=1\nuid=FF00AA00\nclass=Computer.Process\nsource=zel.agent.pc7\n"
    "target=zel.WOL.host\n}\nComputer.Query\n{\nQuery=All\n}\n";
constexpr char kPrefix[] = "xap-header\n{\nv=12\nhop=1\nuid=FF001500\n";

void FromXapAndGetItem(benchmark::State& state) {
  for (auto _ : state) {
    tavrel::XapMessage m;
    m.FromXap(kQuery);
    bool isProcess = m.CompareClass("Computer.Process");
    std::string action = m.GetItem("Computer.Control", "Action");
    std::string query = m.GetItem("Computer.Query", "Query");
    benchmark::DoNotOptimize(isProcess);
    benchmark::DoNotOptimize(action);
    benchmark::DoNotOptimize(query);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kQuery.size()));
}
BENCHMARK(FromXapAndGetItem);

// The value of key in block, found by splitting the lines and scanning them.
std::string FindValue(const std::vector<std::string_view>& lines, std::string_view block,
                      std::string_view key) {
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    if (lines[i] != "}" || lines[i + 1] != block) continue;
    for (size_t j = i + 2; j < lines.size() && lines[j] != "}"; ++j) {
      if (lines[j].size() > key.size() && lines[j].substr(0, key.size()) == key &&
          lines[j][key.size()] == '=') {
        return std::string(lines[j].substr(key.size() + 1));
      }
    }
  }
  return "Unknown";
}

void ReferenceFindAndSplit(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::string_view> lines;
    std::string_view text(kQuery);
    for (size_t start = 0;;) {
      size_t at = text.find('\n', start);
      lines.push_back(text.substr(start, at == std::string_view::npos ? text.npos : at - start));
      if (at == std::string_view::npos) break;
      start = at + 1;
    }
    bool isProcess = text.find("\nclass=Computer.Process\n") != std::string_view::npos;
    std::string action = FindValue(lines, "Computer.Control", "Action");
    std::string query = FindValue(lines, "Computer.Query", "Query");
    benchmark::DoNotOptimize(isProcess);
    benchmark::DoNotOptimize(action);
    benchmark::DoNotOptimize(query);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kQuery.size()));
}
BENCHMARK(ReferenceFindAndSplit);

void BuildMessage(benchmark::State& state) {
  for (auto _ : state) {
    tavrel::XapMessage m;
    m.msgClass = "Computer.Process";
    m.msgSource = "zel.WOL.host";
    m.msgTarget = "";
    m.AddHeader(kPrefix);
    m.AddSection("Computer.Notification");
    m.AddItem("MAC", "198.51.100.7");
    m.AddItem("IP", "198.51.100.7");
    m.AddItem("Name", "pc7");
    std::string text = m.ToXap();
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BuildMessage);

void ReferenceAppend(benchmark::State& state) {
  for (auto _ : state) {
    std::string text;
    text.reserve(256);
    text.append(kPrefix).append("class=").append("Computer.Process").append("\n");
    text.append("source=").append("zel.WOL.host").append("\n}\n");
    text.append("Computer.Notification").append("\n{\n");
    text.append("MAC").append("=").append("198.51.100.7").append("\n");
    text.append("IP").append("=").append("198.51.100.7").append("\n");
    text.append("Name").append("=").append("pc7").append("\n}\n");
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(ReferenceAppend);

}  // namespace

BENCHMARK_MAIN();
