#pragma once

#include <filesystem>
#include <fstream>
#include <string_view>

#include "core/Clock.h"
#include "http/ServerLog.h"

namespace tavrel {

// The server log stream under --debug: "Data/tavrel/server.log", appended to, each line the date and
// time, " | " and the text. A file that cannot be opened writes nothing; the server runs on.
class ServerLogFile final : public ServerLog {
 public:
  ServerLogFile(const std::filesystem::path& file, const Clock& clock);
  void WriteLine(std::string_view text) override;
  void Write(std::string_view text) override;

 private:
  std::ofstream out_;
  const Clock& clock_;
};

}  // namespace tavrel
