#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Reporter.h"
#include "http/Request.h"
#include "http/Response.h"
#include "platform/Host.h"

namespace tavrel {

// The four header fields the guard reads, each as its first line gave it (name in any case, blanks around
// the value trimmed); hostCount tells a request that names two hosts.
struct GuardHeaders {
  std::optional<std::string> host, origin, referer, authorization;
  int hostCount = 0;

  static GuardHeaders Parse(std::string_view header);
};

// An IPv4 range: network and mask in host byte order.
struct AddressRange {
  uint32_t network = 0;
  uint32_t mask = 0;

  bool Contains(uint32_t address) const { return (address & mask) == network; }
  // "a.b.c.d/n" or a single "a.b.c.d".
  static std::optional<AddressRange> Parse(std::string_view text);
};

// A strict dotted IPv4 address ("198.51.100.7"), in host byte order.
std::optional<uint32_t> ParseIPv4(std::string_view text);

// Who may use the web server, decided before a request reaches anything that acts: the client's address
// against "HTTPAllow" (default: loopback, the private ranges and this machine's own networks), the "Host"
// it names against this machine's names and "HTTPHosts" (no DNS rebinding), a POST's "Origin" or
// "Referer" against that "Host" (no cross-site forms), and, with "HTTPPasswordHash" set, HTTP Basic
// credentials with a lock-out after repeated failures. No sockets: it reads a Request and answers
// refusals through a Response.
class Guard {
 public:
  // The settings of section "WOL" it uses, read for every request so a change applies at once.
  struct Settings {
    std::string allow;         // "HTTPAllow"
    std::string hosts;         // "HTTPHosts"
    std::string passwordHash;  // "HTTPPasswordHash"
  };

  struct Context {
    const Clock& clock;
    Reporter& reporter;
    std::function<Settings()> settings;
    // This machine's name, as the Host of a request may give it (bare or with a domain).
    std::string computerName;
    // This machine's networks; asked again when an address outside them knocks, at most every 10 s.
    std::function<std::vector<platform::IPv4Network>()> localNetworks;
    // Whether password matches the stored hash; whether a stored text is a hash at all.
    std::function<bool(std::string_view stored, std::string_view password)> verifyPassword;
    std::function<bool(std::string_view stored)> isPasswordHash;
  };

  enum class Verdict { kServe, kAddress, kHost, kOrigin, kLockedOut, kNoCredentials, kWrongPassword };

  static constexpr int kMaxFailures = 5;
  static constexpr std::chrono::seconds kLockOut{60};
  static constexpr std::chrono::minutes kRemember{10};

  explicit Guard(Context ctx);

  // The decision for one request (failed passwords are counted here).
  Verdict Check(const Request& request);
  // True when the request is to be served; otherwise its refusal has been answered on response and
  // logged (at most one line a minute per cause).
  bool Admit(const Request& request, Response& response);

  // Who may connect, for the start-up line: "this machine's networks", "everyone", or the ranges.
  std::string Describe() const;

 private:
  struct Failures {
    int count = 0;
    DateTime lockedUntil{};
  };
  struct LogWindow {
    DateTime last{};
    bool logged = false;
    size_t suppressed = 0;
  };

  bool AddressAllowed(const std::string& allow, uint32_t peer);
  bool HostAllowed(const std::string& hosts, const GuardHeaders& headers) const;
  static bool SameOrigin(const GuardHeaders& headers);
  Verdict CheckPassword(const std::string& stored, uint32_t peer, const GuardHeaders& headers);
  void Log(Verdict verdict, const Request& request, const GuardHeaders& headers);

  Context ctx_;
  std::vector<platform::IPv4Network> localNetworks_;
  DateTime networksRead_{};
  std::map<uint32_t, Failures> failures_;
  // Credentials that verified, until when, for the stored hash they verified against.
  std::map<std::string, DateTime, std::less<>> remembered_;
  std::string rememberedFor_;
  std::array<LogWindow, 7> logWindows_{};
};

}  // namespace tavrel
