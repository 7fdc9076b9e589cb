#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "lan/ComputerActions.h"

namespace tavrel {
namespace {

TEST(MagicPacket, SixFFThenTheMacSixteenTimesForTwelveHexDigitsOfEitherCaseOnly) {
  std::vector<unsigned char> expected(6, 0xFF);
  for (int copy = 0; copy < 16; ++copy) expected.insert(expected.end(), {0x00, 0x1A, 0x2B, 0xC3, 0xD4, 0xFE});
  EXPECT_EQ(MagicPacket("001a2BC3d4Fe"), expected);
  for (const std::string text : {"", "001A2BC3D4F", "001A2BC3D4FE0", "00-1A-2B-C3-D4-FE", "001A2BC3D4FG"})
    EXPECT_THROW(MagicPacket(text), std::invalid_argument) << text;
}

// "-", ":" and "." are dropped wherever they stand; nothing else is.
TEST(MacDigits, TheTwelveDigitsLeftOnceDashesColonsAndDotsAreGone) {
  for (const char* mac :
       {"00-11-22-aa-BB-cc", "00:11:22:aa:BB:cc", "0011.22aa.BBcc", "001122aaBBcc", "0-0-1122aaBBcc--"})
    EXPECT_EQ(MacDigits(mac), "001122aaBBcc") << mac;
  for (const char* mac : {"", "00-11-22-33-44", "00-11-22-33-44-55-66", "00 11 22 33 44 55",
                          "00_11_22_33_44_55", "00-11-22-33-44-GG", "0x0011223344"})
    EXPECT_EQ(MacDigits(mac), "") << mac;
}

TEST(WolBroadcast, LastOctetBecomes255OnlyForDottedDecimalIPv4) {
  EXPECT_EQ(WolBroadcast("198.51.100.7"), "198.51.100.255");
  EXPECT_EQ(WolBroadcast("198.051.100.007"), "198.51.100.255");  // leading zeros: decimal, not written back
  for (const char* ip : {"198.51.100", "198.51.100.7.1", "198.51.100.256", "198..100.7", "a.b.c.d",
                         " 198.51.100.7", "198.51.100.-7", "198.51.100.+7", "198.51.100.0007", "::1"})
    EXPECT_EQ(WolBroadcast(ip), "") << ip;
}

// Only refused input is sent here: a valid MAC and IP would put a real broadcast on the wire.
TEST(SendWOL, RefusedInputIsReportedAsAnEventAndNotSent) {
  EXPECT_EQ(WolInputError("00:11:22:33:44:55", "198.51.100.7"), "");
  EXPECT_EQ(WolInputError(std::string(1000, 'Z'), "198.51.100.7"),
            "MAC address \"" + std::string(64, 'Z') +
                "...\" is not 12 hexadecimal digits (such as 00-11-22-33-44-55, 00:11:22:33:44:55 or "
                "0011.2233.4455)");
  test::RecordingReporter reporter;
  EXPECT_FALSE(SendWOL("00:11:22:33:44", "198.51.100.7", reporter) || SendWOL("001122334455", "", reporter));
  EXPECT_EQ(reporter.Take(),
            (std::vector<std::string>{
                "event|tavrel|SendWOL|5|MAC address \"00:11:22:33:44\" is not 12 hexadecimal digits (such as "
                "00-11-22-33-44-55, 00:11:22:33:44:55 or 0011.2233.4455)",
                "event|tavrel|SendWOL|5|IP address \"\" is not a dotted IPv4 address"}));
}

TEST(SendComputerControl, SendsTheActionToTheComputerAsItIsNamed) {
  XapGlobal xap;  // no transport: the message waits in the pending list
  SendComputerControl("Office PC", "Reboot", xap);
  EXPECT_EQ(xap.Pending(), (std::vector<XapQueuedMessage>{{"*.*.Office PC", "Computer.Process",
                                                           "Computer.Control", "Action\001Reboot"}}));
}

}  // namespace
}  // namespace tavrel
