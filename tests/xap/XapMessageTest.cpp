#include <gtest/gtest.h>

#include <stdexcept>

#include "TestSupport.h"
#include "xap/XapMessage.h"

namespace tavrel {
namespace {

using test::RecordingReporter;

constexpr char kPrefix[] = "xap-header\n{\nv=12\nhop=1\nuid=FF001500\n";

// A query as another node sends it, with untidy spacing in the header and the body.
constexpr char kQuery[] =
    "XAP-HEADER\n{\nv=12\nhop=1\n uid = FF00AA00 \nclass=Computer.Process\nsource=zel.agent.pc7\n"
    "target=zel.WOL.host\n}\nComputer.Query\n{\nQuery=All\n Name = a=b\n}\n";

TEST(XapMessageBuild, HeaderSectionsAndItemsInOrder) {
  XapMessage m;
  m.msgClass = "Computer.Process";
  m.msgSource = "zel.WOL.host";
  m.msgTarget = "*.*.pc7";
  m.AddHeader(kPrefix);
  m.AddSection("Computer.Query");
  m.AddItem("Query", "All");
  m.AddItem("Name", "");
  m.AddSection("Second.Block");
  m.AddItem("k", "v=w");
  EXPECT_EQ(m.ToXap(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\nsource=zel.WOL.host\n"
            "target=*.*.pc7\n}\nComputer.Query\n{\nQuery=All\nName=\n}\nSecond.Block\n{\nk=v=w\n}\n");
  // ToXap leaves the text as it is: a second call gives the same bytes.
  EXPECT_EQ(m.ToXap(), m.ToXap());
}

TEST(XapMessageBuild, EmptyTargetWritesNoTargetLineAndHeaderOnlyEndsWithTwoBraces) {
  XapMessage m;
  m.msgClass = "Homeseer.Event";
  m.msgSource = "zel.WOL.host";
  m.msgTarget = "";
  m.AddHeader(kPrefix);
  EXPECT_EQ(m.ToXap(),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Homeseer.Event\nsource=zel.WOL.host\n}\n}\n");

  // Without a set target the default "Unknown" is written.
  XapMessage d;
  d.AddHeader(kPrefix);
  EXPECT_NE(d.ToXap().find("\ntarget=Unknown\n"), std::string::npos);
}

TEST(XapMessageBuild, AddHeaderAppendsAndClearTextEmpties) {
  XapMessage m;
  m.msgTarget = "";
  m.AddHeader("P\n");
  m.AddHeader("Q\n");
  EXPECT_EQ(m.ToXap(), "P\nclass=Unknown\nsource=Unknown\n}\nQ\nclass=Unknown\nsource=Unknown\n}\n}\n");
  m.ClearText();
  EXPECT_EQ(m.ToXap(), "}\n");
  m.AddSection("A");
  m.Reset();
  EXPECT_EQ(m.ToXap(), "A\n{\n}\n");
}

TEST(XapMessageParse, HeaderFieldsAreTrimmedAndBodyLinesKeptRaw) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_EQ(m.msgUID, "FF00AA00");
  EXPECT_EQ(m.msgClass, "Computer.Process");
  EXPECT_EQ(m.msgSource, "zel.agent.pc7");
  EXPECT_EQ(m.msgTarget, "zel.WOL.host");
  EXPECT_EQ(m.GetItem("computer.query", "QUERY"), "All");
  EXPECT_EQ(m.GetItem("Computer.Query", "name"), " a=b");
  EXPECT_EQ(m.msgSection(), (std::vector<std::string>{"computer.query"}));
  const auto* block = m.msgCollection(0);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->Keys(), (std::vector<std::string>{"query", "name"}));
  EXPECT_EQ(*block->Find("name"), " Name = a=b");
  // The extra block after the final "}" has an empty name and no items.
  ASSERT_NE(m.msgCollection(1), nullptr);
  EXPECT_TRUE(m.msgCollection(1)->Empty());
  EXPECT_EQ(m.msgCollection(2), nullptr);
  EXPECT_EQ(m.msgCollection(-1), nullptr);
}

