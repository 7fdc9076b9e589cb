#include <optional>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "core/Text.h"
#include "lan/NativeSweep.h"
#include "lan/ScanCommand.h"
#include "lan/Subnet.h"
#include "platform/NeighbourWire.h"
#include "support/ManualTimers.h"
#include "support/TestSupport.h"

namespace tavrel {
namespace {

using namespace platform;
using namespace std::chrono_literals;

constexpr Ipv4 Ip(unsigned a, unsigned b, unsigned c, unsigned d) { return a << 24 | b << 16 | c << 8 | d; }
const MacAddress kOurMac{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const MacAddress kHostMac{0x02, 0x00, 0xc6, 0x33, 0x64, 0x07};
const Ipv4 kOurIp = Ip(198, 51, 100, 1), kHostIp = Ip(198, 51, 100, 7);

// Only refused arguments here: a command that got past its checks would probe the machine's real link.
TEST(Subnets, ThreeDottedNumbersNumberedByTheirPlaceAndTheScanCommandRefusesOthersByName) {
  for (const char* good : {"0.0.0", "255.255.255", " 203.0.113  "})
    EXPECT_EQ(ParseSubnet(good), Trim(good)) << good;
  for (const char* bad : {"", "198.51", "198.51.100.0", "198.51.256", "198..100", "198.51.100.",
                          "198.051.100", "+1.2.3", "1.2.3 4", "0x10.1.2", "1.2.3\t"})
    EXPECT_EQ(ParseSubnet(bad), std::nullopt) << bad;
  const SubnetList list = CheckSubnets({"1.2.3&calc", " 198.51.100", "", "203.0.113 "});
  EXPECT_EQ(list.Valid, (std::vector<ListedSubnet>{{1, "198.51.100"}, {3, "203.0.113"}}));
  EXPECT_EQ(list.Invalid, (std::vector<std::string>{"1.2.3&calc", ""}));
  std::ostringstream out, err;
  EXPECT_EQ(ScanCommand({}, out, err), 2);
  EXPECT_EQ(ScanCommand({"203.0.113.0/24", "0.1.2", "224.0.0", "1.2.3&calc"}, out, err), 2);
  EXPECT_EQ(out.str() + "|" + err.str(),
            "|usage: tavrel scan SUBNET... (each subnet three numbers, as 198.51.100)\n"
            "tavrel scan: Invalid subnet 203.0.113.0/24 (give three numbers 0-255, as 198.51.100)\n"
            "tavrel scan: Invalid subnet 1.2.3&calc (give three numbers 0-255, as 198.51.100)\n"
            "tavrel scan: \"0.1.2\" holds no computers (0, 127 and 224 and above are not swept)\n"
            "tavrel scan: \"224.0.0\" holds no computers (0, 127 and 224 and above are not swept)\n");
}

// An ARP reply (op 1: a request) from one computer to another.
std::string Reply(const MacAddress& mac, Ipv4 ip, const MacAddress& toMac, Ipv4 toIp, int op = 2) {
  std::string packet = ArpRequest(mac, ip, toIp).replace(7, 1, 1, char(op));
  return packet.replace(18, 6, reinterpret_cast<const char*>(toMac.data()), 6);
}

TEST(Answers, EthernetIpv4RepliesToUsFreshDynamicEntriesAndHostsThatRefusedCount) {
  auto answersUs = [](const std::string& bytes) {
    auto packet = ParseArp(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return packet && AnswersUs(*packet, kOurMac, kOurIp);
  };
  std::string reply = Reply(kHostMac, kHostIp, kOurMac, kOurIp);
  EXPECT_TRUE(answersUs(reply + std::string(18, '\0')));  // frame padding
  EXPECT_FALSE(answersUs(reply.substr(0, 27)));
  for (std::size_t at : {1u, 2u, 4u, 5u})  // hardware type, protocol type, address lengths
    EXPECT_FALSE(answersUs(std::string(reply).replace(at, 1, 1, char(reply[at] ^ 0x20)))) << at;
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kOurMac, kOurIp, 1)));            // a request
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kOurMac, Ip(198, 51, 100, 9))));  // to someone else
  EXPECT_FALSE(answersUs(Reply(kHostMac, kHostIp, kHostMac, kOurIp)));              // to another MAC
  EXPECT_FALSE(answersUs(Reply(kHostMac, kOurIp, kOurMac, kOurIp)));                // our own address
  EXPECT_FALSE(answersUs(Reply(MacAddress{0x01, 0, 0x5e, 0, 0, 1}, kHostIp, kOurMac, kOurIp)));  // group MAC
  // Kernel entries: hosts that left while the kernel still held them are checked on the namespace testbed;
  // here the states that never count and the ICMP answers that do.
  auto fresh = [](std::uint16_t state, std::uint32_t ticks, std::optional<MacAddress> mac = kHostMac) {
    return ConfirmedDuringSweep({kHostIp, mac, state, ticks, true}, 80);  // after 80 ticks of sweep
  };
  EXPECT_TRUE(fresh(kNudReachable, 80) && fresh(kNudStale, 5));
  for (int state : {int(kNudPermanent), kNudNoArp | kNudStale, int(kNudFailed)})
    EXPECT_FALSE(fresh(state, 0)) << state;
  EXPECT_FALSE(fresh(kNudIncomplete, 0, std::nullopt) || fresh(kNudReachable, 0, MacAddress{}));
  EXPECT_FALSE(ConfirmedDuringSweep({kHostIp, kHostMac, kNudReachable, 0, false}, 80));  // no age known
  EXPECT_TRUE(HasDynamicMac({kHostIp, kHostMac, kNudStale, 99999, true}) &&              // whatever its age
              !HasDynamicMac({kHostIp, MacAddress{}, kNudStale, 0, true}));
  // Only from the host itself, and only protocol or port unreachable or filtered: it is there and refused.
  for (std::uint8_t code : {2, 3, 10, 13}) EXPECT_TRUE(IcmpShowsHost(3, code, kHostIp, kHostIp)) << int(code);
  EXPECT_FALSE(IcmpShowsHost(3, 3, Ip(198, 51, 100, 254), kHostIp) || IcmpShowsHost(3, 1, kHostIp, kHostIp) ||
               IcmpShowsHost(11, 0, kHostIp, kHostIp));
}

