#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "http/ServerLog.h"
#include "http/TCPServerModule.h"

namespace tavrel::test {

// Debug lines and raw writes in order; raw writes are marked with a leading "raw:".
class RecordingLog : public ServerLog {
 public:
  void WriteLine(std::string_view text) override { lines.emplace_back(text); }
  void Write(std::string_view text) override { lines.push_back("raw:" + std::string(text)); }
  std::vector<std::string> lines;
};

// Answers the two pages with a fixed text and notes each call as "socket method page form-a".
class RecordingPages : public PageHandler {
 public:
  std::string RemotePage(Request& request, Response& response) override {
    calls.push_back(std::to_string(response.index()) + " " + request.Method() + " " + request.page() + " " +
                    request.Form("a"));
    return answer;
  }
  std::string answer = "<p>hi</p>";
  std::vector<std::string> calls;
};

}  // namespace tavrel::test
