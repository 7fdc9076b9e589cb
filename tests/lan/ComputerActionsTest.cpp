#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "lan/ComputerActions.h"

namespace tavrel {
namespace {

using test::RecordingReporter;

class RecordingSend : public XapSendOperation {
 public:
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override {
    sent.push_back(XapQueuedMessage{target, msgClass, section, body});
  }
  std::vector<XapQueuedMessage> sent;
};

TEST(MagicPacket, SixFFThenTheMacSixteenTimes) {
  const std::vector<unsigned char> mac = {0x00, 0x1A, 0x2B, 0xC3, 0xD4, 0xFE};
  for (const std::string text : {"001A2BC3D4FE", "001a2bc3d4fe", "001a2BC3d4Fe"}) {
    SCOPED_TRACE(text);
    std::vector<unsigned char> packet = MagicPacket(text);
    ASSERT_EQ(packet.size(), 102u);
    for (size_t k = 0; k < 6; ++k) EXPECT_EQ(packet[k], 0xFF) << k;
    for (size_t copy = 0; copy < 16; ++copy) {
      EXPECT_EQ(std::vector<unsigned char>(packet.begin() + 6 + 6 * copy, packet.begin() + 12 + 6 * copy),
                mac)
          << "copy " << copy;
    }
  }
}

TEST(MagicPacket, RejectsAnythingButTwelveHexDigits) {
  for (const std::string text : {"", "001A2BC3D4F", "001A2BC3D4FE0", "00-1A-2B-C3-D4-FE", "00:1A:2B:C3:D4:FE",
                                 "001A2BC3D4FG", " 01A2BC3D4FE"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(IsMac12(text));
    EXPECT_THROW(MagicPacket(text), std::invalid_argument);
  }
  EXPECT_TRUE(IsMac12("abcdefABCDEF"));
}

TEST(WolBroadcast, LastOctetBecomes255) {
  EXPECT_EQ(WolBroadcast("198.51.100.7"), "198.51.100.255");
  EXPECT_EQ(WolBroadcast("203.0.113.255"), "203.0.113.255");
  EXPECT_EQ(WolBroadcast("0.0.0.0"), "0.0.0.255");
  // leading zeros are read as decimal, as the address text is written back without them
  EXPECT_EQ(WolBroadcast("198.051.100.007"), "198.51.100.255");
}

TEST(WolBroadcast, EmptyForAnythingButDottedIPv4) {
  for (const std::string ip : {"", "198.51.100", "198.51.100.7.1", "198.51.100.256", "198.51..7",
                               "198.51.100.", "a.b.c.d", " 198.51.100.7", "198.51.100.7 ", "198.51.100.-7",
                               "198.51.100.+7", "198.51.100.0007", "::1", "host1"}) {
    SCOPED_TRACE(ip);
    EXPECT_EQ(WolBroadcast(ip), "");
  }
}

// Only refused input is sent here: a valid MAC and IP would put a real broadcast on the wire.
TEST(SendWOL, RefusedInputIsReportedAndNotSent) {
  struct Case {
    std::string mac, ip, problem;
  };
  const std::vector<Case> cases = {
      {"00:11:22:33:44:55", "198.51.100.7", "MAC address \"00:11:22:33:44:55\" is not 12 hexadecimal digits"},
      {"00-11-22-33-44", "198.51.100.7", "MAC address \"00-11-22-33-44\" is not 12 hexadecimal digits"},
      {"00-11-22-33-44-GG", "198.51.100.7", "MAC address \"00-11-22-33-44-GG\" is not 12 hexadecimal digits"},
      {"", "198.51.100.7", "MAC address \"\" is not 12 hexadecimal digits"},
      {"00-11-22-33-44-55", "", "IP address \"\" is not a dotted IPv4 address"},
      {"001122334455", "198.51.100.300", "IP address \"198.51.100.300\" is not a dotted IPv4 address"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mac + " " + c.ip);
    EXPECT_EQ(WolInputError(c.mac, c.ip), c.problem);
    RecordingReporter reporter;
    EXPECT_FALSE(SendWOL(c.mac, c.ip, reporter));
    ASSERT_EQ(reporter.calls.size(), 1u);
    EXPECT_TRUE(reporter.calls[0].event);
    EXPECT_EQ(reporter.calls[0].module, "tavrel");
    EXPECT_EQ(reporter.calls[0].text, "SendWOL");
    EXPECT_TRUE(reporter.calls[0].err.IsSet());
    EXPECT_EQ(reporter.calls[0].err.Description, c.problem);
  }
}

TEST(SendWOL, DashesAreDroppedAndLongInputIsCutInTheReport) {
  EXPECT_EQ(WolInputError("00-11-22-33-44-55", "198.51.100.7"), "");
  EXPECT_EQ(WolInputError("0-0-1122334455--", "198.51.100.7"), "");
  const std::string longMac(1000, 'Z');
  EXPECT_EQ(WolInputError(longMac, "198.51.100.7"),
            "MAC address \"" + std::string(64, 'Z') + "...\" is not 12 hexadecimal digits");
}

TEST(SendComputerControl, SendsTheActionToTheComputerAsItIsNamed) {
  XapGlobal xap;
  RecordingSend transport;
  xap.SetTransport(&transport);
  SendComputerControl("Office PC", "Reboot", xap);
  SendComputerControl("pc7", "Shutdown", xap);
  ASSERT_EQ(transport.sent.size(), 2u);
  EXPECT_EQ(transport.sent[0],
            (XapQueuedMessage{"*.*.Office PC", "Computer.Process", "Computer.Control", "Action\001Reboot"}));
  EXPECT_EQ(transport.sent[1],
            (XapQueuedMessage{"*.*.pc7", "Computer.Process", "Computer.Control", "Action\001Shutdown"}));
}

}  // namespace
}  // namespace tavrel
