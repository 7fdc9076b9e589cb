#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "lan/LanScan.h"
#include "platform/Process.h"
#include "settings/Hs.h"
#include "xap/XapGlobal.h"

namespace tavrel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// A command that runs until file appears, ten seconds at most (a batch file for CMD.EXE).
std::string WaitForFileCommand(const fs::path& folder, const fs::path& file) {
  if (!platform::HasCmdShell()) {
    return "i=0; while [ ! -e '" + file.string() + "' ] && [ $i -lt 500 ]; do sleep 0.02; i=$((i+1)); done";
  }
  test::WriteFile(folder / "wait.bat",
                  "@echo off\r\nset n=0\r\n:wait\r\nset /a n+=1\r\nif %n% geq 20000 exit /b\r\n"
                  "if not exist \"" +
                      file.string() + "\" goto wait\r\n");
  return (folder / "wait.bat").string();
}

// The scan over a temporary home, sweeping natively with its logs in the home's "Temp" folder.
class LanScanTest : public ::testing::Test {
 protected:
  LanScanTest() { SetWol("ScanMethod", "native"); }

  void SetWol(const std::string& key, const std::string& value) {
    hs.SaveIniSetting("WOL", key, value, kIniFile);
  }
  std::string IniArp(const std::string& ip) const { return hs.GetINISetting("ARP", ip, "", kIniFile); }
  fs::path LogFile(int i) const { return home.Path() / "Temp" / ("p" + std::to_string(i) + ".log"); }
  void WriteLog(int i, const std::string& text) const { test::WriteFile(LogFile(i), text); }

  // The table as "ip=mac" texts, in its order.
  Texts Arp() const {
    Texts pairs;
    for (const auto& e : table.ARPTable) pairs.push_back(e.value.Key + "=" + e.value.Value);
    return pairs;
  }

  // Every report in full: "log|" or "event|", then "module|text|number|description".
  Texts Reports() const {
    Texts texts;
    for (const auto& c : reporter.calls) {
      texts.push_back(std::string(c.event ? "event|" : "log|") + c.module + "|" + c.text + "|" +
                      std::to_string(c.err.Number) + "|" + c.err.Description);
    }
    return texts;
  }

  // True when the loop runs out of work: no timer or sweep is left waiting.
  bool LoopGoesIdle() {
    io.restart();
    io.run_for(5s);
    return io.stopped();
  }

  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  XapGlobal xap;
  ComputerTable table;
  asio::io_context io;
  std::string localIp = "198.51.100.20";
  LanScan scan{io, table, hs, xap, reporter, [this] { return localIp; }, home.Path()};
};

// The batch files are the whole contract with CMD.EXE, so their text is checked on every platform.
TEST(BatchFilesTest, NumberedByListPositionWithCrLfInTheTempFolderOfTheHomeDrive) {
  BatchFiles first = MakeBatchFiles(0, "192.168.1", "C:\\Temp");
  EXPECT_EQ(first.p, "ping -n 1 -l 1 %1.%2\r\narp -a %1.%2\r\n");
  EXPECT_EQ(first.p2, "for /l %%i in (1,1,254) do C:\\Temp\\p0.bat 192.168.1 %%i\r\n");
  EXPECT_EQ(first.p3, "C:\\Temp\\p20.bat > C:\\Temp\\p0.log\r\n");
  BatchFiles later = MakeBatchFiles(12, "172.16.5", "D:\\Temp");
  EXPECT_EQ(later.p2, "for /l %%i in (1,1,254) do D:\\Temp\\p12.bat 172.16.5 %%i\r\n");
  EXPECT_EQ(later.p3, "D:\\Temp\\p212.bat > D:\\Temp\\p12.log\r\n");
  EXPECT_EQ(BatchTempFolder("C:\\Program Files\\tavrel"), "C:\\Temp");
}

// The query waits in the pending-send list, as no transport is up.
TEST_F(LanScanTest, QueryLanAsksEveryAgentThenSweepsUntilStopped) {
  SetWol("Subnet", "127.0.0");
  scan.QueryLAN();
  ASSERT_EQ(xap.Pending().size(), 1u);
  EXPECT_EQ(xap.Pending()[0], (XapQueuedMessage{"", "Computer.Process", "Computer.Query", "Query\001All"}));
  ASSERT_TRUE(scan.ProcessExists());
  EXPECT_TRUE(scan.ARPTimerEnabled());
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
  EXPECT_EQ(Reports(), platform::HasCmdShell()
                           ? Texts{}
                           : Texts{"log|tavrel|ScanMethod batch needs CMD.EXE, using native|0|"});
}

