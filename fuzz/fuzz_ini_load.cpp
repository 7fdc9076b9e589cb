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
using tavrel::Err;

namespace {

// Notes a failed save, which is a fault here: the folder is the run's own.
struct SaveWatch : tavrel::Reporter {
  void WriteLog(std::string_view, std::string_view t, const Err&) override { failed |= t == "IniTool Save "; }
  void ReportEvent(std::string_view, std::string_view, const Err&) override {}
  bool failed = false;
};

const fs::path& File() {
  static const struct Folder {
    fs::path dir = fs::temp_directory_path() / ("tavrel-fuzz-ini-" + std::to_string(std::random_device{}()));
    fs::path file = dir / "fuzz.ini";
    std::error_code ignored;
    Folder() { fs::create_directories(dir); }
    ~Folder() { fs::remove_all(dir, ignored); }
  } folder;
  return folder.file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::ofstream(File(), std::ios::binary) << std::string_view(reinterpret_cast<const char*>(data), size);
  auto readBack = [] {
    std::ifstream in(File(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  SaveWatch reporter;
  tavrel::IniTool first(reporter), second(reporter);
  first.Load(File());
  for (const auto& section : first.Sections())
    for (const auto& key : first.Keys(section)) (void)first.Read(section, key, "");
  first.Save();
  const std::string saved = readBack();
  second.Load(File());
  second.Save();
  // Every value reads back under its section and key; names holding the separator "~" break the fixed point.
  bool separatorInName = false, kept = true;
  for (const auto& entry : first.Table()) {
    const size_t at = entry.key.find('~');
    if (at == std::string::npos) continue;
    separatorInName |= tavrel::UCase(entry.value) == entry.key;
    const std::string read = first.Read(entry.key.substr(0, at), entry.key.substr(at + 1), "\x01");
    if (read != (entry.value.empty() ? "\x01" : entry.value)) std::abort();
    kept = kept && second.Table().Find(entry.key) && *second.Table().Find(entry.key) == entry.value;
  }
  if (reporter.failed || (!separatorInName && (readBack() != saved || !kept))) std::abort();
  // Removing a section removes every key it lists under its own name.
  if (const auto sections = second.Sections(); !sections.empty() && !separatorInName) {
    const std::string prefix = tavrel::UCase(sections[0]) + "~";
    const auto keys = second.Keys(sections[0]);
    second.RemoveSection(sections[0]);
    for (const auto& key : keys)
      if (second.Table().Find(prefix + key)) std::abort();
  }
  return 0;
}
