/* Reaching the node daemon: its socket, starting it when nothing answers,
 * and the HELLO exchange.
 *
 * The daemon is started detached (double fork, new session, stdio on
 * /dev/null, no inherited descriptors) and reports on a pipe once its
 * socket listens, so the runtime waits on that pipe instead of polling the
 * socket. Everything between fork and exec is async-signal-safe: the
 * program path and its arguments are prepared before the fork. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "client.h"

extern char **environ;

#ifndef SNANODE_INSTALL_DAEMON
#define SNANODE_INSTALL_DAEMON "/usr/local/bin/snanoded"
#endif
/* The install's bin directory seen from its library directory: "../bin"
 * from lib or lib32, "../../bin" from lib/<multiarch>. Relative, so that a
 * tree installed with another prefix, or moved, still finds its daemon. */
#ifndef SNANODE_BINDIR_FROM_LIBDIR
#define SNANODE_BINDIR_FROM_LIBDIR "../bin"
#endif

namespace snanode {

namespace {

/* How long a starting daemon and a HELLO reply may take. */
constexpr int kStartTimeoutMs = 10000;
constexpr int kHelloTimeoutMs = 10000;

bool executable(const char *path) { return access(path, X_OK) == 0; }

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/* Waits until fd is readable or the deadline passes. 0, ETIMEDOUT or errno. */
int wait_readable(int fd, int64_t deadline_ms) {
  for (;;) {
    int64_t left = deadline_ms - now_ms();
    if (left <= 0) return ETIMEDOUT;
    pollfd entry = {fd, POLLIN, 0};
    int n = poll(&entry, 1, static_cast<int>(left));
    if (n > 0) return 0;
    if (n < 0 && errno != EINTR) return errno;
  }
}

/* Reads exactly n bytes within the deadline. 0, or an errno value (EPIPE
 * for end of file). */
int read_exactly(int fd, uint8_t *to, size_t n, int64_t deadline_ms) {
  size_t got = 0;
  while (got < n) {
    int rc = wait_readable(fd, deadline_ms);
    if (rc != 0) return rc;
    ssize_t r = read(fd, to + got, n - got);
    if (r > 0) {
      got += static_cast<size_t>(r);
    } else if (r == 0) {
      return EPIPE;
    } else if (errno != EINTR && errno != EAGAIN) {
      return errno;
    }
  }
  return 0;
}

int try_connect(const char *path, int *fd_out) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof address.sun_path) return ENAMETOOLONG;
  memcpy(address.sun_path, path, strlen(path));
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  for (;;) {
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
      *fd_out = fd;
      return 0;
    }
    if (errno != EINTR) break;
  }
  int error = errno;
  close(fd);
  return error;
}

