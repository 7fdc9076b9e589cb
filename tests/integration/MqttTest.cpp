// The real program with a real MQTT broker (Debian's mosquitto), both in a private network namespace:
// what the hub is told, byte for byte; a button press reaching the network; a broker that goes and comes.
#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "Node.h"

namespace tavrel::test {
namespace {

using namespace std::string_literals;

constexpr int kBrokerPort = 1883;  // free: nothing else lives in the namespace
const std::string kIni =
    "[WOL]\r\nHTTPPort=8080\r\n[MQTT]\r\nMQTTBroker=127.0.0.1\r\n[Computer]\r\nalpha=127.0.0.9\r\n"
    "[ARP]\r\n127.0.0.9=00-1A-2B-3C-4D-5E\r\n127.0.0.4=00-11-22-33-44-04\r\n";

// mosquitto on 127.0.0.1:1883 with a configuration of the test's own; with a password, only the user
// "tavrel" with that password may connect. Each start logs to a file of its own.
class Broker {
 public:
  explicit Broker(const std::string& password = "") {
    std::string conf = "user root\nlistener " + std::to_string(kBrokerPort) +
                       " 127.0.0.1\npersistence false\nallow_anonymous " +
                       (password.empty() ? "true\n" : "false\n");
    if (!password.empty()) {
      const std::string file = (dir_.Path() / "passwd").string();
      WriteFile(file, "");
      pid_t pid = Spawn({"/usr/bin/mosquitto_passwd", "-b", file.c_str(), "tavrel", password.c_str()});
      if (WaitExit(pid) != 0) throw std::runtime_error("mosquitto_passwd");
      conf += "password_file " + file + "\n";
    }
    WriteFile(dir_.Path() / "mosquitto.conf", conf);
  }
  ~Broker() { Stop(); }
  void Start() {
    const std::string conf = (dir_.Path() / "mosquitto.conf").string();
    pid_ = Spawn({"/usr/sbin/mosquitto", "-c", conf.c_str()}, "", "", LogPath(++starts_).string());
    if (pid_ < 0 || !WaitFor([] { return Connects(); })) throw std::runtime_error("the broker did not start");
  }
  void Stop() {
    if (pid_ > 0) kill(pid_, SIGTERM), WaitExit(pid_);
  }
  std::string Log() const { return ReadFile(LogPath(starts_)); }
  static bool Connects() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = Loopback(kBrokerPort);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    close(fd);
    return ok;
  }

 private:
  std::filesystem::path LogPath(int start) const {
    return dir_.Path() / ("broker" + std::to_string(start) + ".log");
  }

  TempDir dir_;
  pid_t pid_ = -1;
  int starts_ = 0;
};

// "topic payload" lines of every message under tavrel/ and homeassistant/, from the moment it is ready.
class Subscriber {
 public:
  Subscriber() {
    pid_ = Spawn({"/usr/bin/mosquitto_sub", "-p", "1883", "-v", "-t", "tavrel/#", "-t", "homeassistant/#"},
                 "", Path().string());
    // Ready once a message of its own comes back.
    WaitFor([this] {
      Publish("tavrel/probe", "1");
      return WaitFor([this] { return Text().find("tavrel/probe 1\n") != std::string::npos; }, 200ms);
    });
  }
  ~Subscriber() {
    if (pid_ > 0) kill(pid_, SIGTERM), WaitExit(pid_);
  }
  // What came, less the probes.
  std::string Text() const {
    std::string text = ReadFile(Path()), out;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      if (text.compare(at, end - at, "tavrel/probe 1") != 0) out += text.substr(at, end - at + 1);
    return out;
  }
  bool WaitForLine(const std::string& line) {
    return WaitFor([&] { return ("\n" + Text()).find("\n" + line + "\n") != std::string::npos; });
  }
  static void Publish(const std::string& topic, const std::string& payload) {
    pid_t pid = Spawn({"/usr/bin/mosquitto_pub", "-p", "1883", "-t", topic.c_str(), "-m", payload.c_str()});
    WaitExit(pid);
  }

 private:
  std::filesystem::path Path() const { return dir_.Path() / "messages.txt"; }
  TempDir dir_;
  pid_t pid_ = -1;
};

std::string Golden() { return ReadFile(std::filesystem::path(TAVREL_INTEGRATION_GOLDEN) / "mqtt.txt"); }

// The lines in byte order: retained messages reach a new subscriber in the broker's order, not as sent.
std::string Sorted(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at + 1));
  std::sort(lines.begin(), lines.end());
  std::string out;
  for (const std::string& line : lines) out += line;
  return out;
}

// How many lines of the program's log begin with "tavrel MQTT:".
size_t MqttLogLines(const Node& node) {
  const std::string log = ReadFile(node.Home() / "Data" / "tavrel.txt");
  size_t n = 0;
  for (size_t at = log.find("tavrel MQTT:"); at != std::string::npos; at = log.find("tavrel MQTT:", at + 1))
    ++n;
  return n;
}

class MqttTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!net_.Ready())
      GTEST_SKIP() << "needs root: the broker and the program are kept in a network namespace";
  }
  PrivateNet net_;
};

