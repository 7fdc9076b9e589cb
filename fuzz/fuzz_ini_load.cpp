// Loads any bytes as an INI file, asks every reader about them, saves, and checks that the saved file
// is a fixed point: loading and saving it again gives the same bytes and keeps every value.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

#include "core/Text.h"
#include "settings/IniTool.h"

namespace fs = std::filesystem;

namespace {

class NullReporter : public tavrel::Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view text, const tavrel::Err&) override {
    if (text == "IniTool Save ") ++saveErrors;
  }
  void ReportEvent(std::string_view, std::string_view, const tavrel::Err&) override {}
  int saveErrors = 0;
};

void Check(bool condition) {
  if (!condition) std::abort();
}

// One folder for the whole run, removed at exit.
const fs::path& File() {
  static const fs::path file = [] {
    // Memory-backed where there is such a folder: every save replaces a file, which is slow on disk.
    std::error_code ec;
    const fs::path base = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
    auto dir = base / ("tavrel-fuzz-ini-" + std::to_string(std::random_device{}()));
    fs::create_directories(dir);
    static const fs::path keep = dir;
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(keep, ec);
    });
    return dir / "fuzz.ini";
  }();
  return file;
}

std::string ReadBack() {
  std::ifstream in(File(), std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Section names holding the separator "~" are outside the format: their entries do not split back into
// the same section and key, so such files are only checked for not crashing.
bool HasSeparatorInSectionName(const tavrel::IniTool& ini) {
  for (const auto& entry : ini.Table()) {
    if (entry.key.find('~') != std::string::npos && tavrel::UCase(entry.value) == entry.key) return true;
  }
  return false;
}

void AskEverything(const tavrel::IniTool& ini) {
  for (const auto& section : ini.Sections()) {
    for (const auto& key : ini.Keys(section)) (void)ini.Read(section, key, "default");
  }
  // Every value entry reads back under its own section and key.
  for (const auto& entry : ini.Table()) {
    size_t at = entry.key.find('~');
    if (at == std::string::npos) continue;
    std::string value = ini.Read(std::string_view(entry.key).substr(0, at), entry.key.substr(at + 1), "\x01");
    Check(value == (entry.value.empty() ? "\x01" : entry.value));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::error_code ec;
    fs::remove(File(), ec);
    std::ofstream out(File(), std::ios::binary);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  NullReporter reporter;
  tavrel::IniTool first(reporter);
  first.Load(File());
  AskEverything(first);
  first.Save();
  const std::string saved = ReadBack();

  tavrel::IniTool second(reporter);
  second.Load(File());
  second.Save();
  Check(reporter.saveErrors == 0);
  if (HasSeparatorInSectionName(first)) return 0;

  Check(ReadBack() == saved);
  for (const auto& entry : first.Table()) {
    if (entry.key.find('~') == std::string::npos) continue;
    const std::string* kept = second.Table().Find(entry.key);
    Check(kept != nullptr && *kept == entry.value);
  }

  // Removing a section removes every key it listed under that section's own name.
  auto sections = second.Sections();
  if (!sections.empty()) {
    const std::string& section = sections.front();
    auto keys = second.Keys(section);
    second.RemoveSection(section);
    for (const auto& key : keys) Check(second.Table().Find(tavrel::UCase(section) + "~" + key) == nullptr);
    second.Save();
    Check(reporter.saveErrors == 0);
  }
  return 0;
}
