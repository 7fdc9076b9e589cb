#pragma once

#include <string>

namespace tavrel {

// The item type of the computer table and of the request collections: two plain strings.
struct KeyValuePair {
  std::string Key;
  std::string Value;

  bool operator==(const KeyValuePair&) const = default;
};

}  // namespace tavrel
