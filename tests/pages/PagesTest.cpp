#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "Version.h"
#include "core/Text.h"
#include "http/TestSink.h"
#include "pages/JsonApi.h"
#include "pages/PageText.h"
#include "pages/RemoteASP.h"
#include "pages/StaticFiles.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// A golden page with the program's version put in.
std::string Golden(const std::string& name) {
  std::string text = test::ReadFile(fs::path(TAVREL_PAGES_GOLDEN) / name);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return Replace(text, "@VERSION@", kVersionText);
}

class PageTest : public ::testing::Test {
 protected:
  PageTest() {
    PageActions actions;
    actions.SendWOL = [this](const std::string& mac, const std::string& ip) {
      return calls.push_back("WOL " + mac + " " + ip), true;
    };
    actions.SendComputerControl = [this](const std::string& name, const std::string& action) {
      calls.push_back(action + " " + name);
    };
    actions.QueryLAN = [this] { calls.push_back("QueryLAN"); };
    actions.ProcessExists = [this] { return scanning; };
    actions.LocalIP = [] { return std::string("198.51.100.20"); };
    api = std::make_unique<JsonApi>(computers, clock, actions);
    page = std::make_unique<RemoteASP>(PageContext{computers, hs, clock, reporter, actions});
  }

  // A computer as the page names it, heard of at seen (never when empty).
  void AddComputer(const std::string& name, const std::string& ip, const std::string& seen = "") {
    ComputerRegistry::Edits edits;
    computers.Rename("", name, ip, edits);
    DateTime at;
    if (!ParseDateTime(seen, at)) return;
    const DateTime now = clock.Now();
    clock.Set(at);
    computers.Learn(name);
    clock.Set(now);
  }
  std::string Serve(const std::string& text, const std::string& agent = "Mozilla/5.0") {
    Request request;
    request.ParsePage(text.substr(0, text.find("\r\n")) + "\r\nHost: tavrel:8019\r\nUser-Agent: " + agent +
                      text.substr(text.find("\r\n")));
    Response response(sink, {home.Path() / "HTML", clock, reporter, nullptr});
    return page->RemotePage(request, response);
  }
  // The whole answer of the JSON interface to "METHOD TARGET" (then any header lines) and a body.
  std::string Api(const std::string& request, const std::string& body = "") {
    const size_t end = request.find("\r\n");
    Request parsed;
    parsed.ParsePage(request.substr(0, end) + " HTTP/1.1\r\nHost: tavrel:8019" +
                     (end == std::string::npos ? "" : request.substr(end)) + "\r\n\r\n" + body);
    test::TestSink out;
    Response response(out, {home.Path() / "HTML", clock, reporter, nullptr});
    api->ServeApi(parsed, response);
    return out.sent;
  }
  std::string Get(const std::string& agent = "Mozilla/5.0") {
    return Serve("GET /wol HTTP/1.1\r\n\r\n", agent);
  }
  std::string Post(const std::string& fields) {
    return Serve("POST /wol HTTP/1.1\r\n\r\nclientinput=yes&" + fields);
  }
  std::string Ini(const std::string& section, const std::string& key) {
    return hs.GetINISetting(section, key, "-", kIniFile);
  }
  // The IP cells of the rendered rows, in order.
  static Lines RowIps(const std::string& html) {
    static const std::regex ip("align=\"Left\" >([0-9.]+)</td>");
    Lines ips;
    for (std::sregex_iterator it(html.begin(), html.end(), ip), end; it != end; ++it) ips.push_back((*it)[1]);
    return ips;
  }

  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  ManualClock clock{MakeDateTime(2026, 11, 22, 10, 30, 0)};
  ComputerRegistry computers{hs, clock};
  test::TestSink sink;
  Lines calls;
  bool scanning = false;
  std::unique_ptr<RemoteASP> page;
  std::unique_ptr<JsonApi> api;
};

