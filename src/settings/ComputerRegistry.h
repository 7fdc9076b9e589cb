#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/KeyValuePair.h"
#include "core/OrderedDict.h"
#include "core/Reporter.h"
#include "settings/Hs.h"

namespace tavrel {

class IniTool;

// Computers learned from the network stop being added once the table holds this many.
inline constexpr size_t kMaxLearnedComputers = 1024;
inline constexpr size_t kMaxComputerName = 63;

// Whether tavrel.ini can hold the name as a key of section "Computer" and give it back unchanged after a
// restart: 1 to 63 bytes, no control byte, no "=" (ends the key) or "~" (the settings table's own
// separator), no leading ";" (a comment) or "[" (a section header), no blank at either end (trimmed).
bool IsStorableName(std::string_view name);

// The computers the program knows: name -> IP address, IP address -> MAC address, and when each name was
// last heard of; and their copy in sections "Computer" and "ARP" of tavrel.ini. The application owns
// one and hands it to the xAP handler, the LAN scan and the page; every change goes through here, so the
// name rule, the size limit, the last-seen times and what is written to the file are decided in one place.
class ComputerRegistry {
 public:
  ComputerRegistry(Hs& hs, const Clock& clock) : hs_(hs), clock_(clock) {}

  enum class Learned { Learned, Refreshed, Unstorable, Full };
  enum class Renamed { Renamed, Unstorable, NotFound };

  // How presence is decided. Heard on xAP counts for 15 minutes; with sweeping (a "ScanInterval" set), an
  // answer to a sweep counts for awayAfter, and the computers read from the file are not taken as seen at
  // start: only what is heard or answers is.
  struct PresenceRule {
    bool sweeping = false;
    std::chrono::seconds awayAfter{180};
  };
  static constexpr std::chrono::minutes kHeardFor{15};

  // One row of the page: every computer (mac empty without an ARP entry), then every ARP entry not shown
  // with a computer (computer false, name empty). lastSeen is the newer of when the computer was last
  // heard of and when its address last answered a sweep (the latter only while sweeping); none when
  // neither happened. byXap and bySweep say which of them makes it seen now.
  struct Row {
    std::string name, ip, mac;
    std::optional<DateTime> lastSeen;
    bool computer = true;
    bool byXap = false, bySweep = false;

    bool Seen() const { return byXap || bySweep; }
  };

  // What the page's changes leave for the settings file, written at the end of the post in one go.
  struct Edits {
    std::vector<KeyValuePair> renamed;  // new lines of section "Computer"
    bool arpChanged = false;            // sections emptied of removed entries, rewritten whole
    bool computersChanged = false;
  };

  void SetPresenceRule(PresenceRule rule) {
    rule_ = rule;
    ++version_;
  }
  const PresenceRule& Presence() const { return rule_; }
  // Counts the changes of the table, of what was heard or answered and of the rule: the rows differ
  // from those of an earlier count only by the time that has passed.
  uint64_t Version() const { return version_; }
  // Called after every change of the table or of what was heard or answered, on the loop. One watcher.
  void OnChange(std::function<void()> changed) { changed_ = std::move(changed); }

  void Clear();
  // This machine (heard of now), then the lines of sections "Computer" and "ARP". A failure is logged
  // under "LoadIni" and loading goes on.
  void Load(const std::string& ownName, const std::string& ownIp, Reporter& reporter);
  // This machine's own ARP entry, in memory and in the file.
  void SetOwnAddress(const std::string& ip, const std::string& mac);

  // A computer heard of on the network (name in lower case). A new one is stored with no IP address.
  Learned Learn(const std::string& name);

  // The page's rename of a row (an empty oldName: an ARP entry without a computer; an empty newName:
  // the name goes). Refused when the file could not hold newName.
  Renamed Rename(const std::string& oldName, const std::string& newName, const std::string& ip, Edits& edits);
  // The page's removal of a row: its ARP entry and the computer called name.
  void Remove(const std::string& name, const std::string& ip, Edits& edits);
  // Writes what edits holds into the settings file being edited.
  void WriteEdits(IniTool& ini, const Edits& edits) const;
  // After a failed post the sections are not rewritten; the new lines still are.
  static void KeepNewLinesOnly(Edits& edits) { edits.arpChanged = edits.computersChanged = false; }

  // The ARP entries read by one sweep (IP and MAC pairs of every subnet swept), merged into the table: a
  // new address is added, a new MAC replaces the old one, and an address that did not answer keeps its
  // entry (the computers that are off are the ones to wake). The first pair of an address wins; every
  // address read counts as having answered now. What changed goes to section "ARP" in one save.
  void MergeArp(const std::vector<KeyValuePair>& sweep);

  // name -> (name, IP address); nullptr when unknown.
  const KeyValuePair* FindByName(std::string_view name) const { return computers_.Find(name); }
  // IP address -> (IP address, MAC address); nullptr when unknown.
  const KeyValuePair* FindByIP(std::string_view ip) const { return arp_.Find(ip); }
  size_t Count() const { return computers_.Count(); }
  // Every row, with presence as of now.
  std::vector<Row> Rows() const;

 private:
  void Changed() {
    ++version_;
    if (changed_) changed_();
  }

  Hs& hs_;
  const Clock& clock_;
  // keys compared without regard to case
  OrderedDict<KeyValuePair> computers_{true};
  // name -> when last heard of
  OrderedDict<DateTime> lastSeen_{true};
  // binary compare
  OrderedDict<KeyValuePair> arp_{false};
  // IP address -> when it last answered a sweep (memory only)
  OrderedDict<DateTime> answered_{false};
  PresenceRule rule_;
  uint64_t version_ = 0;
  std::function<void()> changed_;
};

}  // namespace tavrel
