#include "app/Tavrel.h"

#include <exception>
#include <utility>

#include "app/ServerLogFile.h"
#include "core/Folders.h"
#include "core/Text.h"
#include "http/Guard.h"
#include "http/PasswordHash.h"
#include "http/TCPServer.h"
#include "lan/ComputerActions.h"
#include "lan/LanScan.h"
#include "mqtt/Mqtt.h"
#include "pages/JsonApi.h"
#include "pages/RemoteASP.h"
#include "pages/StaticFiles.h"
#include "platform/Host.h"
#include "settings/Settings.h"
#include "xap/XapHandler.h"
#include "xap/XapTransport.h"

namespace tavrel {

Tavrel::Tavrel(asio::io_context& io, std::filesystem::path home, const Clock& clock, Options options)
    : io_(io),
      home_(std::move(home)),
      clock_(clock),
      options_(options),
      timers_(io),
      log_(home_ / "Data", clock, xapGlobal_),
      hs_(home_ / "Config", log_) {}

Tavrel::~Tavrel() { TakeDown(); }

// Sockets closed, timers and a running sweep stopped: afterwards nothing is left for the loop to do.
void Tavrel::TakeDown() {
  if (mqtt_) mqtt_->Stop();
  if (server_) server_->Form_Unload();
  xapGlobal_.SetTransport(nullptr);
  if (transport_ && xapStarted_) transport_->SendStoppedHeartbeat();
  xapStarted_ = false;
  if (lanScan_) lanScan_->Stop();
  if (transport_) transport_->Close();
}

bool Tavrel::form_load() {
  exiting_ = false;
  xapStarted_ = false;
  inMessage_ = false;
  try {
    computers_.Clear();
    CreateHomeFolders(home_, log_);
    startup_ = InitXap(hs_, log_);
    const WolSettings wol = ReadWolSettings(hs_);
    httpPortSetting_ = wol.httpPort;
    computers_.SetPresenceRule({wol.scanInterval > 0, std::chrono::seconds(wol.awayAfter)});
    if (!StartXap()) return false;
    LoadIni();
    ShowTrayIcon();
    RegisterOwnAddress();
    lanScan_ = std::make_unique<LanScan>(
        io_, timers_, computers_, hs_, xapGlobal_, log_, [this] { return transport_->LocalIP(); }, home_);
    StartServer();
    mqtt_ =
        StartMqtt({io_, timers_, computers_, log_,
                   PageActions::ForLan(*lanScan_, xapGlobal_, log_, [this] { return transport_->LocalIP(); }),
                   startup_.LocalComputerName, ReadMqttSettings(hs_)});
    if (wol.scanInterval > 0) {
      log_.WriteLog(kModule, "Presence: sweeping the LAN every " + std::to_string(wol.scanInterval) +
                                 " s; a computer is away " + std::to_string(wol.awayAfter) +
                                 " s after its last answer");
      lanScan_->StartPresence(std::chrono::seconds(wol.scanInterval));
    }
    return true;
  } catch (const std::exception& e) {
    log_.WriteLog(kModule, "Main Load", Err::From(e));
    return false;
  }
}

bool Tavrel::StartXap() {
  transport_ = std::make_unique<XapTransport>(io_, log_, timers_);
  transport_->RegisterNewMessageCallback([this] { onMessage(); });
  transport_->SetXapSource(XapSource());
  transport_->SetXapUID(kXapUID);
  transport_->SetBroadcastAddress(startup_.BroadcastAddress);
  transport_->SetInterfaceAddress(startup_.InterfaceAddress);
  transport_->SetPort(startup_.Port);
  const long port = transport_->Init();
  if (port <= 0) {
    log_.WriteLog(kModule, "xAP Init Error " + std::to_string(port) + " occurred");
    transport_->Close();
    return false;
  }
  transport_->SendHeartbeat(60);
  xapStarted_ = true;
  xapGlobal_.SetTransport(transport_.get());
  log_.ReportEvent(kModule, "Using xAP port " + std::to_string(port));

  handler_ = std::make_unique<XapHandler>(
      XapHandler::Context{computers_, hs_, xapGlobal_, *transport_, log_, clock_,
                          [this](const std::string& mac, const std::string& ip) { SendWOL(mac, ip, log_); },
                          XapSource(), startup_.ExecutablePath});
  return true;
}

// The web server and its page. A fresh home gets the page's images and style sheet first; a server that
// cannot listen has reported why, and the rest of the program runs on without it.
void Tavrel::StartServer() {
  const WolSettings wol = ReadWolSettings(hs_);
  WriteStaticFiles(home_ / "HTML", log_);
  CreateFolders((home_ / "Data" / "tavrel" / "x").string(), log_);
  if (options_.debug)
    serverLog_ = std::make_unique<ServerLogFile>(home_ / "Data" / "tavrel" / "server.log", clock_);
  // A user with the framework's script pages switches them on with ScriptPages=1.
  scripts_ = std::make_unique<HTMLIncludes>(home_, hs_, log_);
  PageActions actions =
      PageActions::ForLan(*lanScan_, xapGlobal_, log_, [this] { return transport_->LocalIP(); });
  // The JSON interface acts through the same actions as the page's buttons.
  api_ = std::make_unique<JsonApi>(computers_, clock_, actions);
  pages_ = std::make_unique<RemoteASP>(
      PageContext{computers_, hs_, clock_, log_, std::move(actions), scripts_.get(), wol.scriptPages});
  // Who may use the page is looked up for every request: a user may change it while the program runs.
  guard_ = std::make_unique<Guard>(Guard::Context{
      clock_, log_,
      [this] {
        WolSettings now = ReadWolSettings(hs_);
        return Guard::Settings{std::move(now.httpAllow), std::move(now.httpHosts),
                               std::move(now.passwordHash)};
      },
      startup_.LocalComputerName, platform::LocalIPv4Networks, VerifyPassword, IsPasswordHash});
  TCPServer::Settings settings;
  settings.httpPort = httpPortSetting_;
  settings.hsNamed = !wol.hsAddress.empty();
  settings.hsAddress = settings.hsNamed ? wol.hsAddress : "127.0.0.1";
  settings.hsWebPort = wol.hsWebPort;
  server_ = std::make_unique<TCPServer>(io_, timers_, clock_, log_, home_ / "HTML", settings,
                                        serverLog_.get(), pages_.get(), guard_.get(), api_.get());
  server_->Form_Load();
}

void Tavrel::LoadIni() {
  computers_.Load(startup_.LocalComputerName, transport_ ? transport_->LocalIP() : std::string(), log_);
}

std::vector<platform::TrayMenuEntry> Tavrel::MenuEntries() {
  return {{"Browser"}, {"System Config"}, {"System Status"}, {"Query LAN"}, {"Help"}, {"-"}, {"Exit"}};
}

// The icon with its tip "WOL" and the menu. A session without a notification area (a service, a
// server, --no-tray) runs the same program without it.
void Tavrel::ShowTrayIcon() {
  if (options_.noTray) return;
  std::string whyNot;
  tray_ = platform::OpenTray(io_, *this, platform::TrayConfig{"WOL", MenuEntries()}, whyNot);
  if (!tray_) {
    log_.WriteLog(kModule, "Running without a tray icon: " + whyNot);
  } else if (!tray_->SetTrayIcon(true)) {
    log_.WriteLog(kModule,
                  "Waiting for a notification area: no tray host yet; the icon appears when one starts");
  }
}

void Tavrel::TrayIconCallback(long msg) {
  if ((msg == 514 || msg == 517) && tray_) tray_->PopupMenu();
}

// The page in the user's browser, on the port the web server takes from the same setting.
void Tavrel::OpenPage() {
  const long port = HttpPortNumber(httpPortSetting_);
  if (port <= 0 || port > 65535) {
    log_.WriteLog(kModule, "Browser: no page to open, HTTPPort " + httpPortSetting_ + " names no port");
    return;
  }
  std::string whyNot;
  // The backslash before "wol" has always been part of this address; browsers take it as "/".
  if (!platform::OpenBrowser("http://localhost:" + std::to_string(port) + "\\wol", whyNot))
    log_.WriteLog(kModule, "Browser: cannot open a web browser: " + whyNot);
}

void Tavrel::TrayReport(const std::string& text) { log_.WriteLog(kModule, text); }

// This machine's own entry in the ARP table, in memory and in the INI file.
void Tavrel::RegisterOwnAddress() {
  const std::string mac = platform::LocalMac();
  const std::string ip = transport_->LocalIP();
  computers_.SetOwnAddress(ip, mac);
}

void Tavrel::onMessage() {
  if (inMessage_ || !transport_) return;
  inMessage_ = true;
  for (size_t queued = transport_->QueueLength(); queued > 0; --queued) {
    const std::string text = transport_->GetMessage();
    try {
      handler_->Handle(text);
    } catch (const std::exception& e) {
      log_.WriteLog(kModule, "Main OnMessage", Err::From(e));
    }
  }
  inMessage_ = false;
}

void Tavrel::MenuArray_Click(int index) {
  switch (index) {
    case kBrowser:
      OpenPage();
      break;
    case kQueryLan:
      if (lanScan_) lanScan_->QueryLAN();
      break;
    case kExit:
      exiting_ = true;
      Form_unload();
      break;
    default:
      break;
  }
}

void Tavrel::Form_unload() {
  if (!exiting_) return;
  // Nothing is saved here: every change was written to the INI file when it was made.
  if (tray_) tray_->SetTrayIcon(false);
  TakeDown();
  io_.stop();
}

}  // namespace tavrel