// Green up to 15 calendar minutes, red from 16, yellow never seen; a MAC only for addresses in the ARP
// cache; ARP-only rows after the named ones, except an address that begins a shown one.
TEST_F(PageTest, WholePagesAreByteExact) {
  AddComputer("pc1", "198.51.100.10", "2026-11-22 10:15:00");
  AddComputer("Jo's <PC>", "198.51.100.11", "2026-11-22 10:14:59");
  AddComputer("nas", "198.51.100.12");
  AddComputer("old", "198.51.100.13", "2026-11-20 09:29:59");
  computers.MergeArp({{"198.51.100.10", "00-11-22-33-44-55"},
                      {"198.51.100.1", "00-11-22-33-44-01"},
                      {"203.0.113.7", "AA-BB-CC-DD-EE-FF"}});
  EXPECT_EQ(Get(), Golden("table.html"));

  hs.SaveIniSettings("WOL", {{"Sort", "IP"}, {"SortDir", "DESC"}, {"Subnet", "198.51.100,203.0.113"}},
                     kIniFile);
  ComputerRegistry::Edits edits;
  for (const char* name : {"Jo's <PC>", "nas", "old"}) computers.Rename(name, "", "", edits);
  scanning = true;
  EXPECT_EQ(Get("Mozilla/4.0 (QNX)"), Golden("touch.html"));
  EXPECT_EQ(FormatAge(-5), " 23:59:55");  // a clock set back gives the time before midnight
  // A listed address named by the Host header, or "Audrey" in the agent (case matters), is a touch screen.
  for (const auto& [ips, agent, touch] :
       {std::tuple<const char*, const char*, bool>{"203.0.113.5,tavrel", "Mozilla/5.0", true},
        {"203.0.113.5", "Audrey/2", true},
        {"203.0.113.5", "qnx audrey", false}}) {
    hs.SaveIniSetting("Settings", "touchscreenips", ips, kIniFile);
    Get(agent);
    EXPECT_EQ(page->TouchscreenClient(), touch) << agent;
  }
  // With presence sweeps an address known only by its MAC has a light too, green while it answers; a
  // computer heard of long ago is green again once its address answers.
  computers.SetPresenceRule({true, std::chrono::seconds(60)});
  computers.MergeArp({{"203.0.113.7", "AA-BB-CC-DD-EE-FF"}, {"198.51.100.10", "00-11-22-33-44-55"}});
  const auto light = [&](const std::string& ip) {
    const std::string page = Get();
    const size_t img = page.find("led-", page.rfind("<tr>", page.find(">" + ip + "<")));
    return page.substr(img, page.find("</td>", img) - img);
  };
  clock.Advance(std::chrono::seconds(60));
  EXPECT_EQ(light("203.0.113.7") + light("198.51.100.10"),
            "led-Green.gif'>&nbsp; 0:01:00led-Green.gif'>&nbsp; 0:01:00");
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(light("203.0.113.7"), "led-Red.gif'>&nbsp; 0:01:01");
  EXPECT_TRUE(reporter.calls.empty());
}

