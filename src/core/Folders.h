#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "core/Reporter.h"

namespace tavrel {

// The folders of a file path, outermost first, that CreateFolders makes sure exist: everything after the
// root (a drive "C:\", a share "\\server\share\", "/" or nothing for a relative path) up to the last
// separator. The piece after the last separator is a file name and is not among them. Both "\" and "/"
// separate.
std::vector<std::string> FolderChain(std::string_view path);

// Creates every missing folder of FolderChain(path); failures are reported as " CreateFolders ".
void CreateFolders(std::string_view path, Reporter& reporter);

// The home's Config and Data folders, in that order, each with CreateFolders.
void CreateHomeFolders(const std::filesystem::path& home, Reporter& reporter);

}  // namespace tavrel
