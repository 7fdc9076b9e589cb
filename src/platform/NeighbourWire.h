#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Neighbours.h"

// The byte formats the neighbour probes read and write, kept apart from the sockets so that they can be
// tested on every platform: ARP packets, the Linux netlink neighbour dump, and the rules that decide
// whether an answer is fresh.
namespace tavrel::platform {

// The 28-byte ARP packet (Ethernet, IPv4) that asks who has target, from sender.
std::string ArpRequest(const MacAddress& senderMac, Ipv4 senderIp, Ipv4 target);

struct ArpPacket {
  std::uint16_t Operation = 0;  // 1 request, 2 reply
  MacAddress SenderMac{};
  Ipv4 SenderIp = 0;
  MacAddress TargetMac{};
  Ipv4 TargetIp = 0;
};

// An Ethernet/IPv4 ARP packet (without the Ethernet header), or nothing for anything else.
std::optional<ArpPacket> ParseArp(const std::uint8_t* data, std::size_t size);

// A MAC a computer can have: not all zeros (what an unresolved entry shows on some systems), not a
// group (multicast or broadcast) address.
bool IsHostMac(const MacAddress& mac);

// True when packet answers a request that we (ourMac, ourIp) sent: a reply addressed to us, from a
// computer's MAC.
bool AnswersUs(const ArpPacket& packet, const MacAddress& ourMac, Ipv4 ourIp);

// One IPv4 entry of the Linux neighbour table, from an RTM_NEWNEIGH message.
struct NeighbourRecord {
  Ipv4 Ip = 0;
  std::optional<MacAddress> Mac;     // absent while unresolved, or for a non-Ethernet address
  std::uint16_t State = 0;           // NUD_* bits
  std::uint32_t ConfirmedTicks = 0;  // age of the last confirmation, in clock ticks (USER_HZ)
  bool HasCacheInfo = false;
};

// Linux neighbour states (include/uapi/linux/neighbour.h).
inline constexpr std::uint16_t kNudIncomplete = 0x01, kNudReachable = 0x02, kNudStale = 0x04,
                               kNudDelay = 0x08, kNudProbe = 0x10, kNudFailed = 0x20, kNudNoArp = 0x40,
                               kNudPermanent = 0x80;

// The result of reading one buffer of a netlink dump.
struct NeighbourDumpPart {
  std::vector<NeighbourRecord> Records;
  bool Done = false;  // NLMSG_DONE seen
  int Error = 0;      // errno of an NLMSG_ERROR, 0 when none
};

// Parses the netlink messages in one buffer received from an RTM_GETNEIGH dump. IPv4 entries only;
// anything malformed ends the buffer, never reads past it.
NeighbourDumpPart ParseNeighbourDump(const std::uint8_t* data, std::size_t size);

// The RTM_GETNEIGH dump request for IPv4 entries, with the given sequence number.
std::string NeighbourDumpRequest(std::uint32_t sequence);

// An entry proves its neighbour was there during the sweep when the kernel holds its MAC as a dynamic
// entry and last confirmed it (by an ARP answer or higher-layer traffic) no longer ago than the sweep
// has run. Entries the cache merely kept from earlier, even "reachable" ones, do not count.
bool ConfirmedDuringSweep(const NeighbourRecord& record, std::uint64_t sweepTicks);

// A dynamic entry with a MAC, whatever its age: usable once the host has answered in another way.
bool HasDynamicMac(const NeighbourRecord& record);

// An ICMP error a probe datagram drew: it proves the destination is there when the destination
// itself sent it (offender equals destination) and it says that host refused the datagram
// (destination unreachable: protocol or port unreachable, or administratively prohibited).
bool IcmpShowsHost(std::uint8_t type, std::uint8_t code, Ipv4 offender, Ipv4 destination);

}  // namespace tavrel::platform
