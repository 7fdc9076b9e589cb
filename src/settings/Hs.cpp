#include "settings/Hs.h"

#include <system_error>
#include <utility>

#include "Version.h"
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
  return configFolder_ / std::string(file.empty() ? std::string_view("settings.ini") : file);
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
