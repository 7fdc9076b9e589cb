#include <algorithm>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "lan/NativeSweep.h"
#include "platform/LineEnd.h"
#include "platform/NeighbourWire.h"
#include "support/TestSupport.h"

namespace tavrel {
namespace {

using namespace platform;

constexpr Ipv4 Ip(unsigned a, unsigned b, unsigned c, unsigned d) {
  return (a << 24) | (b << 16) | (c << 8) | d;
}
const MacAddress kOurMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const MacAddress kHostMac{0x02, 0x00, 0xc6, 0x33, 0x64, 0x07};
const Ipv4 kOurIp = Ip(198, 51, 100, 1), kHostIp = Ip(198, 51, 100, 7);
const std::uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const std::uint8_t*>(s.data()); }

TEST(ArpLogText, LinesAreThoseOfArpMinusA) {
  std::string nl(kLineEnd);
  EXPECT_EQ(ArpLogText({}), "");
  EXPECT_EQ(ArpLogText({{"203.0.113.254", "02-00-cb-00-71-fe"}, {"1.2.3.4", "00-11-22-33-44-55"}}),
            "  203.0.113.254         02-00-cb-00-71-fe     dynamic" + nl +
                "  1.2.3.4               00-11-22-33-44-55     dynamic" + nl);
}

TEST(Subnets, TextIsThreeDottedNumbersFrom0To255) {
  for (const char* good : {"198.51.100", "0.0.0", "255.255.255", "10.0.1", " 203.0.113 "}) {
    EXPECT_TRUE(IsSubnetText(good)) << good;
  }
  for (const char* bad : {"", "198.51", "198.51.100.0", "198.51.256", "198.51.-1", "198..100", "198.51.100.",
                          "a.b.c", "198.051.100", "+1.2.3", "1.2.3 4", "1.2.3\t", "1000.2.3", "0x10.1.2"}) {
    EXPECT_FALSE(IsSubnetText(bad)) << bad;
  }
}

// Only refused arguments here: a command that got past its checks would probe the machine's real link.
TEST(Subnets, ScanCommandRefusesEachBadSubnetByNameWithExitCode2) {
  auto scan = [](const std::vector<std::string>& args) {
    std::ostringstream out, err;
    int code = ScanCommand(args, out, err);
    return std::to_string(code) + "|" + out.str() + "|" + err.str();
  };
  EXPECT_EQ(scan({}), "2||usage: tavrel scan SUBNET... (each subnet three numbers, as 198.51.100)\n");
  auto line = [](const std::string& subnet, const std::string& why) {
    return "tavrel scan: \"" + subnet + "\" " + why + "\n";
  };
  std::string bad = "is not a subnet: give three numbers 0-255, as 198.51.100";
  std::string empty = "holds no computers (0, 127 and 224 and above are not swept)";
  EXPECT_EQ(scan({"1.2", "0.1.2", "203.0.113.0/24", "127.0.0", "224.0.0", "x"}),
            "2||" + line("1.2", bad) + line("0.1.2", empty) + line("203.0.113.0/24", bad) +
                line("127.0.0", empty) + line("224.0.0", empty) + line("x", bad));
}

std::string Reply(const MacAddress& senderMac, Ipv4 senderIp, const MacAddress& targetMac, Ipv4 targetIp,
                  int op = 2) {
  std::string packet = ArpRequest(senderMac, senderIp, targetIp);
  packet[7] = static_cast<char>(op);
  std::memcpy(packet.data() + 18, targetMac.data(), 6);
  return packet;
}

TEST(ArpPackets, RequestIsTheEthernetIpv4WhoHas) {
  EXPECT_EQ(ArpRequest(kOurMac, kOurIp, kHostIp),
            std::string("\x00\x01\x08\x00\x06\x04\x00\x01\x02\x00\x00\x00\x00\x01\xc6\x33\x64\x01"
                        "\x00\x00\x00\x00\x00\x00\xc6\x33\x64\x07",
                        28));
}

TEST(ArpPackets, OnlyEthernetIpv4RepliesToOurOwnAddressFromAHostCount) {
  std::string reply = Reply(kHostMac, kHostIp, kOurMac, kOurIp) + std::string(18, '\0');  // frame padding
  auto p = ParseArp(Bytes(reply), reply.size());
  ASSERT_TRUE(p.has_value());
  EXPECT_EQ(std::tie(p->Operation, p->SenderMac, p->SenderIp, p->TargetMac, p->TargetIp),
            std::make_tuple(2, kHostMac, kHostIp, kOurMac, kOurIp));
  EXPECT_FALSE(ParseArp(Bytes(reply), 27).has_value());
  for (std::size_t at : {1u, 2u, 4u, 5u}) {  // hardware type, protocol type, address lengths
    std::string other = reply;
    other[at] = static_cast<char>(other[at] ^ 0x20);
    EXPECT_FALSE(ParseArp(Bytes(other), other.size()).has_value()) << at;
  }
  auto answersUs = [](const std::string& bytes) {
    return AnswersUs(*ParseArp(Bytes(bytes), bytes.size()), kOurMac, kOurIp);
  };
  EXPECT_TRUE(answersUs(Reply(kHostMac, kHostIp, kOurMac, kOurIp)));
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kOurMac, kOurIp, 1)));            // a request
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kOurMac, Ip(198, 51, 100, 9))));  // to someone else
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kHostMac, kOurIp)));              // to another MAC
  EXPECT_FALSE(answersUs(Reply(kHostMac, kOurIp, kOurMac, kOurIp)));                // our own address
  EXPECT_FALSE(answersUs(Reply(MacAddress{}, kHostIp, kOurMac, kOurIp)));           // no MAC
  EXPECT_FALSE(answersUs(Reply(MacAddress{0x01, 0, 0x5e, 0, 0, 1}, kHostIp, kOurMac, kOurIp)));  // group MAC
}

