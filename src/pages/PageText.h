#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/FastString.h"

namespace tavrel {

// One table cell. Normally the cell carries class cssClass; for a touch-screen client the known table
// classes become a background colour and a font element instead (bold for the header classes), and any
// other class gets no styling at all. Empty colspan or align attributes are left out.
std::string FormatCell(std::string_view content, std::string_view cssClass, std::string_view colspan,
                       std::string_view align, bool touchscreen);
// The same cell, its content given in pieces, appended to a page without a string of its own on the way.
void AppendCell(FastString& page, std::initializer_list<std::string_view> content, std::string_view cssClass,
                std::string_view colspan, std::string_view align, bool touchscreen);

// An age as "[<days>d ] h:mm:ss" with a leading blank ("" for 0): 90061 gives "1d  1:01:01".
std::string FormatAge(int32_t seconds);

// An IP address whose parts are padded (or cut) to three digits, so text order is address order.
std::string MakeIPSort(std::string_view ip);

// The text without "&nbsp;"/"&nbsp" (any case) and without anything from a "<" to the next ">".
std::string StripHTML(std::string_view text);

// The head of a page and the opening of its body, from the framework's five values: the title line
// (shown without its tags), three values this build has no use for, and the style sheet's name in the
// server's root folder.
std::string CustomHeader(const std::vector<std::string>& values);

}  // namespace tavrel
