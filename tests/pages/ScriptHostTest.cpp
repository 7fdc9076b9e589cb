// The script page host with a stand-in control: the code pages become and the routines the page runs.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Text.h"
#include "http/StaticFile.h"
#include "http/TestSink.h"
#include "pages/HTMLIncludes.h"
#include "pages/RemoteASP.h"

namespace tavrel {
namespace {

namespace fs = std::filesystem;
using platform::ScriptError;
using platform::ScriptObject;
using platform::ScriptValue;
using ::testing::ElementsAre;
using Lines = std::vector<std::string>;

std::string Show(const ScriptValue& value) {
  if (const auto* list = std::get_if<std::vector<std::string>>(&value)) return "[" + Join(*list, ",") + "]";
  if (const auto* object = std::get_if<std::shared_ptr<ScriptObject>>(&value))
    return *object && (*object)->Members()[0] == "Form" ? "Request" : "Response";
  return ScriptText(value);
}

// Records what the host hands it; routines answer from a table, "fail" names one that raises an error.
class FakeControl final : public platform::ScriptControl {
 public:
  explicit FakeControl(Lines& log) : log_(log) {}
  void AddObject(const std::string& name, std::shared_ptr<ScriptObject>, bool global) override {
    log_.push_back("object " + name + (global ? " global" : ""));
  }
  void AddCode(const std::string& code) override {
    if (code.find("syntax!") != std::string::npos) throw ScriptError(1002, "Syntax error");
    log_.push_back("code " + code);
  }
  ScriptValue Run(const std::string& routine, const std::vector<ScriptValue>& args) override {
    std::string call = routine + "(";
    for (size_t i = 0; i < args.size(); ++i) call += (i ? "," : "") + Show(args[i]);
    log_.push_back(call + ")");
    if (routine == fail) throw ScriptError(5, "Invalid procedure call or argument");
    if (routine == "setObjects")
      request = std::get<std::shared_ptr<ScriptObject>>(args[0]),
      response = std::get<std::shared_ptr<ScriptObject>>(args[1]);
    // A framework that turns the visitor away answers through Response.Send, twice if it likes.
    if (routine == answerIn) response->Call(0, {"Blocked"}), response->Call(0, {"Blocked again"});
    if (routine == "startheaderasp") return touchscreen;
    if (routine == "FormatCell") return "<td>" + std::get<std::string>(args[0]) + "</td>";
    if (routine == "CustomHeader") return std::string("<head from script><body>");
    if (routine == "CustomFooter") return std::string("<footer from script>");
    return {};
  }
  std::shared_ptr<ScriptObject> request, response;
  std::string answerIn, fail;
  ScriptValue touchscreen = std::string("0");

