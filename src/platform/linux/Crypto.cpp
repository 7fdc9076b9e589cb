#include "platform/Crypto.h"

#include <nettle/pbkdf2.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace tavrel::platform {

std::string Pbkdf2HmacSha256(std::string_view password, std::string_view salt, unsigned iterations,
                             size_t length) {
  if (iterations == 0) throw std::runtime_error("PBKDF2: the iteration count must be at least 1");
  std::string key(length, '\0');
  pbkdf2_hmac_sha256(password.size(), reinterpret_cast<const uint8_t*>(password.data()), iterations,
                     salt.size(), reinterpret_cast<const uint8_t*>(salt.data()), length,
                     reinterpret_cast<uint8_t*>(key.data()));
  return key;
}

std::string RandomBytes(size_t count) {
  std::string bytes(count, '\0');
  for (size_t done = 0; done < count;) {
    const ssize_t got = getrandom(bytes.data() + done, count - done, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("cannot read random bytes (getrandom): ") + std::strerror(errno));
    }
    done += static_cast<size_t>(got);
  }
  return bytes;
}

}  // namespace tavrel::platform
