#pragma once

#include <string>
#include <vector>

#include "core/Reporter.h"
#include "xapsend/XapGlobal.h"

namespace tavrel {

// The UDP port the magic packet goes to.
inline constexpr unsigned short kWolPort = 7;

// The Wake-on-LAN magic packet for a MAC of exactly 12 hexadecimal digits (either case): six 0xFF bytes,
// then the six MAC bytes sixteen times (102 bytes). Throws std::invalid_argument for any other text.
std::vector<unsigned char> MagicPacket(const std::string& mac12);

// The twelve hexadecimal digits of a MAC written with "-", ":" or "." between them, or none at all
// ("00-11-22-33-44-55", "00:11:22:33:44:55", "0011.2233.4455"): what is left once those three are
// removed, or "" when that is not 12 hexadecimal digits.
std::string MacDigits(const std::string& mac);

// The broadcast address of ip under the mask 255.255.255.0 ("198.51.100.7" -> "198.51.100.255");
// "" when ip is not a dotted IPv4 address.
std::string WolBroadcast(const std::string& ip);

// Why SendWOL would refuse this MAC and IP, or "" when it would send.
std::string WolInputError(const std::string& mac, const std::string& ip);

// Wakes one computer: one UDP datagram with the magic packet to the broadcast address of ip, port 7.
// Bad input or a socket error is reported as "SendWOL" and nothing is sent. True when the packet went out.
bool SendWOL(const std::string& mac, const std::string& ip, Reporter& reporter);

// Asks the agent on a computer to carry out action ("Reboot", "Shutdown").
void SendComputerControl(const std::string& computer, const std::string& action, XapGlobal& xap);

}  // namespace tavrel
