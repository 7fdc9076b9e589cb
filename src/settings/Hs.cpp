#include "settings/Hs.h"

#include <array>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Version.h"
#include "core/Text.h"
#include "settings/IniTool.h"

namespace fs = std::filesystem;

namespace tavrel {

// A file read once, with the reports its reading made counted; the reporter forwards to the program's.
struct Hs::Loaded {
  struct Counting final : Reporter {
    explicit Counting(Reporter& target) : target(target) {}
    using Reporter::ReportEvent;
    using Reporter::WriteLog;
    void WriteLog(std::string_view module, std::string_view text, const Err& err) override {
      ++count;
      target.WriteLog(module, text, err);
    }
    void ReportEvent(std::string_view module, std::string_view text, const Err& err) override {
      ++count;
      target.ReportEvent(module, text, err);
    }
    Reporter& target;
    int count = 0;
  };

  explicit Loaded(Reporter& target) : counting(target), ini(counting) {}
  Counting counting;
  IniTool ini;
};

std::shared_ptr<const Hs::Loaded> Hs::Read(const fs::path& path) const {
  if (pins_ > 0 && looked_.contains(path)) {
    if (auto it = cache_.find(path); it != cache_.end()) return it->second.file;
  }
  if (pins_ > 0) looked_.insert(path);
  platform::FileStamp stamp;
  // Reading never creates the file (a load would).
  if (!platform::ReadFileStamp(path, stamp)) {
    Forget(path);
    return nullptr;
  }
  if (auto it = cache_.find(path); it != cache_.end() && it->second.stamp == stamp) return it->second.file;
  auto file = std::make_shared<Loaded>(reporter_);
  file->ini.Load(path);
  if (file->counting.count == 0) {
    cache_[path] = Cached{stamp, file};
  } else {
    Forget(path);
  }
  return file;
}

Hs::Hs(fs::path configFolder, Reporter& reporter)
    : configFolder_(std::move(configFolder)), reporter_(reporter) {}

fs::path Hs::FilePath(std::string_view file) const {
  if (!IsConfigFileName(file)) throw std::invalid_argument("not a file name of the Config folder");
  return configFolder_ / std::string(file.empty() ? std::string_view("settings.ini") : file);
}

bool Hs::IsConfigFileName(std::string_view file) {
  if (file.empty()) return true;
  if (file.size() > 255 || file.back() == '.' || file.back() == ' ') return false;
  for (const char c : file) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || std::string_view("/\\:<>\"|?*").find(c) != std::string_view::npos)
      return false;
  }
  // Windows opens the device whatever extension follows, and ignores blanks before the dot.
  const std::string base = UCase(RTrim(Before(file, ".")));
  static constexpr std::array<std::string_view, 6> kDevices{"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"};
  for (const std::string_view device : kDevices)
    if (base == device) return false;
  // COM and LPT with a digit, or with the superscripts 1, 2 and 3 of the Western code page.
  const bool numbered = base.size() == 4 && (base.starts_with("COM") || base.starts_with("LPT"));
  return !(numbered && std::string_view("0123456789\xB9\xB2\xB3").find(base[3]) != std::string_view::npos);
}

std::string Hs::GetINISetting(std::string_view section, std::string_view key, std::string_view defaultValue,
                              std::string_view file) const {
  const auto loaded = Read(FilePath(file));
  return loaded ? loaded->ini.Read(section, key, defaultValue) : std::string(defaultValue);
}

void Hs::SaveIniSetting(std::string_view section, std::string_view key, std::string_view value,
                        std::string_view file) {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.WriteKey(section, key, value);
  ini.Save();
  Forget(FilePath(file));
}

void Hs::SaveIniSettings(std::string_view section, const std::vector<KeyValuePair>& pairs,
                         std::string_view file) {
  if (pairs.empty()) return;
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.WriteKeysAsRounds(section, pairs);
  ini.Save();
  Forget(FilePath(file));
}

void Hs::EditIni(std::string_view file, const std::function<void(IniTool&)>& edit) {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  edit(ini);
  ini.Save();
  Forget(FilePath(file));
}

std::string Hs::GetINISection(std::string_view section, std::string_view file) const {
  const fs::path path = FilePath(file);
  std::shared_ptr<const Loaded> loaded = Read(path);
  if (!loaded) {
    // As before: asking for a missing file's section creates the file empty.
    auto created = std::make_shared<Loaded>(reporter_);
    created->ini.Load(path);
    loaded = created;
  }
  const IniTool& ini = loaded->ini;
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
  Forget(FilePath(file));
}

void Hs::RemoveIniSetting(std::string_view section, std::string_view key, std::string_view file) {
  IniTool ini(reporter_);
  ini.Load(FilePath(file));
  ini.Remove(section, key);
  ini.Save();
  Forget(FilePath(file));
}

std::string Hs::Version() const {
  return std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor) + "." +
         std::to_string(kVersionRevision);
}

}  // namespace tavrel
