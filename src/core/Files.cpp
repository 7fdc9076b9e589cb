#include "core/Files.h"

#include <fstream>
#include <iterator>

namespace tavrel {

std::optional<std::string> ReadWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return text;
}

}  // namespace tavrel
