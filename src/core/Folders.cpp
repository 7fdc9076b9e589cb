#include "core/Folders.h"

#include <filesystem>
#include <system_error>

namespace tavrel {

namespace {
bool IsSep(char c) { return c == '\\' || c == '/'; }

size_t NextSep(std::string_view s, size_t from) {
  for (size_t i = from; i < s.size(); ++i) {
    if (IsSep(s[i])) return i;
  }
  return std::string_view::npos;
}

// Length of the root of the path, separator included.
size_t RootLength(std::string_view path) {
  size_t colon = path.find(':');
  if (colon != std::string_view::npos) {
    size_t sep = NextSep(path, colon);
    return sep == std::string_view::npos ? path.size() : sep + 1;
  }
  if (path.size() >= 2 && IsSep(path[0]) && IsSep(path[1])) {
    // \\server\share\ : the third and fourth separators in turn.
    size_t third = NextSep(path, 2);
    if (third == std::string_view::npos) return path.size();
    size_t fourth = NextSep(path, third + 1);
    return fourth == std::string_view::npos ? path.size() : fourth + 1;
  }
  return (!path.empty() && IsSep(path[0])) ? 1 : 0;
}
}  // namespace

std::vector<std::string> FolderChain(std::string_view path) {
  std::vector<std::string> chain;
  size_t pos = RootLength(path);
  while (true) {
    size_t sep = NextSep(path, pos);
    if (sep == std::string_view::npos) break;
    if (sep > pos) chain.emplace_back(path.substr(0, sep));
    pos = sep + 1;
  }
  return chain;
}

void CreateFolders(std::string_view path, Reporter& reporter) {
  for (const auto& folder : FolderChain(path)) {
    std::error_code ec;
    const std::filesystem::path p(folder);
    if (std::filesystem::is_directory(p, ec)) continue;
    std::filesystem::create_directory(p, ec);
    if (ec) {
      reporter.ReportEvent(kModule, " CreateFolders ",
                           Err::Of(ec.message(), ec.value() ? ec.value() : Err::kPathFileAccess));
      return;
    }
  }
}

void CreateHomeFolders(const std::filesystem::path& home, Reporter& reporter) {
  // The last piece, "x", stands for a file name and is never created.
  CreateFolders((home / "Config" / "x").string(), reporter);
  CreateFolders((home / "Data" / "x").string(), reporter);
}

}  // namespace tavrel
