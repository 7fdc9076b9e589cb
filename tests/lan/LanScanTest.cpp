#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "lan/LanScan.h"
#include "platform/Process.h"
#include "settings/Hs.h"
#include "xap/XapGlobal.h"

namespace tavrel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using test::RecordingReporter;
using test::TempDir;

class RecordingSend : public XapSendOperation {
 public:
  void Send(const std::string& target, const std::string& msgClass, const std::string& section,
            const std::string& body) override {
    sent.push_back({target, msgClass, section, body});
  }
  std::vector<XapQueuedMessage> sent;
};

// A command that runs until file appears (at most about ten seconds, so a failed test leaves nothing
// behind): a batch file for CMD.EXE, a shell loop elsewhere.
std::string WaitForFileCommand(const fs::path& folder, const fs::path& file) {
  if (!platform::HasCmdShell()) {
    return "i=0; while [ ! -e '" + file.string() + "' ] && [ $i -lt 500 ]; do sleep 0.02; i=$((i+1)); done";
  }
  const fs::path script = folder / "wait.bat";
  test::WriteFile(script,
                  "@echo off\r\nset n=0\r\n:wait\r\nset /a n+=1\r\nif %n% geq 20000 exit /b\r\n"
                  "if not exist \"" +
                      file.string() + "\" goto wait\r\n");
  return script.string();
}

// The scan over a temporary home, with logs in its "Temp" folder (ScanMethod native) unless a test says
// otherwise.
class LanScanTest : public ::testing::Test {
 protected:
  LanScanTest() {
    xap.SetTransport(&send);
    SetWol("ScanMethod", "native");
  }

  void SetWol(const std::string& key, const std::string& value) {
    hs.SaveIniSetting("WOL", key, value, kIniFile);
  }
  std::string IniArp(const std::string& ip) const { return hs.GetINISetting("ARP", ip, "", kIniFile); }
  fs::path LogFile(int i) const { return home.Path() / "Temp" / ("p" + std::to_string(i) + ".log"); }
  void WriteLog(int i, const std::string& text) const { test::WriteFile(LogFile(i), text); }

  // The table as "ip=mac" texts, in its order.
  std::vector<std::string> Arp() const {
    std::vector<std::string> pairs;
    for (const auto& e : table.ARPTable) pairs.push_back(e.value.Key + "=" + e.value.Value);
    return pairs;
  }

  // True when the loop runs out of work at once: no timer or sweep is left waiting.
  bool LoopGoesIdle() {
    auto start = std::chrono::steady_clock::now();
    io.restart();
    io.run_for(5s);
    return std::chrono::steady_clock::now() - start < 4s;
  }

  std::vector<std::string> Reports(bool event) const {
    std::vector<std::string> texts;
    for (const auto& c : reporter.calls) {
      if (c.event != event) continue;
      texts.push_back(c.module + "|" + c.text + "|" + std::to_string(c.err.Number) + "|" + c.err.Description);
    }
    return texts;
  }

  TempDir home;
  RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  RecordingSend send;
  XapGlobal xap;
  ComputerTable table;
  asio::io_context io;
  std::string localIp = "198.51.100.20";
  const std::string ownMac = "02:00:00:00:00:14";
  LanScan scan{io, table, hs, xap, reporter, [this] { return localIp; }, home.Path()};
};

// The batch sweep's files, checked on every platform since their text is the whole contract with
// CMD.EXE.
TEST(BatchFilesTest, TwoSubnetsAreNumberedInListOrderWithCrLf) {
  BatchFiles first = MakeBatchFiles(0, "192.168.1", "C:\\Temp");
  EXPECT_EQ(first.p, "ping -n 1 -l 1 %1.%2\r\narp -a %1.%2\r\n");
  EXPECT_EQ(first.p2, "for /l %%i in (1,1,254) do C:\\Temp\\p0.bat 192.168.1 %%i\r\n");
  EXPECT_EQ(first.p3, "C:\\Temp\\p20.bat > C:\\Temp\\p0.log\r\n");

  BatchFiles second = MakeBatchFiles(1, "10.0.0", "C:\\Temp");
  EXPECT_EQ(second.p, first.p);
  EXPECT_EQ(second.p2, "for /l %%i in (1,1,254) do C:\\Temp\\p1.bat 10.0.0 %%i\r\n");
  EXPECT_EQ(second.p3, "C:\\Temp\\p21.bat > C:\\Temp\\p1.log\r\n");

  BatchFiles twelfth = MakeBatchFiles(12, "172.16.5", "D:\\Temp");
  EXPECT_EQ(twelfth.p3, "D:\\Temp\\p212.bat > D:\\Temp\\p12.log\r\n");
}

TEST(BatchFilesTest, TempFolderIsOnTheDriveOfTheHome) {
  EXPECT_EQ(BatchTempFolder("C:\\Program Files\\tavrel"), "C:\\Temp");
  EXPECT_EQ(BatchTempFolder("D:\\x"), "D:\\Temp");
}

