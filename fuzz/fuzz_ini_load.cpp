// Reads any bytes as an INI file, asks every reader about them, renders the file text, and checks that
// the text is a fixed point: reading and rendering it again gives the same bytes and keeps every value.
// All in memory: the file layer around it only copies, writes and renames.
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "core/Text.h"
#include "settings/IniTool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavrel::fuzz::CountingReporter reporter;
  tavrel::IniTool first(reporter), second(reporter);
  first.LoadText(std::string_view(reinterpret_cast<const char*>(data), size));
  // Keys walks the whole table once per section; a few sections are enough to reach every path of it.
  const auto sections = first.Sections();
  for (size_t s = 0; s < sections.size() && s < 8; ++s)
    for (const auto& key : first.Keys(sections[s])) (void)first.Read(sections[s], key, "");
  const std::string saved = first.ToText();
  second.LoadText(saved);
  // Every value reads back under its section and key; names holding the separator "~" break the fixed point.
  bool separatorInName = false, kept = true;
  for (const auto& entry : first.Table()) {
    const size_t at = entry.key.find('~');
    if (at == std::string::npos) continue;
    separatorInName |= tavrel::UCase(entry.value) == entry.key;
    const std::string read = first.Read(entry.key.substr(0, at), entry.key.substr(at + 1), "\x01");
    tavrel::fuzz::Check(read == (entry.value.empty() ? "\x01" : entry.value));
    kept = kept && second.Table().Find(entry.key) && *second.Table().Find(entry.key) == entry.value;
  }
  tavrel::fuzz::Check(separatorInName || (second.ToText() == saved && kept));
  return 0;
}
