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
using tavrel::IniTool;

namespace {

class SaveErrorCounter : public tavrel::Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view text, const tavrel::Err&) override {
    if (text == "IniTool Save ") std::abort();
  }
  void ReportEvent(std::string_view, std::string_view, const tavrel::Err&) override {}
};

void Check(bool condition) {
  if (!condition) std::abort();
}

// The run's folder, removed at exit; in memory where there is such a folder, as every save replaces the file.
struct RunFolder {
  RunFolder() {
    std::error_code ec;
    const fs::path base = fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
    dir = base / ("tavrel-fuzz-ini-" + std::to_string(std::random_device{}()));
    fs::create_directories(dir);
  }
  ~RunFolder() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
  fs::path dir;
};

const fs::path& File() {
  static const RunFolder folder;
  static const fs::path file = folder.dir / "fuzz.ini";
  return file;
}

std::string ReadBack() {
  std::ifstream in(File(), std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::ofstream(File(), std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  SaveErrorCounter reporter;
  IniTool first(reporter);
  first.Load(File());
  for (const auto& section : first.Sections()) {
    for (const auto& key : first.Keys(section)) (void)first.Read(section, key, "");
  }
  // Every value entry reads back under its own section and key. A section name holding the separator
  // "~" is outside the format: its entries do not split back into the same section and key, so such
  // files are not held to the fixed point.
  bool separatorInName = false;
  for (const auto& entry : first.Table()) {
    const size_t at = entry.key.find('~');
    if (at == std::string::npos) continue;
    if (tavrel::UCase(entry.value) == entry.key) separatorInName = true;
    const std::string value =
        first.Read(std::string_view(entry.key).substr(0, at), entry.key.substr(at + 1), "\x01");
    Check(value == (entry.value.empty() ? "\x01" : entry.value));
  }
  first.Save();
  const std::string saved = ReadBack();

  IniTool second(reporter);
  second.Load(File());
  second.Save();
  if (separatorInName) return 0;
  Check(ReadBack() == saved);
  for (const auto& entry : first.Table()) {
    const std::string* kept = second.Table().Find(entry.key);
    Check(entry.key.find('~') == std::string::npos || (kept != nullptr && *kept == entry.value));
  }
  // Removing a section removes every key it listed under that section's own name.
  if (const auto sections = second.Sections(); !sections.empty()) {
    const auto keys = second.Keys(sections[0]);
    second.RemoveSection(sections[0]);
    for (const auto& key : keys)
      Check(second.Table().Find(tavrel::UCase(sections[0]) + "~" + key) == nullptr);
    second.Save();
  }
  return 0;
}
