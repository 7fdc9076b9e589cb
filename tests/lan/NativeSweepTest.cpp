#include <gtest/gtest.h>

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "core/Text.h"
#include "lan/NativeSweep.h"
#include "platform/LineEnd.h"
#include "platform/NeighbourWire.h"
#include "support/TestSupport.h"

namespace tavrel {
namespace {

using platform::Ipv4;
using platform::MacAddress;

constexpr Ipv4 Ip(unsigned a, unsigned b, unsigned c, unsigned d) {
  return (a << 24) | (b << 16) | (c << 8) | d;
}

// --- the log text the scan timer reads back -------------------------------------------------------

TEST(ArpLogText, LinesAreThoseOfArpMinusA) {
  std::string nl(platform::kLineEnd);
  EXPECT_EQ(ArpLogText({}), "");
  EXPECT_EQ(ArpLogText({{"198.51.100.7", "02-00-c6-33-64-07"}}),
            "  198.51.100.7          02-00-c6-33-64-07     dynamic" + nl);
  EXPECT_EQ(ArpLogText({{"203.0.113.254", "02-00-cb-00-71-fe"}, {"1.2.3.4", "00-11-22-33-44-55"}}),
            "  203.0.113.254         02-00-cb-00-71-fe     dynamic" + nl +
                "  1.2.3.4               00-11-22-33-44-55     dynamic" + nl);
}

TEST(ArpLogText, EveryLineSplitsIntoIpMacAndDynamicAtBlanks) {
  std::vector<ArpEntry> entries{{"198.51.100.2", "02-00-c6-33-64-02"},
                                {"198.51.100.254", "aa-bb-cc-dd-ee-ff"}};
  std::vector<std::string> lines = Split(ArpLogText(entries), platform::kLineEnd);
  ASSERT_EQ(lines.size(), 3u);  // the text ends with a line end
  EXPECT_EQ(lines[2], "");
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::vector<std::string> pieces;
    for (const std::string& piece : Split(lines[i], " ")) {
      if (!piece.empty()) pieces.push_back(piece);
    }
    EXPECT_EQ(pieces, (std::vector<std::string>{entries[i].Ip, entries[i].Mac, "dynamic"}));
    EXPECT_EQ(lines[i].find(entries[i].Mac), 24u);
  }
}

// --- subnet text ------------------------------------------------------------------------------------

TEST(IsSubnetText, TakesThreeDottedNumbersFrom0To255) {
  for (const char* good : {"198.51.100", "203.0.113", "0.0.0", "255.255.255", "10.0.1", " 203.0.113 "}) {
    EXPECT_TRUE(IsSubnetText(good)) << good;
  }
  for (const char* bad :
       {"", "198.51", "198.51.100.0", "198.51.256", "198.51.-1", "198..100", "198.51.100.", ".51.100",
        "a.b.c", "198.051.100", "+1.2.3", "1.2.3 4", "1.2.3\t", "1000.2.3", "198,51,100", "0x10.1.2"}) {
    EXPECT_FALSE(IsSubnetText(bad)) << bad;
  }
}

TEST(ScanCommand, RefusesBadSubnetsWithExitCode2BeforeProbingAnything) {
  struct Case {
    std::vector<std::string> args;
    std::string errorPart;
  };
  for (const Case& c : std::vector<Case>{
           {{}, "usage: tavrel scan SUBNET"},
           {{"198.51"}, "\"198.51\" is not a subnet"},
           {{"198.51.100", "203.0.113.0/24"}, "\"203.0.113.0/24\" is not a subnet"},
           {{"224.0.0"}, "\"224.0.0\" holds no computers"},
           {{"127.0.0"}, "\"127.0.0\" holds no computers"},
           {{"0.1.2"}, "\"0.1.2\" holds no computers"},
       }) {
    std::ostringstream out, err;
    EXPECT_EQ(ScanCommand(c.args, out, err), 2);
    EXPECT_EQ(out.str(), "");
    EXPECT_NE(err.str().find(c.errorPart), std::string::npos) << err.str();
  }
}

TEST(ScanCommand, NamesEveryBadSubnet) {
  std::ostringstream out, err;
  EXPECT_EQ(ScanCommand({"1.2", "198.51.100", "x"}, out, err), 2);
  EXPECT_NE(err.str().find("\"1.2\""), std::string::npos);
  EXPECT_NE(err.str().find("\"x\""), std::string::npos);
  EXPECT_EQ(err.str().find("\"198.51.100\""), std::string::npos);
}

// --- ARP packets ------------------------------------------------------------------------------------

const MacAddress kOurMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const MacAddress kHostMac{0x02, 0x00, 0xc6, 0x33, 0x64, 0x07};

std::string ReplyBytes(const MacAddress& senderMac, Ipv4 senderIp, const MacAddress& targetMac, Ipv4 targetIp,
                       int op = 2) {
  std::string request = platform::ArpRequest(senderMac, senderIp, targetIp);
  request[7] = static_cast<char>(op);
  std::memcpy(request.data() + 18, targetMac.data(), 6);
  return request;
}

const std::uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const std::uint8_t*>(s.data()); }

