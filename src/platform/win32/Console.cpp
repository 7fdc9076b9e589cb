#include "platform/Console.h"

#include <io.h>

#include <cstdio>
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

// A standard handle a parent already gave us (a file, a pipe, a console) is kept; a GUI program started
// from a console gets none.
bool Unset(DWORD which) {
  HANDLE h = GetStdHandle(which);
  return h == nullptr || h == INVALID_HANDLE_VALUE || GetFileType(h) == FILE_TYPE_UNKNOWN;
}

void Reopen(FILE* stream, DWORD which, const char* device, const char* mode) {
  if (!std::freopen(device, mode, stream)) return;
  SetStdHandle(which, reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream))));
}

}  // namespace

void UseParentConsole() {
  const bool out = Unset(STD_OUTPUT_HANDLE);
  const bool err = Unset(STD_ERROR_HANDLE);
  const bool in = Unset(STD_INPUT_HANDLE);
  if (!(out || err || in) || !AttachConsole(ATTACH_PARENT_PROCESS)) return;
  if (out) Reopen(stdout, STD_OUTPUT_HANDLE, "CONOUT$", "w");
  if (err) Reopen(stderr, STD_ERROR_HANDLE, "CONOUT$", "w");
  if (in) Reopen(stdin, STD_INPUT_HANDLE, "CONIN$", "r");
}

bool StdinIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != 0;
}

std::shared_ptr<void> HideTyping() { return std::make_shared<HiddenInput>(); }

}  // namespace tavrel::platform
