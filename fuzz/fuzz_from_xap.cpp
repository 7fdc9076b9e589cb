// Parses any bytes as a received xAP message and then asks every reader about what it found. Besides
// "no crash, no hang" it checks what must hold for every parse.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/Text.h"
#include "xap/XapMessage.h"

namespace {

class CountingReporter : public tavrel::Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view, const tavrel::Err&) override { ++lines; }
  void ReportEvent(std::string_view, std::string_view, const tavrel::Err&) override { ++lines; }
  int lines = 0;
};

void Check(bool condition) {
  if (!condition) std::abort();
}

void CheckAddresses(const tavrel::XapMessage& m, const std::string& a, const std::string& b) {
  Check(m.CompareAddress(a, b) == m.CompareAddress(b, a));
  if (!a.empty()) Check(m.CompareAddress(a, a));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CountingReporter reporter;
  tavrel::XapMessage m(&reporter);
  m.FromXap(text);
  // One failure of a text is logged at most.
  Check(reporter.lines <= 1);

  std::vector<std::string> names;
  try {
    names = m.msgSection();
  } catch (const std::out_of_range&) {
  }
  for (int i = 0;; ++i) {
    const auto* block = m.msgCollection(i);
    if (block == nullptr) break;
    for (const auto& entry : *block) {
      // Every stored line holds "=" and is filed under its trimmed, lower-cased key.
      const size_t eq = entry.value.find('=');
      Check(eq != std::string::npos);
      Check(entry.key == tavrel::LCase(tavrel::Trim(std::string_view(entry.value).substr(0, eq))));
      for (const auto& name : names) {
        const std::string value = m.GetItem(name, entry.key);
        Check(value == "Unknown" || text.find(value) != std::string_view::npos);
      }
    }
  }
  Check(m.CompareClass(m.msgClass));
  CheckAddresses(m, m.msgSource, m.msgTarget);
  CheckAddresses(m, m.msgUID, m.msgClass);
  m.CompareSource(m.msgTarget);
  m.CompareTarget(m.msgSource);
  return 0;
}
