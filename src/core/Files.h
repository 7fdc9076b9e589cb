#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavrel {

// The whole content of a file as bytes; nothing when it cannot be opened or read, and errno then says
// why when the runtime set it.
std::optional<std::string> ReadWholeFile(const std::filesystem::path& path);

}  // namespace tavrel
