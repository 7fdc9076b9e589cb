#include "settings/ComputerRegistry.h"

#include <unordered_set>

#include "core/Err.h"
#include "core/Text.h"
#include "settings/IniTool.h"

namespace tavrel {
namespace {

constexpr std::string_view kComputerSection = "Computer";
constexpr std::string_view kArpSection = "ARP";

}  // namespace

bool IsStorableName(std::string_view name) {
  if (name.empty() || name.size() > kMaxComputerName) return false;
  if (name.front() == ';' || name.front() == '[' || name.front() == ' ' || name.back() == ' ') return false;
  for (char ch : name) {
    auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F || c == '=' || c == '~') return false;
  }
  return true;
}

void ComputerRegistry::Clear() {
  computers_.RemoveAll();
  lastSeen_.RemoveAll();
  arp_.RemoveAll();
  answered_.RemoveAll();
  ++version_;
}

void ComputerRegistry::Load(const std::string& ownName, const std::string& ownIp, Reporter& reporter) {
  const DateTime now = clock_.Now();
  computers_[ownName] = KeyValuePair{ownName, ownIp};
  lastSeen_[ownName] = now;
  // Lines name=IP and IP=MAC. Entries already present (this machine's) win over the file; lines with an
  // empty key or a blank value are skipped.
  for (const bool computers : {true, false}) {
    std::vector<std::string> lines;
    try {
      lines = Split(hs_.GetINISection(computers ? kComputerSection : kArpSection, kIniFile),
                    std::string_view("\0", 1));
    } catch (const std::exception& e) {
      reporter.WriteLog(kModule, "LoadIni", Err::From(e));
      continue;
    }
    for (const auto& line : lines) {
      try {
        auto parts = Split(line, "=");
        if (parts.size() < 2) continue;
        const std::string key = LCase(parts[0]);
        if (key.empty() || Trim(parts[1]).empty()) continue;
        if (computers) {
          computers_.Add(key, KeyValuePair{key, parts[1]});
          if (!rule_.sweeping) lastSeen_.Add(key, now);
        } else {
          arp_.Add(key, KeyValuePair{key, parts[1]});
        }
      } catch (const std::exception& e) {
        reporter.WriteLog(kModule, "LoadIni", Err::From(e));
      }
    }
  }
  Changed();
}

void ComputerRegistry::SetOwnAddress(const std::string& ip, const std::string& mac) {
  arp_.Remove(ip);
  arp_.Add(ip, KeyValuePair{ip, mac});
  hs_.SaveIniSetting(kArpSection, ip, mac, kIniFile);
  Changed();
}

ComputerRegistry::Learned ComputerRegistry::Learn(const std::string& name) {
  if (!IsStorableName(name)) return Learned::Unstorable;
  Learned result = Learned::Refreshed;
  if (!computers_.Exists(name)) {
    if (computers_.Count() >= kMaxLearnedComputers) return Learned::Full;
    computers_.Add(name, KeyValuePair{name, ""});
    hs_.SaveIniSetting(kComputerSection, name, "", kIniFile);
    result = Learned::Learned;
  }
  lastSeen_[name] = clock_.Now();
  Changed();
  return result;
}

ComputerRegistry::Renamed ComputerRegistry::Rename(const std::string& oldName, const std::string& newName,
                                                   const std::string& ip, Edits& edits) {
  if (!newName.empty() && !IsStorableName(newName)) return Renamed::Unstorable;
  if (!oldName.empty() && !computers_.Remove(oldName)) return Renamed::NotFound;
  if (!newName.empty() && !ip.empty()) {
    if (KeyValuePair* entry = computers_.Find(newName)) {
      entry->Value = ip;
    } else {
      computers_.Add(newName, KeyValuePair{newName, ip});
    }
    edits.renamed.push_back(KeyValuePair{newName, ip});
  }
  Changed();
  return Renamed::Renamed;
}

void ComputerRegistry::Remove(const std::string& name, const std::string& ip, Edits& edits) {
  if (!ip.empty() && arp_.Remove(ip)) edits.arpChanged = true;
  if (name.empty()) return;
  if (computers_.Remove(name)) edits.computersChanged = true;
  lastSeen_.Remove(name);
  Changed();
}

void ComputerRegistry::WriteEdits(IniTool& ini, const Edits& edits) const {
  auto rewrite = [&ini](const OrderedDict<KeyValuePair>& table, std::string_view section) {
    std::vector<KeyValuePair> pairs;
    pairs.reserve(table.Count());
    for (const auto& [key, entry] : table) pairs.push_back(KeyValuePair{key, entry.Value});
    // As the file would read back after each earlier write.
    ini.LoadText(ini.ToText());
    ini.RemoveSection(section);
    ini.WriteKeysAsRounds(section, pairs);
  };
  ini.WriteKeysAsRounds(kComputerSection, edits.renamed);
  if (edits.arpChanged) rewrite(arp_, kArpSection);
  if (edits.computersChanged) rewrite(computers_, kComputerSection);
}

void ComputerRegistry::MergeArp(const std::vector<KeyValuePair>& sweep) {
  const DateTime now = clock_.Now();
  std::vector<KeyValuePair> saved;
  std::unordered_set<std::string_view> read;
  for (const KeyValuePair& pair : sweep) {
    if (!read.insert(pair.Key).second) continue;
    answered_[pair.Key] = now;
    if (KeyValuePair* entry = arp_.Find(pair.Key)) {
      if (entry->Value == pair.Value) continue;
      entry->Value = pair.Value;
    } else {
      arp_.Add(pair.Key, pair);
    }
    saved.push_back(pair);
  }
  // One save for the whole sweep, giving the file that a save per address would.
  if (!saved.empty()) hs_.SaveIniSettings(kArpSection, saved, kIniFile);
  Changed();
}

std::vector<ComputerRegistry::Row> ComputerRegistry::Rows() const {
  std::vector<Row> rows;
  rows.reserve(computers_.Count() + arp_.Count());
  std::string shown;
  std::unordered_set<std::string_view> shownAddresses;
  const DateTime now = clock_.Now();
  // The newer of the two times, and whether each still counts.
  auto presence = [&](Row& row, const DateTime* heard) {
    if (heard) {
      row.lastSeen = *heard;
      row.byXap = DateDiffMinutes(*heard, now) <= kHeardFor.count();
    }
    const DateTime* answered = rule_.sweeping && !row.ip.empty() ? answered_.Find(row.ip) : nullptr;
    if (answered) {
      if (!row.lastSeen || *row.lastSeen < *answered) row.lastSeen = *answered;
      row.bySweep = now - *answered <= rule_.awayAfter;
    }
  };
  for (const auto& [key, computer] : computers_) {
    Row row{computer.Key, computer.Value, {}, {}, true};
    if (const KeyValuePair* arp = computer.Value.empty() ? nullptr : arp_.Find(computer.Value)) {
      row.mac = arp->Value;
      shown += computer.Value + ";";
      shownAddresses.insert(computer.Value);
    }
    presence(row, lastSeen_.Find(computer.Key));
    rows.push_back(std::move(row));
  }
  for (const auto& [ip, arp] : arp_) {
    // A plain substring test: an address that begins a shown one counts as shown. An address shown
    // whole needs no search through the list, which keeps a large table from costing its square.
    if (!shownAddresses.contains(ip) && shown.find(ip) == std::string::npos) {
      Row row{"", ip, arp.Value, {}, false};
      presence(row, nullptr);
      rows.push_back(std::move(row));
    }
  }
  return rows;
}

}  // namespace tavrel
