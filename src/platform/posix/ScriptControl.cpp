#include "platform/ScriptControl.h"

namespace tavrel::platform {

// The script control is a Windows component; here the script pages fail the way a Windows machine
// without it fails.
std::unique_ptr<ScriptControl> CreateScriptControl(const std::string& /*language*/, long /*timeoutMs*/) {
  throw ScriptError(429, "ActiveX component can't create object");
}

}  // namespace tavrel::platform
