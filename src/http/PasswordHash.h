#pragma once

#include <string>
#include <string_view>

namespace tavrel {

// Where the hash lives: this key of section "WOL" in tavrel.ini; set by `tavrel set-password`.
inline constexpr std::string_view kPasswordHashSection = "WOL";
inline constexpr std::string_view kPasswordHashKey = "HTTPPasswordHash";

// PBKDF2-HMAC-SHA256 rounds for a new password. A check runs on the program's one loop when a browser
// first sends the password: 52-63 ms measured with Nettle on an x86-64 server core with the SHA
// extensions (release build), the low end of what the loop can spare, as home machines are often slower.
inline constexpr unsigned kPasswordIterations = 400000;

// The text stored as "HTTPPasswordHash": "pbkdf2-sha256$<iterations>$<salt>$<key>", the salt 16 random
// bytes and the key 32 derived bytes, both as lower-case hex (no "=", so an INI value holds it).
// Throws std::runtime_error when the system's random source or crypto library fails.
std::string MakePasswordHash(std::string_view password, unsigned iterations = kPasswordIterations);

// True when password derives the stored key (compared in constant time); false for any stored text that
// is not well formed. Never throws.
bool VerifyPassword(std::string_view stored, std::string_view password);

// True when stored is well formed: the prefix, 1 to 10,000,000 iterations, a 16-byte salt, a 32-byte key.
bool IsPasswordHash(std::string_view stored);

}  // namespace tavrel
