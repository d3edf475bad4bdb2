#include "snanoded/listener.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "snanoded/paths.h"

namespace sna::daemon {
namespace {

std::string errno_text(const std::string& what, int err) { return what + ": " + std::strerror(err); }

bool make_address(const std::string& path, sockaddr_un& addr, std::string& error) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    error = "socket path '" + path + "' is empty or too long";
    return false;
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  return true;
}

// An exclusive flock on the lock file that names `path` now. A file that
// was removed and recreated while we waited is opened again.
int take_lock(const std::string& lock_path, std::string& error) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      error = errno_text("cannot open " + lock_path, errno);
      return -1;
    }
    while (flock(fd, LOCK_EX) != 0) {
      if (errno != EINTR) {
        error = errno_text("cannot lock " + lock_path, errno);
        ::close(fd);
        return -1;
      }
    }
    struct stat held {}, named {};
    if (fstat(fd, &held) == 0 && stat(lock_path.c_str(), &named) == 0 && held.st_ino == named.st_ino &&
        held.st_dev == named.st_dev)
      return fd;
    ::close(fd);  // the previous owner removed it: lock the new one
  }
  error = "cannot take the lock " + lock_path;
  return -1;
}

// Whether a daemon answers on the socket path.
enum class Probe { kNone, kAlive, kStale };
Probe probe(const sockaddr_un& addr) {
  const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (s < 0) return Probe::kNone;
  const int rc = connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  const int err = errno;
  ::close(s);
  if (rc == 0) return Probe::kAlive;
  if (err == EAGAIN || err == EINPROGRESS) return Probe::kAlive;  // backlog full: alive but busy
  if (err == ENOENT) return Probe::kNone;
  return Probe::kStale;
}

}  // namespace

Listener::~Listener() {
  if (fd_ >= 0) ::close(fd_);
}

Listener::Outcome Listener::open(const std::string& path, const std::string& group_name,
                                std::string& error) {
  sockaddr_un addr{};
  if (!make_address(path, addr, error)) return Outcome::kFailed;
  if (!group_name.empty()) {
    std::vector<char> buf(16384);
    struct group gr {};
    struct group* found = nullptr;
    if (getgrnam_r(group_name.c_str(), &gr, buf.data(), buf.size(), &found) != 0 || !found) {
      error = "group '" + group_name + "' does not exist";
      return Outcome::kFailed;
    }
    gid_ = found->gr_gid;
    has_group_ = true;
  }
  const std::string lock_path = path + ".lock";
  const int lock = take_lock(lock_path, error);
  if (lock < 0) return Outcome::kFailed;
  Outcome outcome = Outcome::kFailed;
  do {
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
      if (!S_ISSOCK(st.st_mode)) {
        error = path + " exists and is not a socket";
        break;
      }
      const Probe p = probe(addr);
      if (p == Probe::kAlive) {
        outcome = Outcome::kAlreadyRunning;
        break;
      }
      if (p == Probe::kStale && unlink(path.c_str()) != 0 && errno != ENOENT) {
        error = errno_text("cannot remove the stale socket " + path, errno);
        break;
      }
    }
    const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0) {
      error = errno_text("socket", errno);
      break;
    }
    // No moment in which the socket is more open than it will be.
    const mode_t old = umask(has_group_ ? 0117 : 0177);
    const int rc = bind(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    const int err = errno;
    umask(old);
    if (rc != 0) {
      error = errno_text("cannot bind " + path, err);
      ::close(s);
      break;
    }
    if (has_group_ && (chown(path.c_str(), static_cast<uid_t>(-1), gid_) != 0 ||
                       chmod(path.c_str(), 0660) != 0)) {
      error = errno_text("cannot give " + path + " to group " + group_name, errno);
      unlink(path.c_str());
      ::close(s);
      break;
    }
    if (!has_group_) chmod(path.c_str(), 0600);
    if (listen(s, 128) != 0) {
      error = errno_text("cannot listen on " + path, errno);
      unlink(path.c_str());
      ::close(s);
      break;
    }
    fd_ = s;
    path_ = path;
    outcome = Outcome::kListening;
  } while (false);
  ::close(lock);  // releases the flock
  return outcome;
}

void Listener::close_and_remove() {
  if (fd_ < 0) return;
  std::string error;
  const std::string lock_path = path_ + ".lock";
  const int lock = take_lock(lock_path, error);
  ::close(fd_);
  fd_ = -1;
  unlink(path_.c_str());
  if (lock >= 0) {
    unlink(lock_path.c_str());
    ::close(lock);
  }
}

bool prepare_socket_directory(const std::string& socket_path, std::string& error) {
  const size_t slash = socket_path.rfind('/');
  if (slash == std::string::npos || slash == 0) return true;
  const std::string dir = socket_path.substr(0, slash);
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0 && !make_private_directory(dir, error)) return false;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    error = dir + " is not a directory";
    return false;
  }
  // A directory someone else controls (or a link to one) could hand us
  // their socket.
  if (st.st_uid != getuid() && st.st_uid != 0) {
    error = dir + " belongs to another user";
    return false;
  }
  if ((st.st_mode & S_IWOTH) && !(st.st_mode & S_ISVTX)) {
    error = dir + " is writable by everyone";
    return false;
  }
  return true;
}

void signal_ready(int fd) {
  if (fd < 0) return;
  const char byte = 1;
  ssize_t n;
  do {
    n = write(fd, &byte, 1);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
}

}  // namespace sna::daemon