// Netlink messages as the kernel writes them, in this machine's byte order.
template <typename T>
std::string Raw(T value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}
std::string Message(std::uint16_t type, const std::string& body, std::uint16_t flags = 2,
                    std::uint32_t seq = 1) {
  return Raw(static_cast<std::uint32_t>(16 + body.size())) + Raw(type) + Raw(flags) + Raw(seq) + Raw(0u) +
         body;
}
std::string Attr(std::uint16_t type, const std::string& payload) {
  std::string attr = Raw(static_cast<std::uint16_t>(4 + payload.size())) + Raw(type) + payload;
  return attr.append((4 - payload.size() % 4) % 4, '\0');
}
std::string Neigh(char family, std::uint16_t state, const std::string& attributes) {  // RTM_NEWNEIGH
  return Message(28, family + std::string(3, '\0') + Raw(2) + Raw(state) + std::string(2, '\0') + attributes);
}
std::string Dst(Ipv4 ip) { return Attr(1, {char(ip >> 24), char(ip >> 16), char(ip >> 8), char(ip)}); }
std::string Lladdr() { return Attr(2, std::string(reinterpret_cast<const char*>(kHostMac.data()), 6)); }
std::string Cache(std::uint32_t confirmed) { return Attr(3, Raw(confirmed) + Raw(7u) + Raw(3u) + Raw(1u)); }

// What the dump parser makes of bytes, given in a buffer of their exact size (so that ASan sees any read
// past it): "done error", then per record "ip state mac ticks" (mac: host, other or none; ticks: - without
// cache info).
std::string Parsed(const std::string& bytes) {
  std::vector<std::uint8_t> buffer(bytes.begin(), bytes.end());
  NeighbourDumpPart part = ParseNeighbourDump(buffer.data(), buffer.size());
  std::string text = std::to_string(part.Done) + " " + std::to_string(part.Error);
  for (const NeighbourRecord& r : part.Records) {
    const char* mac = !r.Mac ? " none " : r.Mac == kHostMac ? " host " : " other ";
    text += "; " + std::to_string(r.Ip >> 24) + "." + std::to_string((r.Ip >> 16) & 0xFF) + "." +
            std::to_string((r.Ip >> 8) & 0xFF) + "." + std::to_string(r.Ip & 0xFF) + " " +
            std::to_string(r.State) + mac + (r.HasCacheInfo ? std::to_string(r.ConfirmedTicks) : "-");
  }
  return text;
}

TEST(NeighbourDump, ReadsIpv4EntriesUntilDoneOrError) {
  EXPECT_EQ(Parsed(Neigh(2, kNudReachable, Dst(kHostIp) + Lladdr() + Cache(12)) +
                   Neigh(10, kNudReachable, Attr(1, std::string(16, 1)) + Lladdr()) +  // IPv6: skipped
                   Neigh(2, kNudIncomplete, Dst(Ip(198, 51, 100, 9)) + Cache(0)) + Message(3, Raw(0))),
            "1 0; 198.51.100.7 2 host 12; 198.51.100.9 1 none 0");
  // Without NLMSG_DONE more buffers follow.
  EXPECT_EQ(Parsed(Neigh(2, kNudStale, Dst(Ip(203, 0, 113, 2)) + Lladdr())), "0 0; 203.0.113.2 4 host -");
  EXPECT_EQ(Parsed(Message(2, Raw(-1) + std::string(16, '\0'))), "1 1");  // -EPERM
}

