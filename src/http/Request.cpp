#include "http/Request.h"

#include <vector>

#include "core/Text.h"

namespace tavrel {

namespace {

constexpr std::string_view kCrLf = "\r\n";
constexpr std::string_view kBlankLine = "\r\n\r\n";

}  // namespace

void Request::ParsePage(std::string_view text) {
  const size_t blank = text.find(' ');
  if (blank == std::string_view::npos) return;
  method_ = std::string(text.substr(0, blank));

  const size_t version = FindNoCase(text, "HTTP", blank);
  if (version == std::string_view::npos) return;
  // The target ends one character before "HTTP" (its blank); with nothing between there is no target
  // to cut, and parsing ends here.
  if (version < blank + 2) return;
  const std::string_view target = text.substr(blank + 1, version - blank - 2);
  if (const size_t q = target.find('?'); q != std::string_view::npos) rawQuery_ = target.substr(q + 1);
  page_ = Decode(target);

  // The whole target is decoded first, so an encoded "?" splits it too.
  if (const size_t q = page_.find('?'); q != std::string::npos) {
    query_ = page_.substr(q + 1);
    ParseKeyValues(query_, queryStringCol_, false);
    page_.resize(q);
  }

  payload_.clear();
  const size_t end = text.find(kBlankLine, version);
  if (end != std::string_view::npos) {
    header_ = std::string(text.substr(version, end - version));
    body_ = text.substr(end + kBlankLine.size());
    // Only a body of three bytes or more counts as one.
    if (text.size() > end + 6) {
      if (method_ == "POST") method_ = "POSTx";
      payload_ = Replace(text.substr(end + kBlankLine.size()), kCrLf, "");
      ParseKeyValues(payload_, formCol_, true);
    }
  } else {
    header_ = std::string(text.substr(version));
  }

  const std::vector<std::string> lines = Split(header_, kCrLf);
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::vector<std::string> parts = Split(lines[i], ": ");
    if (parts.size() == 2) headerCol_.Add(parts[0], parts[1]);
  }
}

void Request::AddPostData(std::string_view text) {
  body_ += text;
  ParseKeyValues(text, formCol_, true);
}

void Request::ParseKeyValues(std::string_view text, Collection& into, bool formValues) const {
  for (const std::string& part : Split(text, "&")) {
    const std::vector<std::string> pieces = Split(part, "=");
    KeyValuePair pair;
    if (!pieces.empty()) pair.Key = pieces[0];
    if (pieces.size() > 1 && formValues) {
      pair.Value = DecodeFormValue(pieces[1]);
    } else if (pieces.size() > 1) {
      std::string value = Replace(pieces[1], "+", " ");
      value = Replace(value, "%3A", ":");
      value = Replace(value, "%5B", "[");
      value = Replace(value, "%5D", "]");
      pair.Value = Replace(value, "%5C", "\\");
    }
    Debug({"KeyValue ", pair.Key, " = ", pair.Value});
    std::string key = pair.Key;
    into.Add(key, std::move(pair));
  }
}

std::string Request::ServerVariables(std::string_view name) const {
  const std::string lower = LCase(name);
  if (lower == "http_user_agent") return Header("User-Agent");
  if (lower == "remote_addr") return std::string(Before(Header("Host"), ":"));
  return Header(name);
}

std::string Request::QueryString(std::string_view name) const {
  const KeyValuePair* pair = queryStringCol_.Find(name);
  if (!pair) return {};
  Debug({"Querystring ", name, "=", pair->Value});
  return pair->Value;
}

std::string Request::Form(std::string_view name) const {
  const KeyValuePair* pair = formCol_.Find(name);
  if (!pair) return {};
  Debug({"Form ", name, "=", pair->Value});
  return pair->Value;
}

std::string Request::GetContent(std::string_view text) {
  const size_t end = text.find(kBlankLine);
  if (end == std::string_view::npos || end + 5 >= text.size()) return {};
  return std::string(text.substr(end + 5));
}

std::string Request::Decode(std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  // "+" is already a blank when the escapes are read, so "%+1" reads a blank (not a digit) there.
  auto digit = [&](size_t at) {
    if (at >= text.size()) return -1;
    const size_t d = kDigits.find(text[at]);
    return d == std::string_view::npos ? -1 : static_cast<int>(d);
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c != '%') {
      out += c == '+' ? ' ' : c;
      ++i;
      continue;
    }
    int code = 16 * digit(i + 1) + digit(i + 2);
    if (code < 32) {
      code = 32;
    } else if (code == ':') {
      code = '\'';
    }
    out += static_cast<char>(static_cast<unsigned char>(code));
    i += 3;
  }
  return out;
}

std::string Request::DecodeFormValue(std::string_view text) {
  auto hex = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += c == '+' ? ' ' : c;
    }
  }
  return out;
}

std::string Request::Header(std::string_view name) const {
  const std::string* value = headerCol_.Find(name);
  return value ? *value : std::string();
}

void Request::Debug(std::initializer_list<std::string_view> pieces) const {
  if (log_) log_->WriteLine(Concat(pieces));
}

}  // namespace tavrel
