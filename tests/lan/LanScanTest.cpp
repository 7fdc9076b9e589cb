#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ManualTimers.h"
#include "TestSupport.h"
#include "lan/LanScan.h"

namespace tavrel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// A command that runs until file appears, ten seconds at most (a batch file for CMD.EXE).
std::string WaitForFileCommand(const fs::path& folder, const fs::path& file) {
  if (!platform::HasCmdShell())
    return "i=0; while [ ! -e '" + file.string() + "' ] && [ $i -lt 500 ]; do sleep 0.02; i=$((i+1)); done";
  std::string loop = "@echo off\r\nset n=0\r\n:wait\r\nset /a n+=1\r\nif %n% geq 20000 exit /b\r\n";
  test::WriteFile(folder / "wait.bat", loop + "if not exist \"" + file.string() + "\" goto wait\r\n");
  return (folder / "wait.bat").string();
}

// The scan over a temporary home, sweeping natively with its logs in the home's "Temp" folder.
class LanScanTest : public ::testing::Test {
 protected:
  LanScanTest() { SetWol("ScanMethod", "native"); }
  void SetWol(const char* key, const char* value) { hs.SaveIniSetting("WOL", key, value, kIniFile); }
  std::string IniArp(const std::string& ip) const { return hs.GetINISetting("ARP", ip, "", kIniFile); }
  fs::path LogFile(int i) const { return home.Path() / "Temp" / ("p" + std::to_string(i) + ".log"); }
  void WriteLog(int i, const std::string& text) const { test::WriteFile(LogFile(i), text); }
  void AddArp(const char* ip, const char* mac) { table.ARPTable.Add(ip, KeyValuePair{ip, mac}); }
  // The table as "ip=mac" texts, in its order.
  Texts Arp() const {
    Texts pairs;
    for (const auto& e : table.ARPTable) pairs.push_back(e.value.Key + "=" + e.value.Value);
    return pairs;
  }
  // Every report: "log|" or "event|", then "module|text|number|description".
  Texts Reports() const {
    Texts texts;
    for (const auto& c : reporter.calls)
      texts.push_back(std::string(c.event ? "event|" : "log|") + c.module + "|" + c.text + "|" +
                      std::to_string(c.err.Number) + "|" + c.err.Description);
    return texts;
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
  ComputerTable table;
  asio::io_context io;
  std::string localIp = "198.51.100.20";
  test::ManualTimers timers;
  LanScan scan{io, timers, table, hs, xap, reporter, [this] { return localIp; }, home.Path()};
};

// The batch files are the whole contract with CMD.EXE, so their text is checked on every platform.
TEST(BatchFilesTest, NumberedByListPositionWithCrLfInTheTempFolderOfTheHomeDrive) {
  BatchFiles first = MakeBatchFiles(0, "198.51.100", "C:\\Temp");
  EXPECT_EQ(first.p, "ping -n 1 -l 1 %1.%2\r\narp -a %1.%2\r\n");
  EXPECT_EQ(first.p2, "for /l %%i in (1,1,254) do C:\\Temp\\p0.bat 198.51.100 %%i\r\n");
  EXPECT_EQ(first.p3, "C:\\Temp\\p20.bat > C:\\Temp\\p0.log\r\n");
  EXPECT_EQ(MakeBatchFiles(12, "203.0.113", "D:\\Temp").p3, "D:\\Temp\\p212.bat > D:\\Temp\\p12.log\r\n");
  EXPECT_EQ(BatchTempFolder("C:\\Program Files\\tavrel"), "C:\\Temp");
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
// address (replacing an older one); a "dynamic" line without a MAC is logged and skipped. Each subnet's log
// starts from an empty table but for this machine's own entry; the settings keep all; a missing log is
// skipped.
TEST_F(LanScanTest, ReaderTakesDynamicLinesAndEachSubnetClearsTheTableButTheSettingsKeepAll) {
  SetWol("Subnet", "198.51.100,192.0.2,203.0.113");
  hs.SaveIniSetting("ARP", "198.51.100.9", "OLD", kIniFile);
  AddArp(localIp.c_str(), "02-00-00-00-00-14");
  AddArp("198.51.100.99", "02-00-00-00-00-99");
  WriteLog(0,
           "  198.51.100.7           00-11-22-33-44-55     dynamic\r\n"
           "  198.51.100.9          02-aa-bb-cc-dd-09     dynamic   \r\n"
           "  dynamic\r\n"
           "  198.51.100.7           02-aa-bb-cc-dd-99     dynamic\r\n"
           "  198.51.100.30         02-aa-bb-cc-dd-30     Dynamic\r\n"
           "198.51.100.11 02-Aa-bB-cc-dd-11 dynamic extra words\n");
  WriteLog(2, "  203.0.113.5           02-aa-bb-cc-ee-05     dynamic\r\n");
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), (Texts{"203.0.113.5=02-AA-BB-CC-EE-05", "198.51.100.20=02-00-00-00-00-14"}));
  EXPECT_EQ(IniArp("198.51.100.7") + " " + IniArp("198.51.100.9") + " " + IniArp("198.51.100.11"),
            "00-11-22-33-44-55 02-AA-BB-CC-DD-09 02-AA-BB-CC-DD-11");
  EXPECT_EQ(IniArp("198.51.100.30"), "");
  EXPECT_EQ(Reports(), Texts{"log|tavrel|ARPTimer_Timer|9|Subscript out of range"});
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
  EXPECT_TRUE(table.ARPTable.Empty() && scan.ARPTimerEnabled());
  test::WriteFile(release, "");
  ASSERT_TRUE(test::WaitFor([&] { return !scan.ProcessExists(); }, 10s));
  scan.ARPTimer_Timer();
  EXPECT_EQ(Arp(), Texts{"198.51.100.7=02-AA-BB-CC-DD-07"});
  EXPECT_FALSE(scan.ARPTimerEnabled());
}

