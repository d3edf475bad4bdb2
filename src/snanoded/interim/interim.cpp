// Interim stand-in for the configuration library (see the header): the
// built-in defaults and password hashing only. Configuration files are
// refused with a clear reason until the library is in the tree.
#include <crypt.h>
#include <sys/random.h>

#include <cstring>

#include "nodeconfig/daemon_config.h"

namespace sna::config {

DaemonConfig builtin_defaults() {
  DaemonConfig c;
  c.source = "built-in defaults";
  c.node_name = "NETWORK.LOCAL";
  c.node.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  for (const char* m : {"", "#INTER", "#INTERSC", "#BATCH", "#BATCHSC"}) {
    proto::ModeConfig mode;
    mode.name = m;
    c.node.modes.push_back(mode);
  }
  c.node.default_attach_timeout_ms = 60000;
  return c;
}

std::optional<DaemonConfig> load_config(const std::string& path, ConfigError& error) {
  error.file = path;
  error.line = 0;
  error.reason = "configuration files are not supported by this build";
  return std::nullopt;
}

std::string hash_password(const std::string& password) {
  char salt[CRYPT_GENSALT_OUTPUT_SIZE];
  if (!crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt)) return {};
  crypt_data data;
  std::memset(&data, 0, sizeof data);
  const char* h = crypt_r(password.c_str(), salt, &data);
  return h && h[0] != '*' ? std::string(h) : std::string();
}

bool verify_password(const std::string& password, const std::string& hash) {
  if (hash.empty()) return false;
  crypt_data data;
  std::memset(&data, 0, sizeof data);
  const char* h = crypt_r(password.c_str(), hash.c_str(), &data);
  return h && hash == h;
}

}  // namespace sna::config