TEST(ArpPackets, RequestIsTheEthernetIpv4WhoHas) {
  std::string request = platform::ArpRequest(kOurMac, Ip(198, 51, 100, 1), Ip(198, 51, 100, 7));
  EXPECT_EQ(request, std::string("\x00\x01\x08\x00\x06\x04\x00\x01"
                                 "\x02\x00\x00\x00\x00\x01"
                                 "\xc6\x33\x64\x01"
                                 "\x00\x00\x00\x00\x00\x00"
                                 "\xc6\x33\x64\x07",
                                 28));
}

TEST(ArpPackets, ParsesAReplyAndRejectsWhatIsNotEthernetIpv4Arp) {
  std::string reply = ReplyBytes(kHostMac, Ip(198, 51, 100, 7), kOurMac, Ip(198, 51, 100, 1));
  reply.append(18, '\0');  // Ethernet padding to the minimum frame
  auto packet = platform::ParseArp(Bytes(reply), reply.size());
  ASSERT_TRUE(packet.has_value());
  EXPECT_EQ(packet->Operation, 2);
  EXPECT_EQ(packet->SenderMac, kHostMac);
  EXPECT_EQ(packet->SenderIp, Ip(198, 51, 100, 7));
  EXPECT_EQ(packet->TargetMac, kOurMac);
  EXPECT_EQ(packet->TargetIp, Ip(198, 51, 100, 1));

  EXPECT_FALSE(platform::ParseArp(Bytes(reply), 27).has_value());
  for (std::size_t at : {1u, 2u, 4u, 5u}) {  // hardware type, protocol type, address lengths
    std::string other = reply;
    other[at] = static_cast<char>(other[at] ^ 0x20);
    EXPECT_FALSE(platform::ParseArp(Bytes(other), other.size()).has_value()) << at;
  }
}

TEST(ArpPackets, OnlyAReplyToOurOwnAddressCounts) {
  Ipv4 ours = Ip(198, 51, 100, 1), host = Ip(198, 51, 100, 7);
  auto check = [&](const std::string& bytes) {
    return platform::AnswersUs(*platform::ParseArp(Bytes(bytes), bytes.size()), kOurMac, ours);
  };
  EXPECT_TRUE(check(ReplyBytes(kHostMac, host, kOurMac, ours)));
  EXPECT_FALSE(check(ReplyBytes(kHostMac, host, kOurMac, ours, 1)));              // a request
  EXPECT_FALSE(check(ReplyBytes(kHostMac, host, kOurMac, Ip(198, 51, 100, 9))));  // to someone else
  EXPECT_FALSE(check(ReplyBytes(kHostMac, host, kHostMac, ours)));                // to another MAC
  EXPECT_FALSE(check(ReplyBytes(kHostMac, ours, kOurMac, ours)));                 // our own address
  EXPECT_FALSE(check(ReplyBytes(MacAddress{}, host, kOurMac, ours)));             // no MAC
  EXPECT_FALSE(check(ReplyBytes(MacAddress{0x01, 0, 0x5e, 0, 0, 1}, host, kOurMac, ours)));  // a group MAC
}

// --- the Linux neighbour table dump -----------------------------------------------------------------

