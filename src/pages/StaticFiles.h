#pragma once

#include <filesystem>
#include <span>
#include <string_view>

#include "core/Reporter.h"

namespace tavrel {

// A file the page needs beside it in the HTML folder, built into the program.
struct StaticFile {
  std::string_view name;
  std::string_view bytes;
};

// The three 13 x 13 LED images and the style sheet with the colours of the page's table classes.
std::span<const StaticFile> StaticFiles();

// Writes every built-in file that htmlFolder lacks (creating the folder), so a fresh home serves a
// complete page. Files already there are left as they are; a failure is written to the log.
void WriteStaticFiles(const std::filesystem::path& htmlFolder, Reporter& reporter);

}  // namespace tavrel
