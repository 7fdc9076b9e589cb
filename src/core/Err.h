#pragma once

#include <exception>
#include <string>
#include <utility>

namespace tavrel {

// The run-time error a procedure caught: what WriteLog and ReportEvent append to their text.
// Number 0 means "no error"; Line is 0 unless the procedure numbers its steps.
struct Err {
  long Number = 0;
  std::string Description;
  int Line = 0;

  bool IsSet() const { return Number != 0; }

  // A caught exception as a run-time error. Number 5 is the generic "invalid call" of the
  // original runtime; callers with a more precise number pass it.
  static Err From(const std::exception& e, long number = 5, int line = 0) {
    return Err{number, e.what(), line};
  }
  static Err Of(std::string description, long number = 5, int line = 0) {
    return Err{number, std::move(description), line};
  }
};

}  // namespace tavrel