 private:
  Lines& log_;
};

using Sink = test::TestSink;

class ScriptHostTest : public ::testing::Test {
 protected:
  ScriptHostTest() {
    fs::create_directories(home.Path() / "HTML" / "includes");
    fs::create_directories(home.Path() / "Scripts");
  }
  void Write(const std::string& file, const std::string& text) { test::WriteFile(home.Path() / file, text); }
  Lines Events() {
    Lines texts;
    for (const auto& call : reporter.calls) texts.push_back((call.event ? "event " : "log ") + call.text);
    reporter.calls.clear();
    return texts;
  }

  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  Lines log;
  int created = 0;
  FakeControl* control = nullptr;
  HTMLIncludes host{home.Path(), hs, reporter, [this](const std::string& language, long timeout) {
                      ++created;
                      log.push_back("create " + language + " " + std::to_string(timeout));
                      auto made = std::make_unique<FakeControl>(log);
                      control = made.get();
                      return made;
                    }};
};

TEST_F(ScriptHostTest, PagesBecomeCodeWithTheirIncludesFirst) {
  Write("HTML/includes/style.asp",
        "<%\r\nDim a\r\n%>\r\n<!-- #include file=\"../Scripts/x.vbs\" -->\r\n"
        "<% RESPONSE.WRITE \"s\" : response.write(1) %>\r\n");
  Write("Scripts/x.vbs", "' #INCLUDE file=\"../scripts/y.vbs\"\r\nSub X()\r\nEnd Sub\r\n<% kept %>");
  Write("Scripts/y.vbs", "Sub Y()\r\nEnd Sub\r\n");
  Write("HTML/includes/misc_functions.asp",
        "<!--#include virtual=\" /includes/nested.asp \"-->\r\n<!--#include file=\"missing.asp\"-->misc");
  Write("HTML/includes/nested.asp", "<!--#include file=\"includes\\misc_functions.asp\"-->nested");
  Write("HTML/includes/header.asp",
        "<!--#include file=\"../../Config/tavrel.ini\"-->"
        "<!--#include file=\"..\\Scripts\\..\\..\\Config\\tavrel.ini\"-->header<!--#include file=\"unclosed");
  Write("HTML/includes/menu_functions.asp", "syntax!");
  Write("Config/tavrel.ini", "[WOL]\r\nScriptTimeout=2500\r\n");

  host.HTMLInit();
  host.HTMLBuild();
  EXPECT_TRUE(host.ScriptInitialised());
  EXPECT_THAT(
      log,
      ElementsAre(
          "create VBScript 2500", "object hs global",
          "code Dim Request, Response\r\nsub setObjects(pRequest,pResponse)\r\nSet Request = pRequest\r\n"
          "Set Response = pResponse\r\nEnd sub\r\n",
          "code Sub Y()\r\nEnd Sub\r\n", "code ' \r\nSub X()\r\nEnd Sub\r\n<% kept %>",
          "code \r\nDim a\r\n\r\n'  -->\r\n fsg.Add \"s\" : fsg.Add(1) \r\n", "code '-->nested",
          "code '-->\r\n'-->misc", "code '-->'-->header'#include file=\"unclosed"));
  // The cycle and the two refused includes are logged; the page that does not compile is an event.
  ASSERT_EQ(reporter.calls.size(), 4u);
  EXPECT_TRUE(reporter.calls[3].event && !reporter.calls[0].event);
}

// What a script sees of a member's result: text as it stands, dates as the log writes them, a record's
// members joined by "|", a collection's items in braces, a failure as its error number.
std::string Seen(const ScriptValue& value) {
  if (const auto* date = std::get_if<platform::ScriptDate>(&value))
    return "date " + FormatDateTime(date->time);
  const auto* object = std::get_if<std::shared_ptr<ScriptObject>>(&value);
  if (!object) return ScriptText(value);
  Lines parts;
  if (const auto items = (*object)->Items()) {
    for (const ScriptValue& item : *items) parts.push_back(Seen(item));
    return "{" + Join(parts, ",") + "}";
  }
  for (size_t i = 0; i < (*object)->Members().size(); ++i) parts.push_back(Seen((*object)->Call(i, {})));
  return Join(parts, "|");
}

// Calls a member by name; "FormCol.Item" calls Item on what FormCol returns ("HeaderCol." its default).
std::string CallMember(ScriptObject& object, const std::string& name, const Lines& args) {
  try {
    const size_t dot = name.find('.');
    const std::string first = name.substr(0, dot);
    const auto& members = object.Members();
    const size_t index = std::find(members.begin(), members.end(), first) - members.begin();
    if (index == members.size()) return "no member " + first;
    if (dot == std::string::npos) return Seen(object.Call(index, args));
    return CallMember(*std::get<std::shared_ptr<ScriptObject>>(object.Call(index, {})), name.substr(dot + 1),
                      args);
  } catch (const ScriptError& e) {
    return "error " + std::to_string(e.number);
  }
}

struct MemberCase {
  std::string member;
  Lines args;
  std::string seen;
};

// hs over the Config folder: nothing outside it is read, written or created, whatever name a script uses.
TEST_F(ScriptHostTest, HsReadsAndWritesOnlyFilesOfTheConfigFolder) {
  HsObject object(hs);
  // No file means settings.ini; an empty section lists one empty key.
  // clang-format off
  const std::vector<MemberCase> cases{
      {"GetINISetting", {"S", "k", "dflt", "other.ini"}, "dflt"}, {"SaveIniSetting", {"S", "a", "1", ""}, ""},
      {"SaveIniSetting", {"S", "b", "2", "settings.ini"}, ""}, {"GetINISetting", {"S", "b", "-"}, "2"},
      {"GetINISection", {"S", "settings.ini"}, std::string("A=1\0B=2", 7)},
      {"ClearINISection", {"S", ""}, ""}, {"GetINISection", {"S", "settings.ini"}, "="}, {"", {}, ""},
      {"GetINISetting", {"S", "k"}, "error 450"}};
  // clang-format on
  for (const MemberCase& c : cases) EXPECT_EQ(CallMember(object, c.member, c.args), c.seen) << c.member;
  for (const char* plain : {"console.ini", "COM10.ini", "x..ini", ".hidden", "Con1.ini"})
    EXPECT_EQ(CallMember(object, "GetINISetting", {"S", "k", "ok", plain}), "ok") << plain;

  Lines hostile{"../tavrel.ini", "..\\tavrel.ini", "C:x.ini",  "x.ini.",  "x.ini ", "a\tb.ini",
                "a\x7F",         "Com1.ini",       "AUX .txt", "COM\xB9", "a<b"};
  hostile.insert(hostile.end(), {std::string("a\0b", 3), std::string(256, 'a')});
  for (const std::string& name : hostile) {
    const std::vector<std::pair<std::string, Lines>> calls{{"GetINISetting", {"S", "k", "d", name}},
                                                           {"SaveIniSetting", {"S", "k", "v", name}},
                                                           {"GetINISection", {"S", name}},
                                                           {"ClearINISection", {"S", name}}};
    for (const auto& [member, args] : calls)
      EXPECT_EQ(CallMember(object, member, args), "error 52") << member << " " << name;
  }
  Lines written;
  for (const auto& entry : fs::recursive_directory_iterator(home.Path()))
    if (entry.is_regular_file()) written.push_back(fs::relative(entry.path(), home.Path()).generic_string());
  std::sort(written.begin(), written.end());
  EXPECT_EQ(written, (Lines{"Config/settings.ini", "Config/settings.ini_bck"}));

  // Sunrise and sunset as heard on the network, as dates when they read as one.
  hs.SetSunrise("07:12:30 pm");
  hs.SetSunset("12:05AM");
  EXPECT_EQ(CallMember(object, "Sunrise", {}) + "/" + CallMember(object, "Sunset", {}),
            "date 1899-12-30 19:12:30/date 1899-12-30 00:05:00");
  hs.SetSunrise("Unknown");
  EXPECT_EQ(CallMember(object, "Sunrise", {}), "Unknown");
}

// The request's members, and the answers the response's members send: byte for byte those of the
// server's own routes, one per request.
TEST_F(ScriptHostTest, RequestAndResponseMembersAnswerAsTheServerDoes) {
  Request request;
  request.ParsePage(
      "POST /wol?q=1&Q=2&r=%5Bx%5D HTTP/1.1\r\nHost: tavrel:8019\r\nUser-Agent: UA\r\n\r\nname=x+y&b=%41");
  request.SetRemoteIp("198.51.100.9");
  RequestObject scriptRequest(request);
  // clang-format off
  const std::vector<MemberCase> asked{
      {"Form", {"NAME"}, "x y"}, {"QueryString", {"q"}, "1"}, {"ServerVariables", {"remote_addr"}, "tavrel"},
      {"page", {}, "/wol"}, {"Method", {}, "POSTx"}, {"HeaderCol", {}, "{tavrel:8019,UA}"},
      {"header", {}, "HTTP/1.1\r\nHost: tavrel:8019\r\nUser-Agent: UA"}, {"remoteip", {}, "198.51.100.9"},
      {"FormCol", {}, "{name|x y,b|A}"}, {"QueryStringCol", {}, "{q|1,r|[x]}"}, {"FormCol.Count", {}, "2"},
      {"FormCol.Item", {"NAME"}, "name|x y"}, {"FormCol.", {"2"}, "b|A"},
      {"QueryStringCol.Item", {"3"}, "error 5"}, {"Decode", {"a+b%3A%3a%41"}, "a b'/A"},
      {"AddPostData", {"c=%41"}, ""}, {"Form", {"c"}, "A"}, {"Form", {}, "error 450"}};
  // clang-format on
  for (const MemberCase& c : asked)
    EXPECT_EQ(CallMember(scriptRequest, c.member, c.args), c.seen) << c.member;

  // Each member answers as the call the server's own routes make; those answers' bytes are the HTTP tests'.
  Write("HTML/style.css", "b{}");
  Write("HTML/img/a.gif", "GIF89");
  const std::string refused = "<HTML>Unauthorized Access<HTML>";
  const std::vector<std::tuple<std::string, Lines, std::function<void(Response&)>>> sent{
      {"Send", {"<p>"}, [](Response& r) { r.SendTextString("<p>"); }},
      {"SendTextString", {"<p>", "3"}, [](Response& r) { r.SendTextString("<p>"); }},
      {"Redirect", {"/elsewhere"}, [&](Response& r) { r.SendTextString(refused); }},
      {"SendTextFile", {"/Style.CSS", "3"}, [](Response& r) { r.SendTextFile("\\style.css"); }},
      {"SendErrorResponse", {"3"}, [](Response& r) { r.SendErrorResponse(); }},
      {"SendBinaryFile", {"img/A.GIF", " 3"}, [](Response& r) { r.SendBinaryFile("img\\a.gif"); }},
      {"RedirectToHS", {"hs:81", "", "3"}, [&](Response& r) { r.RedirectToHS("hs:81", request); }},
  };
  ManualClock clock{MakeDateTime(2026, 11, 23, 9, 0, 0)};
  for (const auto& [member, args, direct] : sent) {
    Sink sink, server;
    Response response(sink, {home.Path() / "HTML", clock, reporter, nullptr});
    Response expected(server, {home.Path() / "HTML", clock, reporter, nullptr});
    ResponseObject scriptResponse(response, request);
    CallMember(scriptResponse, member, args);
    direct(expected);
    EXPECT_EQ(sink.sent, server.sent) << member;
    EXPECT_TRUE(server.sent.starts_with("HTTP/1.")) << member;
    // Whatever a script sends after the answer sends nothing.
    for (const auto& [again, againArgs, unused] : sent) CallMember(scriptResponse, again, againArgs);
    EXPECT_EQ(sink.sent, server.sent) << member;
  }
  // The rest answer the script only, and a wrong socket or arity is an error.
  Sink sink;
  Response response(sink, {home.Path() / "HTML", clock, reporter, nullptr});
  ResponseObject scriptResponse(response, request);
  // clang-format off
  const std::vector<MemberCase> rest{
      {"GetContentType", {"a.php"}, "text/html|text/html|True|True"}, {"index", {}, "3"},
      {"SendTextString", {"x", "4"}, "error 5"}, {"SendBinaryFile", {"/img/a.gif", "three"}, "error 13"},
      {"RedirectToHS", {"hs:81", "3"}, "error 450"}};
  // clang-format on
  for (const MemberCase& c : rest)
    EXPECT_EQ(CallMember(scriptResponse, c.member, c.args), c.seen) << c.member;
  EXPECT_EQ(sink.sent, "");
  EXPECT_TRUE(reporter.calls.empty());
}

class ScriptPageTest : public ScriptHostTest {
 protected:
  std::string Get(RemoteASP& page, const std::string& agent = "Mozilla/5.0", const std::string& body = "") {
    sink.sent.clear();
    Request request;
    request.ParsePage((body.empty() ? "GET" : "POST") +
                      std::string(" /wol HTTP/1.1\r\nHost: tavrel\r\nUser-Agent: ") + agent + "\r\n\r\n" +
                      body);
    Response response(sink, {home.Path() / "HTML", clock, reporter, nullptr});
    return page.RemotePage(request, response);
  }
  RemoteASP Page(bool enabled) {
    PageActions actions;
    actions.SendComputerControl = [this](const std::string& name, const std::string& action) {
      acted.push_back(action + " " + name);
    };
    return RemoteASP(PageContext{computers, hs, clock, reporter, actions, &host, enabled});
  }
  // The routines run, without the page's cells.
  Lines Routines() {
    Lines routines;
    for (const std::string& line : std::exchange(log, {}))
      if (line.rfind("code ", 0) != 0 && line.rfind("FormatCell", 0) != 0) routines.push_back(line);
    return routines;
  }

