#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

// Text helpers on byte strings. Text is kept as bytes in the system code page and never decoded;
// case folding touches the ASCII letters only.
namespace tavrel {

inline char ToLowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
inline char ToUpperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c; }

std::string LCase(std::string_view s);
std::string UCase(std::string_view s);

// Trim blanks (the space character only, as the classic Trim does).
std::string Trim(std::string_view s);
std::string RTrim(std::string_view s);

bool EqualsNoCase(std::string_view a, std::string_view b);
// Byte order after ASCII lower-case folding: <0, 0, >0.
int CompareNoCase(std::string_view a, std::string_view b);
// Position of needle in haystack from pos, ignoring ASCII case; npos when absent.
size_t FindNoCase(std::string_view haystack, std::string_view needle, size_t pos = 0);

// Split at every occurrence of delim. An empty text gives an empty list; otherwise every piece is kept,
// empty ones included ("a,,b" gives three pieces).
std::vector<std::string> Split(std::string_view s, std::string_view delim);
// The lines of a text whose lines end in CR LF, LF or a lone CR, without their ends. A last line without
// an end is kept; an empty text has no lines.
std::vector<std::string_view> SplitLines(std::string_view text);
std::string Join(const std::vector<std::string>& parts, std::string_view delim);
// The pieces one after another, in one allocation.
std::string Concat(std::initializer_list<std::string_view> pieces);

std::string Replace(std::string_view s, std::string_view find, std::string_view with);
std::string ReplaceNoCase(std::string_view s, std::string_view find, std::string_view with);

// Text before / after the first occurrence of sep (the whole text / "" when absent).
std::string_view Before(std::string_view s, std::string_view sep);
std::string_view After(std::string_view s, std::string_view sep);

// Text made safe to write into HTML, also inside a quoted attribute: & < > " ' become entities; every
// other byte stays as it is.
std::string HtmlEscape(std::string_view s);

// True when s is a whole decimal number in [lo, hi].
bool ParseInt(std::string_view s, long long lo, long long hi, long long& out);

}  // namespace tavrel