// Netlink messages as the kernel writes them, in this machine's byte order.
const auto Raw = [](auto value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); };
std::string Message(std::uint16_t type, const std::string& body) {  // flags NLM_F_MULTI, sequence 1
  return Raw(std::uint32_t(16 + body.size())) + Raw(type) + Raw(std::uint16_t{2}) + Raw(1u) + Raw(0u) + body;
}
std::string Attr(std::uint16_t type, const std::string& payload) {
  return (Raw(std::uint16_t(4 + payload.size())) + Raw(type) + payload)
      .append((4 - payload.size() % 4) % 4, '\0');
}
std::string Neigh(char family, std::uint16_t state, const std::string& attributes) {  // RTM_NEWNEIGH
  return Message(28, family + std::string(3, '\0') + Raw(2) + Raw(state) + std::string(2, '\0') + attributes);
}
std::string Dst(Ipv4 ip) { return Attr(1, {char(ip >> 24), char(ip >> 16), char(ip >> 8), char(ip)}); }
std::string Lladdr() { return Attr(2, std::string(reinterpret_cast<const char*>(kHostMac.data()), 6)); }
std::string Cache(std::uint32_t confirmed) { return Attr(3, Raw(confirmed) + Raw(7u) + Raw(3u) + Raw(1u)); }

// "done error", then per record "; ip state host|none ticks|-", for bytes in an exact-size buffer (for ASan).
std::string Parsed(const std::string& bytes) {
  std::vector<std::uint8_t> buffer(bytes.begin(), bytes.end());
  NeighbourDumpPart part = ParseNeighbourDump(buffer.data(), buffer.size());
  std::string text = std::to_string(part.Done) + " " + std::to_string(part.Error);
  for (const NeighbourRecord& r : part.Records) {
    for (int s = 24; s >= 0; s -= 8) text += (s == 24 ? "; " : ".") + std::to_string(r.Ip >> s & 0xFF);
    text += " " + std::to_string(r.State) + (r.Mac == kHostMac ? " host " : " none ") +
            (r.HasCacheInfo ? std::to_string(r.ConfirmedTicks) : "-");
  }
  return text;
}

TEST(NeighbourDump, ReadsIpv4EntriesUntilDoneOrErrorAndNeverPastTheEndOfACutBuffer) {
  EXPECT_EQ(Parsed(Neigh(2, kNudReachable, Dst(kHostIp) + Lladdr() + Cache(12)) +
                   Neigh(10, kNudReachable, Attr(1, std::string(16, 1)) + Lladdr()) +  // IPv6: skipped
                   Neigh(2, kNudIncomplete, Dst(Ip(198, 51, 100, 9)) + Cache(0)) + Message(3, Raw(0))),
            "1 0; 198.51.100.7 2 host 12; 198.51.100.9 1 none 0");
  EXPECT_EQ(Parsed(Message(2, Raw(-1) + std::string(16, '\0'))), "1 1");  // -EPERM
  std::string good = Neigh(2, kNudStale, Dst(kHostIp) + Lladdr());  // no NLMSG_DONE: more buffers follow
  ASSERT_EQ(Parsed(good), "0 0; 198.51.100.7 4 host -");
  for (std::size_t size = 0; size < good.size(); ++size)
    EXPECT_EQ(Parsed(good.substr(0, size)), "0 0") << size;
}

