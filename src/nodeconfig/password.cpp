// Password hashes for [[security_user]]: crypt(3) strings with a salt from
// the kernel's random source.
#include <crypt.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "nodeconfig/daemon_config.h"

namespace sna::config {
namespace {

constexpr int kSaltBytes = 16;

bool random_bytes(char* out, size_t n) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = getrandom(out + got, n - got, 0);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    got += static_cast<size_t>(r);
  }
  return true;
}

// crypt_rn into fresh zeroed work space; nullopt when crypt refuses.
std::optional<std::string> run_crypt(const std::string& password, const char* setting) {
  auto data = std::make_unique<crypt_data>();  // value-initialised: zeroed
  const char* h = crypt_rn(password.c_str(), setting, data.get(), static_cast<int>(sizeof(crypt_data)));
  std::optional<std::string> out;
  if (h && h[0] != '*') out = std::string(h);
  // The work space held the password, refused or not; explicit_bzero is
  // not dropped as a dead store before the free.
  explicit_bzero(data.get(), sizeof(crypt_data));
  return out;
}

bool equal_constant_time(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

}  // namespace

std::string hash_password(const std::string& password) {
  if (password.find('\0') != std::string::npos) return {};  // crypt would hash a prefix
  char rbytes[kSaltBytes];
  if (!random_bytes(rbytes, sizeof rbytes)) return {};
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  const char* s = crypt_gensalt_rn("$y$", 0, rbytes, kSaltBytes, setting, sizeof setting);
  if (!s) s = crypt_gensalt_rn("$6$", 0, rbytes, kSaltBytes, setting, sizeof setting);
  if (!s) return {};
  return run_crypt(password, s).value_or(std::string());
}

bool verify_password(const std::string& password, const std::string& hash) {
  if (hash.empty() || hash[0] != '$' || password.find('\0') != std::string::npos) return false;
  const std::optional<std::string> h = run_crypt(password, hash.c_str());
  return h && equal_constant_time(*h, hash);
}

}  // namespace sna::config
