#include "platform/Console.h"

#include <iostream>
#include <memory>

#include "platform/SystemHeaders.h"

namespace tavrel::platform {

namespace {
// The console's input mode before the hidden read, for the Ctrl+C handler to put back.
HANDLE input = INVALID_HANDLE_VALUE;
DWORD savedMode = 0;

BOOL WINAPI RestoreModeOnBreak(DWORD) {
  SetConsoleMode(input, savedMode);
  return FALSE;  // the default handler then ends the program as usual
}

// Echo off for its lifetime; Ctrl+C or a closed console meanwhile turns it on again first.
class HiddenInput {
 public:
  HiddenInput() {
    input = GetStdHandle(STD_INPUT_HANDLE);
    if (!GetConsoleMode(input, &savedMode)) return;
    SetConsoleCtrlHandler(RestoreModeOnBreak, TRUE);
    hooked_ = true;
    SetConsoleMode(input, savedMode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  }
  ~HiddenInput() {
    if (!hooked_) return;
    SetConsoleMode(input, savedMode);
    SetConsoleCtrlHandler(RestoreModeOnBreak, FALSE);
    std::cerr << "\n";  // the Enter key was not shown either
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

 private:
  bool hooked_ = false;
};

}  // namespace

bool StdinIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

std::shared_ptr<void> HideTyping() { return std::make_shared<HiddenInput>(); }

}  // namespace tavrel::platform