// Probing itself is checked on the namespace testbed; this probe counts each round's addresses, and the
// hosts of late answer from the second round on.
struct FakeProbe : NeighbourProbe {
  void Probe(const std::vector<Ipv4>& ips) override {
    rounds.push_back(ips.size());
    if (rounds.size() == 2) present.insert(present.end(), late.begin(), late.end());
  }
  std::vector<Neighbour> Answered() override { return present; }
  std::string Method() const override { return "fake"; }
  std::size_t SendFailures() const override { return failures; }
  std::error_code FirstSendError() const override { return make_error_code(std::errc::no_buffer_space); }
  std::vector<Neighbour> present, late;
  std::vector<std::size_t> rounds;
  std::size_t failures = 0;
};

class SweepTest : public ::testing::Test {
 protected:
  using Result = std::vector<std::vector<ArpEntry>>;
  NativeSweep Make(bool opens = true) {
    auto opener = [this, opens](asio::io_context&, std::error_code& ec) {
      if (!opens) ec = make_error_code(std::errc::permission_denied);
      return opens ? std::shared_ptr<NeighbourProbe>(probe) : nullptr;
    };
    return NativeSweep(io, reporter, timers, opener, {20ms, 60ms});
  }
  // Runs one sweep to its end: what Done got (before it throws, if told to).
  std::optional<Result> Sweep(auto&& sweep, std::vector<std::string> subnets, bool doneThrows = false) {
    std::optional<Result> result;
    sweep.Start(std::move(subnets), [&](const Result& r) {
      result = r;
      if (doneThrows) throw std::runtime_error("disk full");
    });
    EXPECT_TRUE(sweep.Running() && !result);  // Done never runs from inside Start
    for (int step = 0; step < 20 && sweep.Running(); ++step) {
      io.restart();
      io.poll();
      timers.Advance(10ms);
    }
    EXPECT_FALSE(sweep.Running());
    return result;
  }
  asio::io_context io;
  test::ManualTimers timers;
  test::RecordingReporter reporter;
  std::shared_ptr<FakeProbe> probe = std::make_shared<FakeProbe>();
};

TEST_F(SweepTest, SilentHostsAreAskedAgainCancelledSweepsStaySilentAndFailuresAreReportedNeverThrown) {
  probe->present = {{Ip(198, 51, 100, 9), kHostMac}};
  probe->late = {{kHostIp, kHostMac}};  // silent at first, answers the retry
  EXPECT_EQ(Sweep(Make(), {"198.51.100"}),
            (Result{{{"198.51.100.7", "02-00-c6-33-64-07"}, {"198.51.100.9", "02-00-c6-33-64-07"}}}));
  EXPECT_EQ(probe->rounds, (std::vector<std::size_t>{254, 253}));
  probe->present.clear();
  auto old = [](const Result&) { ADD_FAILURE() << "Done of a cancelled sweep"; };
  Make().Start({"198.51.100"}, old);  // destroyed while it runs
  NativeSweep sweep = Make();
  sweep.Start({"198.51.100"}, old);
  sweep.Cancel();
  EXPECT_FALSE(sweep.Running());
  sweep.Start({"198.51.100"}, old);
  EXPECT_EQ(Sweep(sweep, {"203.0.113"}, true), Result{{}});  // replaces the one just started
  EXPECT_EQ(reporter.Take(), std::vector<std::string>{"event|tavrel|BuildARPTable|5|disk full"});
  EXPECT_EQ(Sweep(Make(false), {"198.51.100", "203.0.113"}), (Result{{}, {}}));  // the end still comes
  std::string prefix = "event|tavrel|BuildARPTable|5|native sweep: ";
  EXPECT_EQ(reporter.Take(), std::vector{prefix + make_error_code(std::errc::permission_denied).message()});
  probe->failures = 3;
  EXPECT_EQ(Sweep(sweep, {"198.51.100"}), Result{{}});
  EXPECT_EQ(reporter.Take(), std::vector{prefix + "3 probes not sent (" +
                                         make_error_code(std::errc::no_buffer_space).message() + ")"});
}

}  // namespace
}  // namespace tavrel
