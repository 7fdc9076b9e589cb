#include "xap/XapStartup.h"

#include <exception>

#include "core/Text.h"
#include "platform/Host.h"

namespace tavrel {

namespace {

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
    const InterfaceSettings settings = ReadInterfaceSettings(hs);
    startup.InterfaceAddress = settings.interfaceAddress;
    startup.BroadcastAddress = settings.broadcastAddress;
    startup.Port = settings.port;
    if (!settings.refusedPort.empty()) {
      reporter.WriteLog(kModule, "InitXap",
                        Err::Of("Port \"" + settings.refusedPort + "\" is no port number; " +
                                    std::to_string(settings.port) + " used",
                                Err::kTypeMismatch));
    }
  });
  return startup;
}

}  // namespace tavrel
