#pragma once

#include <cstddef>
#include <string_view>

#include "core/KeyValuePair.h"
#include "core/OrderedDict.h"

namespace tavrel {

// The computers the program knows, owned by the application and shared by the handler, the scan and
// the page. LastSeen values are date/time text in FormatDateTime form.
struct ComputerTable {
  // lower-case name -> (name, IP address); keys compared without regard to case
  OrderedDict<KeyValuePair> Computers{true};
  // lower-case name -> (name, last time known present)
  OrderedDict<KeyValuePair> LastSeen{true};
  // IP address text -> (IP, MAC address text); binary compare
  OrderedDict<KeyValuePair> ARPTable{false};
};

// Computers learned from the network stop being added once the table holds this many.
inline constexpr size_t kMaxLearnedComputers = 1024;
inline constexpr size_t kMaxComputerName = 63;

// Whether tavrel.ini can hold the name as a key of section "Computer" and give it back unchanged after a
// restart: 1 to 63 bytes, no control byte, no "=" (ends the key) or "~" (the settings table's own
// separator), no leading ";" (a comment) or "[" (a section header), no blank at either end (trimmed).
// Every name taken from outside, over xAP or from the page, passes here first.
bool IsStorableName(std::string_view name);

}  // namespace tavrel
