#include "lan/Subnet.h"

#include "core/Text.h"

namespace tavrel {

std::optional<std::string> ParseSubnet(std::string_view text) {
  std::string subnet = Trim(text);
  std::vector<std::string> parts = Split(subnet, ".");
  if (parts.size() != 3) return std::nullopt;
  for (const std::string& part : parts) {
    if (part.empty() || part.size() > 3 || (part.size() > 1 && part[0] == '0')) return std::nullopt;
    int value = 0;
    for (char c : part) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + (c - '0');
    }
    if (value > 255) return std::nullopt;
  }
  return subnet;
}

SubnetList CheckSubnets(const std::vector<std::string>& entries) {
  SubnetList list;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (auto subnet = ParseSubnet(entries[i])) {
      list.Valid.push_back(ListedSubnet{i, std::move(*subnet)});
    } else {
      list.Invalid.push_back(entries[i]);
    }
  }
  return list;
}

}  // namespace tavrel