  ManualClock clock{MakeDateTime(2026, 11, 23, 9, 0, 0)};
  ComputerRegistry computers{hs, clock};
  ComputerRegistry::Edits edits;
  Sink sink;
  Lines acted;
};

TEST_F(ScriptPageTest, TheSwitchChoosesScriptRoutinesOrNoneAndScriptsMayAnswerThemselves) {
  RemoteASP off = Page(false);
  for (int i = 0; i < 3; ++i) EXPECT_NE(Get(off).find("<title>Tavrel"), std::string::npos);
  EXPECT_EQ(created, 0);

  computers.Rename("", "PC1", "198.51.100.7", edits);
  RemoteASP on = Page(true);
  Get(on);
  const std::string header = "CustomHeader([Tavrel&nbsp;&nbsp;<small><font size='1'></b> V" + hs.Version() +
                             "</font></small>,,#000000,x,StyleNoBody.css])";
  EXPECT_THAT(Routines(), ElementsAre("create VBScript 60000", "object hs global",
                                      "setObjects(Request,Response)", "startmiscfunctionsasp()",
                                      "SecurityCheck()", "startheaderasp()", header, "CustomFooter()"));
  EXPECT_FALSE(on.TouchscreenClient());

  control->touchscreen = std::string("True");
  Get(on);
  EXPECT_THAT(Routines(), ElementsAre("setObjects(Request,Response)", "SecurityCheck()", "startheaderasp()",
                                      header, "CustomFooter()"));
  EXPECT_TRUE(on.TouchscreenClient());
  EXPECT_EQ(created, 1);
  // The request and response the scripts kept are cut off once the page is answered.
  EXPECT_THROW(control->request->Call(0, {"x"}), ScriptError);
  EXPECT_THROW(control->response->Call(0, {"x"}), ScriptError);
  EXPECT_TRUE(reporter.calls.empty());
  // A visitor the scripts answer themselves has nothing acted on and no page of ours.
  Get(on, "Mozilla/5.0", "clientinput=yes&subnet=203.0.113&Shutdown0=Shutdown");
  EXPECT_EQ(acted, Lines{"Shutdown PC1"});
  control->answerIn = "SecurityCheck";
  EXPECT_EQ(Get(on, "Mozilla/5.0", "clientinput=yes&subnet=198.51.100&Shutdown0=Shutdown"), "");
  EXPECT_EQ(acted, Lines{"Shutdown PC1"});
  EXPECT_EQ(hs.GetINISetting("WOL", "Subnet", "", kIniFile), "203.0.113");
}

TEST_F(ScriptPageTest, AFailingStepAnswersNothingAndAFailingCellOnlyItself) {
  RemoteASP on = Page(true);
  Get(on);
  control->fail = "SecurityCheck";
  EXPECT_EQ(Get(on), "");
  EXPECT_THAT(Events(), ElementsAre("event RemotePage"));

  control->touchscreen = false;
  control->fail = "FormatCell";
  const std::string page = Get(on);
  EXPECT_EQ(page.rfind("<html><head><head from script><body>", 0), 0u);
  EXPECT_NE(page.find("<Table width='625' border='5' frame='box'><tr></tr></table></form>"),
            std::string::npos);
  Lines events = Events();
  EXPECT_EQ(std::count(events.begin(), events.end(), "event MainPage"), 4);
  EXPECT_EQ(std::count(events.begin(), events.end(), "event RemoteASP"), 6);
}

}  // namespace
}  // namespace tavrel
