#include "lan/ScanCommand.h"

#include <ostream>
#include <utility>

#include <asio/io_context.hpp>

#include "core/Timer.h"
#include "lan/NativeSweep.h"
#include "lan/Subnet.h"

namespace tavrel {

namespace {

// Prints the command's problems; the sweep's own reports land here too.
class StreamReporter : public Reporter {
 public:
  explicit StreamReporter(std::ostream& err) : err_(err) {}
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view, std::string_view text, const Err& err) override { Print(text, err); }
  void ReportEvent(std::string_view, std::string_view text, const Err& err) override { Print(text, err); }

  bool Reported() const { return reported_; }

 private:
  void Print(std::string_view text, const Err& err) {
    reported_ = true;
    err_ << "tavrel scan: " << text;
    if (err.IsSet()) err_ << ": " << err.Description;
    err_ << '\n';
  }
  std::ostream& err_;
  bool reported_ = false;
};

}  // namespace

int ScanCommand(const std::vector<std::string>& subnets, std::ostream& out, std::ostream& err) {
  if (subnets.empty()) {
    err << "usage: tavrel scan SUBNET... (each subnet three numbers, as 198.51.100)\n";
    return 2;
  }
  const SubnetList list = CheckSubnets(subnets);
  bool bad = !list.Invalid.empty();
  for (const std::string& entry : list.Invalid)
    err << "tavrel scan: Invalid subnet " << entry << " (give three numbers 0-255, as 198.51.100)\n";
  std::vector<std::string> sweep;
  for (const ListedSubnet& listed : list.Valid) {
    if (!IsSweptSubnet(listed.Subnet)) {
      err << "tavrel scan: \"" << listed.Subnet
          << "\" holds no computers (0, 127 and 224 and above are not swept)\n";
      bad = true;
    }
    sweep.push_back(listed.Subnet);
  }
  if (bad) return 2;
  asio::io_context io;
  StreamReporter reporter(err);
  LoopTimers timers(io);
  NativeSweep native(io, reporter, timers);
  std::vector<std::vector<ArpEntry>> results;
  native.Start(std::move(sweep),
               [&results](const std::vector<std::vector<ArpEntry>>& perSubnet) { results = perSubnet; });
  io.run();
  for (const std::vector<ArpEntry>& entries : results) {
    for (const ArpEntry& entry : entries) out << entry.Ip << ' ' << entry.Mac << '\n';
  }
  out.flush();
  return reporter.Reported() ? 1 : 0;
}

}  // namespace tavrel
