#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "core/Text.h"
#include "settings/ComputerRegistry.h"
#include "settings/IniTool.h"

namespace tavrel {
namespace {

using namespace std::string_literals;
using Lines = std::vector<std::string>;
using Learned = ComputerRegistry::Learned;
using Renamed = ComputerRegistry::Renamed;

// Loading skips lines without a key or a value and keeps this machine's entry. Names come in only when
// the file gives them back unchanged, new ones only below 1,024 computers; a known one is marked seen
// again. The page's renames and removals reach the file in the one write of its post; each subnet of a
// sweep starts from an empty ARP table but for this machine's entry, the first MAC of an address wins
// and the file, written once, keeps every address read.
TEST(ComputerRegistry, DecidesNamesLimitAndLastSeenAndKeepsTheFileInStep) {
  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  ComputerRegistry computers{hs, clock};
  // The file gives keys back in upper case, in order.
  const auto section = [&](const char* name) { return Split(hs.GetINISection(name, kIniFile), "\0"s); };
  std::string before;
  const auto writtenOnce = [&] { return test::ReadFile(hs.FilePath(kIniFile).string() + "_bck") == before; };

  test::WriteFile(hs.FilePath(kIniFile),
                  "[Computer]\nPC1=198.51.100.5\nblank=   \n=198.51.100.6\nHost=198.51.100.99\n"
                  "nas=198.51.100.12\n[ARP]\n198.51.100.5=00-11-22-33-44-55\n198.51.100.6=  \n");
  computers.Load("host", "198.51.100.20", reporter);
  computers.SetOwnAddress("198.51.100.20", "02-00-00-00-00-14");
  clock.Advance(std::chrono::seconds(90));
  for (const std::string& name : {"evil=1"s, "pc\r"s, "p\0c"s, "pc\x7f"s, ";pc"s, "p~c"s, "[pc]"s, " pc"s,
                                  "pc "s, ""s, std::string(64, 'a')})
    EXPECT_EQ(computers.Learn(name), Learned::Unstorable) << name;
  const std::string longest(63, 'B');
  for (const std::string& name : {longest, "my pc;[1]#\"'"s, "\xef\xbb\xbfpc\xe9"s, "pc]"s})
    EXPECT_EQ(computers.Learn(name), Learned::Learned) << name;
  EXPECT_EQ(computers.Learn("PC1"), Learned::Refreshed);
  EXPECT_EQ(section("Computer"),
            (Lines{longest + "=", "BLANK=", "HOST=198.51.100.99", "MY PC;[1]#\"'=", "NAS=198.51.100.12",
                   "PC1=198.51.100.5", "PC]=", "\xef\xbb\xbfPC\xe9="}));

  ComputerRegistry::Edits edits;
  EXPECT_EQ(computers.Rename("pc1", "a=b", "198.51.100.5", edits), Renamed::Unstorable);
  EXPECT_EQ(computers.Rename("pc1", "OFFICE", "198.51.100.5", edits), Renamed::Renamed);
  EXPECT_EQ(computers.Rename("", "PRINTER", "203.0.113.9", edits), Renamed::Renamed);  // an ARP-only row
  EXPECT_EQ(computers.Rename("gone", "X", "198.51.100.7", edits), Renamed::NotFound);
  computers.Remove("NAS", "198.51.100.5", edits);
  before = test::ReadFile(hs.FilePath(kIniFile));
  hs.EditIni(kIniFile, [&](IniTool& ini) { computers.WriteEdits(ini, edits); });
  EXPECT_TRUE(writtenOnce());
  EXPECT_EQ(section("Computer"),
            (Lines{longest + "=", "HOST=198.51.100.20", "MY PC;[1]#\"'=", "OFFICE=198.51.100.5",
                   "PC]=", "PRINTER=203.0.113.9", "\xef\xbb\xbfPC\xe9="}));
  EXPECT_EQ(section("ARP"), Lines{"198.51.100.20=02-00-00-00-00-14"});

  before = test::ReadFile(hs.FilePath(kIniFile));
  computers.ReplaceArp({{{"198.51.100.5", "02-AA"}, {"198.51.100.6", "02-BB"}, {"198.51.100.5", "02-CC"}},
                        {{"203.0.113.9", "02-DD"}}},
                       "198.51.100.20");
  EXPECT_TRUE(writtenOnce());
  EXPECT_EQ(section("ARP"), (Lines{"198.51.100.20=02-00-00-00-00-14", "198.51.100.5=02-AA",
                                   "198.51.100.6=02-BB", "203.0.113.9=02-DD"}));
  // Loaded and learned computers were heard of when they came in; a rename is not.
  Lines rows;
  for (const auto& row : computers.Rows())
    rows.push_back(row.name + "=" + row.ip + " " + row.mac + " " + row.lastSeen.value_or("-"));
  EXPECT_EQ(rows, (Lines{"host=198.51.100.20 02-00-00-00-00-14 2026-11-22 08:00:00",
                         longest + "=  2026-11-22 08:01:30", "my pc;[1]#\"'=  2026-11-22 08:01:30",
                         "\xef\xbb\xbfpc\xe9=  2026-11-22 08:01:30", "pc]=  2026-11-22 08:01:30",
                         "OFFICE=198.51.100.5  -", "PRINTER=203.0.113.9 02-DD -"}));

  // Renames on the page are not limited; senders are.
  for (size_t k = computers.Count(); k < kMaxLearnedComputers; ++k)
    computers.Rename("", "old" + std::to_string(k), "198.51.100.1", edits);
  EXPECT_EQ(computers.Learn("pc1025"), Learned::Full);
  EXPECT_EQ(computers.Learn("OLD9"), Learned::Refreshed);
  EXPECT_EQ(computers.Count(), 1024u);
  EXPECT_TRUE(reporter.calls.empty());
}

}  // namespace
}  // namespace tavrel
