// The platform's script control for real: the VBScript engine, with this program's objects reachable
// through IDispatch.
#include <windows.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ScriptControl.h"

namespace tavrel::platform {
namespace {

using namespace std::chrono;

// Members: "Echo" joins its arguments with "|", "Fail" raises an error, "When" gives a date, "" (the default
// member) says "default". As a collection it holds a text, a number, a date and another Recorder. Every call
// is recorded.
class Recorder final : public ScriptObject {
 public:
  const std::vector<std::string>& Members() const override { return members_; }
  ScriptValue Call(size_t member, const std::vector<std::string>& args) override {
    std::string joined;
    for (const std::string& arg : args) joined += (joined.empty() ? "" : "|") + arg;
    calls.push_back(members_[member] + "(" + joined + ")");
    if (members_[member] == "Fail") throw ScriptError(5, "refused by the program");
    if (members_[member] == "When") return kWhen;
    if (members_[member].empty()) return std::string("default");
    return joined;
  }
  std::optional<std::vector<ScriptValue>> Items() override {
    return std::vector<ScriptValue>{std::string("a"), 2.0, kWhen, std::make_shared<Recorder>()};
  }
  static constexpr ScriptDate kWhen{local_days{2026y / 11 / 24} + 13h + 5min + 9s};
  std::vector<std::string> calls;

 private:
  std::vector<std::string> members_{"Echo", "Fail", "When", ""};
};

// An object without a default member, as the scripts' Request is.
class Bare final : public ScriptObject {
 public:
  const std::vector<std::string>& Members() const override { return members_; }
  ScriptValue Call(size_t, const std::vector<std::string>&) override { return {}; }

 private:
  std::vector<std::string> members_{"Nothing"};
};

TEST(ScriptControl, RunsVBScriptWithTheProgramsObjects) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 60000);
  auto recorder = std::make_shared<Recorder>();
  control->AddObject("rec", recorder, true);
  control->AddObject("bare", std::make_shared<Bare>(), false);
  control->AddCode(
      "Dim kept\r\n"
      "Function Objects()\r\n  Objects = rec.Echo(\"x\", bare, rec)\r\nEnd Function\r\n"
      "Function Both(a, b)\r\n  Both = rec.Echo(a, b) & \"/\" & ECHO(\"global\") & \"/\" & rec\r\nEnd "
      "Function\r\n"
      "Sub Keep(o)\r\n  Set kept = o\r\nEnd Sub\r\n"
      "Function AskKept()\r\n  AskKept = kept.Echo(\"x\", 3, True)\r\nEnd Function\r\n"
      "Function Count(list)\r\n  Count = UBound(list) + 1 & \":\" & list(1)\r\nEnd Function\r\n"
      "Function IsOn(flag)\r\n  IsOn = Not flag\r\nEnd Function\r\n"
      "Function Half(n)\r\n  Half = n / 2\r\nEnd Function\r\n"
      "Function Nothing2()\r\nEnd Function\r\n"
      "Function NextDay(d)\r\n  NextDay = DateAdd(\"d\", 1, d)\r\nEnd Function\r\n"
      "Function Parts()\r\n  Parts = Year(When) & \"-\" & Month(rec.When) & \"-\" & Day(When) & \" \" & "
      "Hour(When) & \":\" & Minute(When) & \":\" & Second(When)\r\nEnd Function\r\n"
      "Function Walk()\r\n  For Each x In rec\r\n"
      "    If IsObject(x) Then\r\n      Walk = Walk & x.Echo(\"o\")\r\n"
      "    ElseIf VarType(x) = vbDate Then\r\n      Walk = Walk & Year(x)\r\n"
      "    Else\r\n      Walk = Walk & x\r\n    End If\r\n    Walk = Walk & \",\"\r\n  Next\r\nEnd "
      "Function\r\n"
      "Function List()\r\n  List = Array(\"p\", 2, True)\r\nEnd Function\r\n");

