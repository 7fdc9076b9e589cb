#pragma once

#include <string>

#include "core/Reporter.h"
#include "settings/Hs.h"
#include "settings/Settings.h"

namespace tavrel {

// What the program learns before it starts the xAP transport.
struct XapStartup {
  std::string LocalComputerName;
  std::string ExecutablePath;
  std::string InterfaceAddress = "Default";
  std::string BroadcastAddress = "Default";
  // The xAP port to send to and to listen on first.
  int Port = 3639;
};

// Reads this machine's name and the program's paths and section "Interface" of zelXap.ini (the caller
// has made the home's folders). Failures are logged as "InitXap"; every value not read keeps
// its default.
XapStartup InitXap(Hs& hs, Reporter& reporter);

}  // namespace tavrel
