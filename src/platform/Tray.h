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
  // Shows (adds or modifies) or removes the icon. Showing gives false while no notification area is
  // there to take it; the icon then appears by itself as soon as one is (a panel that starts late, or
  // starts again).
  virtual bool SetTrayIcon(bool show) = 0;
  // Pops up the menu at the mouse position (where the platform leaves that to the program).
  virtual void PopupMenu() = 0;
};

struct TrayConfig {
  std::string Caption;  // the tip, "WOL"
  std::vector<TrayMenuEntry> Menu;
};

// The platform's icon, or nullptr with whyNot set when this session can never offer a notification area
// (no display, no session bus). Built-in icon: no file beside the program needed.
std::unique_ptr<Tray> OpenTray(asio::io_context& io, TrayOwner& owner, TrayConfig config,
                               std::string& whyNot);

}  // namespace tavrel::platform