// The table as the JSON interface gives it: the registry's rows in order, times in UTC (this machine one
// hour east of it here), seen by what, and whether a scan runs. A name that is not UTF-8 gets U+FFFD.
TEST_F(PageTest, JsonTableIsByteExact) {
  test::TimeZone zone("CET-1");
  computers.SetPresenceRule({true, std::chrono::seconds(180)});
  AddComputer("pc1", "198.51.100.10", "2026-11-22 10:15:00");
  AddComputer("Jo's \"PC\"\xe9", "198.51.100.11", "2026-11-22 10:14:00");
  AddComputer("nas", "198.51.100.12");
  clock.Set(MakeDateTime(2026, 11, 22, 10, 20));
  computers.MergeArp({{"198.51.100.12", "00-11-22-33-44-12"}, {"203.0.113.7", "AA-BB-CC-DD-EE-FF"}});
  clock.Set(MakeDateTime(2026, 11, 22, 10, 27));
  computers.MergeArp({{"198.51.100.10", "00-11-22-33-44-55"}, {"198.51.100.5", "00-11-22-33-44-05"}});
  clock.Set(MakeDateTime(2026, 11, 22, 10, 30));
  // A table that changes, or a scan that starts, within the second gets a new document.
  const std::string before = Api("GET /api/computers");
  computers.Learn("laptop");
  EXPECT_NE(Api("GET /api/computers").find("laptop"), std::string::npos);
  scanning = true;
  const std::string body = Golden("computers.json") + "\n";
  EXPECT_EQ(Api("GET /api/computers"),
            "HTTP/1.1 200 OK\r\nServer: zel\r\nDate: 22-Nov-26\r\nConnection: close\r\n"
            "Content-Type: application/json\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(before.find("laptop"), std::string::npos);
  EXPECT_TRUE(calls.empty());
}

// Each action and each way of asking wrongly: the status line and the document, and what was done. A
// request is its first line, then any header lines.
TEST_F(PageTest, JsonActionsAndRefusals) {
  AddComputer("pc1", "198.51.100.10");
  AddComputer("nas", "198.51.100.12");
  computers.MergeArp({{"198.51.100.10", "00-11-22-33-44-55"}, {"203.0.113.7", "AA-BB-CC-DD-EE-FF"}});
  const std::string wake = R"(202 Accepted {"computer":"pc1","ip":"198.51.100.10","action":"wake",)"
                           R"("mac":"00-11-22-33-44-55","broadcast":"198.51.100.255","port":7})";
  const std::string woke = "WOL 00-11-22-33-44-55 198.51.100.10";
  const auto bad = [](const std::string& error) { return "400 Bad Request {\"error\":\"" + error + "\"}"; };
  const std::string how = R"(: give ?computer=NAME or the body {\"computer\":\"NAME\"}: a name, an IP )"
                          R"(address or a MAC address)";
  const struct {
    std::string request, body, answer, done = {};
  } cases[] = {
      {"POST /api/wake?a=b&computer=PC1", "", wake, woke},
      // The query and the body may both name it; other fields of the body are left alone.
      {"POST /api/wake?computer=198.51.100.10", R"({"computer":"198.51.100.10","x":[1]})", wake, woke},
      {"POST /api/wake\r\nContent-Type: application/json", R"({"computer":"aabb.ccdd.eeff"})",
       R"(202 Accepted {"computer":null,"ip":"203.0.113.7","action":"wake","mac":"AA-BB-CC-DD-EE-FF",)"
       R"("broadcast":"203.0.113.255","port":7})",
       "WOL AA-BB-CC-DD-EE-FF 203.0.113.7"},
      {"POST /api/reboot?computer=nas", "",
       R"(202 Accepted {"computer":"nas","ip":"198.51.100.12","action":"reboot","via":"xap"})", "Reboot nas"},
      {"POST /api/shutdown\r\nContent-Length: 19", "{\"computer\":\"pc1\"}\r\nmore",
       R"(202 Accepted {"computer":"pc1","ip":"198.51.100.10","action":"shutdown","via":"xap"})",
       "Shutdown pc1"},
      {"POST /api/scan", "", R"(202 Accepted {"action":"scan"})", "QueryLAN"},
      {"POST /api/wake?computer=nas", "",
       R"(409 Conflict {"error":"no MAC address is known for \"nas\": a sweep learns it while the computer )"
       R"(is on"})"},
      {"POST /api/shutdown?computer=aa-bb-cc-dd-ee-ff", "",
       R"(409 Conflict {"error":"203.0.113.7 has no name: shutdown goes to the xAP agent of a computer by )"
       R"(its name"})"},
      {"POST /api/wake?computer=pc9", "",
       R"(404 Not Found {"error":"no computer \"pc9\": no name, IP address or MAC address in the table"})"},
      {"POST /api/wake", "", bad("no computer named" + how)},
      {"POST /api/wake?computer=", "", bad(R"(\"computer\" is empty)" + how)},
      {"POST /api/wake", "computer=pc1", bad("the body is not JSON: it goes wrong at byte 1")},
      {"POST /api/wake", R"({"computer":1E99999})", bad("the body holds a number out of range")},
      {"POST /api/wake", R"(["pc1"])",
       bad(R"(the body is not a JSON object such as {\"computer\":\"pc1\"})")},
      {"POST /api/wake", R"({"computer":["pc1"]})", bad(R"(\"computer\" is not a string but array)")},
      {"POST /api/wake", R"({"computer":"pc1\u0000"})", bad(R"(\"computer\" holds a control character)")},
      {"POST /api/wake?computer=" + std::string(64, 'a'), "", bad(R"(\"computer\" is longer than 63 bytes)")},
      {"POST /api/wake", std::string(5000, ' '), bad("the body is longer than 4096 bytes")},
      {"POST /api/wake\r\nContent-Length: 9999999", "{}", bad("the body is longer than 4096 bytes")},
      {"POST /api/wake\r\nContent-Length: 40", R"({"computer":"pc1"})",
       bad("the body came with 18 of the 40 bytes its Content-Length announces")},
      {"POST /api/wake\r\nContent-Length: -1", "", bad(R"(Content-Length \"-1\" is not a number)")},
      {"POST /api/wake", std::string(2000, '[') + std::string(2000, ']'),
       bad("the body nests deeper than 4 levels")},
      {"POST /api/wake?computer=pc1", R"({"computer":"nas"})",
       bad("the query and the body name different computers")},
      {"GET /api/wake?computer=pc1", "", R"(405 Method Not Allowed {"error":"/api/wake takes POST"})"},
      {"DELETE /api/computers", "", R"(405 Method Not Allowed {"error":"/api/computers takes GET"})"},
      {"GET /api/Computer", "", R"(404 Not Found {"error":"no such path: /api/Computer"})"},
  };
  for (const auto& c : cases) {
    calls.clear();
    const std::string answer = Api(c.request, c.body);
    const size_t bodyAt = answer.find("\r\n\r\n");
    EXPECT_EQ(answer.substr(9, answer.find("\r\n") - 9) + " " + answer.substr(bodyAt + 4), c.answer + "\n")
        << c.request << " " << c.body.substr(0, 40);
    EXPECT_EQ(calls, c.done.empty() ? Lines{} : Lines{c.done}) << c.request;
    EXPECT_EQ(answer.find("\r\nAllow: ") != std::string::npos, c.answer.starts_with("405")) << c.request;
  }
  scanning = true;
  EXPECT_TRUE(Api("POST /api/scan").ends_with("\r\n\r\n{\"error\":\"a scan is running\"}\n"));
  EXPECT_TRUE(reporter.calls.empty());
}

