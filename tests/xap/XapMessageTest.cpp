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

TEST(XapMessageBuild, UnsetFieldsSectionsAndRepeatedHeaders) {
  XapMessage m;
  m.AddHeader(kPrefix);
  m.AddSection("A");
  m.AddItem("k", "v=w");
  m.AddItem("Name", "");
  m.AddSection("B");
  EXPECT_EQ(m.ToXap(),
            kPrefix + "class=Unknown\nsource=Unknown\ntarget=Unknown\n}\nA\n{\nk=v=w\nName=\n}\nB\n{\n}\n");
  // An empty target writes no target line; each header is appended to the text.
  m.ClearText();
  m.msgTarget = "";
  m.AddHeader("P\n");
  m.AddHeader("Q\n");
  EXPECT_EQ(m.ToXap(), "P\nclass=Unknown\nsource=Unknown\n}\nQ\nclass=Unknown\nsource=Unknown\n}\n}\n");
}

TEST(XapMessageParse, HeaderFieldsAreTrimmedAndBodyLinesKeptRaw) {
  XapMessage m;
  m.FromXap(kQuery);
  EXPECT_EQ(Header(m), "FF00AA00|Computer.Process|zel.agent.pc7|zel.WOL.host");
  EXPECT_EQ(m.GetItem("computer.query", "QUERY") + "|" + m.GetItem("Computer.Query", "name"), "All| a=b");
  EXPECT_EQ(m.GetItem("Computer.Control", "Query") + m.GetItem("Computer.Query", "Action"), "UnknownUnknown");
  EXPECT_EQ(m.msgSection(), Names{"computer.query"});
  ASSERT_NE(m.msgCollection(0), nullptr);
  ASSERT_EQ(m.msgCollection(0)->Keys(), (Names{"query", "name"}));
  EXPECT_EQ(*m.msgCollection(0)->Find("name"), " Name = a=b");
  // The extra block after the final "}" has an empty name and no items.
  ASSERT_NE(m.msgCollection(1), nullptr);
  EXPECT_TRUE(m.msgCollection(1)->Empty());
  EXPECT_EQ(m.msgCollection(-1), nullptr);
}

TEST(XapMessageParse, NonMessagesChangeNothingTheFirstTwoLinesAreSkippedAndLaterHeaderKeysWin) {
  for (const char* text : {"", "xap-hbeat\n{\nv=12\nhop=1\nuid=FF001500\nclass=xap-hbeat.alive\n}\n",
                           "hello\nclass=x\n}\nA\n{\nk=v\n}\n"}) {
    XapMessage m;
    m.FromXap(text);
    EXPECT_EQ(Header(m), "Unknown|Unknown|Unknown|Unknown") << text;
    EXPECT_EQ(m.msgSection(), Names{""});
    EXPECT_EQ(m.msgCollection(0), nullptr);
  }
  XapMessage m;
  m.FromXap("junk xap-header junk\nclass=Skipped\nclass=First\nv=99\nCLASS = Second\nsource=a.b\n}\n");
  EXPECT_EQ(Header(m), "Unknown|Second|a.b|Unknown");
}

TEST(XapMessageParse, OnlyABareBraceEndsABlockAndNamesAreLowerCasedNotTrimmed) {
  XapMessage m;
  m.FromXap("xap-header\n{\nclass=c\n}\n A\n{\nk=1\n} \n}\r\nj=2\n}\nB\n{\nx=\r\n}\n");
  EXPECT_EQ(m.msgSection(), (Names{" a", "b"}));
  EXPECT_EQ(m.GetItem(" A", "j") + m.GetItem("a", "j"), "2Unknown");
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

TEST(XapMessageFailures, MalformedTextsKeepWhatWasReadAndLogOncePerText) {
  test::RecordingReporter log;
  XapMessage m(&log);
  m.FromXap("xap-header\n{\nclass=c\n}\nA\n{\nk=1\n}");  // the final brace has no line feed
  EXPECT_EQ(m.msgClass + "|" + m.GetItem("a", "k"), "c|1");
  EXPECT_EQ(m.msgCollection(1), nullptr);
  // Duplicate blocks and keys: the first wins, the second block is still there by position.
  XapMessage dup(&log);
  dup.FromXap("xap-header\n{\n}\nA\n{\nk=1\n K =2\n}\na\n{\nk=3\n}\nB\n{\nk=4\n}\n");
  EXPECT_EQ(dup.GetItem("a", "k") + dup.GetItem("b", "k"), "14");
  EXPECT_EQ(dup.msgSection(), (Names{"a", "b"}));
  ASSERT_NE(dup.msgCollection(1), nullptr);
  EXPECT_EQ(*dup.msgCollection(1)->Find("k"), "k=3");
  std::string logged;
  for (const auto& c : log.calls)
    logged += c.module + "|" + c.text + "|" + std::to_string(c.err.Number) + (c.event ? " event;" : ";");
  EXPECT_EQ(logged, "tavrel|From XAP|9;tavrel|From XAP|457;");
  XapMessage quiet;
  EXPECT_NO_THROW(quiet.FromXap("xap-header\n{\n}\nA\n{\nk=1\nk=2\n}\nA\n{\n}"));
  EXPECT_EQ(quiet.GetItem("a", "k"), "1");
}

TEST(XapMessageCompare, AddressWildcardsOnEitherSideAndTheHeaderFields) {
  // clang-format off
  const struct { const char *a, *b; bool match; } cases[] = {
      {"a.b.c", "A.*.C", true}, {"a.>", "a.b.c", true}, {">", "x", true}, {"a..b", "a.*.b", true},
      {"a.", "a.>", true}, {"*.*.pc7", "zel.wol.PC7", true}, {"x.y.z:a", "x.y.*", true},
      {"a.b", "a.b.c", false}, {"", "*", false}, {"a.*", "a.b.c", false}, {"a.>", "a", false},
      {"a.b", "a.c", false}, {"x.y.z:a", "x.y.z", false}};
  // clang-format on
  XapMessage m;
  for (const auto& c : cases) {
    EXPECT_EQ(m.CompareAddress(c.a, c.b), c.match) << c.a << " vs " << c.b;
    EXPECT_EQ(m.CompareAddress(c.b, c.a), c.match) << c.b << " vs " << c.a;
  }
  EXPECT_TRUE(m.CompareTarget("unknown"));  // without a target: the address "Unknown"
  m.FromXap(kQuery);
  EXPECT_TRUE(m.CompareClass("computer.PROCESS") && !m.CompareClass("*"));  // a class is no address
  EXPECT_TRUE(m.CompareSource("zel.agent.*"));
  EXPECT_FALSE(m.CompareSource("zel.wol.host"));
  EXPECT_TRUE(m.CompareTarget("*.WOL.>"));
}

}  // namespace
}  // namespace tavrel