TEST(NeighbourDump, HostileBytesNeverReadPastTheBufferNorLoop) {
  std::string good = Neigh(2, kNudReachable, Dst(kHostIp) + Lladdr() + Cache(3));
  ASSERT_EQ(Parsed(good), "0 0; 198.51.100.7 2 host 3");
  for (std::size_t size = 0; size < good.size(); ++size) {  // every cut: whole messages only
    EXPECT_EQ(Parsed(good.substr(0, size)), "0 0") << size;
  }
  // An attribute shorter than its header or longer than its message ends the message's attributes.
  for (char length : {0, 3, 60}) {
    std::string cache = Cache(3);
    cache[0] = length;
    EXPECT_EQ(Parsed(Neigh(2, kNudReachable, Dst(kHostIp) + cache + Lladdr())), "0 0; 198.51.100.7 2 none -")
        << int(length);
  }
  EXPECT_EQ(Parsed(Raw(4u) + good.substr(4)), "0 0");  // a message length below the header size
}

TEST(NeighbourDump, RequestAsksForADumpOfIpv4Neighbours) {
  EXPECT_EQ(NeighbourDumpRequest(7), Message(30, "\x02" + std::string(11, '\0'), 0x301, 7));
}

NeighbourRecord Record(std::uint16_t state, std::uint32_t ticks, std::optional<MacAddress> mac = kHostMac,
                       bool cacheInfo = true) {
  return {kHostIp, mac, state, ticks, cacheInfo};
}

TEST(Freshness, OnlyEntriesConfirmedSinceTheSweepBeganCount) {
  // The sweep has run 80 ticks (0.8 s).
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudReachable, 20), 80));
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudReachable, 80), 80));
  EXPECT_TRUE(ConfirmedDuringSweep(Record(kNudStale, 5), 80));
  // Kept from before the sweep: "reachable" is no proof by itself (a host that left stays so for seconds).
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudReachable, 81), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudStale, 4000), 80));
  // Not a dynamic entry with a MAC, or no age to judge by.
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudPermanent, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudNoArp | kNudStale, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudIncomplete, 0, std::nullopt), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudFailed, 0), 80));
  EXPECT_FALSE(ConfirmedDuringSweep(Record(kNudReachable, 0, kHostMac, false), 80));
}

TEST(Freshness, AnIcmpErrorProvesTheHostOnlyWhenTheHostSentIt) {
  Ipv4 router = Ip(198, 51, 100, 254);
  // Protocol or port unreachable, or filtered: the host is there and refused.
  for (std::uint8_t code : {2, 3, 10, 13}) EXPECT_TRUE(IcmpShowsHost(3, code, kHostIp, kHostIp)) << int(code);
  EXPECT_FALSE(IcmpShowsHost(3, 3, router, kHostIp));    // someone else speaking for it
  EXPECT_FALSE(IcmpShowsHost(3, 1, kHostIp, kHostIp));   // host unreachable
  EXPECT_FALSE(IcmpShowsHost(11, 0, kHostIp, kHostIp));  // time exceeded
  EXPECT_TRUE(HasDynamicMac(Record(kNudStale, 99999)));
  EXPECT_FALSE(HasDynamicMac(Record(kNudStale, 0, std::nullopt)));
  NeighbourRecord zero = Record(kNudReachable, 0);  // unresolved, as some systems show it
  zero.Mac = MacAddress{};
  EXPECT_FALSE(HasDynamicMac(zero));
  EXPECT_FALSE(ConfirmedDuringSweep(zero, 80));
}

// Answers with `present` after the first round and with `late` as well after the second.
class FakeProbe : public NeighbourProbe {
 public:
  void Probe(const std::vector<Ipv4>& addresses) override { rounds.push_back(addresses); }
  std::vector<Neighbour> Answered() override {
    std::vector<Neighbour> out = present;
    if (rounds.size() > 1) out.insert(out.end(), late.begin(), late.end());
    return out;
  }
  std::string Method() const override { return "fake"; }
  std::size_t SendFailures() const override { return failures; }
  std::error_code FirstSendError() const override { return make_error_code(std::errc::no_buffer_space); }

  std::vector<Neighbour> present, late;
  std::vector<std::vector<Ipv4>> rounds;
  std::size_t failures = 0;
};