// Each column in both directions (addresses by number) is clicked through in the browser test; here the key
// order and the fall-back of a setting that names no column.
TEST_F(PageTest, RowsFollowTheSortSettingsAndABadSettingFallsBackToName) {
  AddComputer("b", "198.51.100.100");
  AddComputer("A", "198.51.100.9");
  AddComputer("c", "198.51.100.10");
  const std::tuple<const char*, const char*, Lines, std::string> cases[] = {
      {"Key", "DESC", {"198.51.100.10", "198.51.100.9", "198.51.100.100"}, "Key"},
      {"MAC", "UP", {"198.51.100.9", "198.51.100.100", "198.51.100.10"}, "Name"}};
  for (const auto& [sort, dir, ips, sortAfter] : cases) {
    hs.SaveIniSettings("WOL", {{"Sort", sort}, {"SortDir", dir}}, kIniFile);
    EXPECT_EQ(RowIps(Get()), ips) << sort << " " << dir;
    EXPECT_EQ(Ini("WOL", "Sort"), sortAfter) << sort;
  }
}

// A fresh home gets the images and the style sheet (served end to end); files already there stay.
TEST_F(PageTest, StaticFilesAreWrittenOnceWhenMissing) {
  test::WriteFile(home.Path() / "led-Red.gif", "mine");
  WriteStaticFiles(home.Path(), reporter);
  EXPECT_EQ(test::ReadFile(home.Path() / "led-Red.gif"), "mine");
  EXPECT_TRUE(reporter.calls.empty() && std::filesystem::exists(home.Path() / "led-Green.gif"));
}

// Every post stores the subnets (the sort clicks are pressed in the browser test); a refused list is
// named on the page and leaves the stored one.
TEST_F(PageTest, SubnetsAreStoredByEveryPostAndSortClicksDoNothingElse) {
  AddComputer("pc1", "198.51.100.10");
  Get();
  for (const char* fields :
       {"subnet=198.51.100%2C203.0.113&R=R&R0=1", "subnet=198.51.100%2C203.0.113&MAC=MAC",
        "subnet=198.51.100.0%2F24%2C+203.0.113.0+%2C&IP=IP&Save=Save&Name0="}) {
    Post(fields);
    EXPECT_EQ(Ini("WOL", "Subnet"), "198.51.100,203.0.113") << fields;
  }
  EXPECT_EQ(Ini("WOL", "Sort") + Ini("WOL", "SortDir"), "IP-");  // the direction turns only on a second click
  // Entries in no form people type are left out and named on the page; the rest is stored.
  const std::string refused = Post("subnet=+198.51.100+%2C203.0.113;reboot%2C1.2.3<b>%2C10.0.0.0/16");
  EXPECT_NE(refused.find("Subnets left out: &quot;203.0.113;reboot&quot;, &quot;1.2.3&lt;b&gt;&quot;, "
                         "&quot;10.0.0.0/16&quot;."),
            std::string::npos);
  EXPECT_EQ(Ini("WOL", "Subnet"), "198.51.100");
  EXPECT_TRUE(computers.Count() == 1 && calls.empty());
  Post("subnet=198.51.100&QueryLAN=Query+LAN&WOL0=WOL");
  EXPECT_EQ(calls, Lines{"QueryLAN"});
}

