#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavrel::platform {

// PBKDF2 with HMAC-SHA256 from the system's crypto library (Nettle on Linux, CNG on Windows): length
// raw bytes derived from password and salt. Throws std::runtime_error when the library refuses.
std::string Pbkdf2HmacSha256(std::string_view password, std::string_view salt, unsigned iterations,
                             size_t length);

// count bytes from the system's random source. Throws std::runtime_error when it fails.
std::string RandomBytes(size_t count);

}  // namespace tavrel::platform
