// The notification-area icon and the session's end on a real Windows desktop (Wine in a virtual X display
// in the build), and the script control for real: the VBScript engine, with this program's objects
// reachable through IDispatch.
#include <windows.h>

#include <shellapi.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/ScriptControl.h"
#include "platform/SessionEnd.h"
#include "platform/Tray.h"
#include "platform/win32/TrayWindow.h"

namespace tavrel::platform {
namespace {

using ::testing::ElementsAre;

class FakeOwner final : public TrayOwner {
 public:
  void TrayIconCallback(long msg) override { mouse.push_back(msg); }
  void MenuArray_Click(int index) override { clicks.push_back(index); }
  std::vector<long> mouse;
  std::vector<int> clicks;
};

const TrayConfig kWol{
    "WOL", {{"Browser"}, {"System Config"}, {"System Status"}, {"Query LAN"}, {"Help"}, {"-"}, {"Exit"}}};

// Runs the loop until cond holds; the window threads' events arrive through it.
bool RunUntil(asio::io_context& io, const std::function<bool()>& cond) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond() && std::chrono::steady_clock::now() < deadline)
    io.run_one_for(std::chrono::milliseconds(50));
  return cond();
}

class TrayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    tray = OpenTray(io, owner, kWol, whyNot);
    ASSERT_NE(tray, nullptr) << whyNot;
    window = win32::TrayWindow(*tray);
  }

  bool RunUntil(const std::function<bool()>& cond) { return platform::RunUntil(io, cond); }

  // The record the shell knows our icon by, for removing it behind the program's back.
  NOTIFYICONDATAA Record() const {
    NOTIFYICONDATAA data{};
    data.cbSize = NOTIFYICONDATAA_V1_SIZE, data.hWnd = window, data.uID = 1;
    return data;
  }

  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(io);
  FakeOwner owner;
  std::unique_ptr<Tray> tray;
  HWND window = nullptr;
};

TEST_F(TrayTest, IconIsAddedModifiedRemovedAndGoesWithTheTray) {
  EXPECT_TRUE(tray->SetTrayIcon(true));  // add
  EXPECT_TRUE(tray->SetTrayIcon(true));  // modify
  EXPECT_TRUE(tray->SetTrayIcon(false));
  NOTIFYICONDATAA data = Record();
  EXPECT_FALSE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon was left in the notification area";

  ASSERT_TRUE(tray->SetTrayIcon(true));
  SendMessageA(window, WM_CLOSE, 0, 0);  // only hides the window
  EXPECT_TRUE(IsWindow(window));
  EXPECT_FALSE(IsWindowVisible(window));
  tray.reset();
  EXPECT_FALSE(IsWindow(window));
  EXPECT_FALSE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon outlived the tray";
}

TEST_F(TrayTest, MouseMessagesReachTheOwnerOnTheLoop) {
  ASSERT_TRUE(tray->SetTrayIcon(true));
  // The shell reports a click as the icon's callback message with the mouse message in lParam.
  SendMessageA(window, WM_MOUSEMOVE, 1, WM_RBUTTONUP);
  SendMessageA(window, WM_MOUSEMOVE, 1, WM_LBUTTONUP);
  EXPECT_TRUE(owner.mouse.empty()) << "delivered outside the loop";
  ASSERT_TRUE(RunUntil([&] { return owner.mouse.size() == 2; }));
  EXPECT_THAT(owner.mouse, ElementsAre(517, 514));
}

// With no notification area yet (no taskbar on the desktop the program looks at) the icon is not shown;
// it comes as soon as a taskbar announces itself, and again after Explorer restarted.
TEST_F(TrayTest, IconComesWithTheTaskbar) {
  HDESK own = GetThreadDesktop(GetCurrentThreadId());
  HDESK bare = CreateDesktopA("TavrelNoTaskbar", nullptr, nullptr, 0, GENERIC_ALL, nullptr);
  ASSERT_NE(bare, nullptr);
  ASSERT_TRUE(SetThreadDesktop(bare)) << GetLastError();
  const bool shown = tray->SetTrayIcon(true);
  SetThreadDesktop(own);
  CloseDesktop(bare);
  EXPECT_FALSE(shown);
  NOTIFYICONDATAA data = Record();
  EXPECT_FALSE(Shell_NotifyIconA(NIM_DELETE, &data)) << "reported as not shown, yet there";
  const UINT taskbarCreated = RegisterWindowMessageA("TaskbarCreated");
  SendMessageA(window, taskbarCreated, 0, 0);
  io.poll();
  ASSERT_TRUE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon did not come with the taskbar";
  // As if Explorer had restarted: the icon was deleted just above.
  SendMessageA(window, taskbarCreated, 0, 0);
  io.poll();
  EXPECT_TRUE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon was not added again";
}

