#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapMessage.h"
#include "xap/XapStartup.h"

namespace tavrel {
namespace {

// A query as another node sends it, with untidy spacing in the header and the body.
constexpr char kQuery[] =
    "XAP-HEADER\n{\nv=12\nhop=1\n uid = FF00AA00 \nclass=Computer.Process\nsource=zel.agent.pc7\n"
    "target=zel.WOL.host\n}\nComputer.Query\n{\nQuery=All\n Name = a=b\n}\n";

std::string Header(const XapMessage& m) {
  return m.msgUID + "|" + m.msgClass + "|" + m.msgSource + "|" + m.msgTarget;
}

// Header fields are trimmed, body lines kept raw. Not a message: nothing changes. The first two lines are
// skipped, later header keys win, only a bare brace ends a block, names are lower-cased and not trimmed,
// and a received CR stays in the value.
TEST(XapMessage, HeaderFieldsTrimmedBlocksEndAtABareBraceLaterHeaderKeysWinAndAddressesMatchWildcards) {
  XapMessage query;
  query.FromXap(kQuery);
  EXPECT_EQ(Header(query), "FF00AA00|Computer.Process|zel.agent.pc7|zel.WOL.host");
  EXPECT_EQ(query.GetItem("computer.query", "QUERY") + "|" + query.GetItem("Computer.Query", "name") + "|" +
                query.GetItem("Computer.Control", "Query") + query.GetItem("Computer.Query", "Action"),
            "All| a=b|UnknownUnknown");
  for (const char* text : {"", "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\n}\n",
                           "hello\nclass=x\n}\nA\n{\nk=v\n}\n"}) {
    XapMessage m;
    m.FromXap(text);
    EXPECT_EQ(Header(m), "Unknown|Unknown|Unknown|Unknown") << text;
  }
  XapMessage m;
  m.FromXap("junk xap-header junk\nclass=Skipped\nclass=First\nv=99\nCLASS = Second\nsource=a.b\n}\n");
  EXPECT_EQ(Header(m), "Unknown|Second|a.b|Unknown");
  XapMessage blocks;
  blocks.FromXap("xap-header\n{\nclass=c\n}\n A\n{\nk=1\n} \n}\r\nj=2\n}\nB\n{\nx=\r\n}\n");
  EXPECT_EQ(blocks.GetItem(" A", "j") + blocks.GetItem("a", "j") + blocks.GetItem("b", "x"), "2Unknown\r");
  // "}\r" never ends the header, so no block exists and the header values carry the "\r".
  XapMessage crlf;
  crlf.FromXap("xap-header\r\n{\r\nclass=c\r\n}\r\nA\r\n{\r\nk=1\r\n}\r\n");
  EXPECT_EQ(crlf.msgClass, "c\r");
  EXPECT_EQ(crlf.GetItem("a", "k"), "Unknown");

  // Addresses match with wildcards on either side; a class is compared as it stands.
  // clang-format off
  const struct { const char *a, *b; bool match; } cases[] = {
      {"a.b.c", "A.*.C", true}, {"a.>", "a.b.c", true}, {">", "x", true}, {"a..b", "a.*.b", true},
      {"a.", "a.>", true}, {"*.*.pc7", "zel.wol.PC7", true}, {"x.y.z:a", "x.y.*", true},
      {"a.b", "a.b.c", false}, {"", "*", false}, {"a.*", "a.b.c", false}, {"a.>", "a", false},
      {"a.b", "a.c", false}, {"x.y.z:a", "x.y.z", false}};
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(m.CompareAddress(c.a, c.b), c.match) << c.a << " vs " << c.b;
    EXPECT_EQ(m.CompareAddress(c.b, c.a), c.match) << c.b << " vs " << c.a;
  }
  EXPECT_TRUE(XapMessage().CompareTarget("unknown"));  // without a target: the address "Unknown"
  EXPECT_TRUE(query.CompareClass("computer.PROCESS") && !query.CompareClass("*"));  // a class is no address
  EXPECT_TRUE(query.CompareTarget("*.WOL.>"));
}

// A fresh home gets the defaults; a port that is no port number falls back with a log line.
TEST(XapStartupTest, FoldersDefaultsAndThePortSetting) {
  test::TempDir home;
  test::RecordingReporter log;
  Hs hs{home.Path() / "Config", log};
  auto run = [&](const std::string& ini) {
    if (!ini.empty()) test::WriteFile(home.Path() / "Config" / "zelXap.ini", "[Interface]\n" + ini + "\n");
    const XapStartup s = InitXap(hs, log);
    std::string text = s.InterfaceAddress + "|" + s.BroadcastAddress + "|" + std::to_string(s.Port);
    for (const auto& c : log.Take()) text += " " + c;
    return text;
  };
  EXPECT_EQ(run(""), "Default|Default|3639");
  EXPECT_EQ(run("InterfaceAddress=198.51.100.4\nbroadcastaddress=127.0.0.1\nPORT=40000"),
            "198.51.100.4|127.0.0.1|40000");
  for (const char* bad : {"abc", "0", "65536", "-1", "12x", "99999999999999999999"})
    EXPECT_EQ(run(std::string("Port=") + bad).substr(0, 40), "Default|Default|3639 log|tavrel|InitXap|")
        << bad;
  EXPECT_EQ(run("Port= 65535") + "," + run("Port=1"), "Default|Default|65535,Default|Default|1");
}

}  // namespace
}  // namespace tavrel
