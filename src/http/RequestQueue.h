#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "http/Request.h"

namespace tavrel {

// The received packets waiting for ProcessRequestQueue, first in, first out. Bounded, so no client can
// make it grow without end: a packet over Request::kMaxPacket bytes, or one more while kMaxEntries wait,
// is refused.
class RequestQueue {
 public:
  static constexpr size_t kMaxEntries = 1000;

  struct Entry {
    int index = 0;
    std::string data;
    // As the log shows it: the socket index, "~" and the packet.
    std::string Text() const { return std::to_string(index) + "~" + data; }
  };

  enum class Push { kQueued, kTooLong, kFull };

  Push Add(int index, std::string data) {
    if (data.size() > Request::kMaxPacket) return Push::kTooLong;
    if (entries_.size() >= kMaxEntries) return Push::kFull;
    entries_.push_back({index, std::move(data)});
    return Push::kQueued;
  }

  bool Empty() const { return entries_.empty(); }
  size_t Count() const { return entries_.size(); }
  const Entry& Front() const { return entries_.front(); }

  Entry Pop() {
    Entry e = std::move(entries_.front());
    entries_.pop_front();
    return e;
  }

  // Removes the oldest entry of socket index, if any, and returns it.
  std::optional<Entry> RemoveFirst(int index) {
    const auto it =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.index == index; });
    if (it == entries_.end()) return std::nullopt;
    Entry e = std::move(*it);
    entries_.erase(it);
    return e;
  }

  void Clear() { entries_.clear(); }

 private:
  std::deque<Entry> entries_;
};

}  // namespace tavrel
