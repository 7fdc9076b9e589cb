#include "TestSupport.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>
#include <thread>

#include "core/Files.h"

namespace tavrel::test {

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  do {
    path_ = std::filesystem::temp_directory_path() /
            ("tavrel-test-" + std::to_string(rd()) + "-" + std::to_string(counter++));
  } while (!std::filesystem::create_directory(path_));
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

void SetTimeZone(const std::optional<std::string>& tz) {
#ifdef _WIN32
  _putenv_s("TZ", tz ? tz->c_str() : "");
  _tzset();
#else
  if (tz) {
    setenv("TZ", tz->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
#endif
}

}  // namespace

TimeZone::TimeZone(const std::string& tz) {
  if (const char* now = std::getenv("TZ")) before_ = now;
  SetTimeZone(tz);
}

TimeZone::~TimeZone() { SetTimeZone(before_); }

std::string ReadFile(const std::filesystem::path& path) { return ReadWholeFile(path).value_or(""); }

void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

bool WaitFor(const std::function<bool()>& cond, std::chrono::milliseconds deadline) {
  auto end = std::chrono::steady_clock::now() + deadline;
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return cond();
}

}  // namespace tavrel::test
