#include "platform/Process.h"

#include <utility>

// Ownership of a started process, the same on every platform; Release is each platform's own.
namespace tavrel::platform {

Process::~Process() { Release(); }

Process::Process(Process&& other) noexcept
    : id_(std::exchange(other.id_, 0)), ended_(std::exchange(other.ended_, true)) {}

Process& Process::operator=(Process&& other) noexcept {
  if (this != &other) {
    Release();
    id_ = std::exchange(other.id_, 0);
    ended_ = std::exchange(other.ended_, true);
  }
  return *this;
}

}  // namespace tavrel::platform
