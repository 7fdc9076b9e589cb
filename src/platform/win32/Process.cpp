#include "platform/Process.h"

#include <windows.h>

#include <system_error>
#include <utility>
#include <vector>

namespace tavrel::platform {

namespace {
HANDLE AsHandle(std::uintptr_t id) { return reinterpret_cast<HANDLE>(id); }
}  // namespace

void Process::Release() {
  if (id_ != 0) CloseHandle(AsHandle(id_));
  id_ = 0;
  ended_ = true;
}

Process Process::StartCommand(const std::string& commandLine) {
  std::string line = "cmd.exe /c " + commandLine;
  std::vector<char> buffer(line.begin(), line.end());
  buffer.push_back('\0');
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_SHOWMINIMIZED;
  PROCESS_INFORMATION info{};
  if (!CreateProcessA(nullptr, buffer.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                      &info)) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "CreateProcess cmd.exe");
  }
  CloseHandle(info.hThread);
  Process p;
  p.id_ = reinterpret_cast<std::uintptr_t>(info.hProcess);
  p.ended_ = false;
  return p;
}

bool Process::Running() const {
  if (id_ == 0 || ended_) return false;
  if (WaitForSingleObject(AsHandle(id_), 0) == WAIT_TIMEOUT) return true;
  ended_ = true;
  return false;
}

bool HasCmdShell() { return true; }

}  // namespace tavrel::platform
