#pragma once

#include <string_view>

#include "core/Err.h"
#include "platform/SystemHeaders.h"

namespace tavrel {

// The two ways the program tells about trouble: the text log file and an xAP event report.
// Lower layers (settings, xap, lan) report through this interface; the application's Log implements it.
// Neither call ever throws.
class Reporter {
 public:
  virtual ~Reporter() = default;
  virtual void WriteLog(std::string_view module, std::string_view text, const Err& err) = 0;
  virtual void ReportEvent(std::string_view module, std::string_view text, const Err& err) = 0;

  void WriteLog(std::string_view module, std::string_view text) { WriteLog(module, text, Err{}); }
  void ReportEvent(std::string_view module, std::string_view text) { ReportEvent(module, text, Err{}); }
};

// The module name the program's own procedures report under.
inline constexpr std::string_view kModule = "tavrel";

}  // namespace tavrel
