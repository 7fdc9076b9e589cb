#include "platform/Console.h"

#include <iostream>

namespace tavrel::platform {

std::optional<std::string> ReadSecretLine(std::string_view prompt) {
  std::cerr << prompt << std::flush;
  const auto hidden = StdinIsTerminal() ? HideTyping() : nullptr;
  std::string line;
  if (!std::getline(std::cin, line)) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace tavrel::platform
