#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/OrderedDict.h"
#include "core/Reporter.h"

namespace tavrel {

// One xAP message: built line by line for sending, or parsed from received text. Building and parsing
// are independent: parsing never touches the output text and building never touches the blocks.
// No operation throws.
class XapMessage {
 public:
  // reporter receives the file-log lines of failed operations ("From XAP", "GetItem", ...); may be null.
  explicit XapMessage(Reporter* reporter = nullptr) : reporter_(reporter) {}

  // Header fields, "Unknown" until set or parsed.
  std::string msgClass = "Unknown";
  std::string msgTarget = "Unknown";
  std::string msgSource = "Unknown";
  std::string msgUID = "Unknown";

  // Building. headerPrefix is the transport's five header lines ("xap-header" ... "uid=<UID>\n").
  void AddHeader(std::string_view headerPrefix);
  void AddSection(std::string_view name);
  void AddItem(std::string_view key, std::string_view value);
  // The output text followed by "}\n".
  std::string ToXap() const;

  // Reading.
  void FromXap(std::string_view text);
  // The raw value after the first "=" of the item line (untrimmed); "Unknown" for a missing block or key.
  std::string GetItem(std::string_view section, std::string_view key) const;

  bool CompareClass(std::string_view className) const;
  bool CompareTarget(std::string_view pattern) const;
  // Wildcard address match: "*" matches one part, ">" the rest; either side may carry them.
  bool CompareAddress(std::string_view a, std::string_view b) const;

 private:
  Reporter* reporter_;
  // A plain string: appends are amortised and ToXap copies once, without the part list of FastString.
  std::string output_;
  bool blockOpen_ = false;
  std::vector<OrderedDict<std::string>> blocks_;
  OrderedDict<int> blockIndex_;
};

}  // namespace tavrel