TEST_F(LanScanTest, QueryLanAsksEveryAgentThenSweeps) {
  SetWol("Subnet", "10.0");  // two parts: nothing is swept
  scan.QueryLAN();
  ASSERT_EQ(send.sent.size(), 1u);
  EXPECT_EQ(send.sent[0], (XapQueuedMessage{"", "Computer.Process", "Computer.Query", "Query\001All"}));
  EXPECT_TRUE(scan.ARPTimerEnabled());
  EXPECT_FALSE(scan.ProcessExists());
}

// The log reader: "dynamic" lines only (case matters), first MAC wins, upper case, one settings key per
// address (replacing an older one); a "dynamic" line without a MAC is logged and skipped.
TEST_F(LanScanTest, ReaderTakesDynamicLinesOnly) {
  SetWol("Subnet", "198.51.100");
  hs.SaveIniSetting("ARP", "198.51.100.9", "OLD", kIniFile);
  WriteLog(0,
           "\r\n"
           "Interface: 198.51.100.20 --- 0x3\r\n"
           "  Internet Address      Physical Address      Type\r\n"
           "  192.168.1.7           00-11-22-33-44-55     dynamic\r\n"
           "  198.51.100.9          02-aa-bb-cc-dd-09     dynamic   \r\n"
           "  dynamic\r\n"
           "  192.168.1.7           02-aa-bb-cc-dd-99     dynamic\r\n"
           "  198.51.100.255        ff-ff-ff-ff-ff-ff     static\r\n"
           "  198.51.100.30         02-aa-bb-cc-dd-30     Dynamic\r\n"
           "198.51.100.11 02-Aa-bB-cc-dd-11 dynamic extra words\n");
  scan.ARPTimer_Timer();

  EXPECT_EQ(Arp(),
            (std::vector<std::string>{"192.168.1.7=00-11-22-33-44-55", "198.51.100.9=02-AA-BB-CC-DD-09",
                                      "198.51.100.11=02-AA-BB-CC-DD-11"}));
  EXPECT_EQ(IniArp("192.168.1.7"), "00-11-22-33-44-55");
  EXPECT_EQ(IniArp("198.51.100.9"), "02-AA-BB-CC-DD-09");
  EXPECT_EQ(IniArp("198.51.100.11"), "02-AA-BB-CC-DD-11");
  EXPECT_EQ(IniArp("198.51.100.255") + IniArp("198.51.100.30"), "");
  EXPECT_EQ(Reports(false), std::vector<std::string>{"tavrel|ARPTimer_Timer|9|Subscript out of range"});
  EXPECT_TRUE(Reports(true).empty());
}

// Each subnet read starts from an empty table (only this machine's entry survives), so the table ends
// with the last subnet's addresses while the settings keep all; a missing log is skipped.
TEST_F(LanScanTest, EachSubnetClearsTheTableButTheSettingsKeepAll) {
  SetWol("Subnet", "198.51.100,192.0.2,203.0.113");
  table.ARPTable.Add(localIp, KeyValuePair{localIp, ownMac});
  table.ARPTable.Add("198.51.100.99", KeyValuePair{"198.51.100.99", "02-00-00-00-00-99"});
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  WriteLog(2,
           "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n"
           "  203.0.113.6           02-aa-bb-cc-ee-06     dynamic\r\n");
  scan.ARPTimer_Timer();

  EXPECT_EQ(Arp(), (std::vector<std::string>{"203.0.113.5=02-AA-BB-CC-EE-05", "203.0.113.6=02-AA-BB-CC-EE-06",
                                             "198.51.100.20=" + ownMac}));
  EXPECT_EQ(IniArp("198.51.100.7"), "02-AA-BB-CC-DD-07");
  EXPECT_EQ(IniArp("203.0.113.6"), "02-AA-BB-CC-EE-06");
  EXPECT_FALSE(scan.ARPTimerEnabled());
  EXPECT_EQ(Reports(false), std::vector<std::string>{});
  EXPECT_EQ(Reports(true), std::vector<std::string>{});
}

// Subnet "" means this machine's subnet, so only "p0.log" is read. A local address without "." fails the
// sweep (reported, nothing started, the timer still armed) but the timer reads "p0.log" for "a.b.c".
TEST_F(LanScanTest, EmptySubnetSettingUsesTheLocalSubnet) {
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  WriteLog(1, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), std::vector<std::string>{"198.51.100.7=02-AA-BB-CC-DD-07"});

  localIp = "localhost";
  table.ARPTable.RemoveAll();
  scan.BuildARPTable();
  EXPECT_EQ(Reports(true),
            std::vector<std::string>{"tavrel|BuildARPTable|5|Invalid procedure call or argument"});
  EXPECT_FALSE(scan.ProcessExists());
  EXPECT_TRUE(scan.ARPTimerEnabled());
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), std::vector<std::string>{"198.51.100.7=02-AA-BB-CC-DD-07"});
  EXPECT_FALSE(scan.ARPTimerEnabled());
}

