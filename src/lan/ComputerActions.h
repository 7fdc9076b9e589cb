#pragma once

#include <string>
#include <vector>

#include "core/Reporter.h"
#include "xap/XapGlobal.h"

namespace tavrel {

// The Wake-on-LAN magic packet for a MAC of exactly 12 hexadecimal digits (either case): six 0xFF bytes,
// then the six MAC bytes sixteen times (102 bytes). Throws std::invalid_argument for any other text.
std::vector<unsigned char> MagicPacket(const std::string& mac12);

// True when text is exactly 12 hexadecimal digits.
bool IsMac12(const std::string& text);

// The broadcast address of ip under the mask 255.255.255.0 ("198.51.100.7" -> "198.51.100.255");
// "" when ip is not a dotted IPv4 address.
std::string WolBroadcast(const std::string& ip);

// Why SendWOL would refuse this MAC and IP, or "" when it would send. Every "-" of the MAC is dropped
// first; other separators stay and make the MAC invalid.
std::string WolInputError(const std::string& mac, const std::string& ip);

// Wakes one computer: one UDP datagram with the magic packet to the broadcast address of ip, port 7.
// Bad input or a socket error is reported as "SendWOL" and nothing is sent. True when the packet went out.
bool SendWOL(const std::string& mac, const std::string& ip, Reporter& reporter);

// Asks the agent on a computer to carry out action ("Reboot", "Shutdown").
void SendComputerControl(const std::string& computer, const std::string& action, XapGlobal& xap);

}  // namespace tavrel
