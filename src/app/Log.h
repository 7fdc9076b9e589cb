#pragma once

#include <filesystem>
#include <string_view>

#include "core/Clock.h"
#include "core/Reporter.h"
#include "xapsend/XapGlobal.h"

namespace tavrel {

// The program's two report channels: the text log "Data/tavrel.txt" below the home folder, and
// "Homeseer.Event" messages over xAP.
class Log final : public Reporter {
 public:
  Log(std::filesystem::path dataFolder, const Clock& clock, XapGlobal& xap);

  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  // One line: module, blank, text, blank, error line number, blank, error description.
  void WriteLog(std::string_view module, std::string_view text, const Err& err) override;
  // One "Event.Log" block with "Time", "Type" (the module) and "Data" (the text and the error, if any).
  void ReportEvent(std::string_view module, std::string_view text, const Err& err) override;

  std::filesystem::path FilePath() const { return dataFolder_ / "tavrel.txt"; }

 private:
  std::filesystem::path dataFolder_;
  const Clock& clock_;
  XapGlobal& xap_;
};

}  // namespace tavrel
