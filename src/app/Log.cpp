#include "app/Log.h"

#include <fstream>
#include <string>
#include <utility>

#include "platform/LineEnd.h"

namespace tavrel {

Log::Log(std::filesystem::path dataFolder, const Clock& clock, XapGlobal& xap)
    : dataFolder_(std::move(dataFolder)), clock_(clock), xap_(xap) {}

void Log::WriteLog(std::string_view module, std::string_view text, const Err& err) {
  std::string line;
  line.append(module).append(" ").append(text).append(" ");
  line.append(std::to_string(err.Line)).append(" ").append(err.Description);
  line.append(platform::kLineEnd);
  // A log that cannot be written is not reported anywhere: there is nowhere left to report it.
  std::error_code ec;
  std::filesystem::create_directories(dataFolder_, ec);
  std::ofstream out(FilePath(), std::ios::binary | std::ios::app);
  out << line;
}

void Log::ReportEvent(std::string_view module, std::string_view text, const Err& err) {
  std::string data(text);
  if (err.IsSet()) data.append(" Line ").append(std::to_string(err.Line)).append(" ").append(err.Description);
  const std::string time = FormatDateTime(clock_.Now());
  xap_.SendXap("", "Homeseer.Event", "Event.Log",
               XapBody({{"Time", time}, {"Type", module}, {"Data", data}}));
}

}  // namespace tavrel
