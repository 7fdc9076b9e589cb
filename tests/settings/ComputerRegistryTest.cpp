#include <chrono>
#include <string>
#include <utility>
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

class ComputerRegistryTest : public ::testing::Test {
 protected:
  // The rows as "name=ip mac seen" texts, in their order.
  Lines Rows() const {
    Lines rows;
    for (const auto& row : computers.Rows())
      rows.push_back(row.name + "=" + row.ip + " " + row.mac + " " + row.lastSeen.value_or("-"));
    return rows;
  }
  // A section's lines, as the settings file gives them back.
  Lines Section(const char* section) const { return Split(hs.GetINISection(section, kIniFile), "\0"s); }

  test::TempDir home;
  test::RecordingReporter reporter;
  Hs hs{home.Path() / "Config", reporter};
  ManualClock clock{MakeDateTime(2026, 11, 22, 8, 0, 0)};
  ComputerRegistry computers{hs, clock};
};

// A name comes in only when the settings file gives it back unchanged, and a new one only while the table
// holds fewer than 1,024; a known one, in any case, is marked seen again even when the table is full.
TEST_F(ComputerRegistryTest, LearnTakesStorableNamesUpToTheLimitAndMarksEveryKnownOneSeen) {
  std::string file = "[Computer]\n";
  for (int k = 1; k <= 1017; ++k) file += "old" + std::to_string(k) + "=198.51.100.1\n";
  test::WriteFile(hs.FilePath(kIniFile), file);
  computers.Load("host", "198.51.100.20", reporter);  // 1,018 computers
  const std::pair<std::string, Learned> cases[] = {
      {"evil=1", Learned::Unstorable},     {"pc\r", Learned::Unstorable},
      {"p\0c"s, Learned::Unstorable},      {"p\tc", Learned::Unstorable},
      {"pc\x7f", Learned::Unstorable},     {";pc", Learned::Unstorable},
      {"~pc", Learned::Unstorable},        {"p~c", Learned::Unstorable},
      {"[pc]", Learned::Unstorable},       {" pc", Learned::Unstorable},
      {"pc ", Learned::Unstorable},        {std::string(64, 'a'), Learned::Unstorable},
      {"", Learned::Unstorable},           {std::string(63, 'b'), Learned::Learned},
      {"my pc;[1]#\"'", Learned::Learned}, {"\xef\xbb\xbfpc\xe9", Learned::Learned},
      {"pc]", Learned::Learned},           {"x", Learned::Learned},
      {"pc1024", Learned::Learned},        {"pc1025", Learned::Full},
      {"PC]", Learned::Refreshed},         {"Old7", Learned::Refreshed}};
  clock.Advance(std::chrono::seconds(90));
  for (const auto& [name, result] : cases) EXPECT_EQ(computers.Learn(name), result) << name;
  EXPECT_EQ(computers.Count(), 1024u);
  // New names are stored without an address, once each; refused ones not at all. The file holds its keys
  // in upper case, in order.
  const Lines section = Section("Computer");
  EXPECT_EQ(section.size(), 1017u + 6u);
  EXPECT_EQ(Lines(section.end() - 4, section.end()), (Lines{"PC1024=", "PC]=", "X=", "\xef\xbb\xbfPC\xe9="}));
  const Lines rows = Rows();
  EXPECT_EQ(rows.front(), "host=198.51.100.20  2026-11-22 08:00:00");
  EXPECT_EQ(rows[7], "old7=198.51.100.1  2026-11-22 08:01:30");
  EXPECT_EQ(rows[8], "old8=198.51.100.1  2026-11-22 08:00:00");
  EXPECT_EQ(rows.back(), "pc1024=  2026-11-22 08:01:30");
}

