#include "platform/Tray.h"

#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "platform/win32/TrayWindow.h"

namespace tavrel::platform {

namespace {

using win32::kFirstMenuCommand;

// Every mouse event at the icon comes back as a mouse move whose lParam is the real mouse message.
constexpr UINT kCallbackMessage = WM_MOUSEMOVE;
constexpr UINT kIconId = 1;
constexpr UINT kIconFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
// Sent to the hidden window from the loop: show the menu; take the window down.
constexpr UINT kPopupMessage = WM_APP + 1;
constexpr UINT kCloseMessage = WM_APP + 2;

// No notification area yet (Explorer still starting, or restarting): the icon is tried again this often,
// for this long.
constexpr auto kAddRetry = std::chrono::seconds(2);
constexpr int kAddTries = 150;  // 5 minutes

// The plain record (handle, id, flags, message, icon, 64-byte tip): every shell since Windows 95 takes it.
constexpr DWORD kRecordSize = NOTIFYICONDATAA_V1_SIZE;

// The owner as the loop sees it. The icon drops it when it goes, so events still on their way into the
// loop find nobody and are dropped.
struct Link {
  TrayOwner* owner;
};

std::string LastErrorText(const char* call) {
  return std::string(call) + " failed, error " + std::to_string(GetLastError());
}

// A green LED: a shaded disc with a light spot at the upper left, soft at the edge (32-bit with alpha).
HICON MakeLedIcon(int size) {
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = size;
  info.bmiHeader.biHeight = -size;  // top-down rows
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  info.bmiHeader.biCompression = BI_RGB;
  void* bits = nullptr;
  HBITMAP color = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
  if (!color) return nullptr;
  const int maskStride = (size + 15) / 16 * 2;  // rows of a monochrome bitmap are WORD aligned
  std::vector<unsigned char> mask(static_cast<size_t>(maskStride) * size, 0);
  auto* pixels = static_cast<DWORD*>(bits);
  const double centre = (size - 1) / 2.0;
  const double radius = size / 2.0 - 0.5;
  const double spot = centre - radius / 3;
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double d = std::hypot(x - centre, y - centre);
      const double cover = std::clamp(radius - d + 0.5, 0.0, 1.0);
      const double light = std::clamp(1.0 - std::hypot(x - spot, y - spot) / radius, 0.0, 1.0);
      const double rim = std::clamp((d - radius * 0.75) / (radius * 0.25), 0.0, 1.0);
      const auto channel = [&](double base, double lit) {
        const double v = base + (lit - base) * light * light - base * 0.45 * rim;
        return static_cast<DWORD>(std::clamp(v, 0.0, 255.0));
      };
      const DWORD a = static_cast<DWORD>(cover * 255 + 0.5);
      pixels[y * size + x] = a << 24 | channel(40, 200) << 16 | channel(190, 255) << 8 | channel(50, 200);
      if (a == 0)
        mask[static_cast<size_t>(y) * maskStride + x / 8] |= static_cast<unsigned char>(0x80 >> (x % 8));
    }
  }
  HBITMAP andMask = CreateBitmap(size, size, 1, 1, mask.data());
  ICONINFO icon{};
  icon.fIcon = TRUE;
  icon.hbmMask = andMask;
  icon.hbmColor = color;
  HICON made = andMask ? CreateIconIndirect(&icon) : nullptr;
  if (andMask) DeleteObject(andMask);
  DeleteObject(color);
  return made;
}

class Win32Tray final : public Tray {
 public:
  Win32Tray(asio::io_context& io, TrayOwner& owner, TrayConfig config)
      : io_(io),
        link_(std::make_shared<Link>(Link{&owner})),
        weakLink_(link_),
        config_(std::move(config)),
        retry_(io) {}

  ~Win32Tray() override {
    link_.reset();
    SetTrayIcon(false);
    if (thread_.joinable()) {
      // Without a window the thread has already ended.
      if (hwnd_ && !PostMessageA(hwnd_, kCloseMessage, 0, 0)) PostThreadMessageA(threadId_, WM_QUIT, 0, 0);
      thread_.join();
    }
    for (HICON icon : {smallIcon_, largeIcon_}) {
      if (icon) DestroyIcon(icon);
    }
  }