// Netlink messages as the kernel writes them, in this machine's byte order.
class Netlink {
 public:
  template <typename T>
  static void Put(std::string& out, T value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    out.append(bytes, sizeof value);
  }
  static void Attribute(std::string& out, std::uint16_t type, const std::string& payload) {
    Put<std::uint16_t>(out, static_cast<std::uint16_t>(4 + payload.size()));
    Put<std::uint16_t>(out, type);
    out += payload;
    out.append((4 - payload.size() % 4) % 4, '\0');
  }
  static std::string CacheInfo(std::uint32_t confirmed) {
    std::string info;
    for (std::uint32_t v : {confirmed, 7u, 3u, 1u}) Put(info, v);
    return info;
  }
  // One RTM_NEWNEIGH message; attributes already encoded.
  static std::string Neigh(std::uint8_t family, std::uint16_t state, const std::string& attributes) {
    std::string body;
    body.push_back(static_cast<char>(family));
    body.append(3, '\0');
    Put<std::int32_t>(body, 2);  // interface index
    Put<std::uint16_t>(body, state);
    body.append(2, '\0');
    return Message(28, body + attributes);
  }
  static std::string Message(std::uint16_t type, const std::string& body) {
    std::string message;
    Put<std::uint32_t>(message, static_cast<std::uint32_t>(16 + body.size()));
    Put<std::uint16_t>(message, type);
    Put<std::uint16_t>(message, 2);
    Put<std::uint32_t>(message, 1);
    Put<std::uint32_t>(message, 0);
    return message + body;
  }
  static std::string Done() { return Message(3, std::string(4, '\0')); }
};

std::string Dst(unsigned a, unsigned b, unsigned c, unsigned d) {
  std::string out;
  Netlink::Attribute(
      out, 1, {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c), static_cast<char>(d)});
  return out;
}
std::string Lladdr(const MacAddress& mac) {
  std::string out;
  Netlink::Attribute(out, 2, std::string(reinterpret_cast<const char*>(mac.data()), 6));
  return out;
}
std::string Cache(std::uint32_t confirmed) {
  std::string out;
  Netlink::Attribute(out, 3, Netlink::CacheInfo(confirmed));
  return out;
}

TEST(NeighbourDump, ReadsIpv4EntriesWithMacStateAndAge) {
  std::string buffer =
      Netlink::Neigh(2, platform::kNudReachable, Dst(198, 51, 100, 7) + Lladdr(kHostMac) + Cache(12)) +
      Netlink::Neigh(10, platform::kNudReachable, Lladdr(kHostMac)) +  // IPv6: skipped
      Netlink::Neigh(2, platform::kNudIncomplete, Dst(198, 51, 100, 9) + Cache(0)) + Netlink::Done();
  platform::NeighbourDumpPart part = platform::ParseNeighbourDump(Bytes(buffer), buffer.size());
  EXPECT_TRUE(part.Done);
  EXPECT_EQ(part.Error, 0);
  ASSERT_EQ(part.Records.size(), 2u);
  EXPECT_EQ(part.Records[0].Ip, Ip(198, 51, 100, 7));
  EXPECT_EQ(part.Records[0].Mac, kHostMac);
  EXPECT_EQ(part.Records[0].State, platform::kNudReachable);
  EXPECT_TRUE(part.Records[0].HasCacheInfo);
  EXPECT_EQ(part.Records[0].ConfirmedTicks, 12u);
  EXPECT_EQ(part.Records[1].Ip, Ip(198, 51, 100, 9));
  EXPECT_FALSE(part.Records[1].Mac.has_value());
}

TEST(NeighbourDump, MultiPartDumpWithoutDoneAndErrors) {
  std::string first = Netlink::Neigh(2, platform::kNudStale, Dst(203, 0, 113, 2) + Lladdr(kHostMac));
  platform::NeighbourDumpPart part = platform::ParseNeighbourDump(Bytes(first), first.size());
  EXPECT_FALSE(part.Done);  // more buffers follow
  ASSERT_EQ(part.Records.size(), 1u);
  EXPECT_FALSE(part.Records[0].HasCacheInfo);

  std::string error = Netlink::Message(2, [] {
    std::string body;
    Netlink::Put<std::int32_t>(body, -1);  // -EPERM
    return body + std::string(16, '\0');
  }());
  part = platform::ParseNeighbourDump(Bytes(error), error.size());
  EXPECT_TRUE(part.Done);
  EXPECT_EQ(part.Error, 1);
}

