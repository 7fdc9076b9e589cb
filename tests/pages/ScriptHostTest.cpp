// The script page host with a stand-in control: the code the framework's pages become, the order it is
// added in, and the routines the page runs with script pages on and off.
#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Text.h"
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
  void AddObject(const std::string& name, std::shared_ptr<ScriptObject> object, bool global) override {
    log_.push_back("object " + name + (global ? " global" : ""));
    objects[name] = std::move(object);
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
    if (routine == "setObjects") request = std::get<std::shared_ptr<ScriptObject>>(args[0]);
    if (routine == "setObjects") response = std::get<std::shared_ptr<ScriptObject>>(args[1]);
    // A framework that turns the visitor away answers through Response.Send, twice if it likes.
    if (routine == answerIn) response->Call(0, {"Blocked"}), response->Call(0, {"Blocked again"});
    if (routine == "startheaderasp") return touchscreen;
    if (routine == "FormatCell") return "<td>" + std::get<std::string>(args[0]) + "</td>";
    if (routine == "CustomHeader") return std::string("<head from script><body>");
    if (routine == "CustomFooter") return std::string("<footer from script>");
    return {};
  }
  std::map<std::string, std::shared_ptr<ScriptObject>> objects;
  std::shared_ptr<ScriptObject> request, response;
  std::string answerIn;
  ScriptValue touchscreen = std::string("0");
  std::string fail;

 private:
  Lines& log_;
};

// A connection that keeps what is sent to it.
class Sink final : public ConnectionSink {
 public:
  int Index() const override { return 3; }
  int State() const override { return kConnected; }
  void SetTag(std::string_view) override {}
  void SendData(std::string bytes) override { sent += bytes; }
  void StartBody(std::unique_ptr<BinaryBody>) override {}
  std::string sent;
};

class ScriptHostTest : public ::testing::Test {
 protected:
  ScriptHostTest() {
    fs::create_directories(home.Path() / "HTML" / "includes");
    fs::create_directories(home.Path() / "Scripts");
  }
  void Write(const std::string& file, const std::string& text) { test::WriteFile(home.Path() / file, text); }
  // The code lines of the log, without the prelude.
  Lines Code() {
    Lines code;
    for (const std::string& line : log)
      if (line.rfind("code ", 0) == 0 && line.find("setObjects") == std::string::npos) code.push_back(line);
    return code;
  }
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
  EXPECT_EQ(log[0], "create VBScript 2500");
  EXPECT_EQ(log[1], "object hs global");
  EXPECT_EQ(log[2],
            "code Dim Request, Response\r\nsub setObjects(pRequest,pResponse)\r\nSet Request = pRequest\r\n"
            "Set Response = pResponse\r\nEnd sub\r\n");
  EXPECT_THAT(
      Code(),
      ElementsAre("code Sub Y()\r\nEnd Sub\r\n", "code ' \r\nSub X()\r\nEnd Sub\r\n<% kept %>",
                  "code \r\nDim a\r\n\r\n'  -->\r\n fsg.Add \"s\" : fsg.Add(1) \r\n", "code '-->nested",
                  "code '-->\r\n'-->misc", "code '-->'-->header'#include file=\"unclosed"));
  EXPECT_THAT(
      Events(),
      ElementsAre(
          "log AccumulateHTMLReferences: include cycle, not loaded again: includes\\misc_functions.asp",
          "log AccumulateHTMLReferences: include refused, outside the HTML and Scripts folders: "
          "..\\..\\Config\\tavrel.ini",
          "log AccumulateReferences: include refused, outside the HTML and Scripts folders: "
          "\\..\\..\\Config\\tavrel.ini",
          "event AccumulateHTMLReferences: Syntax error"));
}

