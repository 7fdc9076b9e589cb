#include "platform/Neighbours.h"

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <netioapi.h>
// clang-format on

#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "platform/NeighbourWire.h"
#include "platform/UdpProbes.h"

// How a sweep learns who is there, on Windows.
//
// There are no raw sockets here, so one UDP datagram per address makes Windows resolve it, and the
// neighbour table (GetIpNetTable2) is read afterwards. An entry Windows resolved during the sweep is
// fresh. An entry it held already may belong to a computer that has left: Windows keeps such entries
// and sends no ARP for them when a datagram goes out, so each of them is resolved once more with
// ResolveIpNetEntry2, which drops the entry and asks by ARP again. That call blocks until it has an
// answer or gives up (seconds for an absent computer), so it runs on worker threads that only fill a
// locked result set the sweep reads; a departed computer is thus simply missing at the deadline.
// Where the call is refused or missing (Wine has only a stub of it, which ends the process when
// called), a held entry counts only while Windows itself holds it as reachable.
namespace tavrel::platform {

namespace {

constexpr std::size_t kWorkers = 16;

using ResolveFunction = DWORD(WINAPI*)(PMIB_IPNET_ROW2, const SOCKADDR_INET*);

ResolveFunction FindResolve() {
  if (GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version")) return nullptr;
  HMODULE iphlpapi = GetModuleHandleA("iphlpapi.dll");
  FARPROC found = iphlpapi ? GetProcAddress(iphlpapi, "ResolveIpNetEntry2") : nullptr;
  return reinterpret_cast<ResolveFunction>(reinterpret_cast<void (*)()>(found));
}

struct Row {
  Ipv4 Ip = 0;
  MacAddress Mac{};
  NL_NEIGHBOR_STATE State = NlnsUnreachable;
  bool HasMac = false;
  MIB_IPNET_ROW2 Raw{};
};

std::map<Ipv4, Row> ReadTable(std::error_code& ec) {
  std::map<Ipv4, Row> rows;
  MIB_IPNET_TABLE2* table = nullptr;
  DWORD result = GetIpNetTable2(AF_INET, &table);
  if (result != NO_ERROR) {
    ec = {static_cast<int>(result), std::system_category()};
    return rows;
  }
  for (ULONG i = 0; i < table->NumEntries; ++i) {
    const MIB_IPNET_ROW2& raw = table->Table[i];
    if (raw.Address.si_family != AF_INET) continue;
    Row row;
    row.Ip = ntohl(raw.Address.Ipv4.sin_addr.s_addr);
    row.State = raw.State;
    row.HasMac = raw.PhysicalAddressLength == 6 && (raw.State == NlnsReachable || raw.State == NlnsStale ||
                                                    raw.State == NlnsDelay || raw.State == NlnsProbe);
    if (row.HasMac) std::memcpy(row.Mac.data(), raw.PhysicalAddress, 6);
    row.HasMac = row.HasMac && IsHostMac(row.Mac);
    row.Raw = raw;
    rows.emplace(row.Ip, row);
  }
  FreeMibTable(table);
  return rows;
}

// What the worker threads found, shared with them; they never touch anything else.
struct Resolved {
  std::mutex lock;
  std::deque<MIB_IPNET_ROW2> pending;
  std::map<Ipv4, MacAddress> present;
  std::set<Ipv4> refused;  // the OS would not resolve: judge by the table's state instead
};

void ResolveWorker(std::shared_ptr<Resolved> resolved, ResolveFunction resolve) {
  for (;;) {
    MIB_IPNET_ROW2 row;
    {
      std::lock_guard<std::mutex> hold(resolved->lock);
      if (resolved->pending.empty()) return;
      row = resolved->pending.front();
      resolved->pending.pop_front();
    }
    Ipv4 ip = ntohl(row.Address.Ipv4.sin_addr.s_addr);
    DWORD result = resolve(&row, nullptr);
    std::lock_guard<std::mutex> hold(resolved->lock);
    MacAddress mac{};
    if (row.PhysicalAddressLength == 6) std::memcpy(mac.data(), row.PhysicalAddress, 6);
    if (result == NO_ERROR && IsHostMac(mac)) {
      resolved->present.emplace(ip, mac);
    } else if (result != ERROR_BAD_NET_NAME && result != ERROR_NETWORK_UNREACHABLE &&
               result != ERROR_HOST_UNREACHABLE && result != NO_ERROR) {
      resolved->refused.insert(ip);
    }
  }
}

class WindowsProbe : public NeighbourProbe {
 public:
  explicit WindowsProbe(asio::io_context& io) : udp_(UdpProbes::Create(io)) {
    std::error_code ec;
    for (const auto& [ip, row] : ReadTable(ec)) {
      if (row.HasMac) held_.emplace(ip, row.Raw);
    }
  }

  void Probe(const std::vector<Ipv4>& addresses) override {
    std::vector<MIB_IPNET_ROW2> recheck;
    for (Ipv4 ip : addresses) {
      if (!probed_.insert(ip).second) continue;
      auto held = held_.find(ip);
      if (held != held_.end()) recheck.push_back(held->second);
    }
    udp_->Send(addresses);
    if (recheck.empty()) return;
    static const ResolveFunction resolve = FindResolve();
    if (!resolve) {
      std::lock_guard<std::mutex> hold(resolved_->lock);
      for (const MIB_IPNET_ROW2& row : recheck)
        resolved_->refused.insert(ntohl(row.Address.Ipv4.sin_addr.s_addr));
      return;
    }
    std::size_t workers = 0;
    {
      std::lock_guard<std::mutex> hold(resolved_->lock);
      resolved_->pending.insert(resolved_->pending.end(), recheck.begin(), recheck.end());
      workers = std::min(kWorkers, resolved_->pending.size());
    }
    // Detached: a worker may outlive the sweep while Windows gives up on a departed computer; it holds
    // only the shared result set.
    for (std::size_t i = 0; i < workers; ++i) std::thread(ResolveWorker, resolved_, resolve).detach();
  }

  std::vector<Neighbour> Answered() override {
    std::error_code ec;
    std::map<Ipv4, Row> rows = ReadTable(ec);
    if (ec && tableFailures_++ == 0) tableError_ = ec;
    std::lock_guard<std::mutex> hold(resolved_->lock);
    for (Ipv4 ip : probed_) {
      auto row = rows.find(ip);
      bool held = held_.count(ip) != 0;
      if (held) {
        auto present = resolved_->present.find(ip);
        if (present != resolved_->present.end()) {
          answers_.emplace(ip, present->second);
        } else if (resolved_->refused.count(ip) && row != rows.end() && row->second.HasMac &&
                   row->second.State == NlnsReachable) {
          answers_.emplace(ip, row->second.Mac);
        }
      } else if (row != rows.end() && row->second.HasMac) {
        answers_.emplace(ip, row->second.Mac);
      }
    }
    std::vector<Neighbour> answered;
    for (const auto& [ip, mac] : answers_) answered.push_back({ip, mac});
    return answered;
  }

  std::string Method() const override { return "neighbour table"; }
  std::size_t SendFailures() const override { return udp_->Failures() + tableFailures_; }
  std::error_code FirstSendError() const override {
    return udp_->Failures() ? udp_->FirstError() : tableError_;
  }

 private:
  std::shared_ptr<UdpProbes> udp_;
  std::map<Ipv4, MIB_IPNET_ROW2> held_;
  std::set<Ipv4> probed_;
  std::shared_ptr<Resolved> resolved_ = std::make_shared<Resolved>();
  std::map<Ipv4, MacAddress> answers_;
  std::size_t tableFailures_ = 0;
  std::error_code tableError_;
};

}  // namespace

std::shared_ptr<NeighbourProbe> OpenNeighbourProbe(asio::io_context& io, std::error_code& ec) {
  ec.clear();
  return std::make_shared<WindowsProbe>(io);
}

}  // namespace tavrel::platform
