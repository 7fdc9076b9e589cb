#include "settings/Hs.h"

#include <system_error>
#include <utility>

#include "Version.h"
#include "settings/IniTool.h"

namespace fs = std::filesystem;

namespace tavrel {

Hs::Hs(fs::path configFolder, Reporter& reporter)
    : configFolder_(std::move(configFolder)), reporter_(reporter) {}

fs::path Hs::FilePath(std::string_view file) const {
  return configFolder_ / std::string(file.empty() ? std::string_view("settings.ini") : file);
}

std::string Hs::GetINISetting(std::string_view section, std::string_view key, std::string_view defaultValue,
                              std::string_view file) const {
  const fs::path path = FilePath(file);
  std::error_code ec;
  // Reading never creates the file (a load would).
  if (!fs::exists(path, ec)) return std::string(defaultValue);
  IniTool ini(reporter_);
  ini.Load(path);
  return ini.Read(section, key, defaultValue);
}

void Hs::SaveIniSetting(std::string_view section, std::string_view key, std::string_view value,
                        std::string_view file) {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.WriteKey(section, key, value);
  ini.Save();
}

void Hs::SaveIniSettings(std::string_view section, const std::vector<KeyValuePair>& pairs,
                         std::string_view file) {
  if (pairs.empty()) return;
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.WriteKeysAsRounds(section, pairs);
  ini.Save();
}

std::string Hs::GetINISection(std::string_view section, std::string_view file) const {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  std::string pairs;
  for (const auto& key : ini.Keys(section)) {
    pairs += '\0';
    pairs += key;
    pairs += '=';
    pairs += ini.Read(section, key, "");
  }
  return pairs.empty() ? pairs : pairs.substr(1);
}

void Hs::ClearINISection(std::string_view section, std::string_view file) {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.RemoveSection(section);
  ini.Save();
}

std::string Hs::Version() const {
  return std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor) + "." +
         std::to_string(kVersionRevision);
}

}  // namespace tavrel
