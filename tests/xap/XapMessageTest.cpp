#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "xap/XapMessage.h"

namespace tavrel {
namespace {

using Names = std::vector<std::string>;

const std::string kPrefix = "xap-header\n{\nv=12\nhop=1\nuid=FF001500\n";

// A query as another node sends it, with untidy spacing in the header and the body.
constexpr char kQuery[] =
    "XAP-HEADER\n{\nv=12\nhop=1\n uid = FF00AA00 \nclass=Computer.Process\nsource=zel.agent.pc7\n"
    "target=zel.WOL.host\n}\nComputer.Query\n{\nQuery=All\n Name = a=b\n}\n";

std::string Header(const XapMessage& m) {
  return m.msgUID + "|" + m.msgClass + "|" + m.msgSource + "|" + m.msgTarget;
}

std::string Logged(const test::RecordingReporter& log) {
  std::string text;
  for (const auto& c : log.calls) {
    text +=
        (c.event ? "event " : "log ") + c.module + "|" + c.text + "|" + std::to_string(c.err.Number) + "\n";
  }
  return text;
}

TEST(XapMessageBuild, HeaderSectionsAndItemsInOrderAndTheTargetLine) {
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
  EXPECT_EQ(m.ToXap(), kPrefix +
                           "class=Computer.Process\nsource=zel.WOL.host\ntarget=*.*.pc7\n}\n"
                           "Computer.Query\n{\nQuery=All\nName=\n}\nSecond.Block\n{\nk=v=w\n}\n");
  XapMessage unset;
  unset.AddHeader(kPrefix);
  EXPECT_EQ(unset.ToXap(), kPrefix + "class=Unknown\nsource=Unknown\ntarget=Unknown\n}\n}\n");
  // An empty target writes no target line; each header is appended to the text.
  m.ClearText();
  m.msgTarget = "";
  m.AddHeader("P\n");
  m.AddHeader("Q\n");
  EXPECT_EQ(m.ToXap(),
            "P\nclass=Computer.Process\nsource=zel.WOL.host\n}\n"
            "Q\nclass=Computer.Process\nsource=zel.WOL.host\n}\n}\n");
}

TEST(XapMessageParse, HeaderFieldsAreTrimmedAndBodyLinesKeptRaw) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_EQ(Header(m), "FF00AA00|Computer.Process|zel.agent.pc7|zel.WOL.host");
  EXPECT_EQ(m.GetItem("computer.query", "QUERY"), "All");
  EXPECT_EQ(m.GetItem("Computer.Query", "name"), " a=b");
  EXPECT_EQ(m.GetItem("Computer.Control", "Query"), "Unknown");
  EXPECT_EQ(m.GetItem("Computer.Query", "Action"), "Unknown");
  EXPECT_EQ(m.msgSection(), Names{"computer.query"});
  ASSERT_NE(m.msgCollection(0), nullptr);
  ASSERT_EQ(m.msgCollection(0)->Keys(), (Names{"query", "name"}));
  EXPECT_EQ(*m.msgCollection(0)->Find("name"), " Name = a=b");
  // The extra block after the final "}" has an empty name and no items.
  ASSERT_NE(m.msgCollection(1), nullptr);
  EXPECT_TRUE(m.msgCollection(1)->Empty());
  EXPECT_EQ(m.msgCollection(-1), nullptr);
}

TEST(XapMessageParse, TextsThatAreNotMessagesChangeNothing) {
  for (const char* text : {"", "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\n}\n",
                           "hello\nclass=x\n}\nA\n{\nk=v\n}\n"}) {
    XapMessage m;
    m.FromXap(text);
    EXPECT_EQ(Header(m), "Unknown|Unknown|Unknown|Unknown") << text;
    EXPECT_EQ(m.msgSection(), Names{""});
    EXPECT_EQ(m.msgCollection(0), nullptr);
  }
}

TEST(XapMessageParse, FirstTwoLinesAreSkippedAndLaterHeaderKeysOverwrite) {
  XapMessage m;
  m.FromXap("junk xap-header junk\nclass=Skipped\nclass=First\nv=99\nCLASS = Second\nsource=a.b\n}\n");
  EXPECT_EQ(Header(m), "Unknown|Second|a.b|Unknown");
}

TEST(XapMessageParse, OnlyABareBraceEndsABlockAndNamesAreLowerCasedNotTrimmed) {
  XapMessage m;
  m.FromXap("xap-header\n{\nclass=c\n}\n A\n{\nk=1\n} \n}\r\nj=2\n}\nB\n{\nx=\r\n}\n");
  EXPECT_EQ(m.msgSection(), (Names{" a", "b"}));
  EXPECT_EQ(m.GetItem(" A", "j"), "2");
  EXPECT_EQ(m.GetItem("a", "j"), "Unknown");
  EXPECT_EQ(m.GetItem("b", "x"), "\r");  // a received carriage return stays in the value

  // "}\r" never ends the header, so no block exists and the header values carry the "\r".
  XapMessage crlf;
  crlf.FromXap("xap-header\r\n{\r\nclass=c\r\n}\r\nA\r\n{\r\nk=1\r\n}\r\n");
  EXPECT_EQ(crlf.msgClass, "c\r");
  EXPECT_EQ(crlf.msgSection(), Names{""});
  // A header alone leaves only the trailing empty block, which msgSection refuses.
  XapMessage bare;
  bare.FromXap("xap-header\n{\nclass=c\n}\n");
  EXPECT_THROW(bare.msgSection(), std::out_of_range);
  EXPECT_NE(bare.msgCollection(0), nullptr);
}

TEST(XapMessageFailures, FinalBraceWithoutLineFeedKeepsEarlierBlocksAndLogsOnce) {
  test::RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\nclass=c\n}\nA\n{\nk=1\n}");
  EXPECT_EQ(m.msgClass, "c");
  EXPECT_EQ(m.GetItem("a", "k"), "1");
  EXPECT_EQ(m.msgCollection(1), nullptr);
  EXPECT_EQ(Logged(log), "log tavrel|From XAP|9\n");
}

