#include "core/FastString.h"

namespace tavrel {

void FastString::Append(std::string_view text) {
  if (parts_.size() == parts_.capacity()) parts_.reserve(parts_.capacity() + kGrowth);
  parts_.emplace_back(text);
  length_ += text.size();
}

std::string FastString::ToString() const {
  std::string out;
  out.reserve(length_);
  for (const auto& p : parts_) out.append(p);
  return out;
}

void FastString::Reset() {
  parts_.clear();
  parts_.shrink_to_fit();
  parts_.reserve(kGrowth);
  length_ = 0;
}

}  // namespace tavrel