// The log reader: "dynamic" lines only (case matters), first MAC wins, upper case, one settings key per
// address (replacing an older one); a "dynamic" line without a MAC is logged and skipped.
TEST_F(LanScanTest, ReaderTakesDynamicLinesOnly) {
  SetWol("Subnet", "198.51.100");
  hs.SaveIniSetting("ARP", "198.51.100.9", "OLD", kIniFile);
  WriteLog(0,
           "  192.168.1.7           00-11-22-33-44-55     dynamic\r\n"
           "  198.51.100.9          02-aa-bb-cc-dd-09     dynamic   \r\n"
           "  dynamic\r\n"
           "  192.168.1.7           02-aa-bb-cc-dd-99     dynamic\r\n"
           "  198.51.100.255        ff-ff-ff-ff-ff-ff     static\r\n"
           "  198.51.100.30         02-aa-bb-cc-dd-30     Dynamic\r\n"
           "198.51.100.11 02-Aa-bB-cc-dd-11 dynamic extra words\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), (Texts{"192.168.1.7=00-11-22-33-44-55", "198.51.100.9=02-AA-BB-CC-DD-09",
                          "198.51.100.11=02-AA-BB-CC-DD-11"}));
  EXPECT_EQ(IniArp("192.168.1.7") + " " + IniArp("198.51.100.9"), "00-11-22-33-44-55 02-AA-BB-CC-DD-09");
  EXPECT_EQ(IniArp("198.51.100.255") + IniArp("198.51.100.30"), "");
  EXPECT_EQ(Reports(), Texts{"log|tavrel|ARPTimer_Timer|9|Subscript out of range"});
}

// Each subnet read starts from an empty table but for this machine's own entry, so the table ends with
// the last subnet's addresses while the settings keep all; a missing log is skipped.
TEST_F(LanScanTest, EachSubnetClearsTheTableButTheSettingsKeepAll) {
  SetWol("Subnet", "198.51.100,192.0.2,203.0.113");
  table.ARPTable.Add(localIp, KeyValuePair{localIp, "02-00-00-00-00-14"});
  table.ARPTable.Add("198.51.100.99", KeyValuePair{"198.51.100.99", "02-00-00-00-00-99"});
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  WriteLog(2, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), (Texts{"203.0.113.5=02-AA-BB-CC-EE-05", "198.51.100.20=02-00-00-00-00-14"}));
  EXPECT_EQ(IniArp("198.51.100.7"), "02-AA-BB-CC-DD-07");
  EXPECT_EQ(Reports(), Texts{});
}

// Subnet "" means this machine's subnet, so only "p0.log" is read. A local address without "." fails the
// sweep (reported, nothing started, the timer armed); the timer then reads "p0.log" for "a.b.c", but not
// while the watched process runs.
TEST_F(LanScanTest, EmptySubnetSettingReadsTheLocalSubnetOnceTheWatchedProcessHasEnded) {
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  WriteLog(1, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), Texts{"198.51.100.7=02-AA-BB-CC-DD-07"});

  localIp = "localhost";
  table.ARPTable.RemoveAll();
  scan.BuildARPTable();
  EXPECT_EQ(Reports(), Texts{"event|tavrel|BuildARPTable|5|Invalid procedure call or argument"});
  EXPECT_FALSE(scan.ProcessExists());
  const fs::path release = home.Path() / "release";
  scan.WatchProcess(platform::Process::StartCommand(WaitForFileCommand(home.Path(), release)));
  ASSERT_TRUE(scan.ProcessExists());
  scan.ARPTimer_Timer();
  EXPECT_TRUE(table.ARPTable.Empty());
  EXPECT_TRUE(scan.ARPTimerEnabled());

  test::WriteFile(release, "");
  ASSERT_TRUE(test::WaitFor([&] { return !scan.ProcessExists(); }, 10s));
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), Texts{"198.51.100.7=02-AA-BB-CC-DD-07"});
  EXPECT_FALSE(scan.ARPTimerEnabled());
}

// Loopback subnets are never probed, so the sweep ends on the next turn of the loop without a packet and
// the whole native path runs: old logs deleted, results written by list number (blanks around a subnet
// allowed), read at once.
TEST_F(LanScanTest, NativeSweepWritesLogsByListNumberAndReadsThemAtOnce) {
  SetWol("Subnet", "127.0.0,10.1, 127.0.1 ,a.b.c");
  table.ARPTable.Add("198.51.100.99", KeyValuePair{"198.51.100.99", "02-00-00-00-00-99"});
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  scan.BuildARPTable();
  EXPECT_FALSE(fs::exists(LogFile(0)));

  ASSERT_TRUE(test::WaitFor([&] {
    io.restart();
    io.poll();
    return !scan.ProcessExists();
  }));
  EXPECT_TRUE(fs::exists(LogFile(0)) && fs::exists(LogFile(2)));
  EXPECT_FALSE(fs::exists(LogFile(1)) || fs::exists(LogFile(3)));
  EXPECT_EQ(Arp(), Texts{});
  EXPECT_FALSE(scan.ARPTimerEnabled());
  EXPECT_TRUE(LoopGoesIdle());
  EXPECT_EQ(Reports(), Texts{"event|tavrel|BuildARPTable|5|Invalid subnet a.b.c"});
}

}  // namespace
}  // namespace tavrel
