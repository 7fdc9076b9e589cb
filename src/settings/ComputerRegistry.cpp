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
}

void ComputerRegistry::Load(const std::string& ownName, const std::string& ownIp, Reporter& reporter) {
  const std::string now = FormatDateTime(clock_.Now());
  computers_[ownName] = KeyValuePair{ownName, ownIp};
  lastSeen_[ownName] = KeyValuePair{ownName, now};
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
          lastSeen_.Add(key, KeyValuePair{key, now});
        } else {
          arp_.Add(key, KeyValuePair{key, parts[1]});
        }
      } catch (const std::exception& e) {
        reporter.WriteLog(kModule, "LoadIni", Err::From(e));
      }
    }
  }
}

void ComputerRegistry::SetOwnAddress(const std::string& ip, const std::string& mac) {
  arp_.Remove(ip);
  arp_.Add(ip, KeyValuePair{ip, mac});
  hs_.SaveIniSetting(kArpSection, ip, mac, kIniFile);
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
  std::string now = FormatDateTime(clock_.Now());
  if (KeyValuePair* seen = lastSeen_.Find(name)) {
    seen->Value = std::move(now);
  } else {
    lastSeen_.Add(name, KeyValuePair{name, std::move(now)});
  }
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
  return Renamed::Renamed;
}

void ComputerRegistry::Remove(const std::string& name, const std::string& ip, Edits& edits) {
  if (!ip.empty() && arp_.Remove(ip)) edits.arpChanged = true;
  if (name.empty()) return;
  if (computers_.Remove(name)) edits.computersChanged = true;
  lastSeen_.Remove(name);
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

void ComputerRegistry::ReplaceArp(const std::vector<std::vector<KeyValuePair>>& sweep,
                                  const std::string& ownIp) {
  std::optional<KeyValuePair> own;
  std::vector<KeyValuePair> saved;
  for (const auto& subnet : sweep) {
    if (const KeyValuePair* entry = arp_.Find(ownIp)) own = *entry;
    arp_.RemoveAll();
    for (const KeyValuePair& pair : subnet) {
      if (arp_.Add(pair.Key, pair)) saved.push_back(pair);
    }
  }
  if (own && !arp_.Exists(ownIp)) arp_.Add(ownIp, *own);
  // One save for the whole sweep, giving the file that a save per address would.
  hs_.SaveIniSettings(kArpSection, saved, kIniFile);
}

std::vector<ComputerRegistry::Row> ComputerRegistry::Rows() const {
  std::vector<Row> rows;
  rows.reserve(computers_.Count() + arp_.Count());
  std::string shown;
  std::unordered_set<std::string_view> shownAddresses;
  for (const auto& [key, computer] : computers_) {
    Row row{computer.Key, computer.Value, {}, {}, true};
    if (const KeyValuePair* arp = computer.Value.empty() ? nullptr : arp_.Find(computer.Value)) {
      row.mac = arp->Value;
      shown += computer.Value + ";";
      shownAddresses.insert(computer.Value);
    }
    if (const KeyValuePair* last = lastSeen_.Find(computer.Key)) row.lastSeen = last->Value;
    rows.push_back(std::move(row));
  }
  for (const auto& [ip, arp] : arp_) {
    // A plain substring test: an address that begins a shown one counts as shown. An address shown
    // whole needs no search through the list, which keeps a large table from costing its square.
    if (!shownAddresses.contains(ip) && shown.find(ip) == std::string::npos)
      rows.push_back(Row{"", ip, arp.Value, {}, false});
  }
  return rows;
}

}  // namespace tavrel
