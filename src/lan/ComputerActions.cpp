#include "lan/ComputerActions.h"

#include <array>
#include <stdexcept>
#include <system_error>

#include "core/Text.h"
#include "lan/UdpBroadcast.h"

namespace tavrel {

namespace {

// Input echoed into a report is cut here, so a hostile form value cannot flood the event log.
constexpr size_t kEchoLimit = 64;

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Quoted(const std::string& text) {
  std::string shown = text.size() > kEchoLimit ? text.substr(0, kEchoLimit) + "..." : text;
  return "\"" + shown + "\"";
}

// The four octets of a dotted IPv4 address, each 1 to 3 decimal digits up to 255.
bool ParseIPv4(const std::string& ip, std::array<int, 4>& octets) {
  std::vector<std::string> parts = Split(ip, ".");
  if (parts.size() != 4) return false;
  for (size_t k = 0; k < 4; ++k) {
    long long value = 0;
    if (parts[k].empty() || parts[k].size() > 3 || !ParseInt(parts[k], 0, 255, value)) return false;
    for (char c : parts[k]) {
      if (c < '0' || c > '9') return false;
    }
    octets[k] = static_cast<int>(value);
  }
  return true;
}

bool IsMac12(const std::string& text) {
  if (text.size() != 12) return false;
  for (char c : text) {
    if (HexValue(c) < 0) return false;
  }
  return true;
}

}  // namespace

std::string MacDigits(const std::string& mac) {
  std::string digits;
  for (char c : mac) {
    if (c != '-' && c != ':' && c != '.') digits += c;
  }
  return IsMac12(digits) ? digits : std::string();
}

std::vector<unsigned char> MagicPacket(const std::string& mac12) {
  if (!IsMac12(mac12)) throw std::invalid_argument("MAC address is not 12 hexadecimal digits");
  std::array<unsigned char, 6> mac{};
  for (size_t k = 0; k < mac.size(); ++k) {
    mac[k] = static_cast<unsigned char>(HexValue(mac12[2 * k]) * 16 + HexValue(mac12[2 * k + 1]));
  }
  std::vector<unsigned char> packet(6, 0xFF);
  packet.reserve(6 + 16 * mac.size());
  for (int copy = 0; copy < 16; ++copy) packet.insert(packet.end(), mac.begin(), mac.end());
  return packet;
}

std::string WolBroadcast(const std::string& ip) {
  std::array<int, 4> octets{};
  if (!ParseIPv4(ip, octets)) return {};
  return std::to_string(octets[0]) + "." + std::to_string(octets[1]) + "." + std::to_string(octets[2]) +
         ".255";
}

std::string WolInputError(const std::string& mac, const std::string& ip) {
  if (MacDigits(mac).empty()) {
    return "MAC address " + Quoted(mac) +
           " is not 12 hexadecimal digits (such as 00-11-22-33-44-55, 00:11:22:33:44:55 or 0011.2233.4455)";
  }
  if (WolBroadcast(ip).empty()) return "IP address " + Quoted(ip) + " is not a dotted IPv4 address";
  return {};
}

bool SendWOL(const std::string& mac, const std::string& ip, Reporter& reporter) {
  std::string problem = WolInputError(mac, ip);
  if (!problem.empty()) {
    reporter.ReportEvent(kModule, "SendWOL", Err::Of(problem));
    return false;
  }
  std::vector<unsigned char> packet = MagicPacket(MacDigits(mac));
  std::string broadcast = WolBroadcast(ip);

  std::error_code ec = SendUdpBroadcast(broadcast, kWolPort, packet);
  if (ec) {
    reporter.ReportEvent(kModule, "SendWOL",
                         Err::Of("sending to " + broadcast + ": " + ec.message(), ec.value()));
    return false;
  }
  return true;
}

void SendComputerControl(const std::string& computer, const std::string& action, XapGlobal& xap) {
  xap.SendXap("*.*." + computer, "Computer.Process", "Computer.Control", XapBody({{"Action", action}}));
}

}  // namespace tavrel
