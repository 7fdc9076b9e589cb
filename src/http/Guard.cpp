#include "http/Guard.h"

#include <algorithm>

#include "core/Text.h"

namespace tavrel {

namespace {

constexpr auto kNetworksReread = std::chrono::seconds(10);
constexpr auto kLogWindow = std::chrono::seconds(60);
constexpr size_t kMaxTracked = 1024;
constexpr size_t kMaxRemembered = 32;

// Loopback, then the private and link-local ranges a home network uses.
constexpr AddressRange kLoopback{0x7F000000, 0xFF000000};
constexpr AddressRange kPrivate[] = {
    {0x0A000000, 0xFF000000}, {0xAC100000, 0xFFF00000}, {0xC0A80000, 0xFFFF0000}, {0xA9FE0000, 0xFFFF0000}};

uint32_t Mask(int prefixLength) {
  return prefixLength <= 0 ? 0 : prefixLength >= 32 ? 0xFFFFFFFFu : ~((1u << (32 - prefixLength)) - 1);
}

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// "host[:port]" of a Host header or of an origin's authority, the host lower-cased without a final
// dot and the port "" when it is absent or the scheme's default; nothing when it cannot be read.
struct Authority {
  std::string host, port;
};
std::optional<Authority> ReadAuthority(std::string_view text, std::string_view defaultPort) {
  Authority a;
  std::string_view port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    a.host = LCase(text.substr(0, close + 1));
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') return std::nullopt;
    if (!rest.empty()) port = rest.substr(1);
  } else {
    const size_t colon = text.find(':');
    a.host = LCase(text.substr(0, colon));
    if (colon != std::string_view::npos) port = text.substr(colon + 1);
  }
  if (!a.host.empty() && a.host.back() == '.') a.host.pop_back();
  long long value = 0;
  if (!port.empty() && !ParseInt(port, 1, 65535, value)) return std::nullopt;
  a.port = port == defaultPort ? std::string() : std::string(port);
  if (a.host.empty()) return std::nullopt;
  return a;
}

// The authority of "scheme://authority/..." (an Origin or a Referer).
std::optional<Authority> UrlAuthority(std::string_view url) {
  const size_t sep = url.find("://");
  if (sep == std::string_view::npos) return std::nullopt;
  const std::string scheme = LCase(url.substr(0, sep));
  std::string_view rest = url.substr(sep + 3);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (rest.find('@') != std::string_view::npos) return std::nullopt;
  return ReadAuthority(rest, scheme == "https" ? "443" : scheme == "http" ? "80" : "");
}

std::optional<std::string> Base64Decode(std::string_view text) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    const size_t v = kAlphabet.find(c);
    if (v == std::string_view::npos) return std::nullopt;
    bits = (bits << 6) | static_cast<uint32_t>(v);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>((bits >> count) & 0xFF);
    }
  }
  return out;
}

// The password of "Basic base64(user:password)"; the user name is not looked at.
std::optional<std::string> BasicPassword(std::string_view authorization) {
  if (authorization.size() < 6 || !EqualsNoCase(authorization.substr(0, 6), "Basic ")) return std::nullopt;
  const auto decoded = Base64Decode(TrimBlanks(authorization.substr(6)));
  if (!decoded) return std::nullopt;
  const size_t colon = decoded->find(':');
  if (colon == std::string::npos) return std::nullopt;
  return decoded->substr(colon + 1);
}

// A client's text as a log line may hold it: short, one line.
std::string ForLog(std::string_view text) {
  std::string out(text.substr(0, 80));
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return "\"" + out + "\"";
}

}  // namespace

GuardHeaders GuardHeaders::Parse(std::string_view header) {
  GuardHeaders h;
  size_t start = header.find("\r\n");  // the first line is the protocol version
  while (start != std::string_view::npos) {
    start += 2;
    const size_t end = header.find("\r\n", start);
    const std::string_view line = header.substr(start, end - start);
    start = end;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view name = TrimBlanks(line.substr(0, colon));
    const std::string value(TrimBlanks(line.substr(colon + 1)));
    auto take = [&](std::optional<std::string>& field) {
      if (!field) field = value;
    };
    if (EqualsNoCase(name, "Host")) {
      ++h.hostCount;
      take(h.host);
    } else if (EqualsNoCase(name, "Origin")) {
      take(h.origin);
    } else if (EqualsNoCase(name, "Referer")) {
      take(h.referer);
    } else if (EqualsNoCase(name, "Authorization")) {
      take(h.authorization);
    }
  }
  return h;
}

std::optional<uint32_t> ParseIPv4(std::string_view text) {
  uint32_t address = 0;
  int parts = 0;
  for (const std::string& part : Split(text, ".")) {
    long long value = 0;
    if (part.empty() || part.size() > 3 || !ParseInt(part, 0, 255, value)) return std::nullopt;
    address = (address << 8) | static_cast<uint32_t>(value);
    ++parts;
  }
  if (parts != 4) return std::nullopt;
  return address;
}

