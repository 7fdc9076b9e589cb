#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace tavrel {

// A growing text buffer for page and message text: appends go into one buffer that grows by doubling,
// so building a page of thousands of pieces costs no allocation per piece and ToString copies once.
class FastString {
 public:
  FastString() { text_.reserve(kInitialRoom); }

  void Append(std::string_view text) { text_.append(text); }
  std::string ToString() const& { return text_; }
  // The text, moved out of a buffer that is done with.
  std::string ToString() && { return std::move(text_); }
  // Room for at least length bytes in all, so a long page grows once.
  void Reserve(size_t length) { text_.reserve(length); }
  // Empties the buffer and starts as new.
  void Reset() {
    text_.clear();
    text_.shrink_to_fit();
    text_.reserve(kInitialRoom);
  }
  size_t Length() const { return text_.size(); }

 private:
  static constexpr size_t kInitialRoom = 4096;
  std::string text_;
};

}  // namespace tavrel