TEST(XapMessageFailures, DuplicateBlocksAndKeysKeepTheFirstAndLogOncePerText) {
  test::RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\n}\nA\n{\nk=1\n K =2\n}\na\n{\nk=3\n}\nB\n{\nk=4\n}\n");
  EXPECT_EQ(m.GetItem("a", "k"), "1");
  EXPECT_EQ(m.GetItem("b", "k"), "4");
  EXPECT_EQ(m.msgSection(), (Names{"a", "b"}));
  // The second "a" is still there by position.
  ASSERT_NE(m.msgCollection(1), nullptr);
  EXPECT_EQ(*m.msgCollection(1)->Find("k"), "k=3");
  EXPECT_EQ(Logged(log), "log tavrel|From XAP|457\n");

  // Without a reporter nothing is logged and nothing escapes.
  XapMessage quiet;
  EXPECT_NO_THROW(quiet.FromXap("xap-header\n{\n}\nA\n{\nk=1\nk=2\n}\nA\n{\n}"));
  EXPECT_EQ(quiet.GetItem("a", "k"), "1");
}

TEST(XapMessageCompare, AddressWildcardsOnEitherSide) {
  const XapMessage m;
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
}

TEST(XapMessageCompare, ClassSourceAndTarget) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_TRUE(m.CompareClass("computer.PROCESS"));
  EXPECT_FALSE(m.CompareClass("*"));  // a class is no address
  EXPECT_TRUE(m.CompareSource("zel.agent.*"));
  EXPECT_FALSE(m.CompareSource("zel.wol.host"));
  EXPECT_TRUE(m.CompareTarget("*.WOL.>"));
  EXPECT_TRUE(XapMessage().CompareTarget("unknown"));  // without a target: the address "Unknown"
}

}  // namespace
}  // namespace tavrel