std::optional<AddressRange> AddressRange::Parse(std::string_view text) {
  text = TrimBlanks(text);
  const size_t slash = text.find('/');
  const auto address = ParseIPv4(text.substr(0, slash));
  if (!address) return std::nullopt;
  long long prefix = 32;
  if (slash != std::string_view::npos && !ParseInt(text.substr(slash + 1), 0, 32, prefix))
    return std::nullopt;
  const uint32_t mask = Mask(static_cast<int>(prefix));
  return AddressRange{*address & mask, mask};
}

Guard::Guard(Context ctx) : ctx_(std::move(ctx)) {
  if (ctx_.localNetworks) localNetworks_ = ctx_.localNetworks();
  networksRead_ = ctx_.clock.Now();
}

Guard::Verdict Guard::Check(const Request& request) {
  const Settings settings = ctx_.settings ? ctx_.settings() : Settings{};
  const auto peer = ParseIPv4(request.remoteip());
  if (!peer || !AddressAllowed(settings.allow, *peer)) return Verdict::kAddress;
  const GuardHeaders headers = GuardHeaders::Parse(request.header());
  if (!HostAllowed(settings.hosts, headers)) return Verdict::kHost;
  const bool post = request.Method() == "POST" || request.Method() == "POSTx";
  if (post && !SameOrigin(headers)) return Verdict::kOrigin;
  if (settings.passwordHash.empty()) return Verdict::kServe;
  return CheckPassword(settings.passwordHash, *peer, headers);
}

bool Guard::AddressAllowed(const std::string& allow, uint32_t peer) {
  // Loopback is always let in: whoever is on this machine can read its settings anyway.
  if (kLoopback.Contains(peer)) return true;
  if (!Trim(allow).empty()) {
    for (const std::string& entry : Split(allow, ",")) {
      if (Trim(entry) == "*") return true;
      if (const auto range = AddressRange::Parse(entry); range && range->Contains(peer)) return true;
    }
    return false;
  }
  if (std::any_of(std::begin(kPrivate), std::end(kPrivate),
                  [&](const AddressRange& r) { return r.Contains(peer); }))
    return true;
  auto inLocal = [&] {
    return std::any_of(localNetworks_.begin(), localNetworks_.end(), [&](const platform::IPv4Network& n) {
      const uint32_t mask = Mask(n.prefixLength);
      return (peer & mask) == (static_cast<uint32_t>(n.address) & mask);
    });
  };
  if (inLocal()) return true;
  // An adapter may have come up since: look again, but not for every stranger that knocks.
  const DateTime now = ctx_.clock.Now();
  if (!ctx_.localNetworks || (now >= networksRead_ && now - networksRead_ < kNetworksReread)) return false;
  localNetworks_ = ctx_.localNetworks();
  networksRead_ = now;
  return inLocal();
}

bool Guard::HostAllowed(const std::string& hosts, const GuardHeaders& headers) const {
  if (headers.hostCount > 1) return false;
  // A client that names no host (HTTP/1.0, a script) is not a browser led here by a foreign name.
  if (!headers.host) return true;
  const auto authority = ReadAuthority(*headers.host, "");
  if (!authority) return false;
  const std::string& host = authority->host;
  if (host.front() == '[' || ParseIPv4(host) || host == "localhost") return true;
  const std::string name = LCase(ctx_.computerName);
  if (!name.empty() &&
      (host == name ||
       (host.size() > name.size() && host.compare(0, name.size(), name) == 0 && host[name.size()] == '.')))
    return true;
  for (const std::string& entry : Split(hosts, ",")) {
    std::string listed = LCase(Trim(entry));
    if (!listed.empty() && listed.back() == '.') listed.pop_back();
    if (listed == "*" || (!listed.empty() && listed == host)) return true;
  }
  return false;
}

// A form posted from a page of this server names it in "Origin" (or, lacking that, "Referer"); one
// posted from anywhere else does not. A client that sends neither is no browser and passes.
bool Guard::SameOrigin(const GuardHeaders& headers) {
  const std::optional<std::string>& from = headers.origin ? headers.origin : headers.referer;
  if (!from) return true;
  const auto source = UrlAuthority(*from);
  const auto target = headers.host ? ReadAuthority(*headers.host, "80") : std::nullopt;
  if (!source || !target) return false;
  const bool samePort = source->port == target->port || (source->port.empty() && target->port == "443");
  return source->host == target->host && samePort;
}