TEST_F(ScriptHostTest, FailuresAreReportedUnderTheirLabels) {
  host.HTMLBuild();  // before HTMLInit there is no control
  Write("Config/tavrel.ini", "[WOL]\r\nScriptTimeout=soon\r\n");
  host.HTMLInit();
  EXPECT_EQ(created, 0);
  HTMLIncludes missing(home.Path(), hs, reporter,
                       [](const std::string&, long) -> std::unique_ptr<platform::ScriptControl> {
                         throw ScriptError(429, "ActiveX component can't create object");
                       });
  Write("Config/tavrel.ini", "");
  missing.HTMLInit();
  EXPECT_THROW(missing.Run("setObjects"), ScriptError);
  EXPECT_FALSE(missing.ScriptInitialised());
  EXPECT_THAT(Events(), ElementsAre("event HTMLBuild: Object variable or With block variable not set",
                                    "event HTMLInit: Type mismatch",
                                    "event HTMLInit: ActiveX component can't create object"));
}

// The objects scripts reach: hs over the Config folder, and the request and response of the moment.
TEST_F(ScriptHostTest, ScriptObjectsReadAndWriteThroughTheProgram) {
  HsObject object(hs);
  const auto call = [&](const std::string& member, const Lines& args) {
    const auto& members = object.Members();
    const size_t index = std::find(members.begin(), members.end(), member) - members.begin();
    return ScriptText(object.Call(index, args));
  };
  EXPECT_EQ(call("GetINISetting", {"S", "k", "dflt", "other.ini"}), "dflt");
  EXPECT_FALSE(fs::exists(home.Path() / "Config" / "other.ini"));
  call("SaveIniSetting", {"S", "a", "1", ""});
  call("SaveIniSetting", {"S", "b", "2", ""});
  EXPECT_EQ(call("GetINISetting", {"S", "b", "-"}), "2");  // no file: settings.ini
  EXPECT_EQ(call("GetINISection", {"S", "settings.ini"}), std::string("A=1\0B=2", 7));
  call("ClearINISection", {"S", "settings.ini"});
  EXPECT_EQ(call("GetINISection", {"S", "settings.ini"}), "=");  // an empty section lists one empty key
  EXPECT_EQ(call("Version", {}), hs.Version());
  for (const char* empty : {"SystemUpTime", "WEBLoggedInUser", "Sunrise", "Sunset", ""})
    EXPECT_EQ(call(empty, {}), "") << empty;
  EXPECT_EQ(call("DeviceString", {"x"}), "");
  EXPECT_THROW(call("GetINISetting", {"S", "k"}), ScriptError);

  Sink sink;
  ManualClock clock{MakeDateTime(2026, 11, 23, 9, 0, 0)};
  Request request;
  request.ParsePage("POST /wol?q=1 HTTP/1.1\r\nHost: tavrel:8019\r\n\r\nname=x+y");
  Response response(sink, {home.Path() / "HTML", clock, reporter, nullptr});
  RequestObject scriptRequest(request);
  ResponseObject scriptResponse(response);
  EXPECT_EQ(ScriptText(scriptRequest.Call(0, {"NAME"})), "x y");
  EXPECT_EQ(ScriptText(scriptRequest.Call(1, {"q"})), "1");
  EXPECT_EQ(ScriptText(scriptRequest.Call(2, {"remote_addr"})), "tavrel");
  EXPECT_EQ(ScriptText(scriptRequest.Call(5, {})), "POSTx");
  EXPECT_EQ(ScriptText(scriptResponse.Call(2, {})), "3");
  scriptResponse.Call(0, {"<html>mine</html>"});
  EXPECT_TRUE(response.Answered());
  EXPECT_NE(sink.sent.find("\r\n\r\n<html>mine</html>"), std::string::npos);
  scriptRequest.Detach();
  scriptResponse.Detach();
  EXPECT_THROW(scriptRequest.Call(3, {}), ScriptError);
  EXPECT_THROW(scriptResponse.Call(0, {"late"}), ScriptError);
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
    return RemoteASP(PageContext{table, hs, clock, reporter, actions, &host, enabled});
  }
  // The routines run, without the page's cells.
  Lines Routines() {
    Lines routines;
    for (const std::string& line : std::exchange(log, {}))
      if (line.rfind("code ", 0) != 0 && line.rfind("FormatCell", 0) != 0) routines.push_back(line);
    return routines;
  }

  ComputerTable table;
  ManualClock clock{MakeDateTime(2026, 11, 23, 9, 0, 0)};
  Sink sink;
  Lines acted;
};