TEST(NeighbourDump, MalformedInputNeverReadsPastTheBuffer) {
  std::string good =
      Netlink::Neigh(2, platform::kNudReachable, Dst(198, 51, 100, 7) + Lladdr(kHostMac) + Cache(3));
  // Every cut of a valid message: whole messages only, never a crash (run under ASan as well).
  for (std::size_t size = 0; size < good.size(); ++size) {
    std::vector<std::uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    platform::NeighbourDumpPart part = platform::ParseNeighbourDump(cut.data(), cut.size());
    EXPECT_TRUE(part.Records.empty()) << size;
  }
  // An attribute claiming more bytes than its message holds ends that message's attributes.
  std::string overlong = Dst(198, 51, 100, 8);
  overlong[0] = 60;
  std::string message = Netlink::Neigh(2, platform::kNudReachable, overlong);
  platform::NeighbourDumpPart part = platform::ParseNeighbourDump(Bytes(message), message.size());
  EXPECT_TRUE(part.Records.empty());
  // A message length below the header size stops the parse instead of looping.
  std::string tiny = good;
  tiny[0] = 4, tiny[1] = tiny[2] = tiny[3] = 0;
  EXPECT_TRUE(platform::ParseNeighbourDump(Bytes(tiny), tiny.size()).Records.empty());
}

TEST(NeighbourDump, RequestAsksForADumpOfIpv4Neighbours) {
  std::string request = platform::NeighbourDumpRequest(7);
  ASSERT_EQ(request.size(), 28u);
  std::uint32_t length, sequence;
  std::uint16_t type, flags;
  std::memcpy(&length, request.data(), 4);
  std::memcpy(&type, request.data() + 4, 2);
  std::memcpy(&flags, request.data() + 6, 2);
  std::memcpy(&sequence, request.data() + 8, 4);
  EXPECT_EQ(length, 28u);
  EXPECT_EQ(type, 30);      // RTM_GETNEIGH
  EXPECT_EQ(flags, 0x301);  // NLM_F_REQUEST | NLM_F_DUMP
  EXPECT_EQ(sequence, 7u);
  EXPECT_EQ(request[16], 2);  // AF_INET
}

// --- freshness --------------------------------------------------------------------------------------

platform::NeighbourRecord Record(std::uint16_t state, std::uint32_t confirmedTicks, bool mac = true,
                                 bool cacheInfo = true) {
  platform::NeighbourRecord r;
  r.Ip = Ip(198, 51, 100, 7);
  if (mac) r.Mac = kHostMac;
  r.State = state;
  r.ConfirmedTicks = confirmedTicks;
  r.HasCacheInfo = cacheInfo;
  return r;
}

TEST(Freshness, OnlyEntriesConfirmedSinceTheSweepBeganCount) {
  using namespace platform;
  // The sweep has run 80 ticks (0.8 s).
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudReachable, 20), 80));
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudReachable, 80), 80));
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudStale, 5), 80));
  // Kept from before the sweep: "reachable" is no proof by itself (a host that left stays so for seconds).
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudReachable, 81), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudStale, 4000), 80));
  // Not a dynamic entry with a MAC, or no age to judge by.
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudPermanent, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudNoArp, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudIncomplete, 0, false), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudFailed, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudReachable, 0, true, false), 80));
}

TEST(Freshness, AnIcmpErrorProvesTheHostOnlyWhenTheHostSentIt) {
  Ipv4 host = Ip(198, 51, 100, 7), router = Ip(198, 51, 100, 254);
  EXPECT_TRUE(platform::IcmpShowsHost(3, 3, host, host));     // port unreachable
  EXPECT_TRUE(platform::IcmpShowsHost(3, 2, host, host));     // protocol unreachable
  EXPECT_TRUE(platform::IcmpShowsHost(3, 13, host, host));    // filtered, but answered
  EXPECT_FALSE(platform::IcmpShowsHost(3, 3, router, host));  // someone else speaking for it
  EXPECT_FALSE(platform::IcmpShowsHost(3, 1, host, host));    // host unreachable
  EXPECT_FALSE(platform::IcmpShowsHost(11, 0, host, host));   // time exceeded
  EXPECT_TRUE(platform::HasDynamicMac(Record(platform::kNudStale, 99999)));
  EXPECT_FALSE(platform::HasDynamicMac(Record(platform::kNudStale, 0, false)));
  // Unresolved entries show up with an all-zero MAC on some systems.
  platform::NeighbourRecord zero = Record(platform::kNudReachable, 0);
  zero.Mac = MacAddress{};
  EXPECT_FALSE(platform::HasDynamicMac(zero));
  EXPECT_FALSE(platform::ConfirmedDuringSweep(zero, 80));
}

// --- the sweep over a probe the test controls ------------------------------------------------------