TEST_F(TrayTest, PopupMenuShowsTheEntriesInOrderAndReportsTheChoice) {
  tray->PopupMenu();
  HWND shown = nullptr;  // the menu's window
  ASSERT_TRUE(test::WaitFor([&] { return IsWindowVisible(shown = FindWindowA("#32768", nullptr)); }));
  auto menu = reinterpret_cast<HMENU>(SendMessageA(shown, MN_GETHMENU, 0, 0));
  ASSERT_NE(menu, nullptr);
  std::vector<std::string> entries;
  for (int i = 0; i < GetMenuItemCount(menu); ++i) {
    char text[64] = {};
    GetMenuStringA(menu, i, text, sizeof text, MF_BYPOSITION);
    entries.push_back(GetMenuState(menu, i, MF_BYPOSITION) & MF_SEPARATOR ? "-" : text);
  }
  EXPECT_THAT(entries,
              ElementsAre("Browser", "System Config", "System Status", "Query LAN", "Help", "-", "Exit"));
  // Up from nothing selected is the last entry; Enter chooses it.
  PostMessageA(shown, WM_KEYDOWN, VK_UP, 0);
  PostMessageA(shown, WM_KEYDOWN, VK_RETURN, 0);
  ASSERT_TRUE(RunUntil([&] { return !owner.clicks.empty(); }));
  EXPECT_THAT(owner.clicks, ElementsAre(6));
}

// The session's end (the Exit work done before the answer, so the "stopped" heartbeat goes out) is the
// smoke test's; closing the hidden window (taskkill without /f) asks for the same end, without waiting.
TEST(SessionEnd, ClosingTheWindowAsksForTheEnd) {
  asio::io_context io;
  auto work = asio::make_work_guard(io);
  int ends = 0;
  std::shared_ptr<void> watch = WatchSessionEnd(io, [&] { ++ends; });
  HWND window = FindWindowA("TavrelSessionWindow", nullptr);
  ASSERT_NE(window, nullptr);
  EXPECT_FALSE(IsWindowVisible(window));
  SendMessageA(window, WM_CLOSE, 0, 0);
  EXPECT_TRUE(RunUntil(io, [&] { return ends == 1; }));
}

using namespace std::chrono;

