#include "platform/Process.h"

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace tavrel::platform {

// A child that has already ended is reaped here; one still running is left alone (the shell of a
// sweep ends by itself).
void Process::Release() {
  if (id_ != 0 && !ended_) {
    int status = 0;
    waitpid(static_cast<pid_t>(id_), &status, WNOHANG);
  }
  id_ = 0;
  ended_ = true;
}

Process Process::StartCommand(const std::string& commandLine) {
  const char* argv[] = {"sh", "-c", commandLine.c_str(), nullptr};
  pid_t pid = 0;
  int rc = posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ);
  if (rc != 0) throw std::system_error(rc, std::generic_category(), "posix_spawn /bin/sh");
  Process p;
  p.id_ = static_cast<std::uintptr_t>(pid);
  p.ended_ = false;
  return p;
}

bool Process::Running() const {
  if (id_ == 0 || ended_) return false;
  int status = 0;
  pid_t rc = waitpid(static_cast<pid_t>(id_), &status, WNOHANG);
  if (rc == 0) return true;
  if (rc < 0 && errno == EINTR) return true;
  // Ended and reaped now, or no longer our child: either way it is gone.
  ended_ = true;
  return false;
}

bool HasCmdShell() { return false; }

}  // namespace tavrel::platform
