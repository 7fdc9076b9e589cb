#include "platform/Neighbours.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/errqueue.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "platform/NeighbourWire.h"
#include "platform/UdpProbes.h"

// How a sweep learns who is there, on Linux.
//
// With CAP_NET_RAW the sweep sends its own ARP requests over a packet socket and takes the replies that
// come back to it: an answer is proof the host is there now, whatever the kernel cache holds, the
// kernel's neighbour table is left alone, and a lost request is simply asked again by the sweep's second
// round (the kernel would only ask again after a full second).
//
// Without it, one UDP datagram per address makes the kernel resolve the address, and the neighbour
// table (netlink RTM_GETNEIGH) is read with each entry's age. The kernel keeps a departed host as
// "reachable" or "stale" for many seconds and, for an entry it holds already, sends no ARP at all, so
// an entry counts only with proof from this sweep: confirmed (NDA_CACHEINFO ndm_confirmed) no earlier
// than the sweep began, which is what an ARP answer to the kernel's request does, or an ICMP error
// from the host itself in answer to our datagram (IP_RECVERR), for hosts the cache already held.
// A host that is cached, silently drops UDP and has left ARP alone for the sweep's second is missed
// on this path; the privileged path has no such gap.
namespace tavrel::platform {

namespace {

// A local IPv4 address on an Ethernet interface that speaks ARP.
struct ArpLink {
  int IfIndex = 0;
  MacAddress Mac{};
  Ipv4 Ip = 0;
  Ipv4 Mask = 0;
};

std::vector<ArpLink> LocalArpLinks() {
  std::vector<ArpLink> links;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return links;
  std::map<std::string, std::pair<int, MacAddress>> hardware;
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET) continue;
    sockaddr_ll ll;
    std::memcpy(&ll, a->ifa_addr, sizeof ll);
    if (ll.sll_hatype != ARPHRD_ETHER || ll.sll_halen != 6) continue;
    MacAddress mac;
    std::memcpy(mac.data(), ll.sll_addr, mac.size());
    hardware[a->ifa_name] = {ll.sll_ifindex, mac};
  }
  for (ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || !a->ifa_netmask) continue;
    if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & (IFF_LOOPBACK | IFF_NOARP))) continue;
    auto hw = hardware.find(a->ifa_name);
    if (hw == hardware.end()) continue;
    sockaddr_in address, mask;
    std::memcpy(&address, a->ifa_addr, sizeof address);
    std::memcpy(&mask, a->ifa_netmask, sizeof mask);
    links.push_back(
        {hw->second.first, hw->second.second, ntohl(address.sin_addr.s_addr), ntohl(mask.sin_addr.s_addr)});
  }
  freeifaddrs(list);
  return links;
}

bool OnLink(const ArpLink& link, Ipv4 ip) {
  return link.Mask != 0 && (ip & link.Mask) == (link.Ip & link.Mask);
}

// Our own address, or the network or broadcast address of a local network (a /24 sweep crosses them
// where the network is smaller): no computer to look for there.
bool NoHostThere(const std::vector<ArpLink>& links, Ipv4 ip) {
  for (const ArpLink& link : links) {
    if (ip == link.Ip) return true;
    Ipv4 host = ip & ~link.Mask;
    if (OnLink(link, ip) && link.Mask < 0xFFFFFFFE && (host == 0 || host == ~link.Mask)) return true;
  }
  return false;
}

// The link whose network holds ip, or null.
const ArpLink* LinkFor(const std::vector<ArpLink>& links, Ipv4 ip) {
  for (const ArpLink& link : links) {
    if (OnLink(link, ip)) return &link;
  }
  return nullptr;
}

std::error_code LastError() { return {errno, std::generic_category()}; }

// Our own ARP requests and the replies to them, over one packet socket.
class ArpRequests : public std::enable_shared_from_this<ArpRequests> {
 public:
  ArpRequests(asio::io_context& io, int fd, std::vector<ArpLink> links)
      : links_(std::move(links)), socket_(io, fd), pause_(io) {}

