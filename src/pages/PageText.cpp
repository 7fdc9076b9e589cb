#include "pages/PageText.h"

#include <array>
#include <cstdio>

#include "core/Text.h"

namespace tavrel {
namespace {

struct TouchStyle {
  std::string_view cssClass;
  bool bold;
  std::string_view text;
  std::string_view background;
};

constexpr std::array<TouchStyle, 5> kTouchStyles{{
    {"TABLECOLUMN", true, "#FFFFFF", "#31639C"},
    {"TABLEHEADER", true, "#FFFFFF", "#63639C"},
    {"TABLEROWODD", false, "#000000", "#C0C0C0"},
    {"TABLEROWEVEN", false, "#000000", "#949494"},
    {"TABLECELLCUSTOM", false, "#FFFFFF", "#000000"},
}};

void Attribute(std::string& out, std::string_view name, std::string_view value) {
  out.append(name).append("=\"").append(value).append("\" ");
}

}  // namespace

std::string FormatCell(std::string_view content, std::string_view cssClass, std::string_view colspan,
                       std::string_view align, bool touchscreen) {
  std::string attributes;
  std::string body(content);
  if (!touchscreen) {
    Attribute(attributes, "class", cssClass);
  } else {
    const std::string upper = UCase(cssClass);
    for (const TouchStyle& style : kTouchStyles) {
      if (style.cssClass != upper) continue;
      Attribute(attributes, "bgcolor", style.background);
      if (style.bold) body = "<b>" + body + "</b>";
      body = "<font face=\"Verdana, Arial, sans-serif\" size=\"2\" color=\"" + std::string(style.text) +
             "\">" + body + "</font>";
    }
  }
  if (!colspan.empty()) Attribute(attributes, "colspan", colspan);
  if (!align.empty()) Attribute(attributes, "align", align);
  return "<td " + attributes + ">" + body + "</td>";
}

void AppendCell(FastString& page, std::initializer_list<std::string_view> content, std::string_view cssClass,
                std::string_view colspan, std::string_view align, bool touchscreen) {
  if (touchscreen) {
    page.Append(FormatCell(Concat(content), cssClass, colspan, align, true));
    return;
  }
  page.Append("<td class=\"");
  page.Append(cssClass);
  page.Append("\" ");
  if (!colspan.empty()) {
    page.Append("colspan=\"");
    page.Append(colspan);
    page.Append("\" ");
  }
  if (!align.empty()) {
    page.Append("align=\"");
    page.Append(align);
    page.Append("\" ");
  }
  page.Append(">");
  for (const std::string_view piece : content) page.Append(piece);
  page.Append("</td>");
}

std::string FormatAge(int32_t seconds) {
  if (seconds == 0) return {};
  constexpr int64_t kDay = 86400;
  const int64_t s = seconds;
  // Whole days rounded down; the time of day is where the count lands after midnight.
  const int64_t days = s >= 0 ? s / kDay : -((-s + kDay - 1) / kDay);
  const int64_t t = s - days * kDay;
  char time[32];
  std::snprintf(time, sizeof time, " %d:%02d:%02d", static_cast<int>(t / 3600), static_cast<int>(t / 60 % 60),
                static_cast<int>(t % 60));
  return (days >= 1 ? std::to_string(days) + "d " : std::string()) + time;
}

std::string MakeIPSort(std::string_view ip) {
  std::vector<std::string> parts = Split(ip, ".");
  for (std::string& part : parts) {
    const std::string padded = "000" + part;
    part = padded.substr(padded.size() - 3);
  }
  return Join(parts, ".");
}

std::string StripHTML(std::string_view text) {
  std::string out = ReplaceNoCase(ReplaceNoCase(text, "&nbsp;", ""), "&nbsp", "");
  for (;;) {
    const size_t open = out.find('<');
    if (open == std::string::npos) break;
    const size_t close = out.find('>', open);
    if (close == std::string::npos) break;
    out.erase(open, close - open + 1);
  }
  return out;
}

std::string CustomHeader(const std::vector<std::string>& values) {
  const std::string title = values.empty() ? std::string() : StripHTML(values[0]);
  const std::string sheet = values.size() > 4 ? values[4] : std::string();
  return "<title>" + title + "</title><link rel='stylesheet' type='text/css' href='/" + sheet +
         "'></head><body>";
}

}  // namespace tavrel
