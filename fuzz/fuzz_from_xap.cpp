// Parses any bytes as a received xAP message: no crash, no hang, at most one log line per text, and
// address answers that hold for every parse.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

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

  Check(m.CompareClass(m.msgClass));
  for (const auto& [a, b] : {std::pair(m.msgSource, m.msgTarget), std::pair(m.msgUID, m.msgClass)}) {
    Check(m.CompareAddress(a, b) == m.CompareAddress(b, a));
    Check(a.empty() || m.CompareAddress(a, a));
  }
  return 0;
}
