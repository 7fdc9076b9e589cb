#include "platform/Host.h"

#include <winsock2.h>

#include <windows.h>

#include <iphlpapi.h>
#include <shellapi.h>
#include <ws2tcpip.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace tavrel::platform {

namespace {
// The IPv4 adapters in buf; null when they cannot be listed.
IP_ADAPTER_ADDRESSES* Adapters(std::vector<unsigned char>& buf) {
  ULONG size = 16 * 1024;
  buf.resize(size);
  const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  ULONG rc = GetAdaptersAddresses(AF_INET, flags, nullptr,
                                  reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data()), &size);
  if (rc == ERROR_BUFFER_OVERFLOW) {
    buf.resize(size);
    rc = GetAdaptersAddresses(AF_INET, flags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data()),
                              &size);
  }
  return rc == NO_ERROR ? reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data()) : nullptr;
}

// Walks the adapters and calls f(adapter, ipv4 text) for the first one that is up and has IPv4.
template <class F>
bool FirstAdapter(F f) {
  std::vector<unsigned char> buf;
  IP_ADAPTER_ADDRESSES* list = Adapters(buf);
  if (list == nullptr) return false;
  for (auto* a = list; a != nullptr; a = a->Next) {
    if (a->IfType == IF_TYPE_SOFTWARE_LOOPBACK || a->OperStatus != IfOperStatusUp) continue;
    for (auto* u = a->FirstUnicastAddress; u != nullptr; u = u->Next) {
      if (u->Address.lpSockaddr->sa_family != AF_INET) continue;
      char text[INET_ADDRSTRLEN] = {};
      auto* sin = reinterpret_cast<sockaddr_in*>(u->Address.lpSockaddr);
      if (inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text) == nullptr) continue;
      f(*a, std::string(text));
      return true;
    }
  }
  return false;
}
}  // namespace

std::vector<IPv4Network> LocalIPv4Networks() {
  std::vector<IPv4Network> networks;
  std::vector<unsigned char> buf;
  IP_ADAPTER_ADDRESSES* list = Adapters(buf);
  if (list == nullptr) return networks;
  for (auto* a = list; a != nullptr; a = a->Next) {
    if (a->OperStatus != IfOperStatusUp) continue;
    for (auto* u = a->FirstUnicastAddress; u != nullptr; u = u->Next) {
      if (u->Address.lpSockaddr->sa_family != AF_INET) continue;
      const auto* sin = reinterpret_cast<sockaddr_in*>(u->Address.lpSockaddr);
      networks.push_back({ntohl(sin->sin_addr.s_addr), u->OnLinkPrefixLength});
    }
  }
  return networks;
}

std::string ComputerName() {
  char buf[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof buf;
  if (!GetComputerNameA(buf, &size)) return {};
  return std::string(buf, size);
}

std::string LocalMac() {
  std::string mac;
  FirstAdapter([&](const IP_ADAPTER_ADDRESSES& a, const std::string&) {
    if (a.PhysicalAddressLength != 6) return;
    char text[18];
    const BYTE* b = a.PhysicalAddress;
    std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", b[0], b[1], b[2], b[3], b[4], b[5]);
    mac = text;
  });
  return mac;
}

std::string PrimaryIPv4() {
  std::string ip;
  FirstAdapter([&](const IP_ADAPTER_ADDRESSES&, const std::string& text) { ip = text; });
  return ip;
}

std::filesystem::path ExecutablePath() {
  std::vector<wchar_t> buf(MAX_PATH);
  while (true) {
    DWORD n = GetModuleFileNameW(nullptr, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return {};
    if (n < buf.size()) return std::filesystem::path(std::wstring(buf.data(), n));
    buf.resize(buf.size() * 2);
  }
}

std::filesystem::path UserDataFolder() {
  if (const wchar_t* local = _wgetenv(L"LOCALAPPDATA"); local != nullptr && *local != L'\0') {
    return std::filesystem::path(local) / "tavrel";
  }
  return std::filesystem::temp_directory_path() / "tavrel";
}

bool OpenBrowser(const std::string& url, std::string& whyNot) {
  // The same call the tray menu always made: Internet Explorer by name, the URL as its parameter.
  auto rc = reinterpret_cast<INT_PTR>(
      ShellExecuteA(nullptr, nullptr, "Iexplore", url.c_str(), nullptr, SW_SHOWNORMAL));
  if (rc > 32) return true;
  // The small codes ShellExecute gives back are the system's error numbers.
  char text[256] = {};
  FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, static_cast<DWORD>(rc),
                 0, text, sizeof text, nullptr);
  std::string reason(text);
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r' || reason.back() == ' '))
    reason.pop_back();
  whyNot =
      "Iexplore could not be started, error " + std::to_string(rc) + (reason.empty() ? "" : ": " + reason);
  return false;
}

// The Windows heap keeps freed blocks for reuse by itself.
void TuneAllocatorForService() {}

}  // namespace tavrel::platform