  static std::shared_ptr<ArpRequests> Open(asio::io_context& io, std::vector<ArpLink> links,
                                           std::error_code& ec) {
    int fd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ARP));
    if (fd < 0) {
      ec = LastError();
      return nullptr;
    }
    int size = 1 << 20;  // room for every reply of a large sweep between two turns of the loop
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    auto requests = std::make_shared<ArpRequests>(io, fd, std::move(links));
    requests->Receive();
    return requests;
  }

  void Send(const ArpLink& link, Ipv4 target) {
    asked_.insert(target);
    queue_.push_back({link, target});
    if (!pausing_) Pump();
  }

  const std::map<Ipv4, MacAddress>& Answers() const { return answers_; }
  std::size_t Failures() const { return failures_; }
  std::error_code FirstError() const { return firstError_; }

 private:
  struct Request {
    ArpLink Link;
    Ipv4 Target;
  };

  void Pump() {
    while (!queue_.empty()) {
      const Request& request = queue_.front();
      std::string packet = ArpRequest(request.Link.Mac, request.Link.Ip, request.Target);
      sockaddr_ll to{};
      to.sll_family = AF_PACKET;
      to.sll_protocol = htons(ETH_P_ARP);
      to.sll_ifindex = request.Link.IfIndex;
      to.sll_halen = 6;
      std::memset(to.sll_addr, 0xFF, 6);
      ssize_t sent = ::sendto(socket_.native_handle(), packet.data(), packet.size(), 0,
                              reinterpret_cast<const sockaddr*>(&to), sizeof to);
      if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)) {
        // The device queue is full; give it a moment rather than drop the request.
        pausing_ = true;
        pause_.expires_after(std::chrono::milliseconds(1));
        pause_.async_wait([weak = weak_from_this()](std::error_code ec) {
          if (auto self = weak.lock(); self && !ec) {
            self->pausing_ = false;
            self->Pump();
          }
        });
        return;
      }
      if (sent < 0 && failures_++ == 0) firstError_ = LastError();
      queue_.pop_front();
    }
  }

  void Receive() {
    socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                       [weak = weak_from_this()](std::error_code ec) {
                         auto self = weak.lock();
                         if (!self || ec) return;
                         self->ReadReplies();
                         self->Receive();
                       });
  }

  void ReadReplies() {
    std::uint8_t buffer[256];
    for (;;) {
      sockaddr_ll from{};
      socklen_t fromSize = sizeof from;
      ssize_t size = ::recvfrom(socket_.native_handle(), buffer, sizeof buffer, MSG_DONTWAIT,
                                reinterpret_cast<sockaddr*>(&from), &fromSize);
      if (size < 0) return;
      if (from.sll_pkttype == PACKET_OUTGOING) continue;
      auto packet = ParseArp(buffer, static_cast<std::size_t>(size));
      if (!packet || !asked_.count(packet->SenderIp)) continue;
      const ArpLink* link = LinkFor(links_, packet->SenderIp);
      if (!link || link->IfIndex != from.sll_ifindex || !AnswersUs(*packet, link->Mac, link->Ip)) continue;
      answers_.emplace(packet->SenderIp, packet->SenderMac);
    }
  }

  std::vector<ArpLink> links_;
  asio::posix::stream_descriptor socket_;
  asio::steady_timer pause_;
  bool pausing_ = false;
  std::deque<Request> queue_;
  std::set<Ipv4> asked_;
  std::map<Ipv4, MacAddress> answers_;
  std::size_t failures_ = 0;
  std::error_code firstError_;
};

// Closes a descriptor when it goes out of scope.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

