// The node's configuration: one TOML file read into the protocol core's
// definitions and the daemon's own settings, with every key checked, and
// the password hashes that [[security_user]] entries hold.
#ifndef SNA_NODECONFIG_DAEMON_CONFIG_H
#define SNA_NODECONFIG_DAEMON_CONFIG_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "protocol/config.h"

namespace sna::config {

// One [[side_info]] entry, as the operator query returns it.
struct SideInfoEntry {
  std::string sym_dest_name, partner_lu, mode, tp_name;  // tp_name: 8 upper-case hex digits when service_tp
  bool service_tp = false;
  uint32_t security = 0;  // 0 none 1 same 2 program 5 program_strong
  std::string user_id, password, local_lu;
};

// How the attach manager starts one [[tp]]'s program.
struct TpProgram {
  std::string tp_name, program;
  std::vector<std::string> arguments;
  std::string directory;                                         // empty: the user's home
  std::vector<std::pair<std::string, std::string>> environment;  // sorted by name
  std::string log_file;                                          // empty: /dev/null
};

struct SecurityUser {
  std::string user_id, password_hash;  // a crypt(3) string
};

struct DaemonConfig {
  std::string source;  // file path, or "built-in defaults"
  // node_name defaults to the default local LU's qualified name; the other
  // three are empty when the file does not set them.
  std::string node_name, socket, state_dir, group;
  uint32_t idle_exit_s = 0;
  bool idle_exit_set = false;
  // Local LUs (the default first), partners, modes (the five the node always
  // knows, then the file's others), TP definitions and the attach timeout.
  // check_password is set to look users up in security_users; tp_id_stamp is
  // left for the daemon to choose.
  sna::proto::NodeConfig node;
  std::vector<TpProgram> programs;       // one per [[tp]], same order as node.tp_definitions
  std::vector<SideInfoEntry> side_info;  // sorted by the bytes of sym_dest_name
  std::vector<SecurityUser> security_users;
};

struct ConfigError {
  std::string file;
  int line = 0;  // 0: the error belongs to no line (the file cannot be read)
  std::string reason;
  std::string text() const;  // "FILE:LINE: reason", or "FILE: reason" without a line
};

DaemonConfig builtin_defaults();
// Defines CPICPINGD, the partner of cpicping, as an invokable TP running
// `program`, so that a node with nothing configured answers a ping of its
// own LU. Does nothing if the configuration already defines that name.
void add_ping_partner(DaemonConfig& config, const std::string& program);
// The file's configuration, or nullopt with `error` set to the first problem.
std::optional<DaemonConfig> load_config(const std::string& path, ConfigError& error);

// The keys of one side-information entry given other than in a file (an
// operator's definition), in the file's names: each value as text, or
// nullopt for a value that is not text.
using EntryFields = std::vector<std::pair<std::string, std::optional<std::string>>>;
// Checks such an entry as a [[side_info]] entry of the file is checked
// (same keys, rules and messages), against the LUs and modes `config`
// defines. The entry, or nullopt with `reason` set.
std::optional<SideInfoEntry> check_side_info_entry(const EntryFields& fields, const DaemonConfig& config,
                                                   std::string& reason);

// A salted crypt(3) string (yescrypt, or SHA-512 where yescrypt is missing);
// empty if the password holds a NUL byte or hashing fails.
std::string hash_password(const std::string& password);
// Whether `password` hashes to `hash`; false for a malformed hash.
bool verify_password(const std::string& password, const std::string& hash);

}  // namespace sna::config

#endif
