#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavrel {

// What the command line asks for.
struct CommandLine {
  enum class Action { Run, Version, Help, Wake, Scan, SetPassword, Error };

  Action action = Action::Run;
  std::filesystem::path home;  // --home, empty when not given
  bool debug = false;
  bool noTray = false;
  bool clear = false;                  // set-password --clear
  std::vector<std::string> arguments;  // of "wake" and "scan"
  std::string error;                   // with Action::Error
};

CommandLine ParseCommandLine(const std::vector<std::string>& args);

// The usage text printed by --help.
std::string UsageText();

// The home folder: --home, else TAVREL_HOME, else the program's own folder when it can be written to,
// else the per-user data folder.
std::filesystem::path ResolveHome(const CommandLine& cmd);

// Why home cannot be the home folder ("cannot use H as the home folder: P is not a folder", P being home
// or the part of its path that exists), or "" when it can: missing folders are made at start-up.
std::string HomeFolderError(const std::filesystem::path& home);

}  // namespace tavrel
