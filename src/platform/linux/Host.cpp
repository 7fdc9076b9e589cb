#include "platform/Host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <malloc.h>
#include <net/if.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace tavrel::platform {

namespace {
// The first adapter that is up, not loopback, and has an IPv4 address.
bool FirstAdapter(std::string& name, std::string& ip) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool found = false;
  for (ifaddrs* a = list; a != nullptr && !found; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_INET) continue;
    if ((a->ifa_flags & IFF_UP) == 0 || (a->ifa_flags & IFF_LOOPBACK) != 0) continue;
    char text[INET_ADDRSTRLEN] = {};
    auto* sin = reinterpret_cast<sockaddr_in*>(a->ifa_addr);
    if (inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text) == nullptr) continue;
    name = a->ifa_name;
    ip = text;
    found = true;
  }
  freeifaddrs(list);
  return found;
}
}  // namespace

std::vector<IPv4Network> LocalIPv4Networks() {
  std::vector<IPv4Network> networks;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return networks;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_netmask == nullptr || a->ifa_addr->sa_family != AF_INET) continue;
    if ((a->ifa_flags & IFF_UP) == 0) continue;
    const uint32_t mask = ntohl(reinterpret_cast<sockaddr_in*>(a->ifa_netmask)->sin_addr.s_addr);
    networks.push_back(
        {ntohl(reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr), __builtin_popcount(mask)});
  }
  freeifaddrs(list);
  return networks;
}

std::string ComputerName() {
  char buf[256] = {};
  if (gethostname(buf, sizeof buf - 1) != 0) return {};
  std::string name(buf);
  return name.substr(0, name.find('.'));
}

std::string LocalMac() {
  std::string name, ip;
  if (!FirstAdapter(name, ip)) return {};
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return {};
  ifreq req{};
  std::strncpy(req.ifr_name, name.c_str(), IFNAMSIZ - 1);
  int rc = ioctl(fd, SIOCGIFHWADDR, &req);
  close(fd);
  if (rc != 0) return {};
  const auto* b = reinterpret_cast<const unsigned char*>(req.ifr_hwaddr.sa_data);
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
  return text;
}

std::string PrimaryIPv4() {
  std::string name, ip;
  return FirstAdapter(name, ip) ? ip : std::string();
}

std::filesystem::path ExecutablePath() {
  std::error_code ec;
  auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path() : p;
}

std::filesystem::path UserDataFolder() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg == '/') {
    return std::filesystem::path(xdg) / "tavrel";
  }
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home != nullptr && *home != '\0' ? home : "/tmp") / ".local/share/tavrel";
}

bool OpenBrowser(const std::string& url, std::string& whyNot) {
  // A launcher may run a text browser in the foreground when there is no desktop, so it is never
  // waited for: a short-lived shell starts it in the background, in a session of its own, with nothing
  // to read and nowhere to write, and ends at once (only the shell is reaped here). The shell's code
  // says whether xdg-open exists at all.
  const char* argv[] = {"sh", "-c",        "command -v xdg-open >/dev/null || exit 127; xdg-open \"$1\" &",
                        "sh", url.c_str(), nullptr};
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&files);
  posix_spawnattr_init(&attr);
  for (int fd : {0, 1, 2})
    posix_spawn_file_actions_addopen(&files, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/bin/sh", &files, &attr, const_cast<char**>(argv), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&files);
  if (rc != 0) {
    whyNot = std::string("cannot start /bin/sh: ") + std::strerror(rc);
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  whyNot = WIFEXITED(status) && WEXITSTATUS(status) == 127 ? "xdg-open is not installed"
                                                           : "the shell that starts xdg-open failed";
  return false;
}

void TuneAllocatorForService() {
  // Pages and answers are tens of kilobytes, made and freed per request.
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TOP_PAD, 1 << 20);
}

}  // namespace tavrel::platform
