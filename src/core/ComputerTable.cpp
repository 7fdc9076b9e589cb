#include "core/ComputerTable.h"

namespace tavrel {

bool IsStorableName(std::string_view name) {
  if (name.empty() || name.size() > kMaxComputerName) return false;
  if (name.front() == ';' || name.front() == '[' || name.front() == ' ' || name.back() == ' ') return false;
  for (char ch : name) {
    auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F || c == '=' || c == '~') return false;
  }
  return true;
}

}  // namespace tavrel
