#include "platform/Console.h"

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <iterator>
#include <memory>

namespace tavrel::platform {

namespace {
// The terminal's settings before the hidden read, for the signal handler to put back.
termios savedTerminal{};
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

extern "C" void RestoreTerminalAndEnd(int sig) {
  tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
  signal(sig, SIG_DFL);
  raise(sig);
}

// Echo off for its lifetime; a signal that ends the program meanwhile turns it on again first.
class HiddenInput {
 public:
  HiddenInput() {
    if (tcgetattr(STDIN_FILENO, &savedTerminal) != 0) return;
    struct sigaction restore {};
    restore.sa_handler = RestoreTerminalAndEnd;
    sigemptyset(&restore.sa_mask);
    for (size_t i = 0; i < std::size(kEndingSignals); ++i)
      sigaction(kEndingSignals[i], &restore, &previous_[i]);
    hooked_ = true;
    termios quiet = savedTerminal;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;  // Enter still moves to the next line
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  ~HiddenInput() {
    if (!hooked_) return;
    tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
    for (size_t i = 0; i < std::size(kEndingSignals); ++i)
      sigaction(kEndingSignals[i], &previous_[i], nullptr);
  }
  HiddenInput(const HiddenInput&) = delete;
  HiddenInput& operator=(const HiddenInput&) = delete;

 private:
  struct sigaction previous_[std::size(kEndingSignals)]{};
  bool hooked_ = false;
};

}  // namespace

void UseParentConsole() {}

bool StdinIsTerminal() { return isatty(STDIN_FILENO) == 1; }

std::shared_ptr<void> HideTyping() { return std::make_shared<HiddenInput>(); }

}  // namespace tavrel::platform
