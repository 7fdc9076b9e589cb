#pragma once

#include <optional>
#include <regex>
#include <string>
#include <string_view>

namespace tavrel {

// Which table keys belong to a section name. The name is a regular expression, "^" + name + "\~",
// matched without regard to case, so "A.B" also selects the section "AXB". A name without pattern
// characters is compared as plain text, which gives the same answer much faster. A name that is not a
// valid pattern selects nothing.
class SectionPattern {
 public:
  // Pattern names longer than this select nothing; table keys are matched on this many leading bytes.
  // Section names are short; the limits keep a hostile name or key from costing seconds.
  static constexpr size_t kMaxPatternLength = 100;
  static constexpr size_t kMaxSubjectLength = 256;

  explicit SectionPattern(std::string_view section);

  bool Matches(std::string_view tableKey) const;

 private:
  std::string prefix_;  // upper-case name + "~" when the name is plain text
  std::optional<std::regex> regex_;
  bool plain_ = true;
};

}  // namespace tavrel
