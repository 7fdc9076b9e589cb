#include "core/Text.h"

#include <charconv>

namespace tavrel {

std::string LCase(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = ToLowerAscii(c);
  return out;
}

std::string UCase(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = ToUpperAscii(c);
  return out;
}

std::string RTrim(std::string_view s) {
  size_t e = s.find_last_not_of(' ');
  return e == std::string_view::npos ? std::string() : std::string(s.substr(0, e + 1));
}

std::string Trim(std::string_view s) {
  size_t b = s.find_first_not_of(' ');
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(' ');
  return std::string(s.substr(b, e - b + 1));
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (ToLowerAscii(a[i]) != ToLowerAscii(b[i])) return false;
  }
  return true;
}

int CompareNoCase(std::string_view a, std::string_view b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    auto x = static_cast<unsigned char>(ToLowerAscii(a[i]));
    auto y = static_cast<unsigned char>(ToLowerAscii(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

size_t FindNoCase(std::string_view haystack, std::string_view needle, size_t pos) {
  if (needle.empty()) return pos <= haystack.size() ? pos : std::string_view::npos;
  if (haystack.size() < needle.size()) return std::string_view::npos;
  for (size_t i = pos; i + needle.size() <= haystack.size(); ++i) {
    if (EqualsNoCase(haystack.substr(i, needle.size()), needle)) return i;
  }
  return std::string_view::npos;
}

std::vector<std::string> Split(std::string_view s, std::string_view delim) {
  std::vector<std::string> parts;
  if (s.empty()) return parts;
  if (delim.empty()) {
    parts.emplace_back(s);
    return parts;
  }
  size_t start = 0;
  while (true) {
    size_t at = s.find(delim, start);
    if (at == std::string_view::npos) {
      parts.emplace_back(s.substr(start));
      return parts;
    }
    parts.emplace_back(s.substr(start, at - start));
    start = at + delim.size();
  }
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find_first_of("\r\n", pos);
    if (end == std::string_view::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
    if (end < text.size() && text[end] == '\r' && pos < text.size() && text[pos] == '\n') ++pos;
  }
  return lines;
}

std::string Join(const std::vector<std::string>& parts, std::string_view delim) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out.append(delim);
    out.append(parts[i]);
  }
  return out;
}

namespace {
std::string ReplaceWith(std::string_view s, std::string_view find, std::string_view with, bool noCase) {
  if (find.empty()) return std::string(s);
  std::string out;
  out.reserve(s.size());
  size_t start = 0;
  while (true) {
    size_t at = noCase ? FindNoCase(s, find, start) : s.find(find, start);
    if (at == std::string_view::npos) break;
    out.append(s.substr(start, at - start));
    out.append(with);
    start = at + find.size();
  }
  out.append(s.substr(start));
  return out;
}
}  // namespace

std::string Replace(std::string_view s, std::string_view find, std::string_view with) {
  return ReplaceWith(s, find, with, false);
}

std::string ReplaceNoCase(std::string_view s, std::string_view find, std::string_view with) {
  return ReplaceWith(s, find, with, true);
}

std::string_view Before(std::string_view s, std::string_view sep) {
  size_t at = s.find(sep);
  return at == std::string_view::npos ? s : s.substr(0, at);
}

std::string_view After(std::string_view s, std::string_view sep) {
  size_t at = s.find(sep);
  return at == std::string_view::npos ? std::string_view() : s.substr(at + sep.size());
}

std::string HtmlEscape(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool ParseInt(std::string_view s, long long lo, long long hi, long long& out) {
  if (s.empty()) return false;
  long long v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || v < lo || v > hi) return false;
  out = v;
  return true;
}

}  // namespace tavrel

namespace tavrel {

std::string Concat(std::initializer_list<std::string_view> pieces) {
  size_t length = 0;
  for (const std::string_view piece : pieces) length += piece.size();
  std::string out;
  out.reserve(length);
  for (const std::string_view piece : pieces) out.append(piece);
  return out;
}

}  // namespace tavrel
