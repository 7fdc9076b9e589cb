#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavrel::platform {

// This machine's name: GetComputerNameA on Windows, the host name cut at the first "." elsewhere.
std::string ComputerName();

// The MAC address of the first adapter that is up, is not loopback and has an IPv4 address, as
// "00:11:22:33:44:55" in upper case; "" when there is none.
std::string LocalMac();

// The IPv4 address of that same adapter as dotted text; "" when there is none.
std::string PrimaryIPv4();

// An IPv4 network of one of this machine's adapters: its address and prefix length, the address in host
// byte order.
struct IPv4Network {
  unsigned long address = 0;
  int prefixLength = 32;
};

// The networks of every adapter that is up and has an IPv4 address, loopback included.
std::vector<IPv4Network> LocalIPv4Networks();

// The running program's own file.
std::filesystem::path ExecutablePath();

// The per-user data folder for the program ($XDG_DATA_HOME/tavrel or ~/.local/share/tavrel,
// %LOCALAPPDATA%\tavrel).
std::filesystem::path UserDataFolder();

// Opens url in the user's web browser without waiting for it; false with whyNot set when no launcher
// could be started.
bool OpenBrowser(const std::string& url, std::string& whyNot);

// A long-running service's allocator settings: memory freed after a page is kept for the next one instead
// of going back to the system and faulting in again per request (the process stays at its working size).
void TuneAllocatorForService();

}  // namespace tavrel::platform
