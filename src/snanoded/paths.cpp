#include "snanoded/paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace sna::daemon {
namespace {

bool set(const char* v) { return v && *v; }

}  // namespace

std::string choose_socket_path(const std::string& option, const std::string& configured,
                               const EnvReader& env, unsigned uid) {
  if (!option.empty()) return option;
  if (!configured.empty()) return configured;
  if (const char* v = env("SNANODE_SOCKET"); set(v)) return v;
  if (const char* v = env("XDG_RUNTIME_DIR"); set(v)) return std::string(v) + "/snanode/socket";
  return "/tmp/snanode-" + std::to_string(uid) + "/socket";
}

std::string choose_state_dir(const std::string& option, const std::string& configured,
                             const EnvReader& env) {
  if (!option.empty()) return option;
  if (!configured.empty()) return configured;
  if (const char* v = env("SNANODE_STATE_DIR"); set(v)) return v;
  if (const char* v = env("XDG_STATE_HOME"); set(v)) return std::string(v) + "/snanode";
  if (const char* v = env("HOME"); set(v)) return std::string(v) + "/.local/state/snanode";
  return {};
}

bool make_private_directory(const std::string& path, std::string& error) {
  if (path.empty()) {
    error = "no directory named";
    return false;
  }
  for (size_t p = 1; p <= path.size(); ++p) {
    if (p != path.size() && path[p] != '/') continue;
    const std::string part = path.substr(0, p);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      error = "cannot create " + part + ": " + std::strerror(errno);
      return false;
    }
  }
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    error = path + " is not a directory";
    return false;
  }
  return true;
}

}  // namespace sna::daemon
