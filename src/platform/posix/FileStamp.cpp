#include "platform/FileStamp.h"

#include <sys/stat.h>

namespace tavrel::platform {

bool ReadFileStamp(const std::filesystem::path& path, FileStamp& stamp) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return false;
  stamp.Size = static_cast<std::uint64_t>(info.st_size);
  stamp.WriteTime = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
  return true;
}

}  // namespace tavrel::platform
