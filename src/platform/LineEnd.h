#pragma once

#include <string_view>

namespace tavrel::platform {

// The line end of text files this program writes for people (the log, the INI files).
#ifdef _WIN32
inline constexpr std::string_view kLineEnd = "\r\n";
#else
inline constexpr std::string_view kLineEnd = "\n";
#endif

}  // namespace tavrel::platform