TEST_F(MqttTest, AnnouncesTheTableTakesPressesAndComesBackWithTheBroker) {
  Broker broker;
  broker.Start();
  Hub hub;
  Node node(hub.Port(), kIni);
  auto sub = std::make_unique<Subscriber>();
  node.Start();
  ASSERT_TRUE(sub->WaitForLine("tavrel/tavrelhost/tavrelhost/seen ON")) << sub->Text();
  EXPECT_EQ(sub->Text(), Golden());
  const std::string heartbeat = hub.Heartbeat();
  const int port = std::atoi(heartbeat.substr(heartbeat.find("\nport=") + 6).c_str());

  // A press does what the page's button does (the wake button is pressed in the namespace sweep test).
  Subscriber::Publish("tavrel/tavrelhost/001a2b3c4d5e/reboot", "PRESS");
  EXPECT_EQ(hub.ReceiveUntil([](const std::string& t) { return t.find("class=Computer.Process") != t.npos; }),
            "xap-header\n{\nv=12\nhop=1\nuid=FF001500\nclass=Computer.Process\nsource=zel.WOL.tavrelhost\n"
            "target=*.*.alpha\n}\nComputer.Control\n{\nAction=Reboot\n}\n");
  Subscriber::Publish("tavrel/tavrelhost/nobody/wake", "PRESS");
  EXPECT_TRUE(WaitFor([&] { return MqttLogLines(node) == 2; }));

  // The broker goes away (taking its retained messages with it) and comes back; xAP is served all along.
  sub.reset();
  broker.Stop();
  int answered = 0;
  for (int i = 0; i < 10; ++i) {
    hub.SendTo(
        port,
        "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=WDT.Echo\nsource=acme.hub.alpha\ntarget=zel.WOL."
        "tavrelhost\n}\nEcho.Query\n{\nQuery=Q" +
            std::to_string(i) + "\n}\n");
    answered += !hub.ReceiveUntil([&](const std::string& t) {
                      return t.find("\nResponse=q" + std::to_string(i) + "\n") != t.npos;
                    })
                     .empty();
  }
  EXPECT_EQ(answered, 10);
  broker.Start();
  sub = std::make_unique<Subscriber>();
  ASSERT_TRUE(WaitFor([&] { return Sorted(sub->Text()) == Sorted(Golden()); })) << sub->Text();
  const std::string log = ReadFile(node.Home() / "Data" / "tavrel.txt");
  EXPECT_TRUE(std::regex_search(
      log, std::regex("\ntavrel MQTT: lost the broker 127.0.0.1:1883: [^\n]*; trying again, "
                      "at most every minute 0 \n(.*\n)?tavrel MQTT: connected to the broker "
                      "127.0.0.1:1883 again 0 \n")))
      << log;
  EXPECT_EQ(MqttLogLines(node), 4u);

  // The hub back online gets every announcement and state again (availability stays retained); a sender
  // heard on xAP appears as it is learned.
  const size_t before = sub->Text().size();
  Subscriber::Publish("homeassistant/status", "online");
  const std::string again = "homeassistant/status online\n" + Golden().substr(Golden().find('\n') + 1);
  EXPECT_TRUE(WaitFor([&] { return Sorted(sub->Text().substr(before)) == Sorted(again); })) << sub->Text();
  hub.SendTo(port,
             "xap-header\n{\nv=12\nhop=1\nuid=FF123400\nclass=xap-hbeat.alive\nsource=acme.pc.gamma\n}\n");
  EXPECT_TRUE(sub->WaitForLine("tavrel/tavrelhost/gamma/seen ON")) << sub->Text();

  // A clean exit says so.
  node.Signal(SIGTERM);
  EXPECT_TRUE(sub->WaitForLine("tavrel/tavrelhost/availability offline"));
  EXPECT_EQ(node.WaitExit(), 0);
}

TEST_F(MqttTest, AWrongPasswordIsOneLogLineAndFewAttempts) {
  Broker broker("right");
  broker.Start();
  Hub hub;
  Node node(hub.Port(), "[MQTT]\nMQTTBroker=127.0.0.1:1883\nMQTTUser=tavrel\nMQTTPassword=wrong\n");
  node.Start();
  // Attempts after 0, 1, 3 and 7 s.
  EXPECT_TRUE(WaitFor([&] { return MqttLogLines(node) > 0; }));
  std::this_thread::sleep_for(3500ms);
  EXPECT_EQ(
      ReadFile(node.Home() / "Data" / "tavrel.txt"),
      "tavrel MQTT: cannot connect to the broker 127.0.0.1:1883: the broker refused the login: Connection "
      "Refused: not authorised; trying again, at most every minute 0 \n");
  const std::string log = broker.Log();
  size_t attempts = 0;
  for (size_t at = log.find("not authorised"); at != std::string::npos;
       at = log.find("not authorised", at + 1))
    ++attempts;
  EXPECT_EQ(attempts, 3u) << log;
}

}  // namespace
}  // namespace tavrel::test
