#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ManualTimers.h"
#include "TestSupport.h"
#include "core/Text.h"
#include "lan/ComputerActions.h"
#include "lan/LanScan.h"

namespace tavrel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// A command that runs until file appears or folder goes, ten seconds at most (a batch file for CMD.EXE).
std::string WaitForFileCommand(const fs::path& folder, const fs::path& file) {
  if (!platform::HasCmdShell())
    return "i=0; while [ ! -e '" + file.string() + "' ] && [ -d '" + folder.string() +
           "' ] && [ $i -lt 500 ]; do sleep 0.02; i=$((i+1)); done";
  std::string loop = "@echo off\r\nset n=0\r\n:wait\r\nset /a n+=1\r\nif %n% geq 20000 exit /b\r\n";
  test::WriteFile(folder / "wait.bat", loop + "if not exist \"" + file.string() + "\" goto wait\r\n");
  return (folder / "wait.bat").string();
}

// The scan over a temporary home, sweeping natively with its logs in the home's "Temp" folder.
class LanScanTest : public ::testing::Test {
 protected:
  LanScanTest() { SetWol("ScanMethod", "native"); }
  void SetWol(const char* key, const char* value) { hs.SaveIniSetting("WOL", key, value, kIniFile); }
  fs::path LogFile(int i) const { return home.Path() / "Temp" / ("p" + std::to_string(i) + ".log"); }
  void WriteLog(int i, const std::string& text) const { test::WriteFile(LogFile(i), text); }
  // The registry's ARP entries as "ip=mac" texts, in their order (it holds no computers here).
  Texts Arp() const {
    Texts pairs;
    for (const auto& row : computers.Rows()) pairs.push_back(row.ip + "=" + row.mac);
    return pairs;
  }
  // True when the loop runs out of work and no timer is left armed.
  bool LoopGoesIdle() {
    io.restart();
    io.run_for(5s);
    return io.stopped() && timers.ArmedCount() == 0;
  }

  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  XapGlobal xap;
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  ComputerRegistry computers{hs, clock};
  asio::io_context io;
  std::string localIp = "198.51.100.20";
  test::ManualTimers timers;
  LanScan scan{io, timers, computers, hs, xap, reporter, [this] { return localIp; }, home.Path()};
};

// The log reader: "dynamic" lines only (case matters), MACs in upper case, a line without a MAC logged and
// skipped; each subnet's log (a missing one is empty) goes to the registry, with this machine's address.
TEST_F(LanScanTest, ReaderHandsTheDynamicLinesOfEachSubnetToTheRegistry) {
  SetWol("Subnet", "198.51.100,192.0.2,203.0.113");
  computers.SetOwnAddress(localIp, "02-00-00-00-00-14");
  WriteLog(0,
           "  198.51.100.7           00-11-22-33-44-55     dynamic\r\n"
           "  198.51.100.9          02-aa-bb-cc-dd-09     dynamic   \r\n"
           "  dynamic\r\n"
           "  198.51.100.30         02-aa-bb-cc-dd-30     Dynamic\r\n"
           "198.51.100.11 02-Aa-bB-cc-dd-11 dynamic extra words\n");
  WriteLog(2, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  // Every subnet's entries stay, in memory as in the file.
  EXPECT_EQ(Arp(), (Texts{"198.51.100.20=02-00-00-00-00-14", "198.51.100.7=00-11-22-33-44-55",
                          "198.51.100.9=02-AA-BB-CC-DD-09", "198.51.100.11=02-AA-BB-CC-DD-11",
                          "203.0.113.5=02-AA-BB-CC-EE-05"}));
  EXPECT_EQ(hs.GetINISetting("ARP", "203.0.113.5", "", kIniFile), "02-AA-BB-CC-EE-05");
  EXPECT_EQ(reporter.Take(), Texts{"log|tavrel|ARPTimer_Timer|9|Subscript out of range"});
}

// Subnet "" means this machine's subnet: only "p0.log" is read. A local address without "." fails the sweep
// (reported, the timer armed).
TEST_F(LanScanTest, EmptySubnetSettingReadsTheLocalSubnetOnly) {
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  WriteLog(1, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), Texts{"198.51.100.7=02-AA-BB-CC-DD-07"});
  localIp = "localhost";
  scan.BuildARPTable();
  EXPECT_EQ(reporter.Take(), Texts{"event|tavrel|BuildARPTable|5|Invalid procedure call or argument"});
  EXPECT_TRUE(!scan.ProcessExists() && scan.ARPTimerEnabled());
}

