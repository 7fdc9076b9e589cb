// Parses any bytes as a received xAP message: no crash, no hang, at most one log line per text, and
// address answers that hold for every parse.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "FuzzSupport.h"
#include "xap/XapMessage.h"

using tavrel::fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tavrel::fuzz::CountingReporter reporter;
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