int send_all(int fd, const uint8_t *bytes, size_t n) {
  size_t sent = 0;
  while (sent < n) {
    ssize_t r = send(fd, bytes + sent, n - sent, MSG_NOSIGNAL);
    if (r > 0) {
      sent += static_cast<size_t>(r);
    } else if (r < 0 && errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int hello(int fd) {
  uint8_t frame[sna::wire::kHeaderSize + sna::wire::kHelloSize];
  sna::wire::FrameHeader header;
  header.length = sizeof frame;
  header.kind = sna::wire::Kind::kHello;
  header.tag = 0;
  sna::wire::encode_header(frame, header);
  sna::wire::Hello body;
  body.word_bits = static_cast<uint16_t>(sizeof(void *) * 8);
  body.pid = static_cast<uint32_t>(getpid());
  body.flags = 0;
  sna::wire::encode_hello(frame + sna::wire::kHeaderSize, body);
  int rc = send_all(fd, frame, sizeof frame);
  if (rc != 0) return rc;

  int64_t deadline = now_ms() + kHelloTimeoutMs;
  uint8_t reply[sna::wire::kHeaderSize + sna::wire::kHelloSize];
  rc = read_exactly(fd, reply, sna::wire::kHeaderSize, deadline);
  if (rc != 0) return rc;
  sna::wire::FrameHeader got = sna::wire::decode_header(reply);
  if (got.kind != sna::wire::Kind::kHelloReply || got.length != sizeof reply) return EPROTO;
  rc = read_exactly(fd, reply + sna::wire::kHeaderSize, sna::wire::kHelloSize, deadline);
  if (rc != 0) return rc;
  sna::wire::HelloReply answer = sna::wire::decode_hello_reply(reply + sna::wire::kHeaderSize);
  if (answer.magic != sna::wire::kMagic) return EPROTO;
  if (answer.version != sna::wire::kVersion || answer.status != 0) return EPROTONOSUPPORT;
  return 0;
}

/* A fork that runs no fork handlers: neither the application's nor the
 * runtime's own have any business in a child that only execs. */
pid_t plain_fork() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  return _Fork();
#else
  return fork();
#endif
}

/* Any function of this library: dladdr names the file it was loaded from. */
void library_anchor() {}

/* The child after the first fork: a new session, then the daemon in a
 * grandchild, so that it is nobody's child and no terminal's. Only
 * async-signal-safe calls from here on. */
[[noreturn]] void run_detached(const char *program, char *const argv[], int ready_fd,
                               int error_fd) {
  setsid();
  pid_t grandchild = plain_fork();
  if (grandchild != 0) _exit(grandchild < 0 ? 1 : 0);

  /* Out of the way of 0-4 first, then into place. */
  int ready = fcntl(ready_fd, F_DUPFD, 10);
  int error = fcntl(error_fd, F_DUPFD_CLOEXEC, 10);
  int null_fd = open("/dev/null", O_RDWR);
  if (ready < 0 || error < 0 || null_fd < 0) _exit(126);
  dup2(null_fd, STDIN_FILENO);
  dup2(null_fd, STDOUT_FILENO);
  dup2(null_fd, STDERR_FILENO);
  dup2(ready, 3);          /* without close-on-exec: the daemon's --ready-fd */
  dup3(error, 4, O_CLOEXEC); /* closed by a successful exec */
  if (close_range(5, ~0u, 0) != 0) {
    long limit = sysconf(_SC_OPEN_MAX);
    if (limit < 0 || limit > 65536) limit = 65536;
    for (int fd = 5; fd < limit; ++fd) close(fd);
  }
  /* The application's signal handling is not the daemon's. */
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = SIG_DFL;
  for (int signal_number = 1; signal_number < NSIG; ++signal_number)
    sigaction(signal_number, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  execve(program, argv, environ);
  int failure = errno;
  ssize_t written = write(4, &failure, sizeof failure);
  (void)written;
  _exit(127);
}

/* Starts the daemon for `path` and waits for its ready byte. 0 or errno. */
int autostart(const char *path) {
  char program[PATH_MAX];
  Dl_info info;
  memset(&info, 0, sizeof info);
  const char *library = dladdr(reinterpret_cast<void *>(&library_anchor), &info) != 0
                            ? info.dli_fname
                            : nullptr;
  const char *search = getenv("PATH");
  if (!find_daemon(getenv("SNANODE_DAEMON"), library, daemon_dirs_beside_library(),
                   SNANODE_INSTALL_DAEMON, search ? search : "/usr/local/bin:/usr/bin:/bin", program,
                   sizeof program))
    return ENOENT;

  char socket_argument[PATH_MAX];
  snprintf(socket_argument, sizeof socket_argument, "%s", path);
  char arg_autostarted[] = "--autostarted";
  char arg_socket[] = "--socket";
  char arg_ready[] = "--ready-fd";
  char arg_ready_fd[] = "3";
  char *const argv[] = {program,    arg_autostarted, arg_socket, socket_argument,
                        arg_ready,  arg_ready_fd,    nullptr};

  int ready[2], error[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return errno;
  if (pipe2(error, O_CLOEXEC) != 0) {
    int failure = errno;
    close(ready[0]);
    close(ready[1]);
    return failure;
  }
  /* No application signal handler runs in the children. */
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  pid_t child = plain_fork();
  if (child == 0) run_detached(program, argv, ready[1], error[1]);
  int fork_error = child < 0 ? errno : 0;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  close(ready[1]);
  close(error[1]);
  int result = fork_error;
  if (child > 0) {
    int status;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    int64_t deadline = now_ms() + kStartTimeoutMs;
    int exec_error = 0;
    int rc = read_exactly(error[0], reinterpret_cast<uint8_t *>(&exec_error), sizeof exec_error,
                          deadline);
    if (rc == 0) {
      result = exec_error ? exec_error : ENOEXEC; /* exec failed */
    } else if (rc != EPIPE) {
      result = rc; /* no word on the exec in time */
    } else {
      uint8_t byte;
      rc = read_exactly(ready[0], &byte, 1, deadline);
      /* End of file: the daemon ended without listening. */
      result = rc == 0 ? 0 : (rc == EPIPE ? ECONNREFUSED : rc);
    }
  }
  close(ready[0]);
  close(error[0]);
  if (result != 0)
    nba_pd_print_problem(kMsgAutostart, static_cast<uint32_t>(result), "es",
                         static_cast<uint32_t>(strlen(program)), program);
  return result;
}

}  // namespace

bool socket_path(char *out, size_t size) {
  const char *named = getenv("SNANODE_SOCKET");
  int n;
  if (named && *named) {
    n = snprintf(out, size, "%s", named);
  } else {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime)
      n = snprintf(out, size, "%s/snanode/socket", runtime);
    else
      n = snprintf(out, size, "/tmp/snanode-%lu/socket", static_cast<unsigned long>(getuid()));
  }
  return n > 0 && static_cast<size_t>(n) < size;
}

bool autostart_allowed() {
  const char *value = getenv("SNANODE_AUTOSTART");
  if (!value) return true;
  return strcmp(value, "0") != 0 && strcmp(value, "no") != 0 && strcmp(value, "off") != 0 &&
         strcmp(value, "false") != 0;
}

/* The installed layout first, then the build tree's (lib/ beside bin/). */
const char *daemon_dirs_beside_library() { return SNANODE_BINDIR_FROM_LIBDIR ":../bin"; }

bool find_daemon(const char *named, const char *library_file, const char *install_path,
                 const char *search_path, char *out, size_t size) {
  return find_daemon(named, library_file, "../bin", install_path, search_path, out, size);
}

bool find_daemon(const char *named, const char *library_file, const char *library_relative,
                 const char *install_path, const char *search_path, char *out, size_t size) {
  if (named && *named) {
    int n = snprintf(out, size, "%s", named);
    return n > 0 && static_cast<size_t>(n) < size;
  }
  if (library_file && *library_file && library_relative) {
    const char *slash = strrchr(library_file, '/');
    int directory_length = slash ? static_cast<int>(slash - library_file) : 1;
    const char *directory = slash ? library_file : ".";
    const char *entry = library_relative;
    for (;;) {
      const char *end = strchr(entry, ':');
      int length = end ? static_cast<int>(end - entry) : static_cast<int>(strlen(entry));
      if (length > 0) {
        int n = entry[0] == '/'
                    ? snprintf(out, size, "%.*s/snanoded", length, entry)
                    : snprintf(out, size, "%.*s/%.*s/snanoded", directory_length, directory, length, entry);
        if (n > 0 && static_cast<size_t>(n) < size && executable(out)) return true;
      }
      if (!end) break;
      entry = end + 1;
    }
  }
  if (install_path && *install_path) {
    int n = snprintf(out, size, "%s", install_path);
    if (n > 0 && static_cast<size_t>(n) < size && executable(out)) return true;
  }
  if (search_path) {
    const char *entry = search_path;
    for (;;) {
      const char *end = strchr(entry, ':');
      size_t length = end ? static_cast<size_t>(end - entry) : strlen(entry);
      /* An empty entry is the current directory. */
      int n = length == 0 ? snprintf(out, size, "./snanoded")
                          : snprintf(out, size, "%.*s/snanoded", static_cast<int>(length), entry);
      if (n > 0 && static_cast<size_t>(n) < size && executable(out)) return true;
      if (!end) break;
      entry = end + 1;
    }
  }
  if (size > 0) out[0] = '\0';
  return false;
}

int connect_daemon(int *fd_out) {
  char path[PATH_MAX];
  if (!socket_path(path, sizeof path)) return ENAMETOOLONG;
  int fd = -1;
  int rc = try_connect(path, &fd);
  if ((rc == ENOENT || rc == ECONNREFUSED) && autostart_allowed()) {
    int started = autostart(path);
    if (started != 0) return started;
    rc = try_connect(path, &fd);
  }
  if (rc != 0) return rc;
  rc = hello(fd);
  if (rc != 0) {
    close(fd);
    return rc;
  }
  *fd_out = fd;
  return 0;
}

}  // namespace snanode
