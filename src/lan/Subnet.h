#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel {

// A subnet as the sweeps take it: three decimal numbers 0-255 joined by "." ("198.51.100"), blanks around
// it allowed. Returns it without the blanks, or nothing for any other text. A number with a leading zero
// is refused, as "ping" would read it as octal.
std::optional<std::string> ParseSubnet(std::string_view text);

// An entry of a subnet list that may be swept, with its place in the list (from 0), which numbers its scan
// files ("p<Number>.log").
struct ListedSubnet {
  size_t Number = 0;
  std::string Subnet;

  bool operator==(const ListedSubnet&) const = default;
};

struct SubnetList {
  std::vector<ListedSubnet> Valid;
  std::vector<std::string> Invalid;  // as written, for the "Invalid subnet " report
};

// Every entry through ParseSubnet: the subnets to sweep, and the entries to skip.
SubnetList CheckSubnets(const std::vector<std::string>& entries);

}  // namespace tavrel
