// The tray icon on a private session bus, the test playing the tray host (the StatusNotifierWatcher).
#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "Node.h"

namespace tavrel::test {
namespace {

constexpr char kWatcher[] = "org.kde.StatusNotifierWatcher";
constexpr char kDaemon[] = "/usr/bin/dbus-daemon";

// A dbus-daemon of the test's own, ended by its pid.
class PrivateBus {
 public:
  PrivateBus() {
    const std::filesystem::path printed = dir_.Path() / "address";
    if (access(kDaemon, X_OK) != 0 ||
        (pid_ = Spawn({kDaemon, "--session", "--nofork", "--print-address"}, "", printed, "/dev/null")) < 0)
      return;
    WaitFor([&] { return (address_ = ReadFile(printed)).find('\n') != std::string::npos; });
    address_ = address_.substr(0, address_.find('\n'));
  }
  ~PrivateBus() {
    if (pid_ > 0) kill(pid_, SIGTERM), waitpid(pid_, nullptr, 0);
  }
  const std::string& Address() const { return address_; }

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  std::string address_;
};

// The tray host on the test's bus: it records every item registered with it.
class Host {
 public:
  Host() {  // on the bus of DBUS_SESSION_BUS_ADDRESS
    if (sd_bus_open_user(&bus_) < 0) throw std::runtime_error("cannot reach the test bus");
    static const sd_bus_vtable kVtable[] = {SD_BUS_VTABLE_START(0),
                                            SD_BUS_METHOD("RegisterStatusNotifierItem", "s", "", Register, 0),
                                            SD_BUS_VTABLE_END};
    if (sd_bus_add_object_vtable(bus_, nullptr, "/StatusNotifierWatcher", kWatcher, kVtable, this) < 0 ||
        sd_bus_request_name(bus_, kWatcher, 0) < 0)
      throw std::runtime_error("cannot play the tray host");
  }
  ~Host() { sd_bus_flush_close_unref(bus_); }

  // Serves the bus until cond holds or the deadline passes.
  bool Serve(const std::function<bool()>& cond) {
    for (auto end = steady_clock::now() + 5s; steady_clock::now() < end;) {
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
      if (cond()) return true;
      sd_bus_wait(bus_, 20'000);
    }
    return false;
  }
  // A property of the item as its sd-bus message, entered into the variant.
  sd_bus_message* Property(const char* name, const char* type) {
    sd_bus_message* reply = nullptr;
    sd_bus_get_property(bus_, items[0].c_str(), "/StatusNotifierItem", "org.kde.StatusNotifierItem", name,
                        nullptr, &reply, type);
    replies_.emplace_back(reply, sd_bus_message_unref);
    return reply;
  }
  std::string Text(const char* name, const char* type = "s") {
    const char* text = "?";
    sd_bus_message_read(Property(name, type), type, &text);
    return text;
  }
  // A method of the item's menu, its arguments as sd_bus_call_method takes them.
  template <typename... Args>
  sd_bus_message* Call(const char* method, Args... args) {
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(bus_, items[0].c_str(), "/MenuBar", "com.canonical.dbusmenu", method, nullptr, &reply,
                       args...);
    replies_.emplace_back(reply, sd_bus_message_unref);
    return reply;
  }

  std::vector<std::string> items;

 private:
  static int Register(sd_bus_message* m, void* self, sd_bus_error*) {
    const char* service = nullptr;
    sd_bus_message_read(m, "s", &service);
    static_cast<Host*>(self)->items.emplace_back(service != nullptr ? service : "");
    return sd_bus_reply_method_return(m, "");
  }

  sd_bus* bus_ = nullptr;
  std::vector<std::unique_ptr<sd_bus_message, sd_bus_message* (*)(sd_bus_message*)>> replies_;
};

class TrayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (bus.Address().empty()) GTEST_SKIP() << "needs " << kDaemon << " (Debian package dbus-daemon)";
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.Address().c_str(), 1);
    unsetenv("XDG_RUNTIME_DIR");  // nor the bus found there
  }
  // The program with the test's bus, or with no session bus at all.
  void StartNode(bool withBus) {
    node = std::make_unique<Node>(hub.Port(), "[WOL]\nHTTPPort=\"\"\nSubnet=127.0.0\nScanMethod=native\n");
    if (!withBus) unsetenv("DBUS_SESSION_BUS_ADDRESS");
    node->Start(false, true);
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.Address().c_str(), 1);
  }
  std::string Log() const { return ReadFile(node->Home() / "Data" / "tavrel.txt"); }

  PrivateBus bus;
  Hub hub;
  std::unique_ptr<Node> node;
};

