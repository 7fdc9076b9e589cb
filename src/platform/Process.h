#pragma once

#include <cstdint>
#include <string>

namespace tavrel::platform {

// A child process the program started and watches without waiting for it: by its process handle on
// Windows, by its pid elsewhere. Destroying the object lets the process run on; it is never killed.
class Process {
 public:
  Process() = default;
  ~Process();
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Runs commandLine under the system's command interpreter and returns at once: "cmd.exe /c" with a
  // minimised window on Windows, "/bin/sh -c" elsewhere. Throws std::system_error when it cannot start.
  static Process StartCommand(const std::string& commandLine);

  // True while the process runs; false once it has ended and for an empty object.
  bool Running() const;

 private:
  void Release();

  // The process handle on Windows, the pid elsewhere; 0 for none.
  std::uintptr_t id_ = 0;
  mutable bool ended_ = true;
};

// True where the interpreter of StartCommand is CMD.EXE, so the batch-file sweep ("ping", "arp -a") can
// run.
bool HasCmdShell();

}  // namespace tavrel::platform
