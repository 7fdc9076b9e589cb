// Parses any bytes as a received xAP message and asks every reader about what it found: no crash, no
// hang, at most one log line per text, and answers that hold for every parse.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "xap/XapMessage.h"

namespace {

struct CountingReporter : tavrel::Reporter {
  void WriteLog(std::string_view, std::string_view, const tavrel::Err&) override { ++lines; }
  void ReportEvent(std::string_view, std::string_view, const tavrel::Err&) override { ++lines; }
  int lines = 0;
};

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CountingReporter reporter;
  tavrel::XapMessage m(&reporter);
  m.FromXap(text);
  Check(reporter.lines <= 1);

  std::vector<std::string> names;
  try {
    names = m.msgSection();
  } catch (const std::out_of_range&) {
  }
  for (int i = 0; const auto* block = m.msgCollection(i); ++i) {
    for (const auto& entry : *block) {
      Check(entry.value.find('=') != std::string::npos);
      // An item's value is a piece of the received text.
      for (const auto& name : names) {
        const std::string value = m.GetItem(name, entry.key);
        Check(value == "Unknown" || text.find(value) != std::string_view::npos);
      }
    }
  }
  Check(m.CompareClass(m.msgClass));
  for (const auto& [a, b] : {std::pair(m.msgSource, m.msgTarget), std::pair(m.msgUID, m.msgClass)}) {
    Check(m.CompareAddress(a, b) == m.CompareAddress(b, a));
    Check(a.empty() || m.CompareAddress(a, a));
  }
  return 0;
}
