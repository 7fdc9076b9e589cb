// The notification-area icon and the session's end on a real Windows desktop (Wine in a virtual X display
// in the build).
#include <windows.h>

#include <shellapi.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
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

TrayConfig WolConfig() {
  TrayConfig config;
  config.Caption = "WOL";
  for (const char* caption : {"Browser", "System Config", "System Status", "Query LAN", "Help", "-", "Exit"})
    config.Menu.push_back({caption});
  return config;
}

bool HasDisplay() { return std::getenv("DISPLAY") != nullptr; }

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
    if (!HasDisplay()) GTEST_SKIP() << "no X display";
    std::string whyNot;
    tray = OpenTray(io, owner, WolConfig(), whyNot);
    ASSERT_NE(tray, nullptr) << whyNot;
    window = win32::TrayWindow(*tray);
  }

  bool RunUntil(const std::function<bool()>& cond) { return platform::RunUntil(io, cond); }

  // The record the shell knows our icon by, for removing it behind the program's back.
  NOTIFYICONDATAA Record() const {
    NOTIFYICONDATAA data{};
    data.cbSize = NOTIFYICONDATAA_V1_SIZE;
    data.hWnd = window;
    data.uID = 1;
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
  EXPECT_TRUE(tray->SetTrayIcon(false));  // nothing left to remove

  ASSERT_TRUE(tray->SetTrayIcon(true));
  SendMessageA(window, WM_CLOSE, 0, 0);  // only hides the window
  EXPECT_TRUE(IsWindow(window));
  EXPECT_FALSE(IsWindowVisible(window));
  tray.reset();
  EXPECT_FALSE(IsWindow(window));
  EXPECT_FALSE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon outlived the tray";
}

TEST_F(TrayTest, MouseMessagesAndCommandsReachTheOwnerOnTheLoop) {
  ASSERT_TRUE(tray->SetTrayIcon(true));
  // The shell reports a click as the icon's callback message with the mouse message in lParam.
  SendMessageA(window, WM_MOUSEMOVE, 1, WM_RBUTTONUP);
  SendMessageA(window, WM_MOUSEMOVE, 1, WM_LBUTTONUP);
  EXPECT_TRUE(owner.mouse.empty()) << "delivered outside the loop";
  ASSERT_TRUE(RunUntil([&] { return owner.mouse.size() == 2; }));
  EXPECT_THAT(owner.mouse, ElementsAre(517, 514));

  PostMessageA(window, WM_COMMAND, win32::kFirstMenuCommand + 6, 0);
  PostMessageA(window, WM_COMMAND, win32::kFirstMenuCommand + 7, 0);  // no such entry
  PostMessageA(window, WM_COMMAND, win32::kFirstMenuCommand + 3, 0);
  ASSERT_TRUE(RunUntil([&] { return owner.clicks.size() == 2; }));
  io.poll();
  EXPECT_THAT(owner.clicks, ElementsAre(6, 3));
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

// A top-level window of this process by its class; only a shown one when visible is set.
HWND OwnWindow(std::string_view cls, bool visible) {
  struct Search {
    std::string_view cls;
    bool visible;
    HWND found;
  } search{cls, visible, nullptr};
  EnumWindows(
      [](HWND hwnd, LPARAM param) -> BOOL {
        auto& s = *reinterpret_cast<Search*>(param);
        char name[32] = {};
        DWORD pid = 0;
        GetWindowThreadProcessId(hwnd, &pid);
        if (pid == GetCurrentProcessId() && GetClassNameA(hwnd, name, sizeof name) && s.cls == name &&
            (!s.visible || IsWindowVisible(hwnd))) {
          s.found = hwnd;
          return FALSE;
        }
        return TRUE;
      },
      reinterpret_cast<LPARAM>(&search));
  return search.found;
}

// The menu the tray thread shows (class "#32768").
HWND ShownMenu() { return OwnWindow("#32768", true); }

TEST_F(TrayTest, PopupMenuShowsTheEntriesInOrderAndReportsTheChoice) {
  tray->PopupMenu();
  HWND shown = nullptr;
  ASSERT_TRUE(test::WaitFor([&] { return (shown = ShownMenu()) != nullptr; }));
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

// Windows tells a program without a console that the session ends with two messages to its top-level
// windows: it may end (yes), then it ends, and the process may be killed once that is answered. So the
// answer waits until the loop has done the Exit work and the watch is gone, as at the end of main.
TEST(SessionEnd, EndIsAnsweredOnlyAfterTheLoopHasDoneExit) {
  if (!HasDisplay()) GTEST_SKIP() << "no X display";
  asio::io_context io;
  auto work = asio::make_work_guard(io);
  std::atomic<int> ends = 0;
  std::shared_ptr<void> watch = WatchSessionEnd(io, [&] {
    ++ends;
    io.stop();
  });
  HWND window = OwnWindow("TavrelSessionWindow", false);
  ASSERT_NE(window, nullptr);
  EXPECT_FALSE(IsWindowVisible(window));
  EXPECT_EQ(SendMessageA(window, WM_QUERYENDSESSION, 0, ENDSESSION_LOGOFF), TRUE);
  std::thread loop([&] {
    io.run();
    watch.reset();
  });
  SendMessageA(window, WM_ENDSESSION, TRUE, ENDSESSION_LOGOFF);
  EXPECT_EQ(ends, 1) << "the end was answered before the program had ended";
  loop.join();
  EXPECT_FALSE(IsWindow(window));

  // Closing the window (taskkill without /f) asks for the same end, without waiting for it.
  io.restart();
  watch = WatchSessionEnd(io, [&] { ++ends; });
  window = OwnWindow("TavrelSessionWindow", false);
  SendMessageA(window, WM_CLOSE, 0, 0);
  EXPECT_TRUE(RunUntil(io, [&] { return ends == 2; }));
  watch.reset();
}

TEST(TrayWithoutDisplay, OpenFailsWithAReason) {
  if (HasDisplay()) GTEST_SKIP() << "an X display is set";
  asio::io_context io;
  FakeOwner owner;
  std::string whyNot;
  EXPECT_EQ(OpenTray(io, owner, WolConfig(), whyNot), nullptr);
  EXPECT_THAT(whyNot, ::testing::HasSubstr("display"));
}

}  // namespace
}  // namespace tavrel::platform