  bool Start(std::string& whyNot) {
    smallIcon_ = MakeLedIcon(GetSystemMetrics(SM_CXSMICON) > 0 ? GetSystemMetrics(SM_CXSMICON) : 16);
    largeIcon_ = MakeLedIcon(GetSystemMetrics(SM_CXICON) > 0 ? GetSystemMetrics(SM_CXICON) : 32);
    if (!smallIcon_ || !largeIcon_) {
      whyNot = "cannot make the icon: " + LastErrorText("CreateIconIndirect");
      return false;
    }
    taskbarCreated_ = RegisterWindowMessageA("TaskbarCreated");
    std::promise<std::string> started;
    std::future<std::string> result = started.get_future();
    thread_ = std::thread([this, started = std::move(started)]() mutable { Run(started); });
    whyNot = result.get();
    return whyNot.empty();
  }

  bool SetTrayIcon(bool show) override {
    added_ = show;
    tries_ = 0;
    retry_.cancel();
    if (!show) {
      if (!shown_) return true;
      shown_ = false;
      NOTIFYICONDATAA data = Record(0);
      return Shell_NotifyIconA(NIM_DELETE, &data) != FALSE;
    }
    if (!Show()) RetryLater();
    return shown_;
  }

  void PopupMenu() override { PostMessageA(hwnd_, kPopupMessage, 0, 0); }

  HWND Window() const { return hwnd_; }

 private:
  NOTIFYICONDATAA Record(UINT flags) const {
    NOTIFYICONDATAA data{};
    data.cbSize = kRecordSize;
    data.hWnd = hwnd_;
    data.uID = kIconId;
    data.uFlags = flags;
    data.uCallbackMessage = kCallbackMessage;
    data.hIcon = smallIcon_;
    std::strncpy(data.szTip, config_.Caption.c_str(), 63);  // 64 bytes with the closing zero
    return data;
  }

  // Adds or modifies the icon; an icon that never made it into the notification area cannot be modified,
  // so that one is added instead.
  bool Show() {
    NOTIFYICONDATAA data = Record(kIconFlags);
    bool ok = shown_ && Shell_NotifyIconA(NIM_MODIFY, &data) != FALSE;
    if (!ok) ok = Shell_NotifyIconA(NIM_ADD, &data) != FALSE;
    shown_ = ok;
    return ok;
  }

  void RetryLater() {
    if (++tries_ > kAddTries) {
      if (auto link = link_)
        link->owner->TrayReport("No notification area after 5 minutes: running without a tray icon");
      return;
    }
    retry_.expires_after(kAddRetry);
    retry_.async_wait([this](const std::error_code& ec) {
      if (ec || !added_) return;
      if (!Show()) RetryLater();
    });
  }

