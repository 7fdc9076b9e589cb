#pragma once

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

}  // namespace tavrel
