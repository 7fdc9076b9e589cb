#include "platform/Crypto.h"

// clang-format off
#include "platform/SystemHeaders.h"
#include <bcrypt.h>
// clang-format on

#include <cstdio>
#include <limits>
#include <stdexcept>

namespace tavrel::platform {

namespace {
std::runtime_error Failure(const char* what, NTSTATUS status) {
  char code[16];
  snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(status));
  return std::runtime_error(std::string(what) + " failed with status " + code);
}

ULONG CheckedSize(size_t size, const char* what) {
  if (size > std::numeric_limits<ULONG>::max()) throw std::runtime_error(std::string(what) + ": too long");
  return static_cast<ULONG>(size);
}

// The HMAC-SHA256 provider, closed again on every way out.
class HmacSha256Provider {
 public:
  HmacSha256Provider() {
    const NTSTATUS status =
        BCryptOpenAlgorithmProvider(&handle_, BCRYPT_SHA256_ALGORITHM, nullptr, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    if (!BCRYPT_SUCCESS(status)) throw Failure("BCryptOpenAlgorithmProvider (HMAC-SHA256)", status);
  }
  ~HmacSha256Provider() { BCryptCloseAlgorithmProvider(handle_, 0); }
  HmacSha256Provider(const HmacSha256Provider&) = delete;
  HmacSha256Provider& operator=(const HmacSha256Provider&) = delete;
  BCRYPT_ALG_HANDLE Get() const { return handle_; }

 private:
  BCRYPT_ALG_HANDLE handle_ = nullptr;
};
}  // namespace

std::string Pbkdf2HmacSha256(std::string_view password, std::string_view salt, unsigned iterations,
                             size_t length) {
  if (iterations == 0) throw std::runtime_error("PBKDF2: the iteration count must be at least 1");
  // CNG takes non-const buffers it does not write; copies keep the caller's text untouched.
  std::string passwordCopy(password), saltCopy(salt), key(length, '\0');
  HmacSha256Provider prf;
  const NTSTATUS status = BCryptDeriveKeyPBKDF2(
      prf.Get(), reinterpret_cast<PUCHAR>(passwordCopy.data()), CheckedSize(password.size(), "password"),
      reinterpret_cast<PUCHAR>(saltCopy.data()), CheckedSize(salt.size(), "salt"), iterations,
      reinterpret_cast<PUCHAR>(key.data()), CheckedSize(length, "key"), 0);
  SecureZeroMemory(passwordCopy.data(), passwordCopy.size());
  if (!BCRYPT_SUCCESS(status)) throw Failure("BCryptDeriveKeyPBKDF2", status);
  return key;
}

std::string RandomBytes(size_t count) {
  std::string bytes(count, '\0');
  const NTSTATUS status =
      BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(bytes.data()), CheckedSize(count, "random bytes"),
                      BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  if (!BCRYPT_SUCCESS(status)) throw Failure("BCryptGenRandom", status);
  return bytes;
}

}  // namespace tavrel::platform
