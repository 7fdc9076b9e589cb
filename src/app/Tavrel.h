#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <asio/io_context.hpp>

#include "app/Log.h"
#include "core/Clock.h"
#include "core/Timer.h"
#include "platform/Tray.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "xap/XapStartup.h"
#include "xapsend/XapGlobal.h"

namespace tavrel {

class XapTransport;
class XapHandler;
class LanScan;
class HTMLIncludes;
class JsonApi;
class RemoteASP;
class TCPServer;
class Guard;
class ServerLogFile;
class MqttService;

// The application: builds the shared state at start, starts the xAP node, reads the computer table and
// from then on only reacts to xAP messages, the menu (tray or signals) and the scan timer. Owns every
// part for the whole run; everything runs on the one thread of the io_context.
class Tavrel final : public platform::TrayOwner {
 public:
  struct Options {
    bool debug = false;
    bool noTray = false;
  };

  // Menu entries by index; 1, 2 and 4 are present but do nothing.
  enum Menu { kBrowser = 0, kSystemConfig = 1, kSystemStatus = 2, kQueryLan = 3, kHelp = 4, kExit = 6 };

  Tavrel(asio::io_context& io, std::filesystem::path home, const Clock& clock, Options options);
  ~Tavrel() override;
  Tavrel(const Tavrel&) = delete;
  Tavrel& operator=(const Tavrel&) = delete;

  // Start-up. False when the program must end (the reason is in the log file).
  bool form_load();
  void LoadIni();
  // Hands the messages queued when it begins to the message handler; what arrives meanwhile waits for
  // the next call, so the loop has its turn in between. Does nothing when already draining.
  void onMessage();
  // A left or right button up at the icon (514, 517) pops the menu up; other messages do nothing.
  void TrayIconCallback(long msg) override;
  void MenuArray_Click(int index) override;
  void TrayReport(const std::string& text) override;
  // With Exiting set: takes the parts down so the loop runs out. Without: nothing (the program stays).
  void Form_unload();

  bool Exiting() const { return exiting_; }
  const std::string& LocalComputerName() const { return startup_.LocalComputerName; }
  const std::string& HTTPPortSetting() const { return httpPortSetting_; }
  ComputerRegistry& Computers() { return computers_; }
  Hs& Settings() { return hs_; }
  Log& Reports() { return log_; }
  XapTransport* Transport() { return transport_.get(); }
  LanScan* Scan() { return lanScan_.get(); }
  TCPServer* Server() { return server_.get(); }
  const Guard* ServerGuard() const { return guard_.get(); }

  // The menu's entries by index; "-" is the separator.
  static std::vector<platform::TrayMenuEntry> MenuEntries();

  // The xAP source address of this node.
  std::string XapSource() const { return "zel.WOL." + startup_.LocalComputerName; }
  static constexpr const char* kXapUID = "FF001500";

 private:
  bool StartXap();
  void ShowTrayIcon();
  void OpenPage();
  void RegisterOwnAddress();
  void StartServer();
  void TakeDown();

  asio::io_context& io_;
  std::filesystem::path home_;
  const Clock& clock_;
  Options options_;

  LoopTimers timers_;
  XapGlobal xapGlobal_;
  Log log_;
  Hs hs_;
  ComputerRegistry computers_{hs_, clock_};
  XapStartup startup_;
  std::string httpPortSetting_ = "8019";
  std::unique_ptr<XapTransport> transport_;
  std::unique_ptr<XapHandler> handler_;
  std::unique_ptr<LanScan> lanScan_;
  std::unique_ptr<ServerLogFile> serverLog_;
  // The script page host; it creates nothing unless "ScriptPages" is on and a page is requested.
  std::unique_ptr<HTMLIncludes> scripts_;
  std::unique_ptr<RemoteASP> pages_;
  std::unique_ptr<JsonApi> api_;
  std::unique_ptr<Guard> guard_;
  std::unique_ptr<TCPServer> server_;
  std::unique_ptr<platform::Tray> tray_;
  std::unique_ptr<MqttService> mqtt_;

  bool exiting_ = false;
  bool xapStarted_ = false;
  bool inMessage_ = false;
};

}  // namespace tavrel
