#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrel {

// A growing text buffer kept as a list of parts: appends are cheap, ToString joins once.
// Room for parts grows 100 at a time.
class FastString {
 public:
  static constexpr size_t kGrowth = 100;

  FastString() { parts_.reserve(kGrowth); }

  void Append(std::string_view text);
  std::string ToString() const;
  // Empties the buffer and starts as new.
  void Reset();

  size_t PartCount() const { return parts_.size(); }
  size_t Capacity() const { return parts_.capacity(); }
  size_t Length() const { return length_; }

 private:
  std::vector<std::string> parts_;
  size_t length_ = 0;
};

}  // namespace tavrel