  // Text crosses both ways byte for byte in the system code page, NUL characters included.
  const std::string bytes("caf\xe9\0end", 8);
  EXPECT_EQ(std::get<std::string>(control->Run("Both", {bytes, std::string("2")})),
            bytes + "|2/global/default");
  auto other = std::make_shared<Recorder>();
  control->Run("Keep", {std::shared_ptr<ScriptObject>(other)});
  EXPECT_EQ(std::get<std::string>(control->Run("AskKept", {})), "x|3|True");
  EXPECT_EQ(other->calls, std::vector<std::string>{"Echo(x|3|True)"});
  EXPECT_EQ(std::get<std::string>(control->Run("Count", {std::vector<std::string>{"a", "b", "c"}})), "3:b");
  EXPECT_EQ(std::get<bool>(control->Run("IsOn", {false})), true);
  EXPECT_EQ(std::get<double>(control->Run("Half", {3.0})), 1.5);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(control->Run("Nothing2", {})));
  EXPECT_EQ(std::get<std::vector<std::string>>(control->Run("List", {})),
            (std::vector<std::string>{"p", "2", "True"}));
  // Dates both ways, to the second, before the calendar's day zero (30 December 1899) too.
  for (const ScriptDate date : {Recorder::kWhen, ScriptDate{local_days{1899y / 12 / 29} + 6h + 1s}}) {
    EXPECT_EQ(std::get<ScriptDate>(control->Run("NextDay", {date})).time, date.time + days(1));
  }
  EXPECT_EQ(std::get<std::string>(control->Run("Parts", {})), "2026-11-24 13:5:9");
  // Objects as arguments arrive as their default value, "" without one.
  EXPECT_EQ(std::get<std::string>(control->Run("Objects", {})), "x||default");
  EXPECT_EQ(std::get<std::string>(control->Run("Walk", {})), "a,2,2026,o,");
}

// A script error as the control reports it; number 0 and line 0 accept any, description nullptr any text.
struct Expected {
  long number;
  const char* description;
  long line;
};

void ExpectError(const std::function<void()>& act, const Expected& expected) {
  try {
    act();
    ADD_FAILURE() << "no error";
  } catch (const ScriptError& e) {
    if (expected.number != 0) {
      EXPECT_EQ(e.number, expected.number) << e.what();
    }
    if (expected.description != nullptr) {
      EXPECT_STREQ(e.what(), expected.description);
    }
    if (expected.line != 0) {
      EXPECT_EQ(e.line, expected.line) << e.what();
    }
    EXPECT_NE(e.number, 0);
    EXPECT_STRNE(e.what(), "");
  }
}

TEST(ScriptControl, FailuresCarryTheScriptsNumberTextAndLine) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 60000);
  control->AddObject("rec", std::make_shared<Recorder>(), false);
  control->AddCode(
      "Sub CallsFail()\r\n  rec.Fail\r\nEnd Sub\r\n"
      "Sub Divide()\r\n  x = 1 / 0\r\nEnd Sub\r\n"
      "Sub Ask()\r\n  MsgBox \"Anybody there?\"\r\nEnd Sub\r\n"
      "Sub Late()\r\n  a = 1\r\n  b = CLng(\"x\")\r\nEnd Sub\r\n"
      "Sub Raise()\r\n  Err.Raise 1234, \"page\", \"raised by the page\"\r\nEnd Sub\r\n");
  struct Case {
    const char* what;
    std::function<void()> act;
    Expected expected;
  };
  // Wine's engine gives a syntax error no number of its own; the line it gives.
  const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
  const Case cases[] = {
      {"syntax error", [&] { control->AddCode("Dim a\r\nSub Broken(\r\n"); }, {wine ? 0 : 1002, nullptr, 2}},
      {"unknown routine", [&] { control->Run("NoSuchRoutine", {}); }, {DISP_E_UNKNOWNNAME, nullptr, 0}},
      {"division by zero", [&] { control->Run("Divide", {}); }, {11, nullptr, 5}},
      {"type mismatch", [&] { control->Run("Late", {}); }, {13, nullptr, 12}},
      {"error raised by the program",
       [&] { control->Run("CallsFail", {}); },
       {5, "refused by the program", 2}},
      {"error raised by the script", [&] { control->Run("Raise", {}); }, {1234, "raised by the page", 15}},
      {"a dialog nobody would see", [&] { control->Run("Ask", {}); }, {0, nullptr, 8}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ExpectError(c.act, c.expected);
  }
}

// A script that runs past the time-out ends with an error, and the control goes on serving.
TEST(ScriptControl, StopsAScriptThatRunsTooLong) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 100);
  control->AddObject("rec", std::make_shared<Recorder>(), false);
  control->AddCode(
      "Sub Spin()\r\n  Do\r\n    rec.Echo 1\r\n  Loop\r\nEnd Sub\r\n"
      "Function Fine()\r\n  Fine = \"fine\"\r\nEnd Function\r\n");
  const auto start = steady_clock::now();
  ExpectError([&] { control->Run("Spin", {}); }, {18, "Script timed out after 100 ms", 0});
  EXPECT_LT(steady_clock::now() - start, 5s);
  EXPECT_EQ(std::get<std::string>(control->Run("Fine", {})), "fine");
  ExpectError([&] { control->AddCode("Do\r\n  rec.Echo 2\r\nLoop\r\n"); },
              {18, "Script timed out after 100 ms", 0});
  EXPECT_EQ(std::get<std::string>(control->Run("Fine", {})), "fine");
}

}  // namespace
}  // namespace tavrel::platform
