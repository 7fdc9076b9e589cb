#pragma once

#include <filesystem>
#include <string>

namespace tavrel {

class Tavrel;

// The one line the service prints once it has started: its xAP source address and the port it listens
// on, where its xAP messages go, the page's address (or why there is none), the home folder and how to
// stop it. Ends with a newline.
std::string StartupLine(Tavrel& app, const std::filesystem::path& home);

}  // namespace tavrel
