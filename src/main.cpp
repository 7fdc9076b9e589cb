// tavrel: the service, and small tools on the same binary (wake, scan, set-password).
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include "Version.h"
#include "app/CommandLine.h"
#include "app/SetPassword.h"
#include "app/StartupLine.h"
#include "app/Tavrel.h"
#include "lan/ComputerActions.h"
#include "lan/ScanCommand.h"
#include "platform/Console.h"
#include "platform/Host.h"
#include "platform/SessionEnd.h"

namespace {

using namespace tavrel;

// The tools have no home folder: their reports go to standard error.
class ConsoleReporter final : public Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view module, std::string_view text, const Err& err) override {
    Print(module, text, err);
  }
  void ReportEvent(std::string_view module, std::string_view text, const Err& err) override {
    Print(module, text, err);
  }

 private:
  static void Print(std::string_view module, std::string_view text, const Err& err) {
    std::cerr << "tavrel: " << module << " " << text;
    if (err.IsSet()) std::cerr << ": " << err.Description;
    std::cerr << "\n";
  }
};

int Wake(const std::vector<std::string>& args) {
  const std::string& mac = args[0];
  const bool ipGiven = args.size() > 1;
  std::string ip = ipGiven ? args[1] : platform::PrimaryIPv4();
  if (!ipGiven && ip.empty()) {
    std::cerr << "tavrel: wake: no IP address given and no network adapter found to derive one\n";
    return 2;
  }
  if (std::string problem = WolInputError(mac, ip); !problem.empty()) {
    std::cerr << "tavrel: wake: " << problem << "\n";
    return 2;
  }
  ConsoleReporter reporter;
  return SendWOL(mac, ip, reporter) ? 0 : 1;
}

// The home folder as the service resolves it; empty after saying why it cannot be used.
std::filesystem::path UsableHome(const CommandLine& cmd) {
  std::filesystem::path home = ResolveHome(cmd);
  if (std::string problem = HomeFolderError(home); !problem.empty()) {
    std::cerr << "tavrel: " << problem << "\n";
    return {};
  }
  return home;
}

int SetPassword(const CommandLine& cmd) {
  const std::filesystem::path home = UsableHome(cmd);
  if (home.empty()) return 2;
  ConsoleReporter reporter;
  return SetPasswordCommand(home, cmd.clear, reporter, std::cout, std::cerr);
}

int RunService(const CommandLine& cmd) {
  platform::TuneAllocatorForService();
  const std::filesystem::path home = UsableHome(cmd);
  if (home.empty()) return 2;
  asio::io_context io;
  SystemClock clock;
  Tavrel app(io, home, clock, Tavrel::Options{cmd.debug, cmd.noTray});
  // The session's end is watched from the very start: a Ctrl+C, logoff or shutdown that comes while the
  // program starts up is handled once the loop runs, instead of ending the process.
  const auto sessionEnd = platform::WatchSessionEnd(io, [&] { app.MenuArray_Click(Tavrel::kExit); });
#ifdef SIGUSR1
  // A service without a tray icon still offers the menu's "Query LAN".
  asio::signal_set scanSignal(io, SIGUSR1);
  std::function<void(const std::error_code&, int)> onScan = [&](const std::error_code& ec, int) {
    if (ec) return;
    app.MenuArray_Click(Tavrel::kQueryLan);
    scanSignal.async_wait(onScan);
  };
  scanSignal.async_wait(onScan);
#endif
  if (!app.form_load()) {
    std::cerr << "tavrel: start-up failed; see " << app.Reports().FilePath().string() << "\n";
    return 1;
  }
  // One line on standard error (a terminal, or the journal under systemd) saying what now runs.
  std::cerr << StartupLine(app, home);
  io.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  platform::UseParentConsole();
  std::vector<std::string> args(argv + 1, argv + argc);
  CommandLine cmd = ParseCommandLine(args);
  switch (cmd.action) {
    case CommandLine::Action::Version:
      std::cout << "tavrel " << kVersionText << "\n";
      return 0;
    case CommandLine::Action::Help:
      std::cout << UsageText();
      return 0;
    case CommandLine::Action::Error:
      std::cerr << "tavrel: " << cmd.error << "\n" << UsageText();
      return 2;
    case CommandLine::Action::Wake:
      return Wake(cmd.arguments);
    case CommandLine::Action::Scan:
      return ScanCommand(cmd.arguments, std::cout, std::cerr);
    case CommandLine::Action::SetPassword:
      return SetPassword(cmd);
    case CommandLine::Action::Run:
      break;
  }
  return RunService(cmd);
}
