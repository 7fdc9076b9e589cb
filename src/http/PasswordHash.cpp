#include "http/PasswordHash.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <stdexcept>

#include "platform/Crypto.h"

namespace tavrel {

namespace {
constexpr std::string_view kScheme = "pbkdf2-sha256";
constexpr size_t kSaltBytes = 16;
constexpr size_t kKeyBytes = 32;
constexpr unsigned kMaxIterations = 10000000;

struct ParsedHash {
  unsigned iterations = 0;
  std::string salt, key;  // raw bytes
};

std::string ToHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char b : bytes) {
    hex += kDigits[b >> 4];
    hex += kDigits[b & 15];
  }
  return hex;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::string> FromHex(std::string_view hex, size_t bytes) {
  if (hex.size() != 2 * bytes) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int hi = HexDigit(hex[i]), lo = HexDigit(hex[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out += static_cast<char>(hi << 4 | lo);
  }
  return out;
}

// Digits only, no leading zero, 1 to kMaxIterations.
std::optional<unsigned> ParseIterations(std::string_view text) {
  if (text.empty() || text.size() > 8 || text[0] == '0') return std::nullopt;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > kMaxIterations) return std::nullopt;
  return value;
}

// The next "$"-separated field of text, taken off its front.
std::string_view TakeField(std::string_view& text) {
  const size_t end = text.find('$');
  const std::string_view field = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  return field;
}

std::optional<ParsedHash> Parse(std::string_view stored) {
  if (std::count(stored.begin(), stored.end(), '$') != 3 || TakeField(stored) != kScheme) return std::nullopt;
  const auto iterations = ParseIterations(TakeField(stored));
  auto salt = FromHex(TakeField(stored), kSaltBytes);
  auto key = FromHex(TakeField(stored), kKeyBytes);
  if (!iterations || !salt || !key) return std::nullopt;
  return ParsedHash{*iterations, std::move(*salt), std::move(*key)};
}

// Equal lengths are given; the time taken does not depend on where the bytes differ.
bool SameBytes(std::string_view a, std::string_view b) {
  volatile unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference = difference | static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}
}  // namespace

std::string MakePasswordHash(std::string_view password, unsigned iterations) {
  if (iterations == 0 || iterations > kMaxIterations)
    throw std::runtime_error("password hash: iterations must be 1 to " + std::to_string(kMaxIterations));
  const std::string salt = platform::RandomBytes(kSaltBytes);
  const std::string key = platform::Pbkdf2HmacSha256(password, salt, iterations, kKeyBytes);
  return std::string(kScheme) + "$" + std::to_string(iterations) + "$" + ToHex(salt) + "$" + ToHex(key);
}

bool VerifyPassword(std::string_view stored, std::string_view password) {
  const auto parsed = Parse(stored);
  if (!parsed) return false;
  try {
    return SameBytes(platform::Pbkdf2HmacSha256(password, parsed->salt, parsed->iterations, kKeyBytes),
                     parsed->key);
  } catch (const std::exception&) {
    return false;
  }
}

bool IsPasswordHash(std::string_view stored) { return Parse(stored).has_value(); }

}  // namespace tavrel
