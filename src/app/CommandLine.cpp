#include "app/CommandLine.h"

#include <cstdlib>
#include <fstream>
#include <system_error>

#include "platform/Host.h"

namespace tavrel {

namespace {
CommandLine Fail(std::string message) {
  CommandLine cmd;
  cmd.action = CommandLine::Action::Error;
  cmd.error = std::move(message);
  return cmd;
}

bool IsWritableFolder(const std::filesystem::path& folder) {
  std::error_code ec;
  if (folder.empty() || !std::filesystem::is_directory(folder, ec)) return false;
  auto probe = folder / ".tavrel-write-test";
  {
    std::ofstream out(probe, std::ios::binary | std::ios::trunc);
    if (!out) return false;
  }
  std::filesystem::remove(probe, ec);
  return true;
}
}  // namespace

CommandLine ParseCommandLine(const std::vector<std::string>& args) {
  CommandLine cmd;
  if (!args.empty() && (args[0] == "wake" || args[0] == "scan")) {
    cmd.action = args[0] == "wake" ? CommandLine::Action::Wake : CommandLine::Action::Scan;
    cmd.arguments.assign(args.begin() + 1, args.end());
    if (cmd.action == CommandLine::Action::Wake && (cmd.arguments.empty() || cmd.arguments.size() > 2)) {
      return Fail("wake takes a MAC address and, optionally, an IP address");
    }
    if (cmd.action == CommandLine::Action::Scan && cmd.arguments.empty()) {
      return Fail("scan takes one or more subnets, such as 198.51.100");
    }
    return cmd;
  }
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--version") {
      cmd.action = CommandLine::Action::Version;
    } else if (a == "--help" || a == "-h") {
      cmd.action = CommandLine::Action::Help;
    } else if (a == "--debug") {
      cmd.debug = true;
    } else if (a == "--no-tray") {
      cmd.noTray = true;
    } else if (a == "--home") {
      if (i + 1 >= args.size() || args[i + 1].empty()) return Fail("--home needs a folder");
      cmd.home = args[++i];
    } else if (a.rfind("--home=", 0) == 0 && a.size() > 7) {
      cmd.home = a.substr(7);
    } else if (a == "set-password" && cmd.action == CommandLine::Action::Run) {
      cmd.action = CommandLine::Action::SetPassword;
    } else if (a == "--clear") {
      cmd.clear = true;
    } else {
      return Fail("unknown argument: " + a);
    }
  }
  if (cmd.clear && cmd.action != CommandLine::Action::SetPassword)
    return Fail("--clear goes with set-password");
  return cmd;
}

std::string UsageText() {
  return "usage: tavrel [--home DIR] [--debug] [--no-tray]   run the service\n"
         "       tavrel wake MAC [IP]                         send one Wake-on-LAN packet\n"
         "       tavrel scan SUBNET...                        sweep subnets (a.b.c) and print IP and MAC\n"
         "       tavrel [--home DIR] set-password [--clear]   set (or remove) the page's password\n"
         "       tavrel --version | --help\n"
         "\n"
         "  MAC          12 hexadecimal digits, bare or with \"-\", \":\" or \".\" between them\n"
         "               (00-11-22-33-44-55, 00:11:22:33:44:55, 0011.2233.4455)\n"
         "  IP           the computer's IPv4 address; the packet goes to its /24 broadcast on port 7\n"
         "               (default: this machine's address)\n"
         "  SUBNET       three numbers 0-255, such as 198.51.100; hosts 1-254 are probed\n"
         "               (0, 127 and 224 and above hold none)\n"
         "\n"
         "  --home DIR   the folder holding Config/, Data/, HTML/ and Scripts/, made if missing (else\n"
         "               $TAVREL_HOME, else the program's folder if writable, else the per-user data "
         "folder)\n"
         "  --debug      write the web server's debug log to Data/tavrel/server.log in the home folder\n"
         "  --no-tray    no notification-area icon: run headless, as a service (without a desktop or\n"
         "               a session bus that is the way it runs anyway; a tray that comes later gets the "
         "icon)\n"
         "  set-password asks for a password twice (unseen; not on a terminal: reads one line) and\n"
         "               keeps its salted hash as HTTPPasswordHash in Config/tavrel.ini; the page then\n"
         "               asks for it (HTTP Basic, any user name). --clear removes it.\n"
         "\n"
         "Once started, the service prints one line on standard error: its xAP address and port, the\n"
         "page's address and its home folder.\n"
         "While running: the page is at http://localhost:8019/wol (\"HTTPPort\" of section WOL in\n"
         "Config/tavrel.ini), for this machine, the private address ranges and this machine's own\n"
         "networks (\"HTTPAllow\" and \"HTTPHosts\" change that). SIGINT or SIGTERM exits (the\n"
         "tray menu's \"Exit\"), on Windows also Ctrl+C, logoff and shutdown; on Linux SIGUSR1 starts a\n"
         "LAN scan (the tray menu's \"Query LAN\").\n"
         "Scripts and home-automation hubs: the JSON interface under /api/ on the page's port\n"
         "(GET /api/computers; POST /api/wake, /api/reboot, /api/shutdown with ?computer=NAME, IP or\n"
         "MAC; POST /api/scan). \"ScanInterval\" (seconds) in section WOL sweeps the LAN by itself so\n"
         "the lights show which computers are up; \"MQTTBroker\" in section MQTT announces every\n"
         "computer to Home Assistant over MQTT (Linux).\n";
}

std::filesystem::path ResolveHome(const CommandLine& cmd) {
  if (!cmd.home.empty()) return std::filesystem::absolute(cmd.home);
  if (const char* env = std::getenv("TAVREL_HOME"); env != nullptr && *env != '\0') {
    return std::filesystem::absolute(env);
  }
  auto exeFolder = platform::ExecutablePath().parent_path();
  if (IsWritableFolder(exeFolder)) return exeFolder;
  return platform::UserDataFolder();
}

std::string HomeFolderError(const std::filesystem::path& home) {
  std::filesystem::path existing = home;
  std::error_code ec;
  while (!std::filesystem::exists(existing, ec) && existing.has_relative_path())
    existing = existing.parent_path();
  if (existing.empty() || std::filesystem::is_directory(existing, ec)) return {};
  return "cannot use " + home.string() + " as the home folder: " + existing.string() + " is not a folder";
}

}  // namespace tavrel
