#pragma once

#include <memory>
#include <string>
#include <vector>

namespace asio {
class io_context;
}

namespace tavrel::platform {

// What the notification-area icon reports back, always on the loop's thread (a platform that needs a
// thread of its own posts into the loop).
class TrayOwner {
 public:
  virtual ~TrayOwner() = default;
  // A mouse message at the icon (514 left button up, 517 right button up, ...), as the Windows shell
  // gives it. Platforms whose tray host shows the menu by itself never call this.
  virtual void TrayIconCallback(long msg) = 0;
  // An entry of the menu was chosen, by its index.
  virtual void MenuArray_Click(int index) = 0;
  // A line for the log about the icon itself (the icon gave up waiting for a notification area).
  virtual void TrayReport(const std::string& /*text*/) {}
};

// One entry of the icon's menu; the caption "-" is a separator.
struct TrayMenuEntry {
  std::string Caption;
  bool Enabled = true;
};

// The notification-area icon with its tip and pop-up menu.
class Tray {
 public:
  virtual ~Tray() = default;
  // Shows (adds or modifies) or removes the icon. Showing gives true when the icon is in the notification
  // area, false when it is not there yet: the icon then comes by itself as soon as a notification area
  // appears (a tray host started late or restarted). Removing gives false only when the host refused.
  virtual bool SetTrayIcon(bool show) = 0;
  // Pops up the menu at the mouse position (where the platform leaves that to the program).
  virtual void PopupMenu() = 0;
};

struct TrayConfig {
  std::string Caption;  // the tip, "WOL"
  std::vector<TrayMenuEntry> Menu;
};

// The platform's icon whenever this session may ever show one, even with no tray host yet; nullptr with
// whyNot set when it never can (no display, no session bus). Built-in icon: no file beside the program
// needed.
std::unique_ptr<Tray> OpenTray(asio::io_context& io, TrayOwner& owner, TrayConfig config,
                               std::string& whyNot);

}  // namespace tavrel::platform