// Loopback is never probed, so a sweep ends on the next turn of the loop (real subnets: the namespace
// testbed). A sweep writes logs by list number (blanks around a subnet allowed) and reads them at once;
// entries that are no subnet are reported at every sweep.
TEST_F(LanScanTest, QueryLanSweepsUntilStoppedOrDoneWritingLogsByListNumber) {
  SetWol("Subnet", "127.0.0,10.1, 127.0.1 ,a.b.c");
  scan.QueryLAN();  // its query to every agent is seen on the wire in the tray's integration test
  scan.Stop();
  EXPECT_FALSE(scan.ProcessExists() || scan.ARPTimerEnabled());
  EXPECT_TRUE(LoopGoesIdle());
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  scan.BuildARPTable();
  EXPECT_FALSE(fs::exists(LogFile(0)));  // old logs go first
  ASSERT_TRUE(LoopGoesIdle());
  EXPECT_TRUE(fs::exists(LogFile(0)) && fs::exists(LogFile(2)) && !fs::exists(LogFile(1)));
  EXPECT_TRUE(Arp().empty() && !scan.ARPTimerEnabled() && !scan.ProcessExists());
  const Texts invalid{"event|tavrel|BuildARPTable|5|Invalid subnet 10.1",
                      "event|tavrel|BuildARPTable|5|Invalid subnet a.b.c"};
  EXPECT_EQ(reporter.Take(), (Texts{invalid[0], invalid[1], invalid[0], invalid[1]}));

  // Presence sweeps repeat until stopped, write no logs, and never replace a sweep that runs.
  fs::remove(LogFile(0));
  scan.BuildARPTable();
  scan.StartPresence(10s);
  EXPECT_FALSE(LoopGoesIdle());  // the presence timer stays armed
  EXPECT_TRUE(fs::exists(LogFile(0)));
  fs::remove(LogFile(0));
  timers.Advance(10s);
  EXPECT_TRUE(scan.ProcessExists());
  EXPECT_FALSE(LoopGoesIdle());
  EXPECT_FALSE(fs::exists(LogFile(0)) || scan.ProcessExists());
  scan.Stop();
  EXPECT_EQ(timers.ArmedCount(), 0u);
}

// The interpreter stood in for: each start writes the log "arp -a" would give (logs, by list number) and
// runs until its "release<i>" file appears. The home is "hm/home", so the drive's Temp folder is "hm/Temp".
class BatchSweepTest : public LanScanTest {
 protected:
  BatchSweepTest() {
    fs::current_path(home.Path());
    SetWol("ScanMethod", "batch");
  }
  ~BatchSweepTest() override {
    for (const char* release : {"release0", "release2"}) test::WriteFile(home.Path() / release, "");
    fs::current_path(cwd);
  }
  // Records the command line and the logs present when it starts.
  platform::Process Start(const std::string& commandLine) {
    std::string present;
    for (const char* log : {"p0.log", "p1.log", "p2.log"})
      if (fs::exists(fs::path("hm/Temp") / log)) present += std::string(" ") + log;
    started.push_back(commandLine + " |" + present);
    const std::string i = commandLine.substr(commandLine.size() - 5, 1);
    test::WriteFile(fs::path("hm/Temp") / ("p" + i + ".log"), logs[std::stoi(i)]);
    return platform::Process::StartCommand(WaitForFileCommand(home.Path(), home.Path() / ("release" + i)));
  }
  std::unique_ptr<LanScan> Scan(bool cmdThere) {
    return std::make_unique<LanScan>(
        io, timers, computers, hs, xap, reporter, [this] { return localIp; }, "hm/home",
        CommandShell{cmdThere, [this](const std::string& line) { return Start(line); }});
  }

  const fs::path cwd = fs::current_path();
  const std::string temp = fs::path("hm/Temp").make_preferred().string();
  std::map<int, std::string> logs;
  Texts started;
};

// "batch" needs CMD.EXE and is the default where it is there; loopback is never probed by "native".
TEST_F(BatchSweepTest, ScanMethodPicksTheSweepAndLogsAFallback) {
  SetWol("Subnet", "127.0.0");
  // clang-format off
  const std::tuple<bool, const char*, bool, Texts> cases[] = {
      {true, "batch", true, {}}, {true, "", true, {}}, {true, "native", false, {}}, {false, "", false, {}},
      {false, "batch", false, {"log|tavrel|ScanMethod batch needs CMD.EXE, using native|0|"}},
      {true, "fast", true, {"log|tavrel|ScanMethod fast unknown, using batch|0|"}}};
  // clang-format on
  for (const auto& [cmdThere, method, batch, reports] : cases) {
    SetWol("ScanMethod", method);
    started.clear();
    auto scanner = Scan(cmdThere);
    scanner->BuildARPTable();
    EXPECT_EQ(started.size(), batch ? 1u : 0u) << method << cmdThere;
    EXPECT_EQ(reporter.Take(), reports) << method << cmdThere;
  }
}