// Loopback subnets are never probed, so a sweep ends on the next turn of the loop without a packet. The
// query waits in the pending-send list (no transport is up); Stop leaves nothing running. A sweep run to
// its end deletes old logs, writes results by list number (blanks around a subnet allowed), reads at once.
TEST_F(LanScanTest, QueryLanAsksEveryAgentThenSweepsUntilStoppedOrDoneWritingLogsByListNumber) {
  SetWol("Subnet", "127.0.0,10.1, 127.0.1 ,a.b.c");
  AddArp("198.51.100.99", "02-00-00-00-00-99");
  scan.QueryLAN();
  EXPECT_EQ(xap.Pending(),
            (std::vector<XapQueuedMessage>{{"", "Computer.Process", "Computer.Query", "Query\001All"}}));
  EXPECT_TRUE(scan.ProcessExists() && scan.ARPTimerEnabled());
  scan.Stop();
  EXPECT_FALSE(scan.ProcessExists() || scan.ARPTimerEnabled());
  EXPECT_TRUE(LoopGoesIdle());
  EXPECT_FALSE(fs::exists(LogFile(0)) || fs::exists(LogFile(2)));
  WriteLog(0, "  198.51.100.7          02-aa-bb-cc-dd-07     dynamic\r\n");
  scan.BuildARPTable();
  EXPECT_FALSE(fs::exists(LogFile(0)));
  ASSERT_TRUE(LoopGoesIdle());  // the logs are read at once, not on the next timer tick
  EXPECT_TRUE(fs::exists(LogFile(0)) && fs::exists(LogFile(2)));
  EXPECT_FALSE(fs::exists(LogFile(1)) || fs::exists(LogFile(3)));
  EXPECT_TRUE(Arp().empty() && !scan.ARPTimerEnabled() && !scan.ProcessExists());
  EXPECT_EQ(Reports(), Texts(2, "event|tavrel|BuildARPTable|5|Invalid subnet a.b.c"));
}

}  // namespace
}  // namespace tavrel
