// Starts the programs of invokable TP definitions when the core asks for
// an instance, and tells the core how each one fares: started (its pid),
// failed (it could not be executed), exited (reaped after SIGCHLD).
//
// A child reports a failure before exec through a close-on-exec pipe: end
// of file on the pipe means exec succeeded. Nothing blocks the daemon: the
// pipe is watched by the event loop and drained when the child is reaped.
#ifndef SNA_SNANODED_ATTACH_MANAGER_H
#define SNA_SNANODED_ATTACH_MANAGER_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "snanoded/event_loop.h"

namespace sna::daemon {

// What a started program is given, from its [[tp]] definition.
struct ProgramSpec {
  std::string program;
  std::vector<std::string> arguments;
  std::string directory;  // empty: the user's home
  std::vector<std::pair<std::string, std::string>> environment;
  std::string log_file;   // empty: /dev/null
};

// The environment of a started program: PATH (the definition's, or a
// standard one), HOME, USER, LOGNAME and LANG from the daemon, the
// definition's variables, then APPCTPN, APPCLLU and SNANODE_SOCKET, which
// the definition cannot override. `daemon_env` reads the daemon's own.
std::vector<std::string> program_environment(
    const ProgramSpec& spec, const std::string& tp_name, const std::string& lu_alias,
    const std::string& socket, const std::function<const char*(const char*)>& daemon_env);

class AttachManager {
 public:
  struct Hooks {
    std::function<void(uint64_t instance, pid_t pid)> started;
    std::function<void(uint64_t instance, const std::string& reason)> failed;
    std::function<void(uint64_t instance)> exited;
  };

  AttachManager(EventLoop& loop, Hooks hooks);
  ~AttachManager();

  // Forks and executes the program. Calls `started` at once with the
  // child's pid, or `failed` when no child could be made; `failed` comes
  // later if exec (or the set-up before it) fails in the child.
  void start(uint64_t instance, const ProgramSpec& spec, const std::string& tp_name,
             const std::string& lu_alias, const std::string& socket);

  // Reaps every child that has ended (call on SIGCHLD).
  void reap();

  size_t running() const { return children_.size(); }

 private:
  struct Child {
    uint64_t instance = 0;
    int pipe_fd = -1;
    uint64_t token = 0;
    bool failure_reported = false;
    std::string program;
  };
  // Reads the child's failure record, if any; closes the pipe at its end.
  void drain(pid_t pid, Child& c);
  void close_pipe(Child& c);

  EventLoop& loop_;
  Hooks hooks_;
  std::map<pid_t, Child> children_;
};

}  // namespace sna::daemon

#endif
