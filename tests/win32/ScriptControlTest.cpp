// The platform's script control for real: VBScript through COM automation, with this program's objects
// reachable through IDispatch.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ScriptControl.h"

namespace tavrel::platform {
namespace {

// Members: "Echo" joins its arguments with "|", "Fail" raises an error, "" (the default member) says
// "default". Every call is recorded.
class Recorder final : public ScriptObject {
 public:
  const std::vector<std::string>& Members() const override { return members_; }
  ScriptValue Call(size_t member, const std::vector<std::string>& args) override {
    std::string joined;
    for (const std::string& arg : args) joined += (joined.empty() ? "" : "|") + arg;
    calls.push_back(members_[member] + "(" + joined + ")");
    if (members_[member] == "Fail") throw ScriptError(5, "refused by the program");
    if (members_[member].empty()) return std::string("default");
    return joined;
  }
  std::vector<std::string> calls;

 private:
  std::vector<std::string> members_{"Echo", "Fail", ""};
};

TEST(ScriptControl, RunsVBScriptWithTheProgramsObjects) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 60000);
  auto recorder = std::make_shared<Recorder>();
  control->AddObject("rec", recorder, true);
  control->AddCode(
      "Dim kept\r\n"
      "Function Both(a, b)\r\n  Both = rec.Echo(a, b) & \"/\" & ECHO(\"global\") & \"/\" & rec\r\nEnd "
      "Function\r\n"
      "Sub Keep(o)\r\n  Set kept = o\r\nEnd Sub\r\n"
      "Function AskKept()\r\n  AskKept = kept.Echo(\"x\", 3, True)\r\nEnd Function\r\n"
      "Function Count(list)\r\n  Count = UBound(list) + 1 & \":\" & list(1)\r\nEnd Function\r\n"
      "Function IsOn(flag)\r\n  IsOn = Not flag\r\nEnd Function\r\n"
      "Function Half(n)\r\n  Half = n / 2\r\nEnd Function\r\n"
      "Function Nothing2()\r\nEnd Function\r\n");

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
}

TEST(ScriptControl, FailuresCarryTheScriptsNumberAndText) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 60000);
  control->AddObject("rec", std::make_shared<Recorder>(), false);
  control->AddCode("Sub CallsFail()\r\n  rec.Fail\r\nEnd Sub\r\nSub Divide()\r\n  x = 1 / 0\r\nEnd Sub\r\n");
  struct Case {
    const char* what;
    std::function<void()> act;
    long number;
    const char* description;
  };
  const Case cases[] = {
      {"syntax error", [&] { control->AddCode("Sub Broken(\r\n"); }, 0, nullptr},
      {"unknown routine", [&] { control->Run("NoSuchRoutine", {}); }, 0, nullptr},
      {"division by zero", [&] { control->Run("Divide", {}); }, 11, nullptr},
      {"error raised by the program", [&] { control->Run("CallsFail", {}); }, 5, "refused by the program"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      c.act();
      ADD_FAILURE() << "no error";
    } catch (const ScriptError& e) {
      if (c.number != 0) {
        EXPECT_EQ(e.number, c.number);
      }
      EXPECT_NE(e.number, 0);
      EXPECT_STRNE(e.what(), "");
      if (c.description != nullptr) {
        EXPECT_STREQ(e.what(), c.description);
      }
    }
  }
}

}  // namespace
}  // namespace tavrel::platform
