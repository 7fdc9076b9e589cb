#pragma once

#include <exception>
#include <string>
#include <utility>

namespace tavrel {

// The run-time error a procedure caught: what WriteLog and ReportEvent append to their text.
// Number 0 means "no error"; Line is 0 unless the procedure numbers its steps.
struct Err {
  // The numbers this program reports, as the original runtime numbered its errors.
  static constexpr long kInvalidCall = 5;  // "Invalid procedure call or argument"
  static constexpr long kSubscriptOutOfRange = 9;
  static constexpr long kTypeMismatch = 13;
  static constexpr long kBadFileName = 52;  // "Bad file name or number"
  static constexpr long kPathFileAccess = 75;
  static constexpr long kObjectNotSet = 91;  // "Object variable or With block variable not set"
  static constexpr long kInvalidPropertyValue = 380;
  static constexpr long kNoSuchMember = 438;  // "Object doesn't support this property or method"
  static constexpr long kWrongArgumentCount = 450;
  static constexpr long kKeyAlreadyUsed = 457;
  static constexpr long kElementNotFound = 32811;
  static constexpr long kWrongSocketState = 40006;  // "Wrong protocol or connection state ..."

  long Number = 0;
  std::string Description;
  int Line = 0;

  bool IsSet() const { return Number != 0; }

  // A caught exception as a run-time error: the generic kInvalidCall unless the caller knows a more
  // precise number.
  static Err From(const std::exception& e, long number = kInvalidCall, int line = 0) {
    return Err{number, e.what(), line};
  }
  static Err Of(std::string description, long number = kInvalidCall, int line = 0) {
    return Err{number, std::move(description), line};
  }
};

}  // namespace tavrel