// Files numbered by the place in the list, in the drive's Temp folder (made when missing); an old log goes
// just before its interpreter starts; only the last interpreter is watched, then the logs are read.
TEST_F(BatchSweepTest, WritesAndStartsEveryValidSubnetAndReadsOnceTheLastInterpreterHasEnded) {
  SetWol("Subnet", "198.51.100, 1.2.3&calc ,203.0.113");
  logs = {{0, "  198.51.100.7          00-11-22-33-44-55     dynamic\r\n"},
          {2, "  203.0.113.254         02-aa-bb-cc-dd-fe     dynamic\r\n"}};
  auto batch = Scan(true);
  batch->BuildARPTable();
  EXPECT_EQ(started, (Texts{temp + "\\p30.bat |", temp + "\\p32.bat | p0.log"}));
  // The batch files are the whole contract with CMD.EXE.
  EXPECT_EQ(test::ReadFile("hm/Temp/p2.bat") + test::ReadFile("hm/Temp/p22.bat") +
                test::ReadFile("hm/Temp/p32.bat"),
            "ping -n 1 -l 1 %1.%2\r\narp -a %1.%2\r\nfor /l %%i in (1,1,254) do " + temp +
                "\\p2.bat 203.0.113 %%i\r\n" + temp + "\\p22.bat > " + temp + "\\p2.log\r\n");
  EXPECT_EQ(test::ReadFile("hm/Temp/p20.bat"),
            "for /l %%i in (1,1,254) do " + temp + "\\p0.bat 198.51.100 %%i\r\n");
  EXPECT_EQ(reporter.Take(), Texts{"event|tavrel|BuildARPTable|5|Invalid subnet  1.2.3&calc "});

  batch->ARPTimer_Timer();
  EXPECT_TRUE(Arp().empty() && batch->ARPTimerEnabled());
  test::WriteFile(home.Path() / "release2", "");  // the first interpreter runs on
  ASSERT_TRUE(test::WaitFor([&] { return !batch->ProcessExists(); }, 10s));
  batch->ARPTimer_Timer();
  EXPECT_EQ(Arp(), (Texts{"198.51.100.7=00-11-22-33-44-55", "203.0.113.254=02-AA-BB-CC-DD-FE"}));
  EXPECT_FALSE(batch->ARPTimerEnabled());

  started.clear();
  batch->BuildARPTable();
  EXPECT_EQ(started, (Texts{temp + "\\p30.bat | p2.log", temp + "\\p32.bat | p0.log"}));
}

TEST(MagicPacket, SixFFThenTheMacSixteenTimesForTwelveHexDigitsOfEitherCaseOnly) {
  std::vector<unsigned char> expected(6, 0xFF);
  for (int copy = 0; copy < 16; ++copy) expected.insert(expected.end(), {0x00, 0x1A, 0x2B, 0xC3, 0xD4, 0xFE});
  EXPECT_EQ(MagicPacket("001a2BC3d4Fe"), expected);
  for (const std::string text : {"", "001A2BC3D4F", "001A2BC3D4FE0", "00-1A-2B-C3-D4-FE", "001A2BC3D4FG"})
    EXPECT_THROW(MagicPacket(text), std::invalid_argument) << text;
}

// MAC digits: "-", ":" and "." are dropped wherever they stand, nothing else is. The broadcast address:
// the last octet becomes 255, only for dotted decimal IPv4. Only refused input is sent: a valid MAC and
// IP would put a real broadcast on the wire.
TEST(WakeInput, MacDigitsBroadcastAddressAndRefusalsReportedAsEventsAndNotSent) {
  for (const char* mac : {"00-11-22-aa-BB-cc", "00:11:22:aa:BB:cc", "0011.22aa.BBcc", "0-0-1122aaBBcc--"})
    EXPECT_EQ(MacDigits(mac), "001122aaBBcc") << mac;
  for (const char* mac : {"", "00-11-22-33-44", "00-11-22-33-44-55-66", "00_11_22_33_44_55", "0x0011223344"})
    EXPECT_EQ(MacDigits(mac), "") << mac;
  EXPECT_EQ(WolBroadcast("198.51.100.7"), "198.51.100.255");
  EXPECT_EQ(WolBroadcast("198.051.100.007"), "198.51.100.255");  // leading zeros: decimal, not written back
  for (const char* ip : {"198.51.100", "198.51.100.7.1", "198.51.100.256", "198..100.7", " 198.51.100.7",
                         "198.51.100.+7", "198.51.100.0007"})
    EXPECT_EQ(WolBroadcast(ip), "") << ip;
  const std::string digits =
      "\" is not 12 hexadecimal digits (such as 00-11-22-33-44-55, 00:11:22:33:44:55 or 0011.2233.4455)";
  EXPECT_EQ(WolInputError("00:11:22:33:44:55", "198.51.100.7"), "");
  EXPECT_EQ(WolInputError(std::string(1000, 'Z'), "198.51.100.7"),
            "MAC address \"" + std::string(64, 'Z') + "..." + digits);
  test::RecordingReporter reporter;
  EXPECT_FALSE(SendWOL("00:11:22:33:44", "198.51.100.7", reporter) || SendWOL("001122334455", "", reporter));
  EXPECT_EQ(reporter.Take(), (Texts{"event|tavrel|SendWOL|5|MAC address \"00:11:22:33:44" + digits,
                                    "event|tavrel|SendWOL|5|IP address \"\" is not a dotted IPv4 address"}));
}

}  // namespace
}  // namespace tavrel