class SweepTest : public ::testing::Test {
 protected:
  using Result = std::vector<std::vector<ArpEntry>>;
  NativeSweep Make(NativeSweep::ProbeOpener opener = {}) {
    if (!opener) opener = [this](asio::io_context&, std::error_code&) { return probe; };
    return NativeSweep(io, reporter, opener, {std::chrono::milliseconds(20), std::chrono::milliseconds(60)});
  }
  // Runs one sweep to its end and returns what Done got.
  std::optional<Result> Sweep(NativeSweep& sweep, std::vector<std::string> subnets) {
    std::optional<Result> result;
    sweep.Start(std::move(subnets), [&](const Result& r) { result = r; });
    EXPECT_TRUE(sweep.Running());
    EXPECT_FALSE(result.has_value());  // never from inside Start
    io.restart();
    io.run_for(std::chrono::seconds(5));
    EXPECT_FALSE(sweep.Running());
    return result;
  }
  // The reports so far as "event|module|text|description" (or "log|..."), then forgets them.
  std::vector<std::string> Reports() {
    std::vector<std::string> texts;
    for (const auto& c : reporter.calls) {
      texts.push_back((c.event ? "event|" : "log|") + c.module + "|" + c.text + "|" + c.err.Description);
    }
    reporter.calls.clear();
    return texts;
  }

  asio::io_context io;
  test::RecordingReporter reporter;
  std::shared_ptr<FakeProbe> probe = std::make_shared<FakeProbe>();
};

std::vector<Ipv4> Hosts(std::vector<Ipv4> bases) {
  std::vector<Ipv4> hosts;
  for (Ipv4 base : bases) {
    for (Ipv4 h = 1; h <= 254; ++h) hosts.push_back(base | h);
  }
  return hosts;
}

TEST_F(SweepTest, ProbesEachListedSubnetThenTheSilentAgainAndGivesResultsPerSubnetInHostOrder) {
  Ipv4 first = Ip(198, 51, 100, 0), second = Ip(203, 0, 113, 0);
  probe->present = {{second | 9, kHostMac}, {first | 3, kOurMac}};
  probe->late = {{first | 200, kHostMac}};
  NativeSweep sweep = Make();
  auto result = Sweep(sweep, {"198.51.100", "224.1.1", "203.0.113", "198.51.100"});
  std::vector<Ipv4> all = Hosts({first, second, first});  // multicast 224.1.1 never
  ASSERT_EQ(probe->rounds.size(), 2u);
  EXPECT_EQ(probe->rounds[0], all);
  std::erase(all, first | 3);
  std::erase(all, second | 9);
  EXPECT_EQ(probe->rounds[1], all);
  std::vector<ArpEntry> found{{"198.51.100.3", "02-00-00-00-00-01"}, {"198.51.100.200", "02-00-c6-33-64-07"}};
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, (Result{found, {}, {{"203.0.113.9", "02-00-c6-33-64-07"}}, found}));
  EXPECT_TRUE(Reports().empty());
}

TEST_F(SweepTest, CancelledReplacedOrDestroyedSweepsNeverCallTheirDone) {
  int oldCalls = 0;
  auto old = [&](const Result&) { ++oldCalls; };
  Make().Start({"198.51.100"}, old);  // destroyed while it runs
  NativeSweep sweep = Make();
  sweep.Start({"198.51.100"}, old);
  sweep.Cancel();
  EXPECT_FALSE(sweep.Running());
  sweep.Start({"198.51.100"}, old);
  auto result = Sweep(sweep, {"203.0.113"});  // replaces the one just started
  EXPECT_EQ(oldCalls, 0);
  EXPECT_EQ(result, Result{{}});
}

TEST_F(SweepTest, FailuresAndAThrowingDoneAreReportedAndNeverThrown) {
  NativeSweep failing = Make([](asio::io_context&, std::error_code& ec) {
    ec = make_error_code(std::errc::permission_denied);
    return std::shared_ptr<NeighbourProbe>();
  });
  EXPECT_EQ(Sweep(failing, {"198.51.100", "203.0.113"}), (Result{{}, {}}));  // the caller still hears the end
  std::string prefix = "event|tavrel|BuildARPTable|native sweep: ";
  EXPECT_EQ(Reports(), std::vector{prefix + make_error_code(std::errc::permission_denied).message()});
  probe->failures = 3;
  NativeSweep partly = Make();
  EXPECT_EQ(Sweep(partly, {"198.51.100"}), Result{{}});
  EXPECT_EQ(Reports(), std::vector{prefix + "3 probes not sent (" +
                                   make_error_code(std::errc::no_buffer_space).message() + ")"});
  probe->failures = 0;
  NativeSweep throwing = Make();
  throwing.Start({"198.51.100"}, [](const Result&) { throw std::runtime_error("disk full"); });
  io.restart();
  EXPECT_NO_THROW(io.run_for(std::chrono::seconds(5)));
  EXPECT_FALSE(throwing.Running());
  EXPECT_EQ(Reports(), std::vector<std::string>{"event|tavrel|BuildARPTable|disk full"});
}

}  // namespace
}  // namespace tavrel
