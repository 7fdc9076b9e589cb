#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/KeyValuePair.h"
#include "core/Reporter.h"
#include "platform/FileStamp.h"

namespace tavrel {

// The program's own settings file in the Config folder.
inline constexpr std::string_view kIniFile = "tavrel.ini";

class IniTool;

// The settings object offered to pages and used by the whole program for its INI files, all of which
// live in the home's Config folder. Every read sees the file as it is on disk now: a file read cleanly is
// kept until its time or size changes (an edit by hand is seen at the next read), one whose reading
// reported trouble is read again each time, so each read reports it as before. Every change saves at once.
class Hs {
 public:
  Hs(std::filesystem::path configFolder, Reporter& reporter);

  // The value, or defaultValue when the file, the key or a non-empty value is missing. A missing file is
  // not created. An empty file name means "settings.ini".
  std::string GetINISetting(std::string_view section, std::string_view key, std::string_view defaultValue,
                            std::string_view file = {}) const;
  void SaveIniSetting(std::string_view section, std::string_view key, std::string_view value,
                      std::string_view file = {});
  // The pairs written into one section with one load and one save: the file ends as that many
  // SaveIniSetting calls would leave it, and its "_bck" copy holds it as it was before. No pairs, no save.
  void SaveIniSettings(std::string_view section, const std::vector<KeyValuePair>& pairs,
                       std::string_view file = {});
  // Any number of changes to one file with one load and one save (its "_bck" copy holds it as it was).
  void EditIni(std::string_view file, const std::function<void(IniTool&)>& edit);
  // Every pair of the section as key "=" value, in order, joined by character 0.
  std::string GetINISection(std::string_view section, std::string_view file = {}) const;
  void ClearINISection(std::string_view section, std::string_view file = {});
  // Removes the key from the section, and saves.
  void RemoveIniSetting(std::string_view section, std::string_view key, std::string_view file = {});

  // While one lives, each file is looked at on disk once and then read from memory: one look per request
  // instead of one per setting. The program's own writes still show at once.
  class Pin {
   public:
    explicit Pin(const Hs& hs) : hs_(hs) { ++hs_.pins_; }
    ~Pin() {
      if (--hs_.pins_ == 0) hs_.looked_.clear();
    }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

   private:
    const Hs& hs_;
  };

  // Major, minor and revision joined by ".".
  std::string Version() const;

  // Placeholders that keep framework scripts from failing; always empty.
  std::string SystemUpTime() const { return {}; }
  std::string WEBLoggedInUser() const { return {}; }
  std::string DeviceString(std::string_view /*ignored*/) const { return {}; }

  // The last sunrise and sunset heard on the xAP network ("Time.Today").
  const std::string& Sunrise() const { return sunrise_; }
  const std::string& Sunset() const { return sunset_; }
  void SetSunrise(std::string value) { sunrise_ = std::move(value); }
  void SetSunset(std::string value) { sunset_ = std::move(value); }

  // The file's path in the Config folder; throws std::invalid_argument for a name IsConfigFileName refuses.
  std::filesystem::path FilePath(std::string_view file) const;

  // Whether file names an INI file inside the Config folder: "" (settings.ini) or one plain file name.
  // Refused: anything naming a folder, a drive or a stream ("/", "\", ":"), "." and "..", control bytes
  // and the characters Windows does not allow in names (< > " | ? *), a name Windows would change (a
  // trailing "." or blank), over 255 bytes, and the Windows device names (CON, PRN, AUX, NUL, COM0-9,
  // LPT0-9, CONIN$, CONOUT$, in any case, with any extension).
  static bool IsConfigFileName(std::string_view file);

 private:
  struct Loaded;
  struct Cached {
    platform::FileStamp stamp;
    std::shared_ptr<const Loaded> file;
  };
  // The file as it is now, from the cache when unchanged; nullptr when it does not exist.
  std::shared_ptr<const Loaded> Read(const std::filesystem::path& path) const;
  void Forget(const std::filesystem::path& path) const {
    cache_.erase(path);
    looked_.erase(path);
  }

  std::filesystem::path configFolder_;
  Reporter& reporter_;
  mutable std::map<std::filesystem::path, Cached> cache_;
  mutable int pins_ = 0;
  mutable std::set<std::filesystem::path> looked_;
  std::string sunrise_;
  std::string sunset_;
};

}  // namespace tavrel