// The kernel's IPv4 neighbour table, through one netlink dump.
std::vector<NeighbourRecord> DumpNeighbours(std::error_code& ec) {
  std::vector<NeighbourRecord> records;
  Fd nl{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  if (nl.fd < 0) {
    ec = LastError();
    return records;
  }
  timeval timeout{0, 200000};  // the kernel answers at once; this only guards against a hang
  ::setsockopt(nl.fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::string request = NeighbourDumpRequest(1);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(nl.fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
               sizeof kernel) < 0) {
    ec = LastError();
    return records;
  }
  std::vector<std::uint8_t> buffer(1 << 16);
  for (;;) {
    ssize_t size = ::recv(nl.fd, buffer.data(), buffer.size(), 0);
    if (size < 0) {
      if (errno == EINTR) continue;
      ec = LastError();
      return records;
    }
    NeighbourDumpPart part = ParseNeighbourDump(buffer.data(), static_cast<std::size_t>(size));
    records.insert(records.end(), part.Records.begin(), part.Records.end());
    if (part.Error) ec = {part.Error, std::generic_category()};
    if (part.Done || size == 0) return records;
  }
}

// Addresses that answered a datagram of ours with an ICMP error of their own, from a socket's error
// queue (IP_RECVERR).
void DrainIcmpErrors(int fd, std::set<Ipv4>& hosts) {
  for (;;) {
    sockaddr_in destination{};
    char data[64];
    iovec iov{data, sizeof data};
    alignas(cmsghdr) char control[512];
    msghdr msg{};
    msg.msg_name = &destination;
    msg.msg_namelen = sizeof destination;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    if (::recvmsg(fd, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_IP || c->cmsg_type != IP_RECVERR) continue;
      sock_extended_err error;
      std::memcpy(&error, CMSG_DATA(c), sizeof error);
      if (error.ee_origin != SO_EE_ORIGIN_ICMP) continue;
      sockaddr_in offender;
      std::memcpy(&offender, CMSG_DATA(c) + sizeof error, sizeof offender);
      Ipv4 to = ntohl(destination.sin_addr.s_addr);
      if (offender.sin_family == AF_INET &&
          IcmpShowsHost(error.ee_type, error.ee_code, ntohl(offender.sin_addr.s_addr), to)) {
        hosts.insert(to);
      }
    }
  }
}

class LinuxProbe : public NeighbourProbe {
 public:
  LinuxProbe(asio::io_context& io, std::shared_ptr<ArpRequests> arp, std::vector<ArpLink> links)
      : io_(io), arp_(std::move(arp)), links_(std::move(links)), started_(std::chrono::steady_clock::now()) {}

  void Probe(const std::vector<Ipv4>& addresses) override {
    std::vector<Ipv4> viaKernel;
    for (Ipv4 ip : addresses) {
      if (NoHostThere(links_, ip)) continue;
      const ArpLink* link = arp_ ? LinkFor(links_, ip) : nullptr;
      if (link) {
        arp_->Send(*link, ip);
      } else {
        viaKernel.push_back(ip);
      }
    }
    if (viaKernel.empty()) return;
    if (!udp_) {
      udp_ = UdpProbes::Create(io_, [this](asio::ip::udp::socket& socket) {
        int on = 1;
        ::setsockopt(socket.native_handle(), SOL_IP, IP_RECVERR, &on, sizeof on);
        int size = 1 << 18;
        ::setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        udpSockets_.push_back(socket.native_handle());
      });
    }
    kernelProbed_.insert(viaKernel.begin(), viaKernel.end());
    udp_->Send(viaKernel);
  }

  std::vector<Neighbour> Answered() override {
    if (arp_) answers_.insert(arp_->Answers().begin(), arp_->Answers().end());
    if (!kernelProbed_.empty()) ReadKernelTable();
    std::vector<Neighbour> answered;
    for (const auto& [ip, mac] : answers_) answered.push_back({ip, mac});
    return answered;
  }

  std::string Method() const override {
    if (!arp_) return "neighbour table";
    return kernelProbed_.empty() ? "ARP requests" : "ARP requests and neighbour table";
  }

  std::size_t SendFailures() const override {
    return (arp_ ? arp_->Failures() : 0) + (udp_ ? udp_->Failures() : 0) + tableFailures_;
  }

  std::error_code FirstSendError() const override {
    if (arp_ && arp_->Failures()) return arp_->FirstError();
    if (udp_ && udp_->Failures()) return udp_->FirstError();
    return tableError_;
  }

 private:
  void ReadKernelTable() {
    for (int fd : udpSockets_) DrainIcmpErrors(fd, icmpHosts_);
    std::error_code ec;
    std::vector<NeighbourRecord> records = DumpNeighbours(ec);
    if (ec && tableFailures_++ == 0) tableError_ = ec;
    // Read the clock after the dump, so the sweep's age is never less than the kernel's view of it.
    static const long ticksPerSecond = ::sysconf(_SC_CLK_TCK) > 0 ? ::sysconf(_SC_CLK_TCK) : 100;
    auto elapsed = std::chrono::steady_clock::now() - started_;
    auto sweepTicks = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count() * ticksPerSecond / 1000000);
    for (const NeighbourRecord& record : records) {
      if (!kernelProbed_.count(record.Ip)) continue;
      if (ConfirmedDuringSweep(record, sweepTicks) ||
          (icmpHosts_.count(record.Ip) && HasDynamicMac(record))) {
        answers_.emplace(record.Ip, *record.Mac);
      }
    }
  }

  asio::io_context& io_;
  std::shared_ptr<ArpRequests> arp_;
  std::vector<ArpLink> links_;
  std::chrono::steady_clock::time_point started_;
  std::shared_ptr<UdpProbes> udp_;
  std::vector<int> udpSockets_;
  std::set<Ipv4> kernelProbed_;
  std::set<Ipv4> icmpHosts_;
  std::map<Ipv4, MacAddress> answers_;
  std::size_t tableFailures_ = 0;
  std::error_code tableError_;
};

}  // namespace

std::shared_ptr<NeighbourProbe> OpenNeighbourProbe(asio::io_context& io, std::error_code& ec) {
  ec.clear();
  std::vector<ArpLink> links = LocalArpLinks();
  std::shared_ptr<ArpRequests> arp;
  if (!links.empty()) {
    std::error_code arpEc;  // EPERM without CAP_NET_RAW: the kernel path below serves instead
    arp = ArpRequests::Open(io, links, arpEc);
  }
  return std::make_shared<LinuxProbe>(io, std::move(arp), std::move(links));
}

}  // namespace tavrel::platform