  // Runs on the tray thread: the hidden window, its menu and its message loop.
  void Run(std::promise<std::string>& started) {
    threadId_ = GetCurrentThreadId();
    HINSTANCE instance = GetModuleHandleA(nullptr);
    WNDCLASSEXA cls{};
    cls.cbSize = sizeof cls;
    cls.lpfnWndProc = &Win32Tray::WindowProc;
    cls.hInstance = instance;
    cls.hIcon = largeIcon_;
    cls.hIconSm = smallIcon_;
    cls.lpszClassName = win32::kTrayWindowClass;
    if (!RegisterClassExA(&cls) && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) {
      started.set_value(LastErrorText("RegisterClassEx"));
      return;
    }
    hwnd_ = CreateWindowExA(0, win32::kTrayWindowClass, config_.Caption.c_str(), WS_OVERLAPPEDWINDOW,
                            CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr,
                            instance, this);
    if (!hwnd_) {
      started.set_value("no display: " + LastErrorText("CreateWindowEx"));
      return;
    }
    menu_ = CreatePopupMenu();
    for (UINT i = 0; menu_ && i < config_.Menu.size(); ++i) {
      const TrayMenuEntry& entry = config_.Menu[i];
      const UINT flags =
          entry.Caption == "-" ? MF_SEPARATOR : MF_STRING | (entry.Enabled ? MF_ENABLED : MF_GRAYED);
      AppendMenuA(menu_, flags, kFirstMenuCommand + i, entry.Caption.c_str());
    }
    if (!menu_) {
      started.set_value(LastErrorText("CreatePopupMenu"));
      DestroyWindow(hwnd_);
      return;
    }
    started.set_value("");
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
      TranslateMessage(&msg);
      DispatchMessageA(&msg);
    }
    DestroyMenu(menu_);
  }

  static LRESULT CALLBACK WindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    if (msg == WM_NCCREATE) {
      SetWindowLongPtrA(hwnd, GWLP_USERDATA,
                        reinterpret_cast<LONG_PTR>(reinterpret_cast<CREATESTRUCTA*>(lParam)->lpCreateParams));
    }
    auto* self = reinterpret_cast<Win32Tray*>(GetWindowLongPtrA(hwnd, GWLP_USERDATA));
    if (self) return self->Handle(hwnd, msg, wParam, lParam);
    return DefWindowProcA(hwnd, msg, wParam, lParam);
  }

  LRESULT Handle(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    switch (msg) {
      case kCallbackMessage:
        Post([mouse = static_cast<long>(static_cast<UINT>(lParam))](Win32Tray&, TrayOwner& owner) {
          owner.TrayIconCallback(mouse);
        });
        return 0;
      case kPopupMessage:
        ShowMenu(hwnd);
        return 0;
      case WM_COMMAND:
        if (HIWORD(wParam) == 0) Choose(LOWORD(wParam));
        return 0;
      case WM_CLOSE:  // only "Exit" ends the program: closing the window just hides it
        ShowWindow(hwnd, SW_HIDE);
        return 0;
      case kCloseMessage:
        DestroyWindow(hwnd);
        return 0;
      case WM_DESTROY:
        PostQuitMessage(0);
        return 0;
      default:
        if (msg == taskbarCreated_ && taskbarCreated_ != 0) {
          // Explorer started (again) with an empty notification area: put the icon there.
          Post([](Win32Tray& tray, TrayOwner&) {
            if (!tray.added_) return;
            tray.shown_ = false;
            tray.SetTrayIcon(true);
          });
          return 0;
        }
        return DefWindowProcA(hwnd, msg, wParam, lParam);
    }
  }

  void ShowMenu(HWND hwnd) {
    POINT at{};
    GetCursorPos(&at);
    // Without the foreground the menu would not close when the user clicks elsewhere.
    SetForegroundWindow(hwnd);
    const int chosen =
        TrackPopupMenu(menu_, TPM_RETURNCMD | TPM_NONOTIFY | TPM_RIGHTBUTTON, at.x, at.y, 0, hwnd, nullptr);
    PostMessageA(hwnd, WM_NULL, 0, 0);
    if (chosen != 0) Choose(static_cast<UINT>(chosen));
  }

  void Choose(UINT command) {
    if (command < kFirstMenuCommand || command - kFirstMenuCommand >= config_.Menu.size()) return;
    Post([index = static_cast<int>(command - kFirstMenuCommand)](Win32Tray&, TrayOwner& owner) {
      owner.MenuArray_Click(index);
    });
  }

  // From the tray thread into the loop; dropped there if the icon has gone meanwhile.
  template <class F>
  void Post(F f) {
    asio::post(io_, [this, weak = weakLink_, f = std::move(f)] {
      if (std::shared_ptr<Link> link = weak.lock()) f(*this, *link->owner);
    });
  }

  asio::io_context& io_;
  std::shared_ptr<Link> link_;          // the loop's
  const std::weak_ptr<Link> weakLink_;  // the tray thread's copy, never changed
  const TrayConfig config_;
  HICON smallIcon_ = nullptr;
  HICON largeIcon_ = nullptr;
  UINT taskbarCreated_ = 0;
  std::thread thread_;
  DWORD threadId_ = 0;
  HWND hwnd_ = nullptr;
  HMENU menu_ = nullptr;
  // The loop's own: whether the icon should be in the notification area, and whether it is there.
  bool added_ = false;
  bool shown_ = false;
  asio::steady_timer retry_;
  int tries_ = 0;
};

}  // namespace

std::unique_ptr<Tray> OpenTray(asio::io_context& io, TrayOwner& owner, TrayConfig config,
                               std::string& whyNot) {
  auto tray = std::make_unique<Win32Tray>(io, owner, std::move(config));
  if (!tray->Start(whyNot)) return nullptr;
  return tray;
}

namespace win32 {
HWND TrayWindow(const Tray& tray) { return static_cast<const Win32Tray&>(tray).Window(); }
}  // namespace win32

}  // namespace tavrel::platform