// Loopback subnets: the sweep never probes them, so it ends on the next turn of the loop without a
// packet, and the whole native path runs: old logs deleted, results written per subnet number, read.
TEST_F(LanScanTest, NativeSweepWritesLogsByListNumberAndReadsThemAtOnce) {
  SetWol("Subnet", "127.0.0,10.1, 127.0.1 ,a.b.c");
  table.ARPTable.Add(localIp, KeyValuePair{localIp, ownMac});
  table.ARPTable.Add("198.51.100.99", KeyValuePair{"198.51.100.99", "02-00-00-00-00-99"});
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  scan.BuildARPTable();
  EXPECT_EQ(Reports(true), std::vector<std::string>{"tavrel|BuildARPTable|5|Invalid subnet a.b.c"});
  EXPECT_TRUE(scan.ProcessExists());
  EXPECT_TRUE(scan.ARPTimerEnabled());
  EXPECT_FALSE(fs::exists(LogFile(0)));

  ASSERT_TRUE(test::WaitFor([&] {
    io.restart();
    io.poll();
    return !scan.ProcessExists();
  }));
  EXPECT_EQ(test::ReadFile(LogFile(0)), "");
  EXPECT_FALSE(fs::exists(LogFile(1)));
  EXPECT_TRUE(fs::exists(LogFile(2)));
  EXPECT_FALSE(fs::exists(LogFile(3)));
  EXPECT_EQ(Arp(), std::vector<std::string>{"198.51.100.20=" + ownMac});
  EXPECT_FALSE(scan.ARPTimerEnabled());
  EXPECT_TRUE(LoopGoesIdle());
  EXPECT_EQ(Reports(false), std::vector<std::string>{});
  EXPECT_EQ(Reports(true).size(), 1u);
}

TEST_F(LanScanTest, StopCancelsTheTimerAndTheSweep) {
  SetWol("Subnet", "127.0.0");
  scan.BuildARPTable();
  ASSERT_TRUE(scan.ProcessExists());
  scan.Stop();
  EXPECT_FALSE(scan.ProcessExists());
  EXPECT_FALSE(scan.ARPTimerEnabled());
  EXPECT_TRUE(LoopGoesIdle());
  EXPECT_FALSE(fs::exists(LogFile(0)));
}

TEST_F(LanScanTest, ScanMethodBatchFallsBackToNativeWhereThereIsNoCmd) {
  SetWol("ScanMethod", "batch");
  SetWol("Subnet", "10.1");
  scan.BuildARPTable();
  scan.BuildARPTable();
  if (platform::HasCmdShell()) {
    EXPECT_EQ(Reports(false), std::vector<std::string>{});
  } else {
    EXPECT_EQ(Reports(false),
              (std::vector<std::string>{"tavrel|ScanMethod batch needs CMD.EXE, using native|0|",
                                        "tavrel|ScanMethod batch needs CMD.EXE, using native|0|"}));
  }
  EXPECT_TRUE(Reports(true).empty());
}

// The watched process: while it runs the timer reads nothing and stays on; once it has ended the next
// tick reads.
TEST_F(LanScanTest, TimerWaitsForTheWatchedProcess) {
  SetWol("Subnet", "10.1");  // nothing to sweep, but the timer is armed and "p0.log" is read
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  scan.BuildARPTable();
  const fs::path release = home.Path() / "release";
  scan.WatchProcess(platform::Process::StartCommand(WaitForFileCommand(home.Path(), release)));

  EXPECT_TRUE(scan.ProcessExists());
  scan.ARPTimer_Timer();
  EXPECT_TRUE(table.ARPTable.Empty());
  EXPECT_TRUE(scan.ARPTimerEnabled());

  test::WriteFile(release, "");
  ASSERT_TRUE(test::WaitFor([&] { return !scan.ProcessExists(); }, 10s));
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), std::vector<std::string>{"198.51.100.7=02-AA-BB-CC-DD-07"});
  EXPECT_FALSE(scan.ARPTimerEnabled());
}

TEST(ProcessTest, RunsTheCommandThroughTheInterpreterWithoutWaiting) {
  EXPECT_FALSE(platform::Process().Running());
  TempDir dir;
  const fs::path out = dir.Path() / "out.txt";
  platform::Process p = platform::Process::StartCommand(
      platform::HasCmdShell() ? "echo ran> \"" + out.string() + "\"" : "echo ran > '" + out.string() + "'");
  ASSERT_TRUE(test::WaitFor([&] { return !p.Running(); }, 10s));
  EXPECT_EQ(test::ReadFile(out).substr(0, 3), "ran");
}

}  // namespace
}  // namespace tavrel