// Each menu item of a GetLayout answer as its label or "(type)", "(off)" added when disabled; its id goes
// into ids.
std::vector<std::string> MenuItems(sd_bus_message* m, std::vector<int>& ids) {
  std::vector<std::string> items;
  sd_bus_message_skip(m, "u");
  sd_bus_message_enter_container(m, 'r', "ia{sv}av");
  sd_bus_message_skip(m, "ia{sv}");
  sd_bus_message_enter_container(m, 'a', "v");
  while (sd_bus_message_enter_container(m, 'v', "(ia{sv}av)") > 0) {
    sd_bus_message_enter_container(m, 'r', "ia{sv}av");
    sd_bus_message_read(m, "i", &ids.emplace_back());
    std::string item;
    const char *key = nullptr, *text = nullptr;
    int enabled = 1;
    sd_bus_message_enter_container(m, 'a', "{sv}");
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      sd_bus_message_read(m, "s", &key);
      if (sd_bus_message_read(m, "v", "s", &text) >= 0)
        item += std::string(key) == "type" ? "(" + std::string(text) + ")" : text;
      else if (sd_bus_message_read(m, "v", "b", &enabled) >= 0 && !enabled)
        item += "(off)";
      sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
    sd_bus_message_skip(m, "av");
    sd_bus_message_exit_container(m);
    sd_bus_message_exit_container(m);
    items.push_back(item);
  }
  return items;
}

TEST_F(TrayTest, TheHostSeesTheIconAndItsMenuAndTheMenuDrivesTheProgram) {
  Host host;
  StartNode(true);
  ASSERT_TRUE(host.Serve([&] { return !host.items.empty(); })) << "the item never registered\n" << Log();
  EXPECT_EQ(host.items[0], "org.kde.StatusNotifierItem-" + std::to_string(node->Pid()) + "-1");

  EXPECT_EQ(host.Text("Id") + "|" + host.Text("Category") + "|" + host.Text("Title") + "|" +
                host.Text("Status") + "|" + host.Text("Menu", "o"),
            "tavrel|ApplicationStatus|WOL|Active|/MenuBar");

  // Every size drawn in full: a lit green centre on a transparent ground.
  sd_bus_message* icons = host.Property("IconPixmap", "a(iiay)");
  std::string sizes;
  sd_bus_message_enter_container(icons, 'a', "(iiay)");
  for (int w = 0, h = 0; sd_bus_message_enter_container(icons, 'r', "iiay") > 0;
       sd_bus_message_exit_container(icons)) {
    const uint8_t* px = nullptr;
    size_t n = 0;
    sd_bus_message_read(icons, "ii", &w, &h);
    sd_bus_message_read_array(icons, 'y', reinterpret_cast<const void**>(&px), &n);
    const size_t c = static_cast<size_t>((h / 2 * w + w / 2) * 4);
    const bool drawn = n == size_t(w * h * 4) && px[0] == 0 && px[c] == 255 && px[c + 2] > 2 * px[c + 1] &&
                       px[c + 2] > 2 * px[c + 3];
    sizes += std::to_string(w) + "x" + std::to_string(h) + (drawn ? " " : "(wrong) ");
  }
  EXPECT_EQ(sizes, "16x16 22x22 32x32 48x48 ");

  std::vector<int> ids;
  ASSERT_EQ(MenuItems(host.Call("GetLayout", "iias", 0, -1, 0), ids),
            (std::vector<std::string>{"Browser", "System Config", "System Status", "Query LAN", "Help",
                                      "(separator)", "Exit"}));

  // "Query LAN" asks the network for its computers.
  host.Call("Event", "isvu", ids[3], "clicked", "i", 0, 0u);
  EXPECT_NE(hub.ReceiveUntil(
                [](const std::string& t) { return t.find("\nComputer.Query\n{\nQuery=All\n}") != t.npos; }),
            "");
  // "Exit" ends the program cleanly.
  host.Call("Event", "isvu", ids[6], "clicked", "i", 0, 0u);
  EXPECT_EQ(node->WaitExit(), 0);
  EXPECT_EQ(Log().find("tray"), std::string::npos) << Log();
}

// No session bus: the program runs on without an icon and says so once. A bus with no tray host yet, as
// when the program starts before the panel: it says it waits, and the item registers once a host appears.
TEST_F(TrayTest, WithoutASessionBusNoIconAndALateTrayHostGetsTheItem) {
  for (const auto& [withBus, line] :
       {std::pair{false, "Running without a tray icon: no session bus"},
        {true, "Waiting for a notification area: no tray host yet; the icon appears when one starts"}}) {
    const auto started = steady_clock::now();
    StartNode(withBus);
    EXPECT_NE(hub.Heartbeat(), "") << line;
    EXPECT_TRUE(WaitFor([&] { return Log() == std::string("tavrel ") + line + " 0 \n"; })) << Log();
    if (withBus) {
      std::this_thread::sleep_until(started + 2s);
      Host host;
      EXPECT_TRUE(host.Serve([&] { return !host.items.empty(); })) << "no item after the host came\n"
                                                                   << Log();
    }
    node->Signal(SIGTERM);
    EXPECT_EQ(node->WaitExit(), 0) << line;
  }
}

}  // namespace
}  // namespace tavrel::test