TEST_F(ScriptPageTest, TheSwitchChoosesScriptRoutinesOrNone) {
  RemoteASP off = Page(false);
  for (int i = 0; i < 3; ++i) EXPECT_NE(Get(off).find("<title>Tavrel"), std::string::npos);
  EXPECT_EQ(created, 0);

  table.Computers.Add("PC1", {"PC1", "198.51.100.7"});
  RemoteASP on = Page(true);
  const std::string first = Get(on);
  EXPECT_THAT(Routines(),
              ElementsAre("create VBScript 60000", "object hs global", "setObjects(Request,Response)",
                          "startmiscfunctionsasp()", "SecurityCheck()", "startheaderasp()",
                          "CustomHeader([Tavrel&nbsp;&nbsp;<small><font size='1'></b> V" + hs.Version() +
                              "</font></small>,,#000000,x,StyleNoBody.css])",
                          "CustomFooter()"));
  EXPECT_EQ(first.rfind("<html><head><head from script><body><div><center><small>", 0), 0u);
  EXPECT_NE(first.find("<td><input type='text' name='Name0'size='8' value='PC1'></td>"), std::string::npos);
  EXPECT_NE(first.find("</center></div><footer from script></body></html>"), std::string::npos);
  EXPECT_FALSE(on.TouchscreenClient());

  control->touchscreen = std::string("True");
  Get(on);
  EXPECT_THAT(Routines(), ElementsAre("setObjects(Request,Response)", "SecurityCheck()", "startheaderasp()",
                                      "CustomHeader([Tavrel&nbsp;&nbsp;<small><font size='1'></b> V" +
                                          hs.Version() + "</font></small>,,#000000,x,StyleNoBody.css])",
                                      "CustomFooter()"));
  EXPECT_TRUE(on.TouchscreenClient());
  EXPECT_EQ(created, 1);
  // The request the scripts kept is cut off once it has been answered.
  EXPECT_THROW(control->request->Call(0, {"x"}), ScriptError);
  EXPECT_THAT(Events(), ElementsAre());
}

TEST_F(ScriptPageTest, AVisitorTheScriptsAnswerThemselvesHasNothingActedOnAndOneAnswer) {
  table.Computers.Add("PC1", {"PC1", "198.51.100.7"});
  RemoteASP on = Page(true);
  Get(on);
  const std::string form = "clientinput=yes&subnet=203.0.113&Shutdown0=Shutdown";
  Get(on, "Mozilla/5.0", form);
  EXPECT_EQ(acted, Lines{"Shutdown PC1"});
  control->answerIn = "SecurityCheck";
  EXPECT_EQ(Get(on, "Mozilla/5.0", "clientinput=yes&subnet=198.51.100&Shutdown0=Shutdown"), "");
  EXPECT_EQ(acted, Lines{"Shutdown PC1"});
  EXPECT_EQ(hs.GetINISetting("WOL", "Subnet", "", kIniFile), "203.0.113");
  EXPECT_TRUE(sink.sent.ends_with("\r\n\r\nBlocked")) << sink.sent;
  EXPECT_EQ(sink.sent.find("HTTP/1.1"), sink.sent.rfind("HTTP/1.1"));
}

TEST_F(ScriptPageTest, AFailingStepAnswersNothingAndAFailingCellOnlyItself) {
  RemoteASP on = Page(true);
  Get(on);
  control->fail = "SecurityCheck";
  EXPECT_EQ(Get(on), "");
  control->touchscreen = std::string("maybe");
  control->fail = "";
  EXPECT_EQ(Get(on), "");
  EXPECT_THAT(Events(), ElementsAre("event RemotePage", "event RemotePage"));

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