// Answers come from `present` (address -> MAC) once the round that makes them visible has been probed:
// hosts in `late` answer only the second probe.
class FakeProbe : public platform::NeighbourProbe {
 public:
  void Probe(const std::vector<Ipv4>& addresses) override { rounds.push_back(addresses); }
  std::vector<platform::Neighbour> Answered() override {
    std::vector<platform::Neighbour> out;
    for (const auto& [ip, mac] : present) {
      bool asked = false;
      for (const auto& round : rounds) asked = asked || std::count(round.begin(), round.end(), ip) > 0;
      if (asked && (!late.count(ip) || rounds.size() >= 2)) out.push_back({ip, mac});
    }
    return out;
  }
  std::string Method() const override { return "fake"; }
  std::size_t SendFailures() const override { return failures; }
  std::error_code FirstSendError() const override { return std::make_error_code(std::errc::no_buffer_space); }

  std::map<Ipv4, MacAddress> present;
  std::set<Ipv4> late;
  std::vector<std::vector<Ipv4>> rounds;
  std::size_t failures = 0;
};

class SweepTest : public ::testing::Test {
 protected:
  const NativeSweep::Timing kFast{std::chrono::milliseconds(20), std::chrono::milliseconds(60)};

  NativeSweep::ProbeOpener Opener() {
    return [this](asio::io_context&, std::error_code&) { return probe; };
  }

  // Runs one sweep to its end (or until the loop runs dry) and returns what Done got.
  std::optional<std::vector<std::vector<ArpEntry>>> Sweep(NativeSweep& sweep,
                                                          std::vector<std::string> subnets) {
    std::optional<std::vector<std::vector<ArpEntry>>> result;
    sweep.Start(std::move(subnets), [&](const std::vector<std::vector<ArpEntry>>& r) { result = r; });
    EXPECT_TRUE(sweep.Running());
    EXPECT_FALSE(result.has_value());  // never from inside Start
    io.run_for(std::chrono::seconds(5));
    EXPECT_FALSE(sweep.Running());
    return result;
  }

  asio::io_context io;
  test::RecordingReporter reporter;
  std::shared_ptr<FakeProbe> probe = std::make_shared<FakeProbe>();
};

std::vector<Ipv4> Hosts(Ipv4 base) {
  std::vector<Ipv4> hosts;
  for (Ipv4 h = 1; h <= 254; ++h) hosts.push_back(base | h);
  return hosts;
}

TEST_F(SweepTest, ProbesEveryHostOfEverySubnetThenOnlyTheSilentOnesAgain) {
  probe->present = {{Ip(198, 51, 100, 7), kHostMac}, {Ip(203, 0, 113, 254), kOurMac}};
  NativeSweep sweep(io, reporter, Opener(), kFast);
  auto result = Sweep(sweep, {"198.51.100", "203.0.113"});
  ASSERT_TRUE(result.has_value());
  ASSERT_EQ(probe->rounds.size(), 2u);
  std::vector<Ipv4> all = Hosts(Ip(198, 51, 100, 0));
  std::vector<Ipv4> second = Hosts(Ip(203, 0, 113, 0));
  all.insert(all.end(), second.begin(), second.end());
  EXPECT_EQ(probe->rounds[0], all);
  std::vector<Ipv4> silent = all;
  std::erase(silent, Ip(198, 51, 100, 7));
  std::erase(silent, Ip(203, 0, 113, 254));
  EXPECT_EQ(probe->rounds[1], silent);
  EXPECT_EQ(*result, (std::vector<std::vector<ArpEntry>>{{{"198.51.100.7", "02-00-c6-33-64-07"}},
                                                         {{"203.0.113.254", "02-00-00-00-00-01"}}}));
  EXPECT_TRUE(reporter.calls.empty());
}

TEST_F(SweepTest, ResultsArePerSubnetInHostOrderWithLateAnswersAndRepeatedSubnets) {
  probe->present = {
      {Ip(198, 51, 100, 200), kHostMac}, {Ip(198, 51, 100, 3), kOurMac}, {Ip(203, 0, 113, 9), kHostMac}};
  probe->late = {Ip(198, 51, 100, 200)};
  NativeSweep sweep(io, reporter, Opener(), kFast);
  auto result = Sweep(sweep, {"198.51.100", "10.1.2", "198.51.100", "224.1.1"});
  ASSERT_TRUE(result.has_value());
  std::vector<ArpEntry> expected{{"198.51.100.3", "02-00-00-00-00-01"},
                                 {"198.51.100.200", "02-00-c6-33-64-07"}};
  EXPECT_EQ(*result, (std::vector<std::vector<ArpEntry>>{expected, {}, expected, {}}));
  // A listed subnet is probed as often as it is listed; 224.1.1 (multicast) and any address outside
  // the listed subnets never.
  EXPECT_EQ(probe->rounds[0].size(), 3u * 254u);
  for (Ipv4 ip : probe->rounds[0]) {
    Ipv4 net = ip & 0xFFFFFF00;
    EXPECT_TRUE(net == Ip(198, 51, 100, 0) || net == Ip(10, 1, 2, 0)) << ip;
    EXPECT_NE(ip & 0xFF, 0u);
    EXPECT_NE(ip & 0xFF, 255u);
  }
}

