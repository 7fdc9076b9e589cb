// The notification-area icon on a Linux desktop: a StatusNotifierItem with a com.canonical.dbusmenu
// menu on the session bus, driven from the program's loop (the bus socket is watched by the
// io_context, sd-bus's own time-outs by a steady timer), so no thread of its own.
//
// The icon's left click shows the menu as on Windows (ItemIsMenu); a host that calls Activate anyway
// gets no action, because a click on the icon never did more than show the menu. The host pops the
// menu up itself, so PopupMenu has nothing to do here.
#include "platform/Tray.h"

#ifdef TAVREL_HAVE_SDBUS

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#endif

namespace tavrel::platform {

#ifndef TAVREL_HAVE_SDBUS

std::unique_ptr<Tray> OpenTray(asio::io_context&, TrayOwner&, TrayConfig, std::string& whyNot) {
  whyNot = "built without tray support";
  return nullptr;
}

#else

namespace {

constexpr char kItemPath[] = "/StatusNotifierItem";
constexpr char kItemInterface[] = "org.kde.StatusNotifierItem";
constexpr char kMenuPath[] = "/MenuBar";
constexpr char kMenuInterface[] = "com.canonical.dbusmenu";
constexpr char kWatcher[] = "org.kde.StatusNotifierWatcher";
constexpr char kWatcherPath[] = "/StatusNotifierWatcher";
constexpr uint64_t kCallTimeoutUsec = 2'000'000;

// One square image of the icon: ARGB32, each pixel in network byte order, as the item protocol wants.
struct Pixmap {
  int size = 0;
  std::vector<uint8_t> argb;
};

// The page's green LED at one size: a lit disc with a darker rim and a highlight towards the top left,
// its edge smoothed into the transparent ground.
Pixmap DrawLed(int size) {
  struct Rgb {
    double r, g, b;
  };
  const Rgb rim{0x00, 0x50, 0x00}, body{0x00, 0xC8, 0x00}, light{0xAA, 0xFF, 0xAA};
  const double centre = size / 2.0, radius = size / 2.0 - 0.5, rimWidth = std::max(1.0, size / 12.0);
  const double lightX = centre - radius * 0.35, lightY = centre - radius * 0.35;
  Pixmap p{size, std::vector<uint8_t>(static_cast<size_t>(size * size * 4), 0)};
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double d = std::hypot(x + 0.5 - centre, y + 0.5 - centre);
      const double cover = std::clamp(radius - d + 0.5, 0.0, 1.0);
      if (cover <= 0) continue;
      Rgb c = rim;
      if (d < radius - rimWidth) {
        const double h =
            std::clamp(1.0 - std::hypot(x + 0.5 - lightX, y + 0.5 - lightY) / (radius * 0.7), 0.0, 1.0);
        c = {body.r + (light.r - body.r) * h, body.g + (light.g - body.g) * h,
             body.b + (light.b - body.b) * h};
      }
      uint8_t* px = &p.argb[static_cast<size_t>((y * size + x) * 4)];
      px[0] = static_cast<uint8_t>(std::lround(cover * 255));
      px[1] = static_cast<uint8_t>(std::lround(c.r));
      px[2] = static_cast<uint8_t>(std::lround(c.g));
      px[3] = static_cast<uint8_t>(std::lround(c.b));
    }
  }
  return p;
}

// The sizes panels ask for most; the host scales the nearest one.
const std::vector<Pixmap>& LedIcons() {
  static const std::vector<Pixmap> icons = {DrawLed(16), DrawLed(22), DrawLed(32), DrawLed(48)};
  return icons;
}

int AppendPixmaps(sd_bus_message* m, const std::vector<Pixmap>& icons) {
  int r = sd_bus_message_open_container(m, 'a', "(iiay)");
  for (const auto& icon : icons) {
    if (r >= 0) r = sd_bus_message_open_container(m, 'r', "iiay");
    if (r >= 0) r = sd_bus_message_append(m, "ii", icon.size, icon.size);
    if (r >= 0) r = sd_bus_message_append_array(m, 'y', icon.argb.data(), icon.argb.size());
    if (r >= 0) r = sd_bus_message_close_container(m);
  }
  return r >= 0 ? sd_bus_message_close_container(m) : r;
}

class SniTray final : public Tray {
 public:
  // Takes over bus and busCopy, a duplicate of the bus socket for the loop to watch.
  SniTray(asio::io_context& io, TrayOwner& owner, TrayConfig config, sd_bus* bus, int busCopy)
      : io_(io),
        owner_(owner),
        config_(std::move(config)),
        bus_(bus),
        fd_(io, busCopy),
        timer_(io),
        name_("org.kde.StatusNotifierItem-" + std::to_string(getpid()) + "-1") {}

