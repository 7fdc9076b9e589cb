#include "xap/XapMessage.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "core/Text.h"

namespace tavrel {

namespace {

std::vector<std::string> SplitAddress(std::string_view address) { return Split(LCase(address), "."); }

}  // namespace

void XapMessage::AddHeader(std::string_view headerPrefix) {
  try {
    output_.append(headerPrefix);
    output_.append("class=");
    output_.append(msgClass);
    output_.append("\n");
    output_.append("source=");
    output_.append(msgSource);
    output_.append("\n");
    if (!msgTarget.empty()) {
      output_.append("target=");
      output_.append(msgTarget);
      output_.append("\n");
    }
    output_.append("}\n");
    blockOpen_ = false;
  } catch (const std::exception& e) {
    if (reporter_ != nullptr) reporter_->WriteLog(kModule, "Message AddHeader", Err::From(e));
  }
}

void XapMessage::AddSection(std::string_view name) {
  if (blockOpen_) output_.append("}\n");
  output_.append(name);
  output_.append("\n{\n");
  blockOpen_ = true;
}

void XapMessage::AddItem(std::string_view key, std::string_view value) {
  output_.append(key);
  output_.append("=");
  output_.append(value);
  output_.append("\n");
}

std::string XapMessage::ToXap() const { return output_ + "}\n"; }

// Parsing goes on after a duplicate block name or key: the first block or line keeps the name, and the
// rest of the message is still read. Only the first failure of a text is logged, so a hostile datagram
// full of duplicates costs one log line, as a failure that ended the parse would.
void XapMessage::FromXap(std::string_view text) {
  if (text.empty()) return;
  bool logged = false;
  auto fail = [&](Err err) {
    if (!logged && reporter_ != nullptr) reporter_->WriteLog(kModule, "From XAP", err);
    logged = true;
  };
  try {
    // Only a line feed ends a line: a received CR stays in the value.
    const std::vector<std::string> lines = Split(text, "\n");
    if (FindNoCase(lines[0], "xap-header") == std::string_view::npos) return;
    int block = -1;
    for (size_t i = 2; i < lines.size(); ++i) {
      std::string_view line = lines[i];
      if (line == "}") {
        ++block;
        if (++i >= lines.size()) {
          fail(Err::Of("Subscript out of range", Err::kSubscriptOutOfRange));
          return;
        }
        if (!blockIndex_.Add(LCase(lines[i]), block)) {
          fail(Err::Of("This key is already associated with an element of this collection",
                       Err::kKeyAlreadyUsed));
        }
        if (blocks_.size() < static_cast<size_t>(block) + 1) blocks_.resize(static_cast<size_t>(block) + 1);
        blocks_[static_cast<size_t>(block)] = OrderedDict<std::string>();
        continue;
      }
      size_t eq = line.find('=');
      if (eq == std::string_view::npos) continue;
      std::string key = LCase(Trim(line.substr(0, eq)));
      if (block < 0) {
        std::string value = Trim(line.substr(eq + 1));
        if (key == "uid") {
          msgUID = std::move(value);
        } else if (key == "class") {
          msgClass = std::move(value);
        } else if (key == "source") {
          msgSource = std::move(value);
        } else if (key == "target") {
          msgTarget = std::move(value);
        }
      } else if (!blocks_[static_cast<size_t>(block)].Add(key, std::string(line))) {
        fail(Err::Of("This key is already associated with an element of this collection",
                     Err::kKeyAlreadyUsed));
      }
    }
  } catch (const std::exception& e) {
    fail(Err::From(e));
  }
}

std::string XapMessage::GetItem(std::string_view section, std::string_view key) const {
  try {
    const int* block = blockIndex_.Find(LCase(section));
    if (block == nullptr) return "Unknown";
    const std::string* line = blocks_.at(static_cast<size_t>(*block)).Find(LCase(key));
    if (line == nullptr) return "Unknown";
    return std::string(After(*line, "="));
  } catch (const std::exception& e) {
    if (reporter_ != nullptr) reporter_->WriteLog(kModule, "GetItem", Err::From(e));
    return {};
  }
}

bool XapMessage::CompareClass(std::string_view className) const {
  return LCase(className) == LCase(msgClass);
}

bool XapMessage::CompareTarget(std::string_view pattern) const { return CompareAddress(pattern, msgTarget); }

bool XapMessage::CompareAddress(std::string_view a, std::string_view b) const {
  if (a.empty() || b.empty()) return false;
  try {
    const std::vector<std::string> left = SplitAddress(a);
    const std::vector<std::string> right = SplitAddress(b);
    const size_t limit = std::min(left.size(), right.size());
    for (size_t i = 0; i < limit; ++i) {
      if (left[i] == ">" || right[i] == ">") return true;
      if (left[i] != "*" && right[i] != "*" && left[i] != right[i]) return false;
    }
    return left.size() == right.size();
  } catch (const std::exception& e) {
    if (reporter_ != nullptr) reporter_->WriteLog(kModule, "Message CompareAddress", Err::From(e));
    return false;
  }
}

}  // namespace tavrel
