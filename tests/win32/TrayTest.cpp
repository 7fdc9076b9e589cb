// The notification-area icon on a real Windows desktop (Wine in a virtual X display in the build).
#include <windows.h>

#include <shellapi.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
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

class TrayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HasDisplay()) GTEST_SKIP() << "no X display";
    std::string whyNot;
    tray = OpenTray(io, owner, WolConfig(), whyNot);
    ASSERT_NE(tray, nullptr) << whyNot;
    window = win32::TrayWindow(*tray);
  }

  // Runs the loop until cond holds; the tray thread's events arrive through it.
  bool RunUntil(const std::function<bool()>& cond) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!cond() && std::chrono::steady_clock::now() < deadline)
      io.run_one_for(std::chrono::milliseconds(50));
    return cond();
  }

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

TEST_F(TrayTest, IconComesBackWhenTheTaskbarIsCreatedAgain) {
  ASSERT_TRUE(tray->SetTrayIcon(true));
  NOTIFYICONDATAA data = Record();
  ASSERT_TRUE(Shell_NotifyIconA(NIM_DELETE, &data));  // as if Explorer had restarted
  SendMessageA(window, RegisterWindowMessageA("TaskbarCreated"), 0, 0);
  io.poll();
  EXPECT_TRUE(Shell_NotifyIconA(NIM_DELETE, &data)) << "the icon was not added again";
}

// Finds the menu the tray thread shows (class "#32768") among this process's windows.
HWND ShownMenu() {
  HWND found = nullptr;
  EnumWindows(
      [](HWND hwnd, LPARAM out) -> BOOL {
        char name[16] = {};
        DWORD pid = 0;
        GetWindowThreadProcessId(hwnd, &pid);
        if (pid == GetCurrentProcessId() && GetClassNameA(hwnd, name, sizeof name) &&
            std::string(name) == "#32768" && IsWindowVisible(hwnd)) {
          *reinterpret_cast<HWND*>(out) = hwnd;
          return FALSE;
        }
        return TRUE;
      },
      reinterpret_cast<LPARAM>(&found));
  return found;
}

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