TEST(XapMessageParse, UnknownBlockOrKeyGivesUnknown) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_EQ(m.GetItem("Computer.Control", "Query"), "Unknown");
  EXPECT_EQ(m.GetItem("Computer.Query", "Action"), "Unknown");
}

TEST(XapMessageParse, TextsThatAreNotMessagesChangeNothing) {
  for (const char* text : {"", "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\n}\n",
                           "hello\nclass=x\n}\nA\n{\nk=v\n}\n"}) {
    XapMessage m;
    m.FromXap(text);
    EXPECT_EQ(m.msgClass, "Unknown") << text;
    EXPECT_EQ(m.msgSource, "Unknown");
    EXPECT_EQ(m.msgTarget, "Unknown");
    EXPECT_EQ(m.msgUID, "Unknown");
    EXPECT_EQ(m.msgSection(), (std::vector<std::string>{""}));
    EXPECT_EQ(m.msgCollection(0), nullptr);
  }
}

TEST(XapMessageParse, FirstTwoLinesAreSkippedAndLaterHeaderKeysOverwrite) {
  XapMessage m;
  m.FromXap("junk xap-header junk\nclass=Skipped\nclass=First\nv=99\nCLASS = Second\nsource=a.b\n}\n");
  EXPECT_EQ(m.msgClass, "Second");
  EXPECT_EQ(m.msgSource, "a.b");
  EXPECT_EQ(m.msgTarget, "Unknown");
}

TEST(XapMessageParse, OnlyABareBraceEndsABlock) {
  XapMessage m;
  m.FromXap("xap-header\n{\nclass=c\n}\nA\n{\nk=1\n} \n}\r\nj=2\n}\nB\n{\nx=\r\n}\n");
  EXPECT_EQ(m.msgSection(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(m.GetItem("a", "j"), "2");
  // A received carriage return stays in the value.
  EXPECT_EQ(m.GetItem("b", "x"), "\r");
}

TEST(XapMessageParse, CrlfLinesKeepTheirCarriageReturns) {
  XapMessage m;
  m.FromXap("xap-header\r\n{\r\nclass=c\r\n}\r\nA\r\n{\r\nk=1\r\n}\r\n");
  // "}\r" never ends the header, so no block exists and the header values carry the "\r".
  EXPECT_EQ(m.msgClass, "c\r");
  EXPECT_EQ(m.msgSection(), (std::vector<std::string>{""}));
}

TEST(XapMessageParse, BlockNamesAreLowerCasedNotTrimmed) {
  XapMessage m;
  m.FromXap("xap-header\n{\n}\n Block.ONE\n{\nk=1\n}\n");
  EXPECT_EQ(m.msgSection(), (std::vector<std::string>{" block.one"}));
  EXPECT_EQ(m.GetItem(" Block.One", "k"), "1");
  EXPECT_EQ(m.GetItem("block.one", "k"), "Unknown");
}

TEST(XapMessageParse, OnlyTheTrailingEmptyBlockMakesMsgSectionThrow) {
  XapMessage m;
  m.FromXap("xap-header\n{\nclass=c\n}\n");
  EXPECT_THROW(m.msgSection(), std::out_of_range);
  ASSERT_NE(m.msgCollection(0), nullptr);
}

TEST(XapMessageFailures, FinalBraceWithoutLineFeedKeepsEarlierBlocksAndLogsOnce) {
  RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\nclass=c\n}\nA\n{\nk=1\n}");
  EXPECT_EQ(m.msgClass, "c");
  EXPECT_EQ(m.GetItem("a", "k"), "1");
  EXPECT_EQ(m.msgCollection(1), nullptr);
  ASSERT_EQ(log.calls.size(), 1u);
  EXPECT_FALSE(log.calls[0].event);
  EXPECT_EQ(log.calls[0].module, "tavrel");
  EXPECT_EQ(log.calls[0].text, "From XAP");
  EXPECT_EQ(log.calls[0].err.Number, 9);
}

TEST(XapMessageFailures, DuplicateBlockNameKeepsTheFirstAndReadsOn) {
  RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\n}\nA\n{\nk=1\n}\na\n{\nk=2\n}\nB\n{\nk=3\n}\n");
  EXPECT_EQ(m.GetItem("a", "k"), "1");
  EXPECT_EQ(m.GetItem("b", "k"), "3");
  EXPECT_EQ(m.msgSection(), (std::vector<std::string>{"a", "b"}));
  // The second "a" is still there by position.
  ASSERT_NE(m.msgCollection(1), nullptr);
  EXPECT_EQ(*m.msgCollection(1)->Find("k"), "k=2");
  ASSERT_EQ(log.calls.size(), 1u);
  EXPECT_EQ(log.calls[0].text, "From XAP");
  EXPECT_EQ(log.calls[0].err.Number, 457);
}