Guard::Verdict Guard::CheckPassword(const std::string& stored, uint32_t peer, const GuardHeaders& headers) {
  const DateTime now = ctx_.clock.Now();
  if (const auto f = failures_.find(peer); f != failures_.end() && f->second.lockedUntil > now) {
    // A clock set back must not lock an address out for longer than the lock-out itself.
    if (f->second.lockedUntil - now <= kLockOut) return Verdict::kLockedOut;
    failures_.erase(f);
  }
  if (!headers.authorization) return Verdict::kNoCredentials;
  if (rememberedFor_ != stored) {
    remembered_.clear();
    rememberedFor_ = stored;
  }
  if (const auto r = remembered_.find(*headers.authorization);
      r != remembered_.end() && r->second > now && r->second - now <= kRemember)
    return Verdict::kServe;
  const auto password = BasicPassword(*headers.authorization);
  const bool wellFormed = !ctx_.isPasswordHash || ctx_.isPasswordHash(stored);
  if (password && wellFormed && ctx_.verifyPassword && ctx_.verifyPassword(stored, *password)) {
    failures_.erase(peer);
    if (remembered_.size() >= kMaxRemembered)
      std::erase_if(remembered_, [&](const auto& e) { return e.second <= now; });
    if (remembered_.size() >= kMaxRemembered) remembered_.clear();
    remembered_[*headers.authorization] = now + kRemember;
    return Verdict::kServe;
  }
  if (failures_.size() >= kMaxTracked)
    std::erase_if(failures_, [&](const auto& e) { return e.second.lockedUntil <= now; });
  if (failures_.size() >= kMaxTracked) failures_.clear();
  Failures& f = failures_[peer];
  if (++f.count >= kMaxFailures) {
    f.count = 0;
    f.lockedUntil = now + kLockOut;
  }
  return Verdict::kWrongPassword;
}

bool Guard::Admit(const Request& request, Response& response) {
  const Verdict verdict = Check(request);
  switch (verdict) {
    case Verdict::kServe:
      return true;
    case Verdict::kAddress:
      response.SendStatus("403 Forbidden", "This server does not answer this address.\r\n");
      break;
    case Verdict::kHost:
      response.SendStatus("403 Forbidden", "This server does not answer to that name.\r\n");
      break;
    case Verdict::kOrigin:
      response.SendStatus("403 Forbidden", "A form from another site may not change anything here.\r\n");
      break;
    case Verdict::kLockedOut:
      response.SendStatus("403 Forbidden",
                          "Too many wrong passwords from this address; try again in a minute.\r\n");
      break;
    case Verdict::kNoCredentials:
    case Verdict::kWrongPassword:
      response.SendStatus("401 Unauthorized", "This page needs its password.\r\n",
                          "WWW-Authenticate: Basic realm=\"Tavrel\"");
      break;
  }
  // A browser asks without credentials first, every time: that is no trouble worth a line.
  if (verdict != Verdict::kNoCredentials) Log(verdict, request, GuardHeaders::Parse(request.header()));
  return false;
}

void Guard::Log(Verdict verdict, const Request& request, const GuardHeaders& headers) {
  LogWindow& window = logWindows_[static_cast<size_t>(verdict)];
  const DateTime now = ctx_.clock.Now();
  if (window.logged && now >= window.last && now - window.last < kLogWindow) {
    ++window.suppressed;
    return;
  }
  std::string cause;
  switch (verdict) {
    case Verdict::kAddress:
      cause = "its address is not allowed (HTTPAllow)";
      break;
    case Verdict::kHost:
      cause = "Host " + ForLog(headers.host.value_or("")) + " is not a name of this server (HTTPHosts)";
      break;
    case Verdict::kOrigin:
      cause = "a POST from " + ForLog(headers.origin ? *headers.origin : headers.referer.value_or("")) +
              ", another site";
      break;
    case Verdict::kLockedOut:
      cause = "locked out for a minute after " + std::to_string(kMaxFailures) + " wrong passwords";
      break;
    default:
      cause = ctx_.isPasswordHash && !ctx_.isPasswordHash(ctx_.settings().passwordHash)
                  ? "HTTPPasswordHash is not a hash made by \"tavrel set-password\"; nobody gets in until it "
                    "is set again"
                  : "wrong password";
      break;
  }
  std::string line = "HTTP request from " + request.remoteip() + " refused: " + cause;
  if (window.suppressed > 0)
    line += " (" + std::to_string(window.suppressed) + " more refused so since the last line)";
  ctx_.reporter.WriteLog(kModule, line);
  window = LogWindow{now, true, 0};
}

std::string Guard::Describe() const {
  const Settings settings = ctx_.settings ? ctx_.settings() : Settings{};
  std::string who = "this machine's networks";
  if (!Trim(settings.allow).empty()) {
    const auto entries = Split(settings.allow, ",");
    const bool everyone =
        std::any_of(entries.begin(), entries.end(), [](const std::string& e) { return Trim(e) == "*"; });
    who = everyone ? "everyone" : "HTTPAllow " + Trim(settings.allow);
  }
  if (!settings.passwordHash.empty()) who += ", with its password";
  return who;
}

}  // namespace tavrel