// Members: "Echo" joins its arguments with "|", "Fail" raises an error, "" (the default member) says
// "default". As a collection it holds a text, a number, a date and another Recorder. Every call is recorded.
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
  std::optional<std::vector<ScriptValue>> Items() override {
    return std::vector<ScriptValue>{std::string("a"), 2.0, kWhen, std::make_shared<Recorder>()};
  }
  static constexpr ScriptDate kWhen{local_days{2026y / 11 / 24} + 13h + 5min + 9s};
  std::vector<std::string> calls;

 private:
  std::vector<std::string> members_{"Echo", "Fail", ""};
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
      "Dim kept\r\nSub Keep(o)\r\nSet kept = o\r\nEnd Sub\r\nFunction Nothing2()\r\nEnd Function\r\n"
      "Function Objects()\r\nObjects = rec.Echo(\"x\", bare, rec)\r\nEnd Function\r\nFunction Both(a, b)\r\n"
      "Both = rec.Echo(a, b) & \"/\" & ECHO(\"global\") & \"/\" & rec\r\nEnd Function\r\n"
      "Function AskKept()\r\nAskKept = kept.Echo(\"x\", 3, True)\r\nEnd Function\r\nFunction IsOn(flag)\r\n"
      "IsOn = Not flag\r\nEnd Function\r\nFunction Half(n)\r\nHalf = n / 2\r\nEnd Function\r\n"
      "Function NextDay(d)\r\nNextDay = DateAdd(\"d\", 1, d)\r\nEnd Function\r\nFunction List()\r\n"
      "List = Array(\"p\", 2, True)\r\nEnd Function\r\nFunction Walk()\r\nFor Each x In rec\r\n"
      "If IsObject(x) Then\r\nWalk = Walk & x.Echo(\"o\")\r\nElseIf VarType(x) = vbDate Then\r\n"
      "Walk = Walk & Year(x)\r\nElse\r\nWalk = Walk & x\r\nEnd If\r\nWalk = Walk & \",\"\r\nNext\r\n"
      "End Function\r\n");

  // Text crosses both ways byte for byte in the system code page, NUL characters included.
  const std::string bytes("caf\xe9\0end", 8);
  EXPECT_EQ(std::get<std::string>(control->Run("Both", {bytes, std::string("2")})),
            bytes + "|2/global/default");
  auto other = std::make_shared<Recorder>();
  control->Run("Keep", {std::shared_ptr<ScriptObject>(other)});
  EXPECT_EQ(std::get<std::string>(control->Run("AskKept", {})), "x|3|True");
  EXPECT_EQ(other->calls, std::vector<std::string>{"Echo(x|3|True)"});
  EXPECT_EQ(std::get<bool>(control->Run("IsOn", {false})), true);
  EXPECT_EQ(std::get<double>(control->Run("Half", {3.0})), 1.5);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(control->Run("Nothing2", {})));
  EXPECT_EQ(std::get<std::vector<std::string>>(control->Run("List", {})),
            (std::vector<std::string>{"p", "2", "True"}));
  // Dates both ways, to the second, before the calendar's day zero (30 December 1899) too.
  for (const ScriptDate date : {Recorder::kWhen, ScriptDate{local_days{1899y / 12 / 29} + 6h + 1s}}) {
    EXPECT_EQ(std::get<ScriptDate>(control->Run("NextDay", {date})).time, date.time + days(1));
  }
  // Objects as arguments arrive as their default value, "" without one.
  EXPECT_EQ(std::get<std::string>(control->Run("Objects", {})), "x||default");
  EXPECT_EQ(std::get<std::string>(control->Run("Walk", {})), "a,2,2026,o,");
}

// The error a call raises as "number line: text"; one without a number shows no line either.
std::string ErrorOf(const std::function<void()>& act) {
  try {
    act();
  } catch (const ScriptError& e) {
    if (e.number == 0) return std::string("no number: ") + e.what();
    return std::to_string(e.number) + " " + std::to_string(e.line) + ": " + e.what();
  }
  return "no error";
}

TEST(ScriptControl, FailuresCarryTheScriptsNumberTextAndLine) {
  std::unique_ptr<ScriptControl> control = CreateScriptControl("VBScript", 60000);
  control->AddObject("rec", std::make_shared<Recorder>(), false);
  control->AddCode(
      "Sub CallsFail()\r\n  rec.Fail\r\nEnd Sub\r\n"
      "Sub Ask()\r\n  MsgBox \"Anybody there?\"\r\nEnd Sub\r\n"
      "Sub Late()\r\n  a = 1\r\n  b = CLng(\"x\")\r\nEnd Sub\r\n"
      "Sub Raise()\r\n  Err.Raise 1234, \"page\", \"raised by the page\"\r\nEnd Sub\r\n");
  // Wine's engine gives a syntax error no number of its own; the line it gives. ".+" is any number or text.
  const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { control->AddCode("Dim a\r\nSub Broken(\r\n"); }, wine ? ".+ 2: .+" : "1002 2: .+"},
      {[&] { control->Run("NoSuchRoutine", {}); }, std::to_string(DISP_E_UNKNOWNNAME) + " .+: .+"},
      {[&] { control->Run("Late", {}); }, "13 9: .+"},  // type mismatch
      {[&] { control->Run("CallsFail", {}); }, "5 2: refused by the program"},
      {[&] { control->Run("Raise", {}); }, "1234 12: raised by the page"},
      {[&] { control->Run("Ask", {}); }, ".+ 5: .+"},  // a dialog nobody would see
  };
  for (const auto& [act, error] : cases) EXPECT_THAT(ErrorOf(act), ::testing::MatchesRegex(error));
}

}  // namespace
}  // namespace tavrel::platform
