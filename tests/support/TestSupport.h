#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/Reporter.h"

namespace tavrel::test {

// A fresh, empty folder under the system temp folder, removed again with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Every WriteLog and ReportEvent call, in order.
class RecordingReporter : public Reporter {
 public:
  struct Call {
    bool event;
    std::string module, text;
    Err err;
  };
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view module, std::string_view text, const Err& err) override {
    calls.push_back({false, std::string(module), std::string(text), err});
  }
  void ReportEvent(std::string_view module, std::string_view text, const Err& err) override {
    calls.push_back({true, std::string(module), std::string(text), err});
  }
  // Each call as "event|" or "log|", then "module|text|number|description"; forgets them.
  std::vector<std::string> Take() {
    std::vector<std::string> texts;
    for (const auto& c : std::exchange(calls, {}))
      texts.push_back((c.event ? "event|" : "log|") + c.module + "|" + c.text + "|" +
                      std::to_string(c.err.Number) + "|" + c.err.Description);
    return texts;
  }
  std::vector<Call> calls;
};

// The process's time zone set to a TZ text while it lives ("CET-1": one hour east of UTC all year, a
// form POSIX and the Windows C library both read), then back as it was.
class TimeZone {
 public:
  explicit TimeZone(const std::string& tz);
  ~TimeZone();
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  std::optional<std::string> before_;
};

std::string ReadFile(const std::filesystem::path& path);
void WriteFile(const std::filesystem::path& path, const std::string& bytes);

// Polls cond every few milliseconds until it holds or the deadline passes; returns its last value.
bool WaitFor(const std::function<bool()>& cond, std::chrono::milliseconds deadline = std::chrono::seconds(5));

}  // namespace tavrel::test
