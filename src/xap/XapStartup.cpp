#include "xap/XapStartup.h"

#include <exception>

#include "core/Text.h"
#include "platform/Host.h"

namespace tavrel {

namespace {

constexpr std::string_view kDefaultPort = "3639";

// Runs one step; a failure is logged and the next step still runs.
template <class Step>
void Guarded(Reporter& reporter, Step step) {
  try {
    step();
  } catch (const std::exception& e) {
    reporter.WriteLog(kModule, "InitXap", Err::From(e));
  }
}

}  // namespace

XapStartup InitXap(Hs& hs, Reporter& reporter) {
  XapStartup startup;
  Guarded(reporter, [&] { startup.LocalComputerName = platform::ComputerName(); });
  Guarded(reporter, [&] { startup.ExecutablePath = platform::ExecutablePath().string(); });
  Guarded(reporter, [&] {
    startup.InterfaceAddress = hs.GetINISetting("Interface", "InterfaceAddress", "Default", kXapIniFile);
  });
  Guarded(reporter, [&] {
    startup.BroadcastAddress = hs.GetINISetting("Interface", "BroadcastAddress", "Default", kXapIniFile);
  });
  Guarded(reporter, [&] {
    const std::string port = hs.GetINISetting("Interface", "Port", kDefaultPort, kXapIniFile);
    long long value = 0;
    if (ParseInt(Trim(port), 1, 65535, value)) {
      startup.Port = static_cast<int>(value);
    } else {
      reporter.WriteLog(
          kModule, "InitXap",
          Err::Of("Port \"" + port + "\" is no port number; " + std::string(kDefaultPort) + " used",
                  Err::kTypeMismatch));
    }
  });
  return startup;
}

}  // namespace tavrel
