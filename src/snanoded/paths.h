// Where the daemon's socket and state directory are, by the precedence
// the command line, the configuration and the environment give.
#ifndef SNA_SNANODED_PATHS_H
#define SNA_SNANODED_PATHS_H

#include <functional>
#include <string>

namespace sna::daemon {

using EnvReader = std::function<const char*(const char*)>;

// --socket, else the configuration's socket, else $SNANODE_SOCKET, else
// $XDG_RUNTIME_DIR/snanode/socket, else /tmp/snanode-<uid>/socket.
std::string choose_socket_path(const std::string& option, const std::string& configured,
                               const EnvReader& env, unsigned uid);

// --state-dir, else the configuration's state_dir, else
// $SNANODE_STATE_DIR, else $XDG_STATE_HOME/snanode, else
// $HOME/.local/state/snanode. Empty when none can be formed.
std::string choose_state_dir(const std::string& option, const std::string& configured,
                             const EnvReader& env);

// Creates the directory and its missing parents, mode 0700.
bool make_private_directory(const std::string& path, std::string& error);

}  // namespace sna::daemon

#endif