  ~SniTray() override {
    alive_.reset();
    timer_.cancel();
    for (sd_bus_slot* slot : slots_) sd_bus_slot_unref(slot);
    sd_bus_flush_close_unref(bus_);
  }

  // Publishes the item and the menu objects and follows the watcher's name; false when the bus refuses.
  bool Attach() {
    static const sd_bus_vtable kItem[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Category", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Id", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Title", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Status", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("WindowId", "i", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("IconThemePath", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("IconName", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("IconPixmap", "a(iiay)", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("OverlayIconName", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("OverlayIconPixmap", "a(iiay)", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("AttentionIconName", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("AttentionIconPixmap", "a(iiay)", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("AttentionMovieName", "s", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("ToolTip", "(sa(iiay)ss)", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("ItemIsMenu", "b", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Menu", "o", ItemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_METHOD("ContextMenu", "ii", "", NoAction, 0),
        SD_BUS_METHOD("Activate", "ii", "", NoAction, 0),
        SD_BUS_METHOD("SecondaryActivate", "ii", "", NoAction, 0),
        SD_BUS_METHOD("Scroll", "is", "", NoAction, 0),
        SD_BUS_SIGNAL("NewTitle", "", 0),
        SD_BUS_SIGNAL("NewIcon", "", 0),
        SD_BUS_SIGNAL("NewAttentionIcon", "", 0),
        SD_BUS_SIGNAL("NewOverlayIcon", "", 0),
        SD_BUS_SIGNAL("NewToolTip", "", 0),
        SD_BUS_SIGNAL("NewStatus", "s", 0),
        SD_BUS_VTABLE_END};
    static const sd_bus_vtable kMenu[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Version", "u", MenuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("TextDirection", "s", MenuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Status", "s", MenuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("IconThemePath", "as", MenuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_METHOD("GetLayout", "iias", "u(ia{sv}av)", GetLayout, 0),
        SD_BUS_METHOD("GetGroupProperties", "aias", "a(ia{sv})", GetGroupProperties, 0),
        SD_BUS_METHOD("GetProperty", "is", "v", GetProperty, 0),
        SD_BUS_METHOD("Event", "isvu", "", Event, 0),
        SD_BUS_METHOD("EventGroup", "a(isvu)", "ai", EventGroup, 0),
        SD_BUS_METHOD("AboutToShow", "i", "b", AboutToShow, 0),
        SD_BUS_METHOD("AboutToShowGroup", "ai", "aiai", AboutToShowGroup, 0),
        SD_BUS_SIGNAL("ItemsPropertiesUpdated", "a(ia{sv})a(ias)", 0),
        SD_BUS_SIGNAL("LayoutUpdated", "ui", 0),
        SD_BUS_SIGNAL("ItemActivationRequested", "iu", 0),
        SD_BUS_VTABLE_END};
    // A tray host that starts (or restarts) after us learns of the item again.
    const std::string watcherMatch =
        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        std::string(kWatcher) + "'";
    sd_bus_slot *item = nullptr, *menu = nullptr, *match = nullptr;
    bool ok = sd_bus_add_object_vtable(bus_, &item, kItemPath, kItemInterface, kItem, this) >= 0 &&
              sd_bus_add_object_vtable(bus_, &menu, kMenuPath, kMenuInterface, kMenu, this) >= 0 &&
              sd_bus_add_match(bus_, &match, watcherMatch.c_str(), WatcherChanged, this) >= 0;
    slots_ = {item, menu, match};
    Kick();
    return ok;
  }

  // Whether a tray host is on the bus now; asked after Attach, so that one starting meanwhile is not missed.
  // Asked of the bus itself, which answers at once. False when the bus does not answer.
  bool AskForHost() {
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, without the compound literal clang refuses in C++
    sd_bus_message* reply = nullptr;
    int owned = 0;
    int r = sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "NameHasOwner", &error, &reply, "s", kWatcher);
    if (r >= 0) r = sd_bus_message_read(reply, "b", &owned);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (owned) hostPresent_ = true;
    return r >= 0;
  }

  // With no tray host yet the item waits on the bus, and registers when a host appears.
  bool SetTrayIcon(bool show) override {
    if (show == shown_) return !show || hostPresent_;
    if (show) {
      if (sd_bus_request_name(bus_, name_.c_str(), 0) < 0) return false;
      shown_ = true;
      if (hostPresent_) RegisterWithWatcher();
    } else {
      // Our name leaving the bus is what tells the host the item is gone.
      sd_bus_release_name(bus_, name_.c_str());
      shown_ = false;
    }
    Kick();
    return !show || hostPresent_;
  }

  void PopupMenu() override {}

 private:
  static SniTray& Self(void* userdata) { return *static_cast<SniTray*>(userdata); }

  void RegisterWithWatcher() {
    // No reply wanted: a host that takes its time must not hold up the program.
    sd_bus_call_method_async(bus_, nullptr, kWatcher, kWatcherPath, kWatcher, "RegisterStatusNotifierItem",
                             nullptr, nullptr, "s", name_.c_str());
  }

  // The bus's work: everything sd-bus has queued or can read now, then wait for the next readiness.
  void Process() {
    int r = 1;
    while (r > 0) r = sd_bus_process(bus_, nullptr);
    if (r < 0) return;  // the session bus went away: the icon is gone with it
    Watch();
  }

  // Queue a Process on the loop: after calls made outside it, sd-bus may hold messages it already read.
  void Kick() {
    asio::post(io_, [alive = std::weak_ptr<char>(alive_), this] {
      if (!alive.expired()) Process();
    });
  }

  void Watch() {
    const int events = sd_bus_get_events(bus_);
    if (events < 0) return;
    auto onReady = [alive = std::weak_ptr<char>(alive_), this](bool& pending) {
      return [alive, this, &pending](const std::error_code& ec) {
        if (alive.expired()) return;
        pending = false;
        if (!ec) Process();
      };
    };
    if (!readPending_) {
      readPending_ = true;
      fd_.async_wait(asio::posix::stream_descriptor::wait_read, onReady(readPending_));
    }
    if ((events & POLLOUT) != 0 && !writePending_) {
      writePending_ = true;
      fd_.async_wait(asio::posix::stream_descriptor::wait_write, onReady(writePending_));
    }
    uint64_t due = UINT64_MAX;
    if (sd_bus_get_timeout(bus_, &due) < 0 || due == UINT64_MAX) {
      timer_.cancel();
      return;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nowUsec = uint64_t(now.tv_sec) * 1'000'000 + uint64_t(now.tv_nsec) / 1000;
    timer_.expires_after(std::chrono::microseconds(due > nowUsec ? due - nowUsec : 0));
    timer_.async_wait([alive = std::weak_ptr<char>(alive_), this](const std::error_code& ec) {
      if (!ec && !alive.expired()) Process();
    });
  }

  static int WatcherChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char *name = nullptr, *before = nullptr, *after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) return 0;
    SniTray& self = Self(userdata);
    self.hostPresent_ = after != nullptr && *after != '\0';
    if (self.hostPresent_ && self.shown_) self.RegisterWithWatcher();
    return 0;
  }

  static int NoAction(sd_bus_message* m, void*, sd_bus_error*) { return sd_bus_reply_method_return(m, ""); }

  static int ItemProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
    const SniTray& self = Self(userdata);
    const std::string p = property;
    if (p == "Category") return sd_bus_message_append(reply, "s", "ApplicationStatus");
    if (p == "Id") return sd_bus_message_append(reply, "s", "tavrel");
    if (p == "Title") return sd_bus_message_append(reply, "s", self.config_.Caption.c_str());
    if (p == "Status") return sd_bus_message_append(reply, "s", "Active");
    if (p == "WindowId") return sd_bus_message_append(reply, "i", 0);
    if (p == "IconPixmap") return AppendPixmaps(reply, LedIcons());
    if (p == "OverlayIconPixmap" || p == "AttentionIconPixmap") return AppendPixmaps(reply, {});
    if (p == "ItemIsMenu") return sd_bus_message_append(reply, "b", 1);
    if (p == "Menu") return sd_bus_message_append(reply, "o", kMenuPath);
    if (p == "ToolTip") {
      int r = sd_bus_message_open_container(reply, 'r', "sa(iiay)ss");
      if (r >= 0) r = sd_bus_message_append(reply, "s", "");
      if (r >= 0) r = AppendPixmaps(reply, {});
      if (r >= 0) r = sd_bus_message_append(reply, "ss", self.config_.Caption.c_str(), "");
      return r >= 0 ? sd_bus_message_close_container(reply) : r;
    }
    return sd_bus_message_append(reply, "s", "");  // the names of icons we do not use
  }

  static int MenuProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                          void*, sd_bus_error*) {
    const std::string p = property;
    if (p == "Version") return sd_bus_message_append(reply, "u", 3U);
    if (p == "TextDirection") return sd_bus_message_append(reply, "s", "ltr");
    if (p == "Status") return sd_bus_message_append(reply, "s", "normal");
    return sd_bus_message_append(reply, "as", 0);
  }

  // Menu items by id: 0 is the root, the entries follow as index + 1.
  bool Known(int id) const { return id >= 0 && id <= static_cast<int>(config_.Menu.size()); }
  const TrayMenuEntry* Entry(int id) const { return id > 0 && Known(id) ? &config_.Menu[id - 1] : nullptr; }

  // An item's properties that differ from the protocol's defaults, those in names only (all when empty).
  int AppendProperties(sd_bus_message* m, int id, const std::vector<std::string>& names) const {
    std::vector<std::pair<const char*, std::string> > texts;
    bool disabled = false;
    if (const TrayMenuEntry* e = Entry(id)) {
      if (e->Caption == "-") {
        texts.emplace_back("type", "separator");
      } else {
        texts.emplace_back("label", e->Caption);
        disabled = !e->Enabled;
      }
    } else {
      texts.emplace_back("children-display", "submenu");
    }
    auto wanted = [&](const char* name) {
      return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
    };
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (const auto& [key, value] : texts) {
      if (r >= 0 && wanted(key)) r = sd_bus_message_append(m, "{sv}", key, "s", value.c_str());
    }
    if (r >= 0 && disabled && wanted("enabled")) r = sd_bus_message_append(m, "{sv}", "enabled", "b", 0);
    return r >= 0 ? sd_bus_message_close_container(m) : r;
  }

  int AppendLayout(sd_bus_message* m, int id, int depth, const std::vector<std::string>& names) const {
    int r = sd_bus_message_open_container(m, 'r', "ia{sv}av");
    if (r >= 0) r = sd_bus_message_append(m, "i", id);
    if (r >= 0) r = AppendProperties(m, id, names);
    if (r >= 0) r = sd_bus_message_open_container(m, 'a', "v");
    const int children = id == 0 && depth != 0 ? static_cast<int>(config_.Menu.size()) : 0;
    for (int child = 1; child <= children && r >= 0; ++child) {
      r = sd_bus_message_open_container(m, 'v', "(ia{sv}av)");
      if (r >= 0) r = AppendLayout(m, child, depth - 1, names);
      if (r >= 0) r = sd_bus_message_close_container(m);
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r >= 0 ? sd_bus_message_close_container(m) : r;
  }

  static int ReadNames(sd_bus_message* m, std::vector<std::string>& names) {
    char** list = nullptr;
    int r = sd_bus_message_read_strv(m, &list);
    for (char** s = list; s != nullptr && *s != nullptr; ++s) {
      names.emplace_back(*s);
      free(*s);
    }
    free(list);
    return r;
  }

  static int ReplyUnknown(sd_bus_error* error) {
    return sd_bus_error_set(error, "com.canonical.dbusmenu.Error.UnknownId", "no menu item with this id");
  }

  static int GetLayout(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    const SniTray& self = Self(userdata);
    int parent = 0, depth = 0;
    std::vector<std::string> names;
    int r = sd_bus_message_read(m, "ii", &parent, &depth);
    if (r >= 0) r = ReadNames(m, names);
    if (r < 0) return r;
    if (!self.Known(parent)) return ReplyUnknown(error);
    sd_bus_message* reply = nullptr;
    r = sd_bus_message_new_method_return(m, &reply);
    if (r >= 0) r = sd_bus_message_append(reply, "u", 1U);
    if (r >= 0) r = self.AppendLayout(reply, parent, depth, names);
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
  }

  static int GetGroupProperties(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const SniTray& self = Self(userdata);
    const void* data = nullptr;
    size_t bytes = 0;
    std::vector<std::string> names;
    int r = sd_bus_message_read_array(m, 'i', &data, &bytes);
    std::vector<int> ids(static_cast<const int*>(data), static_cast<const int*>(data) + bytes / sizeof(int));
    if (r >= 0) r = ReadNames(m, names);
    if (r < 0) return r;
    if (ids.empty())
      for (int id = 0; self.Known(id); ++id) ids.push_back(id);
    sd_bus_message* reply = nullptr;
    r = sd_bus_message_new_method_return(m, &reply);
    if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "(ia{sv})");
    for (int id : ids) {
      if (!self.Known(id)) continue;
      if (r >= 0) r = sd_bus_message_open_container(reply, 'r', "ia{sv}");
      if (r >= 0) r = sd_bus_message_append(reply, "i", id);
      if (r >= 0) r = self.AppendProperties(reply, id, names);
      if (r >= 0) r = sd_bus_message_close_container(reply);
    }
    if (r >= 0) r = sd_bus_message_close_container(reply);
    if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r;
  }

  static int GetProperty(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    const SniTray& self = Self(userdata);
    int id = 0;
    const char* name = nullptr;
    int r = sd_bus_message_read(m, "is", &id, &name);
    if (r < 0) return r;
    if (!self.Known(id)) return ReplyUnknown(error);
    const TrayMenuEntry* e = self.Entry(id);
    const std::string n = name;
    if (e != nullptr && e->Caption == "-" && n == "type")
      return sd_bus_reply_method_return(m, "v", "s", "separator");
    if (e != nullptr && e->Caption != "-" && n == "label")
      return sd_bus_reply_method_return(m, "v", "s", e->Caption.c_str());
    if (e != nullptr && e->Caption != "-" && n == "enabled")
      return sd_bus_reply_method_return(m, "v", "b", e->Enabled);
    if (e == nullptr && n == "children-display") return sd_bus_reply_method_return(m, "v", "s", "submenu");
    return sd_bus_error_set(error, "com.canonical.dbusmenu.Error.UnknownProperty", "no such property");
  }

  // A chosen entry reaches the program on the loop's next turn, outside the bus's dispatch.
  void Clicked(int id, const std::string& event) {
    const TrayMenuEntry* e = Entry(id);
    if (event != "clicked" || e == nullptr || e->Caption == "-" || !e->Enabled) return;
    asio::post(io_, [alive = std::weak_ptr<char>(alive_), this, index = id - 1] {
      if (!alive.expired()) owner_.MenuArray_Click(index);
    });
  }

  static int Event(sd_bus_message* m, void* userdata, sd_bus_error*) {
    int id = 0;
    const char* event = nullptr;
    int r = sd_bus_message_read(m, "is", &id, &event);
    if (r < 0) return r;
    Self(userdata).Clicked(id, event);
    return sd_bus_reply_method_return(m, "");
  }

  static int EventGroup(sd_bus_message* m, void* userdata, sd_bus_error*) {
    int r = sd_bus_message_enter_container(m, 'a', "(isvu)");
    while (r > 0) {
      int id = 0;
      const char* event = nullptr;
      r = sd_bus_message_enter_container(m, 'r', "isvu");
      if (r <= 0) break;
      r = sd_bus_message_read(m, "is", &id, &event);
      if (r >= 0) r = sd_bus_message_skip(m, "vu");
      if (r >= 0) r = sd_bus_message_exit_container(m);
      if (r >= 0) Self(userdata).Clicked(id, event);
    }
    if (r < 0) return r;
    return sd_bus_reply_method_return(m, "ai", 0);
  }

  static int AboutToShow(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "b", 0);
  }

  static int AboutToShowGroup(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "aiai", 0, 0);
  }

  asio::io_context& io_;
  TrayOwner& owner_;
  TrayConfig config_;
  sd_bus* bus_;
  // A copy of the bus socket: sd-bus closes its own when the bus fails, the copy stays ours to close.
  asio::posix::stream_descriptor fd_;
  asio::steady_timer timer_;
  std::string name_;
  std::vector<sd_bus_slot*> slots_;
  std::shared_ptr<char> alive_ = std::make_shared<char>();
  bool shown_ = false;
  bool hostPresent_ = false;
  bool readPending_ = false;
  bool writePending_ = false;
};

}  // namespace

std::unique_ptr<Tray> OpenTray(asio::io_context& io, TrayOwner& owner, TrayConfig config,
                               std::string& whyNot) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user_with_description(&bus, "tavrel") < 0) {
    whyNot = "no session bus";
    return nullptr;
  }
  sd_bus_set_method_call_timeout(bus, kCallTimeoutUsec);
  const int busCopy = fcntl(sd_bus_get_fd(bus), F_DUPFD_CLOEXEC, 0);
  if (busCopy < 0) {
    whyNot = "no session bus";
    sd_bus_flush_close_unref(bus);
    return nullptr;
  }
  auto tray = std::make_unique<SniTray>(io, owner, std::move(config), bus, busCopy);
  if (!tray->Attach()) {
    whyNot = "the session bus refused the icon";
    return nullptr;
  }
  if (!tray->AskForHost()) {
    whyNot = "no session bus";
    return nullptr;
  }
  return tray;
}

#endif

}  // namespace tavrel::platform