TEST(XapMessageFailures, DuplicateKeysKeepTheFirstLineAndLogOncePerText) {
  RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\n}\nA\n{\nk=1\n K =2\nk=3\nz=4\n}\n");
  EXPECT_EQ(m.GetItem("a", "k"), "1");
  EXPECT_EQ(m.GetItem("a", "z"), "4");
  EXPECT_EQ(log.calls.size(), 1u);

  // Without a reporter nothing is logged and nothing escapes.
  XapMessage quiet;
  EXPECT_NO_THROW(quiet.FromXap("xap-header\n{\n}\nA\n{\nk=1\nk=2\n}\nA\n{\n}"));
  EXPECT_EQ(quiet.GetItem("a", "k"), "1");
}

TEST(XapMessageCompare, AddressWildcards) {
  const XapMessage m;
  struct Case {
    const char* a;
    const char* b;
    bool match;
  } cases[] = {
      {"a.b.c", "A.*.C", true},
      {"a.b", "a.b.c", false},
      {"a.>", "a.b.c", true},
      {">", "x", true},
      {"a.b.c", "a.b", false},
      {"", "*", false},
      {"*", "", false},
      {"a", "a.b", false},
      {"a.b.c", "a.>", true},
      {"a.*", "a.b.c", false},
      {"a.>", "a", false},
      {"a.b.>", "a.b", false},
      {"*.*.pc7", "zel.wol.PC7", true},
      {"x.y.z:a", "x.y.*", true},
      {"x.y.z:a", "x.y.z", false},
      {"a.b", "a.c", false},
      {"a..b", "a.*.b", true},
      {"a.", "a.>", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(m.CompareAddress(c.a, c.b), c.match) << c.a << " vs " << c.b;
    EXPECT_EQ(m.CompareAddress(c.b, c.a), c.match) << c.b << " vs " << c.a;
  }
}

TEST(XapMessageCompare, ClassSourceAndTarget) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_TRUE(m.CompareClass("computer.PROCESS"));
  EXPECT_FALSE(m.CompareClass("*"));
  EXPECT_TRUE(m.CompareSource("zel.agent.*"));
  EXPECT_FALSE(m.CompareSource("zel.wol.host"));
  EXPECT_TRUE(m.CompareTarget("zel.wol.host"));
  EXPECT_TRUE(m.CompareTarget(">"));

  XapMessage star;
  star.FromXap("xap-header\n{\nclass=*\n}\n");
  EXPECT_TRUE(star.CompareClass("*"));
  // A message without a target compares as the address "Unknown".
  EXPECT_TRUE(star.CompareTarget("unknown"));
}

TEST(XapMessageRoundTrip, BuiltTextParsesBack) {
  XapMessage out;
  out.msgClass = "WDT.Echo";
  out.msgSource = "zel.WOL.host";
  out.msgTarget = "zel.agent.pc7";
  out.AddHeader(kPrefix);
  out.AddSection("Echo.Response");
  out.AddItem("Response", "abc");
  XapMessage in;
  in.FromXap(out.ToXap());
  EXPECT_EQ(in.msgUID, "FF001500");
  EXPECT_EQ(in.msgClass, "WDT.Echo");
  EXPECT_EQ(in.msgTarget, "zel.agent.pc7");
  EXPECT_EQ(in.GetItem("Echo.Response", "Response"), "abc");
  EXPECT_EQ(in.msgSection(), (std::vector<std::string>{"echo.response"}));
}

}  // namespace
}  // namespace tavrel
