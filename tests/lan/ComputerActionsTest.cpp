#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "lan/ComputerActions.h"

namespace tavrel {
namespace {

TEST(MagicPacket, SixFFThenTheMacSixteenTimesFromTwelveHexDigitsOnly) {
  std::vector<unsigned char> expected(6, 0xFF);
  for (int copy = 0; copy < 16; ++copy) expected.insert(expected.end(), {0x00, 0x1A, 0x2B, 0xC3, 0xD4, 0xFE});
  EXPECT_EQ(MagicPacket("001a2BC3d4Fe"), expected);
  for (const std::string text : {"", "001A2BC3D4F", "001A2BC3D4FE0", "00-1A-2B-C3-D4-FE", "001A2BC3D4FG"}) {
    EXPECT_FALSE(IsMac12(text)) << text;
    EXPECT_THROW(MagicPacket(text), std::invalid_argument) << text;
  }
}

TEST(WolBroadcast, LastOctetBecomes255OnlyForDottedDecimalIPv4) {
  EXPECT_EQ(WolBroadcast("198.51.100.7"), "198.51.100.255");
  EXPECT_EQ(WolBroadcast("203.0.113.255"), "203.0.113.255");
  EXPECT_EQ(WolBroadcast("198.051.100.007"), "198.51.100.255");  // leading zeros: decimal, not written back
  for (const char* ip : {"198.51.100", "198.51.100.7.1", "198.51.100.256", "198.51..7", "a.b.c.d",
                         " 198.51.100.7", "198.51.100.-7", "198.51.100.+7", "198.51.100.0007", "::1"}) {
    EXPECT_EQ(WolBroadcast(ip), "") << ip;
  }
}

// Only refused input is sent here: a valid MAC and IP would put a real broadcast on the wire.
TEST(SendWOL, RefusedInputIsReportedAsAnEventAndNotSent) {
  struct Case {
    std::string mac, ip, problem;
  };
  const Case cases[] = {
      {"00:11:22:33:44:55", "198.51.100.7", "MAC address \"00:11:22:33:44:55\" is not 12 hexadecimal digits"},
      {"00-11-22-33-44", "198.51.100.7", "MAC address \"00-11-22-33-44\" is not 12 hexadecimal digits"},
      {"001122334455", "198.51.100.300", "IP address \"198.51.100.300\" is not a dotted IPv4 address"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(WolInputError(c.mac, c.ip), c.problem);
    test::RecordingReporter reporter;
    EXPECT_FALSE(SendWOL(c.mac, c.ip, reporter));
    ASSERT_EQ(reporter.calls.size(), 1u);
    const auto& call = reporter.calls[0];
    EXPECT_EQ((call.event ? "event|" : "log|") + call.module + "|" + call.text + "|" + call.err.Description,
              "event|tavrel|SendWOL|" + c.problem);
  }
  // Every dash is dropped from the MAC; long input is cut in the report.
  EXPECT_EQ(WolInputError("0-0-1122334455--", "198.51.100.7"), "");
  EXPECT_EQ(WolInputError(std::string(1000, 'Z'), "198.51.100.7"),
            "MAC address \"" + std::string(64, 'Z') + "...\" is not 12 hexadecimal digits");
}

TEST(SendComputerControl, SendsTheActionToTheComputerAsItIsNamed) {
  XapGlobal xap;  // no transport: the message waits in the pending list
  SendComputerControl("Office PC", "Reboot", xap);
  EXPECT_EQ(xap.Pending(), (std::vector<XapQueuedMessage>{{"*.*.Office PC", "Computer.Process",
                                                           "Computer.Control", "Action\001Reboot"}}));
}

}  // namespace
}  // namespace tavrel