TEST_F(SweepTest, EndsAtTheRetryWhenEveryAddressHasAnswered) {
  for (Ipv4 ip : Hosts(Ip(198, 51, 100, 0))) probe->present[ip] = kHostMac;
  NativeSweep sweep(io, reporter, Opener(), kFast);
  auto result = Sweep(sweep, {"198.51.100"});
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(probe->rounds.size(), 1u);
  EXPECT_EQ((*result)[0].size(), 254u);
}

TEST_F(SweepTest, CancelAndRestartNeverCallTheOldDone) {
  NativeSweep sweep(io, reporter, Opener(), kFast);
  int firstCalls = 0;
  sweep.Start({"198.51.100"}, [&](const auto&) { ++firstCalls; });
  sweep.Cancel();
  EXPECT_FALSE(sweep.Running());
  sweep.Start({"198.51.100"}, [&](const auto&) { ++firstCalls; });
  auto result = Sweep(sweep, {"203.0.113"});  // replaces the one just started
  EXPECT_EQ(firstCalls, 0);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->size(), 1u);
}

TEST_F(SweepTest, SweepDestroyedWhileRunningLeavesTheLoopSafe) {
  int calls = 0;
  {
    NativeSweep sweep(io, reporter, Opener(), kFast);
    sweep.Start({"198.51.100"}, [&](const auto&) { ++calls; });
  }
  io.run_for(std::chrono::milliseconds(200));
  EXPECT_EQ(calls, 0);
}

TEST_F(SweepTest, FailuresAreReportedAndTheCallerStillHearsTheEnd) {
  NativeSweep failing(
      io, reporter,
      [](asio::io_context&, std::error_code& ec) {
        ec = std::make_error_code(std::errc::permission_denied);
        return std::shared_ptr<platform::NeighbourProbe>();
      },
      kFast);
  auto result = Sweep(failing, {"198.51.100", "203.0.113"});
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, (std::vector<std::vector<ArpEntry>>{{}, {}}));
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_TRUE(reporter.calls[0].event);
  EXPECT_EQ(reporter.calls[0].module, "tavrel");
  EXPECT_EQ(reporter.calls[0].text, "BuildARPTable");
  EXPECT_TRUE(reporter.calls[0].err.IsSet());

  reporter.calls.clear();
  probe->failures = 3;
  NativeSweep partly(io, reporter, Opener(), kFast);
  io.restart();
  result = Sweep(partly, {"198.51.100"});
  ASSERT_TRUE(result.has_value());
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_NE(reporter.calls[0].err.Description.find("3 probes not sent"), std::string::npos);
}

TEST_F(SweepTest, AThrowingDoneIsReportedNotPropagated) {
  NativeSweep sweep(io, reporter, Opener(), kFast);
  sweep.Start({"198.51.100"}, [](const auto&) { throw std::runtime_error("disk full"); });
  EXPECT_NO_THROW(io.run_for(std::chrono::seconds(5)));
  ASSERT_EQ(reporter.calls.size(), 1u);
  EXPECT_EQ(reporter.calls[0].err.Description, "disk full");
  EXPECT_FALSE(sweep.Running());
}

TEST_F(SweepTest, NoSubnetToProbeEndsOnTheNextTurnWithoutOpeningAProbe) {
  bool opened = false;
  NativeSweep sweep(
      io, reporter,
      [&](asio::io_context&, std::error_code&) {
        opened = true;
        return std::shared_ptr<platform::NeighbourProbe>(probe);
      },
      kFast);
  auto result = Sweep(sweep, {"239.1.2", "nonsense"});
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, (std::vector<std::vector<ArpEntry>>{{}, {}}));
  EXPECT_FALSE(opened);
}

}  // namespace
}  // namespace tavrel