// Loading skips lines without a key or a value and keeps this machine's entry; the page's renames and
// removals reach the file in the one write of its post, a sweep's ARP entries in one write of their own.
TEST_F(ComputerRegistryTest, LoadEditsAndSweepsKeepTheTablesAndTheFileInStep) {
  test::WriteFile(hs.FilePath(kIniFile),
                  "[Computer]\nPC1=198.51.100.5\nblank=   \n=198.51.100.6\nHost=198.51.100.99\n"
                  "nas=198.51.100.12\n[ARP]\n198.51.100.5=00-11-22-33-44-55\n198.51.100.6=  \n"
                  "198.51.100.12=00-11-22-33-44-12\n");
  computers.Load("host", "198.51.100.20", reporter);
  computers.SetOwnAddress("198.51.100.20", "02-00-00-00-00-14");
  clock.Advance(std::chrono::minutes(20));
  EXPECT_EQ(Rows(), (Lines{"host=198.51.100.20 02-00-00-00-00-14 2026-11-22 08:00:00",
                           "pc1=198.51.100.5 00-11-22-33-44-55 2026-11-22 08:00:00",
                           "nas=198.51.100.12 00-11-22-33-44-12 2026-11-22 08:00:00"}));
  EXPECT_EQ(computers.FindByName("PC1")->Value + " " + computers.FindByIP("198.51.100.20")->Value,
            "198.51.100.5 02-00-00-00-00-14");
  EXPECT_EQ(computers.FindByName("blank"), nullptr);
  EXPECT_EQ(computers.FindByIP("198.51.100.6"), nullptr);

  ComputerRegistry::Edits edits;
  using Renamed = ComputerRegistry::Renamed;
  EXPECT_EQ(computers.Rename("pc1", "a=b", "198.51.100.5", edits), Renamed::Unstorable);
  EXPECT_EQ(computers.Rename("pc1", "OFFICE", "198.51.100.5", edits), Renamed::Renamed);
  EXPECT_EQ(computers.Rename("", "PRINTER", "203.0.113.9", edits), Renamed::Renamed);  // an ARP-only row
  EXPECT_EQ(computers.Rename("gone", "X", "198.51.100.7", edits), Renamed::NotFound);
  computers.Remove("NAS", "198.51.100.12", edits);
  const std::string before = test::ReadFile(hs.FilePath(kIniFile));
  hs.EditIni(kIniFile, [&](IniTool& ini) { computers.WriteEdits(ini, edits); });
  EXPECT_EQ(test::ReadFile(hs.FilePath(kIniFile).string() + "_bck"), before);
  EXPECT_EQ(Section("Computer"), (Lines{"HOST=198.51.100.20", "OFFICE=198.51.100.5", "PRINTER=203.0.113.9"}));
  EXPECT_EQ(Section("ARP"), (Lines{"198.51.100.20=02-00-00-00-00-14", "198.51.100.5=00-11-22-33-44-55"}));
  EXPECT_EQ(Rows(), (Lines{"host=198.51.100.20 02-00-00-00-00-14 2026-11-22 08:00:00",
                           "OFFICE=198.51.100.5 00-11-22-33-44-55 -", "PRINTER=203.0.113.9  -"}));

  // Each subnet swept starts from an empty table but for this machine's entry; the first MAC of an
  // address wins; the file keeps every address read.
  const std::string beforeSweep = test::ReadFile(hs.FilePath(kIniFile));
  computers.ReplaceArp({{{"198.51.100.5", "02-AA"}, {"198.51.100.6", "02-BB"}, {"198.51.100.5", "02-CC"}},
                        {{"203.0.113.9", "02-DD"}}},
                       "198.51.100.20");
  EXPECT_EQ(test::ReadFile(hs.FilePath(kIniFile).string() + "_bck"), beforeSweep);
  EXPECT_EQ(Section("ARP"), (Lines{"198.51.100.20=02-00-00-00-00-14", "198.51.100.5=02-AA",
                                   "198.51.100.6=02-BB", "203.0.113.9=02-DD"}));
  EXPECT_EQ(Rows(), (Lines{"host=198.51.100.20 02-00-00-00-00-14 2026-11-22 08:00:00",
                           "OFFICE=198.51.100.5  -", "PRINTER=203.0.113.9 02-DD -"}));
  EXPECT_EQ(reporter.Take(), Lines{});
}

}  // namespace
}  // namespace tavrel
