#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "core/Clock.h"

namespace tavrel {

// The file a page path names inside the HTML folder, or nothing when there is no such regular file or
// the path would leave the folder. The page may use "\" or "/" and any letter case (names are matched
// without regard to case, as on Windows). Checked twice: no ".." or ":" in any piece, then the canonical
// path (links followed) must lie inside the canonical HTML folder.
std::optional<std::filesystem::path> ResolveStaticFile(const std::filesystem::path& htmlFolder,
                                                       std::string_view page);

// A file's last-modified time in local time; throws std::filesystem::filesystem_error when unreadable.
DateTime FileDateTime(const std::filesystem::path& file);

}  // namespace tavrel
