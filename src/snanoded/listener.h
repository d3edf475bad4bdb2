// The daemon's listening socket. Binding is a check-and-bind under an
// flock on "<socket>.lock": if a live daemon already answers on the path
// the caller is told so (two programs autostarting at once must end with
// one daemon); a socket file nobody answers on is stale and is replaced.
#ifndef SNA_SNANODED_LISTENER_H
#define SNA_SNANODED_LISTENER_H

#include <sys/types.h>

#include <string>

namespace sna::daemon {

class Listener {
 public:
  enum class Outcome { kListening, kAlreadyRunning, kFailed };

  Listener() = default;
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Binds and listens on `path`. With an empty `group` the socket is
  // 0600 (a per-user node); otherwise 0660 and owned by that group.
  // On kFailed, `error` says why.
  Outcome open(const std::string& path, const std::string& group, std::string& error);

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  gid_t group_id() const { return gid_; }
  bool has_group() const { return has_group_; }

  // Closes the socket and removes the socket file and the lock file, under
  // the lock so that a daemon starting meanwhile does not see half of it.
  void close_and_remove();

 private:
  int fd_ = -1;
  std::string path_;
  gid_t gid_ = 0;
  bool has_group_ = false;
};

// Creates the socket's parent directory (mode 0700, parents as needed) if
// it is missing. Refuses a directory that is not ours or is writable by
// others.
bool prepare_socket_directory(const std::string& socket_path, std::string& error);

// Writes one byte to `fd` and closes it (the start-up harness's signal).
void signal_ready(int fd);

}  // namespace sna::daemon

#endif
