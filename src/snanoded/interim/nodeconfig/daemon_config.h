// Interim stand-in for the configuration library's header, used only while
// that library is not in the tree: the same declarations, so the daemon's
// code does not change when the real one arrives. Remove with interim.cpp.
#ifndef SNA_NODECONFIG_DAEMON_CONFIG_H
#define SNA_NODECONFIG_DAEMON_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "protocol/config.h"

namespace sna::config {

struct SideInfoEntry {
  std::string sym_dest_name, partner_lu, mode, tp_name;
  bool service_tp = false;
  uint32_t security = 0;
  std::string user_id, password, local_lu;
};
struct TpProgram {
  std::string tp_name, program;
  std::vector<std::string> arguments;
  std::string directory;
  std::vector<std::pair<std::string, std::string>> environment;
  std::string log_file;
};
struct SecurityUser {
  std::string user_id, password_hash;
};
struct DaemonConfig {
  std::string source;
  std::string node_name, socket, state_dir, group;
  uint32_t idle_exit_s = 0;
  bool idle_exit_set = false;
  sna::proto::NodeConfig node;
  std::vector<TpProgram> programs;
  std::vector<SideInfoEntry> side_info;
  std::vector<SecurityUser> security_users;
};
struct ConfigError {
  std::string file;
  int line = 0;
  std::string reason;
  std::string text() const { return file + ":" + std::to_string(line) + ": " + reason; }
};

DaemonConfig builtin_defaults();
std::optional<DaemonConfig> load_config(const std::string& path, ConfigError& error);
std::string hash_password(const std::string& password);
bool verify_password(const std::string& password, const std::string& hash);

}  // namespace sna::config

#endif