// Renames and removals are made in the browser test; here several buttons in one post.
TEST_F(PageTest, RowActionsActRowByRowInTheShownOrderAndSaveWakesNothing) {
  AddComputer("pc1", "198.51.100.10", "2026-11-22 10:29:00");
  AddComputer("nas", "198.51.100.12");
  computers.MergeArp({{"198.51.100.10", "00-11-22-33-44-55"}, {"203.0.113.7", "AA-BB-CC-DD-EE-FF"}});
  Get();  // keys: pc1 0, nas 1, the ARP-only row 2; shown by name: 2, 1, 0
  Post("subnet=&WOL0=WOL&Reboot1=Reboot&Shutdown0=Shutdown&WOL2=WOL&R0=1");
  Post("subnet=&Save=Save&WOL0=WOL&Name0=pc1&Name1=nas&Name2=");
  EXPECT_EQ(calls, (Lines{"WOL AA-BB-CC-DD-EE-FF 203.0.113.7", "Reboot nas", "Shutdown pc1",
                          "WOL 00-11-22-33-44-55 198.51.100.10"}));
  EXPECT_EQ(computers.Rows().size(), 3u);
  EXPECT_TRUE(reporter.calls.empty());
}

// The names come back from the browser percent-encoded whole; a Save with renames and a removal writes
// the settings file once. A name the registry refuses gets a word on the page; a stored one is shown
// escaped.
TEST_F(PageTest, SaveKeepsNamesTheBrowserEncodesNamesRefusalsAndWritesTheFileOnce) {
  AddComputer("JO'S PC", "198.51.100.10");
  AddComputer("A&B (1)/X@Y\xe9", "198.51.100.11");
  AddComputer("PC3", "198.51.100.12");
  AddComputer("PC4", "198.51.100.13");
  const std::string before =
      "[Computer]\r\nJO'S PC=198.51.100.10\r\nA&B (1)/X@Y\xe9=198.51.100.11\r\n"
      "PC3=198.51.100.12\r\nPC4=198.51.100.13\r\n";
  test::WriteFile(hs.FilePath(kIniFile), before);
  Get();
  const std::string html =
      Post("subnet=&Save=Save&Name0=JO%27S+PC&Name1=a%26b+%281%29%2Fx%40y%E9&R1=1&Name2=%3Cb%3Ex&Name3=pc~1");
  EXPECT_NE(html.find("Not renamed: &quot;PC~1&quot; cannot be stored as a computer name"),
            std::string::npos);
  EXPECT_EQ(FindNoCase(html, "<b>x"), std::string::npos);
  EXPECT_NE(html.find("value='&lt;B&gt;X'"), std::string::npos);
  EXPECT_EQ(hs.GetINISection("Computer", kIniFile),
            std::string("<B>X=198.51.100.12\0JO'S PC=198.51.100.10\0PC4=198.51.100.13", 58));
  EXPECT_EQ(test::ReadFile(hs.FilePath(kIniFile).string() + "_bck"), before);
}

// A post before any rendering, or one naming a computer that has gone meanwhile, is reported and
// leaves the sections as they are; the page is still served.
TEST_F(PageTest, FailedActionsAreReportedAndThePageStillServed) {
  AddComputer("pc1", "198.51.100.10");
  EXPECT_NE(Post("subnet=&Save=Save&Name0=pc2"), "");
  Get();
  ComputerRegistry::Edits edits;
  computers.Remove("pc1", "", edits);
  Post("subnet=&Save=Save&Name0=pc2&R0=1");
  EXPECT_EQ(reporter.calls.size(), 2u);
  EXPECT_EQ(hs.GetINISection("Computer", kIniFile), "=");
}

}  // namespace
}  // namespace tavrel
