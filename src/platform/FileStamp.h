#pragma once

#include <cstdint>
#include <filesystem>

namespace tavrel::platform {

// A file's size and last write time, from one call to the system; what tells a settings file changed.
struct FileStamp {
  std::uint64_t Size = 0;
  std::int64_t WriteTime = 0;  // in the system's own units

  bool operator==(const FileStamp&) const = default;
};

// False when the file cannot be looked at (missing, say).
bool ReadFileStamp(const std::filesystem::path& path, FileStamp& stamp);

}  // namespace tavrel::platform
