#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tavrel {

// `tavrel scan SUBNET...`: one sweep, printing "IP MAC" per line; exit code 0, or 2 with a message on err
// for bad arguments.
int ScanCommand(const std::vector<std::string>& subnets, std::ostream& out, std::ostream& err);

}  // namespace tavrel
