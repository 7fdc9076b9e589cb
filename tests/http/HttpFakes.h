#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "http/ServerLog.h"

namespace tavrel::test {

// Debug lines and raw writes in order; raw writes are marked with a leading "raw:".
class RecordingLog : public ServerLog {
 public:
  void WriteLine(std::string_view text) override { lines.emplace_back(text); }
  void Write(std::string_view text) override { lines.push_back("raw:" + std::string(text)); }
  std::vector<std::string> lines;
};

}  // namespace tavrel::test
