#include "platform/FileStamp.h"

#include "platform/SystemHeaders.h"

namespace tavrel::platform {

bool ReadFileStamp(const std::filesystem::path& path, FileStamp& stamp) {
  WIN32_FILE_ATTRIBUTE_DATA info{};
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &info)) return false;
  stamp.Size = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  stamp.WriteTime =
      static_cast<std::int64_t>((static_cast<std::uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) |
                                info.ftLastWriteTime.dwLowDateTime);
  return true;
}

}  // namespace tavrel::platform
