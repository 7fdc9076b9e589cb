#include "settings/SectionPattern.h"

#include "core/Text.h"

namespace tavrel {

namespace {

bool HasPatternCharacters(std::string_view s) {
  return s.find_first_of("^$\\.*+?()[]{}|") != std::string_view::npos;
}

std::regex::flag_type PatternFlags() {
  auto flags = std::regex::ECMAScript | std::regex::icase;
#ifdef __GLIBCXX__
  // The breadth-first matcher: time grows with key length times pattern size, never exponentially, and
  // its stack does not grow with the key.
  flags |= std::regex_constants::__polynomial;
#endif
  return flags;
}

}  // namespace

SectionPattern::SectionPattern(std::string_view section) {
  if (!HasPatternCharacters(section)) {
    prefix_ = UCase(section);
    prefix_ += '~';
    return;
  }
  plain_ = false;
  if (section.size() > kMaxPatternLength) return;
  try {
    regex_.emplace("^" + std::string(section) + "\\~", PatternFlags());
  } catch (const std::exception&) {
    regex_.reset();
  }
}

bool SectionPattern::Matches(std::string_view tableKey) const {
  if (plain_)
    return tableKey.size() >= prefix_.size() && EqualsNoCase(tableKey.substr(0, prefix_.size()), prefix_);
  if (!regex_) return false;
  std::string_view subject = tableKey.substr(0, kMaxSubjectLength);
  try {
    return std::regex_search(subject.begin(), subject.end(), *regex_);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tavrel
