// Reads any bytes as an INI file, asks every reader about them, renders the file text, and checks that
// the text is a fixed point: reading and rendering it again gives the same bytes and keeps every value.
// All in memory: the file layer around it only copies, writes and renames.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/Text.h"
#include "settings/IniTool.h"

using tavrel::Err;

namespace {

struct Quiet : tavrel::Reporter {
  void WriteLog(std::string_view, std::string_view, const Err&) override {}
  void ReportEvent(std::string_view, std::string_view, const Err&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Quiet reporter;
  tavrel::IniTool first(reporter), second(reporter);
  first.LoadText(std::string_view(reinterpret_cast<const char*>(data), size));
  for (const auto& section : first.Sections())
    for (const auto& key : first.Keys(section)) (void)first.Read(section, key, "");
  const std::string saved = first.ToText();
  second.LoadText(saved);
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
  if (!separatorInName && (second.ToText() != saved || !kept)) std::abort();
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
