#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace tavrel {

// Sends one UDP datagram with SO_BROADCAST set to address:port and returns the socket error, if any.
// Kept apart from the callers so the socket headers (and the Windows macros they bring) stay in one file.
std::error_code SendUdpBroadcast(const std::string& address, unsigned short port,
                                 const std::vector<unsigned char>& payload);

}  // namespace tavrel
