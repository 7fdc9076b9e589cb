#include "platform/NeighbourWire.h"

#include <cstring>

namespace tavrel::platform {

namespace {

constexpr std::uint16_t kArpHardwareEthernet = 1;
constexpr std::uint16_t kArpProtocolIpv4 = 0x0800;
constexpr std::uint16_t kArpOpRequest = 1;
constexpr std::uint16_t kArpOpReply = 2;
constexpr std::size_t kArpSize = 28;

// Netlink and rtnetlink constants and layouts (linux/netlink.h, linux/rtnetlink.h,
// linux/neighbour.h); the fields are in the host's byte order.
constexpr std::uint16_t kNlmsgError = 2;
constexpr std::uint16_t kNlmsgDone = 3;
constexpr std::uint16_t kRtmNewNeigh = 28;
constexpr std::uint16_t kRtmGetNeigh = 30;
constexpr std::uint16_t kNlmFRequest = 0x01;
constexpr std::uint16_t kNlmFDump = 0x300;
constexpr std::uint8_t kLinuxAfInet = 2;
constexpr std::uint16_t kNdaDst = 1;
constexpr std::uint16_t kNdaLladdr = 2;
constexpr std::uint16_t kNdaCacheinfo = 3;
constexpr std::size_t kNlmsghdrSize = 16;
constexpr std::size_t kNdmsgSize = 12;
constexpr std::size_t kRtattrSize = 4;
constexpr std::size_t kCacheinfoSize = 16;

constexpr std::size_t Align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

template <typename T>
T Read(const std::uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <typename T>
void Write(std::string& out, T value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof value);
}

Ipv4 ReadBigEndian32(const std::uint8_t* at) {
  return (Ipv4{at[0]} << 24) | (Ipv4{at[1]} << 16) | (Ipv4{at[2]} << 8) | Ipv4{at[3]};
}

std::uint16_t ReadBigEndian16(const std::uint8_t* at) {
  return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

void AppendBigEndian(std::string& out, std::uint32_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

// One RTM_NEWNEIGH message body (after the netlink header); nothing for other families.
std::optional<NeighbourRecord> ParseNewNeigh(const std::uint8_t* body, std::size_t size) {
  if (size < kNdmsgSize || body[0] != kLinuxAfInet) return std::nullopt;
  NeighbourRecord record;
  record.State = Read<std::uint16_t>(body + 8);
  bool hasDst = false;
  std::size_t at = kNdmsgSize;
  while (at + kRtattrSize <= size) {
    auto length = Read<std::uint16_t>(body + at);
    auto type = Read<std::uint16_t>(body + at + 2);
    if (length < kRtattrSize || at + length > size) break;
    const std::uint8_t* payload = body + at + kRtattrSize;
    std::size_t payloadSize = length - kRtattrSize;
    if (type == kNdaDst && payloadSize == 4) {
      record.Ip = ReadBigEndian32(payload);
      hasDst = true;
    } else if (type == kNdaLladdr && payloadSize == 6) {
      MacAddress mac;
      std::memcpy(mac.data(), payload, mac.size());
      record.Mac = mac;
    } else if (type == kNdaCacheinfo && payloadSize >= kCacheinfoSize) {
      record.ConfirmedTicks = Read<std::uint32_t>(payload);
      record.HasCacheInfo = true;
    }
    at += Align4(length);
  }
  if (!hasDst) return std::nullopt;
  return record;
}

}  // namespace

std::string ArpRequest(const MacAddress& senderMac, Ipv4 senderIp, Ipv4 target) {
  std::string packet;
  packet.reserve(kArpSize);
  AppendBigEndian(packet, kArpHardwareEthernet, 2);
  AppendBigEndian(packet, kArpProtocolIpv4, 2);
  packet.push_back(6);
  packet.push_back(4);
  AppendBigEndian(packet, kArpOpRequest, 2);
  packet.append(reinterpret_cast<const char*>(senderMac.data()), senderMac.size());
  AppendBigEndian(packet, senderIp, 4);
  packet.append(6, '\0');
  AppendBigEndian(packet, target, 4);
  return packet;
}

std::optional<ArpPacket> ParseArp(const std::uint8_t* data, std::size_t size) {
  if (size < kArpSize) return std::nullopt;
  if (ReadBigEndian16(data) != kArpHardwareEthernet || ReadBigEndian16(data + 2) != kArpProtocolIpv4 ||
      data[4] != 6 || data[5] != 4) {
    return std::nullopt;
  }
  ArpPacket packet;
  packet.Operation = ReadBigEndian16(data + 6);
  std::memcpy(packet.SenderMac.data(), data + 8, 6);
  packet.SenderIp = ReadBigEndian32(data + 14);
  std::memcpy(packet.TargetMac.data(), data + 18, 6);
  packet.TargetIp = ReadBigEndian32(data + 24);
  return packet;
}

bool IsHostMac(const MacAddress& mac) {
  bool zero = true;
  for (std::uint8_t b : mac) zero = zero && b == 0;
  return !zero && (mac[0] & 0x01) == 0;
}

bool AnswersUs(const ArpPacket& packet, const MacAddress& ourMac, Ipv4 ourIp) {
  return packet.Operation == kArpOpReply && packet.TargetIp == ourIp && packet.TargetMac == ourMac &&
         packet.SenderIp != ourIp && IsHostMac(packet.SenderMac);
}

NeighbourDumpPart ParseNeighbourDump(const std::uint8_t* data, std::size_t size) {
  NeighbourDumpPart part;
  std::size_t at = 0;
  while (at + kNlmsghdrSize <= size) {
    auto length = Read<std::uint32_t>(data + at);
    auto type = Read<std::uint16_t>(data + at + 4);
    if (length < kNlmsghdrSize || length > size - at) break;
    const std::uint8_t* body = data + at + kNlmsghdrSize;
    std::size_t bodySize = length - kNlmsghdrSize;
    if (type == kNlmsgDone) {
      part.Done = true;
      break;
    }
    if (type == kNlmsgError) {
      auto error = bodySize >= 4 ? Read<std::int32_t>(body) : -1;
      part.Error = error < 0 ? -error : error;
      part.Done = true;
      break;
    }
    if (type == kRtmNewNeigh) {
      if (auto record = ParseNewNeigh(body, bodySize)) part.Records.push_back(*record);
    }
    at += Align4(length);
  }
  return part;
}

std::string NeighbourDumpRequest(std::uint32_t sequence) {
  std::string request;
  Write<std::uint32_t>(request, kNlmsghdrSize + kNdmsgSize);
  Write<std::uint16_t>(request, kRtmGetNeigh);
  Write<std::uint16_t>(request, kNlmFRequest | kNlmFDump);
  Write<std::uint32_t>(request, sequence);
  Write<std::uint32_t>(request, 0);
  std::string ndmsg(kNdmsgSize, '\0');
  ndmsg[0] = static_cast<char>(kLinuxAfInet);
  return request + ndmsg;
}

bool HasDynamicMac(const NeighbourRecord& record) {
  constexpr std::uint16_t kDynamicWithMac = kNudReachable | kNudStale | kNudDelay | kNudProbe;
  return record.Mac.has_value() && IsHostMac(*record.Mac) && (record.State & kDynamicWithMac) != 0 &&
         (record.State & (kNudPermanent | kNudNoArp)) == 0;
}

bool ConfirmedDuringSweep(const NeighbourRecord& record, std::uint64_t sweepTicks) {
  return HasDynamicMac(record) && record.HasCacheInfo && record.ConfirmedTicks <= sweepTicks;
}

bool IcmpShowsHost(std::uint8_t type, std::uint8_t code, Ipv4 offender, Ipv4 destination) {
  constexpr std::uint8_t kDestinationUnreachable = 3;
  constexpr std::uint8_t kProtocolUnreachable = 2, kPortUnreachable = 3, kHostProhibited = 10,
                         kAdminProhibited = 13;
  if (type != kDestinationUnreachable || offender != destination) return false;
  return code == kProtocolUnreachable || code == kPortUnreachable || code == kHostProhibited ||
         code == kAdminProhibited;
}

}  // namespace tavrel::platform
