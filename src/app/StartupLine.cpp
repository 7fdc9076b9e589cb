#include "app/StartupLine.h"

#include "app/Tavrel.h"
#include "core/Text.h"
#include "http/Guard.h"
#include "http/TCPServer.h"
#include "settings/Settings.h"
#include "xap/XapTransport.h"

namespace tavrel {

std::string StartupLine(Tavrel& app, const std::filesystem::path& home) {
  std::string line = "tavrel: xAP node " + app.XapSource();
  if (const XapTransport* xap = app.Transport()) {
    const std::string port = std::to_string(xap->Port());
    const std::string target =
        EqualsNoCase(xap->BroadcastAddress(), "default") ? "255.255.255.255" : xap->BroadcastAddress();
    if (xap->LocalPort() == xap->Port()) {
      line += " listening on UDP port " + port;
    } else {
      // The xAP port is held by a hub, which relays to the port of our own on 127.0.0.1.
      line +=
          " listening on UDP 127.0.0.1:" + std::to_string(xap->LocalPort()) + " behind the hub on " + port;
    }
    line += ", sending to " + target + ":" + port;
  }
  const TCPServer* server = app.Server();
  if (server != nullptr && server->Listening()) {
    line += "; page http://localhost:" + std::to_string(server->LocalPort()) + "/wol";
    if (const Guard* guard = app.ServerGuard()) line += " for " + guard->Describe();
  } else if (HttpPortText(app.HTTPPortSetting()).empty()) {
    line += "; web server off (HTTPPort=\"\")";
  } else {
    line += "; web server failed to listen on HTTPPort " + app.HTTPPortSetting();
  }
  return line + "; home " + home.string() + "; Ctrl+C stops it\n";
}

}  // namespace tavrel
