// What the fuzz targets share: a failed check stops the run where libFuzzer sees it, and a reporter that
// only counts its lines.
#pragma once

#include <cstdlib>
#include <string_view>

#include "core/Reporter.h"

namespace tavrel::fuzz {

inline void Check(bool condition) {
  if (!condition) std::abort();
}

struct CountingReporter final : Reporter {
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view, const Err&) override { ++lines; }
  void ReportEvent(std::string_view, std::string_view, const Err&) override { ++lines; }
  int lines = 0;
};

}  // namespace tavrel::fuzz
