#include "harness.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <set>
#include <sstream>

#include "wire/wire_protocol.h"

extern char **environ;

namespace e2e {

int elapsed_ms(Clock::time_point since) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

namespace {

int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  ::remove(path);
  return 0;
}

// Poll on one descriptor, resumed after signals, within the deadline.
int poll_one(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    struct pollfd p = {fd, events, 0};
    int n = ::poll(&p, 1, remaining_ms(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n;
    return p.revents;
  }
}

int pidfd_open_compat(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  errno = ENOSYS;
  return -1;
#endif
}

std::vector<std::string> split_tokens(const std::string &s) {
  std::vector<std::string> out;
  std::istringstream in(s);
  for (std::string t; in >> t;) out.push_back(t);
  return out;
}

std::vector<char *> build_env(const std::map<std::string, std::string> &extra,
                              std::vector<std::string> &storage) {
  std::map<std::string, std::string> merged;
  for (char **e = environ; *e != nullptr; ++e) {
    const char *eq = strchr(*e, '=');
    if (eq == nullptr) continue;
    merged[std::string(*e, static_cast<size_t>(eq - *e))] = eq + 1;
  }
  for (const auto &kv : extra) {
    if (kv.second == "\x01") {
      merged.erase(kv.first);
    } else {
      merged[kv.first] = kv.second;
    }
  }
  storage.clear();
  for (const auto &kv : merged) storage.push_back(kv.first + "=" + kv.second);
  std::vector<char *> envp;
  for (auto &s : storage) envp.push_back(s.data());
  envp.push_back(nullptr);
  return envp;
}

}  // namespace

// ---- files ------------------------------------------------------------

TempDir::TempDir() {
  char pattern[] = "/tmp/sna-e2e-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) ::abort();
  path_ = pattern;
}

TempDir::~TempDir() { ::nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool write_file(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

bool wait_for_file(const std::string &dir, const std::string &name,
                   const std::function<bool(const std::string &)> &ok, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int fd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (fd >= 0) ::inotify_add_watch(fd, dir.c_str(), IN_MODIFY | IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO);
  bool result = false;
  for (;;) {
    if (ok(read_file(dir + "/" + name))) {
      result = true;
      break;
    }
    if (fd < 0 || Clock::now() >= deadline) break;
    if (poll_one(fd, POLLIN, deadline) <= 0) {
      result = ok(read_file(dir + "/" + name));
      break;
    }
    char events[4096];
    while (::read(fd, events, sizeof events) > 0) {
    }
  }
  if (fd >= 0) ::close(fd);
  return result;
}

std::optional<int> wait_exit(pid_t pid, int timeout_ms) {
  int status = 0;
  pid_t r = ::waitpid(pid, &status, WNOHANG);
  if (r == pid) return status;
  if (r < 0) return std::nullopt;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int fd = pidfd_open_compat(pid);
  if (fd >= 0) {
    int ev = poll_one(fd, POLLIN, deadline);
    ::close(fd);
    if (ev <= 0) return std::nullopt;
    r = ::waitpid(pid, &status, 0);
    if (r == pid) return status;
    return std::nullopt;
  }
  // No process descriptors on this kernel: check in short steps.
  while (Clock::now() < deadline) {
    r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0) return std::nullopt;
    struct timespec step = {0, 5 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  return std::nullopt;
}

// ---- processes --------------------------------------------------------

std::unique_ptr<Process> Process::spawn(const std::string &name, const std::string &path,
                                        const std::vector<std::string> &args,
                                        const std::map<std::string, std::string> &env,
                                        const std::string &stderr_path) {
  int in_pipe[2], out_pipe[2];
  if (::pipe2(in_pipe, O_CLOEXEC) != 0) return nullptr;
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) {
    ::close(in_pipe[0]);
    ::close(in_pipe[1]);
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, stderr_path.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0600);
  // Its own process group, so that a kill reaches what it started.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setpgroup(&attr, 0);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);

  std::vector<std::string> argv_storage;
  argv_storage.push_back(path);
  for (const auto &a : args) argv_storage.push_back(a);
  std::vector<char *> argv;
  for (auto &a : argv_storage) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_storage;
  std::vector<char *> envp = build_env(env, env_storage);

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, path.c_str(), &actions, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  if (rc != 0) {
    ::close(in_pipe[1]);
    ::close(out_pipe[0]);
    return nullptr;
  }
  std::unique_ptr<Process> p(new Process);
  p->name_ = name;
  p->pid_ = pid;
  p->in_fd_ = in_pipe[1];
  p->out_fd_ = out_pipe[0];
  p->stderr_path_ = stderr_path;
  return p;
}

Process::~Process() {
  if (in_fd_ >= 0) ::close(in_fd_);
  if (out_fd_ >= 0) ::close(out_fd_);
  if (!reaped_ && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    if (wait_exit(pid_, kWaitMs)) reaped_ = true;
  }
}

bool Process::send(const std::string &line) {
  if (in_fd_ < 0) return false;
  std::string text = line + "\n";
  const char *p = text.data();
  size_t left = text.size();
  const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
  while (left > 0) {
    ssize_t n = ::write(in_fd_, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      if (poll_one(in_fd_, POLLOUT, deadline) <= 0) return false;
      continue;
    }
    if (n <= 0) return false;
    p += n;
    left -= static_cast<size_t>(n);
  }
  lines_.push_back("<< " + line);
  return true;
}

void Process::close_stdin() {
  if (in_fd_ >= 0) ::close(in_fd_);
  in_fd_ = -1;
}

std::optional<std::string> Process::read_line(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    size_t nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      lines_.push_back(">> " + line);
      return line;
    }
    if (out_fd_ < 0) return std::nullopt;
    int ev = poll_one(out_fd_, POLLIN, deadline);
    if (ev <= 0) return std::nullopt;
    char chunk[4096];
    ssize_t n = ::read(out_fd_, chunk, sizeof chunk);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) {
      ::close(out_fd_);
      out_fd_ = -1;
      if (!buffer_.empty()) {
        std::string line = buffer_;
        buffer_.clear();
        lines_.push_back(">> " + line);
        return line;
      }
      return std::nullopt;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

bool Process::expect(const std::string &expected, std::string *why, int timeout_ms) {
  auto line = read_line(timeout_ms);
  if (!line) {
    if (why) *why = name_ + ": no line within " + std::to_string(timeout_ms) + " ms, expected \"" +
                    expected + "\"";
    return false;
  }
  if (!line_matches(*line, expected)) {
    if (why) *why = name_ + ": got \"" + *line + "\", expected \"" + expected + "\"";
    return false;
  }
  return true;
}

void Process::signal(int sig) {
  if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
}

std::optional<int> Process::wait(int timeout_ms) {
  if (reaped_) return status_;
  auto st = wait_exit(pid_, timeout_ms);
  if (st) {
    reaped_ = true;
    status_ = *st;
  }
  return st;
}

std::string Process::stderr_text() const { return read_file(stderr_path_); }

std::string Process::transcript() const {
  std::string out = "---- " + name_ + " (pid " + std::to_string(pid_) + ")\n";
  for (const auto &l : lines_) out += l + "\n";
  if (!buffer_.empty()) out += ">> (partial) " + buffer_ + "\n";
  std::string err = read_file(stderr_path_);
  if (!err.empty()) out += "---- " + name_ + " stderr\n" + err;
  return out;
}

// ---- matching ---------------------------------------------------------

std::string hex_of(const std::string &bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

bool line_matches(const std::string &line, const std::string &expected) {
  // Alternatives: "E1 OR E2" matches a line that matches either.
  const std::string sep = " OR ";
  size_t at = expected.find(sep);
  if (at != std::string::npos) {
    return line_matches(line, expected.substr(0, at)) || line_matches(line, expected.substr(at + sep.size()));
  }
  std::vector<std::string> have = split_tokens(line);
  std::vector<std::string> want = split_tokens(expected);
  if (want.empty()) return have.empty();
  if (have.empty() || have[0] != want[0]) return false;
  for (std::string w : want) {
    if (w.rfind("text=", 0) == 0) w = "data=" + hex_of(w.substr(5));
    bool found = false;
    if (!w.empty() && w.back() == '*') {
      std::string prefix = w.substr(0, w.size() - 1);
      for (const auto &h : have) found = found || h.rfind(prefix, 0) == 0;
    } else {
      for (const auto &h : have) found = found || h == w;
    }
    if (!found) return false;
  }
  return true;
}

// ---- daemon -----------------------------------------------------------

Daemon::Daemon(std::string daemon_path) : daemon_path_(std::move(daemon_path)) {
  socket_ = dir_.path() + "/socket";
  state_dir_ = dir_.path() + "/state";
  config_path_ = dir_.path() + "/node.toml";
  ::mkdir(state_dir_.c_str(), 0700);
}

Daemon::~Daemon() { kill_hard(); }

bool Daemon::start(const std::string &config_text, std::string *why) {
  with_config_ = !config_text.empty();
  if (with_config_ && !write_file(config_path_, config_text)) {
    if (why) *why = "cannot write " + config_path_;
    return false;
  }
  return launch(why);
}

bool Daemon::restart(std::string *why) {
  if (pid_ > 0) kill_hard();
  return launch(why);
}

bool Daemon::launch(std::string *why) {
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) {
    if (why) *why = "pipe failed";
    return false;
  }
  ++starts_;
  const std::string err_path = dir_.path() + "/daemon.err";
  // The ready descriptor is given to the daemon as fd 3.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setpgroup(&attr, 0);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  std::vector<std::string> args = {daemon_path_, "--socket", socket_, "--state-dir", state_dir_,
                                   "--ready-fd", "3"};
  if (with_config_) {
    args.push_back("--config");
    args.push_back(config_path_);
  }
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<std::string> env_storage;
  std::vector<char *> envp = build_env({{"SNANODE_SOCKET", "\x01"}, {"SNANODE_STATE_DIR", "\x01"}},
                                       env_storage);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, daemon_path_.c_str(), &actions, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  ::close(ready[1]);
  if (rc != 0) {
    ::close(ready[0]);
    if (why) *why = "cannot start " + daemon_path_ + ": " + strerror(rc);
    return false;
  }
  pid_ = pid;
  const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
  char byte = 0;
  ssize_t n = 0;
  for (;;) {
    int ev = poll_one(ready[0], POLLIN, deadline);
    if (ev <= 0) {
      n = -2;
      break;
    }
    n = ::read(ready[0], &byte, 1);
    if (n < 0 && errno == EINTR) continue;
    break;
  }
  ::close(ready[0]);
  if (n != 1) {
    if (why) {
      *why = std::string(n == -2 ? "no ready byte within the time-out" : "daemon closed the ready fd") +
             "; daemon stderr:\n" + stderr_text();
    }
    kill_hard();
    return false;
  }
  return true;
}

void Daemon::kill_hard() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  wait_exit(pid_, kWaitMs);
  pid_ = -1;
}

bool Daemon::terminate(std::string *why) {
  if (pid_ <= 0) return true;
  ::kill(pid_, SIGTERM);
  auto st = wait_exit(pid_, kWaitMs);
  if (!st) {
    if (why) *why = "daemon did not exit after SIGTERM";
    kill_hard();
    return false;
  }
  pid_ = -1;
  if (!WIFEXITED(*st) || WEXITSTATUS(*st) != 0) {
    if (why) *why = "daemon exit status " + std::to_string(*st);
    return false;
  }
  return true;
}

std::string Daemon::problems_log() const { return read_file(state_dir_ + "/problems.log"); }
std::string Daemon::stderr_text() const { return read_file(dir_.path() + "/daemon.err"); }

std::map<std::string, std::string> Daemon::client_env() const {
  return {{"SNANODE_SOCKET", socket_},
          {"SNANODE_STATE_DIR", state_dir_},
          {"SNANODE_AUTOSTART", "0"},
          {"SNANODE_TRACE", "\x01"},
          {"APPCTPN", "\x01"},
          {"APPCLLU", "\x01"}};
}

std::unique_ptr<Process> Daemon::run(const std::string &name, const std::string &path,
                                     const std::vector<std::string> &args,
                                     const std::map<std::string, std::string> &extra_env) {
  auto env = client_env();
  for (const auto &kv : extra_env) env[kv.first] = kv.second;
  return Process::spawn(name, path, args, env, dir_.path() + "/" + name + ".err");
}

std::string hash_password(const std::string &daemon_path, const std::string &password) {
  TempDir scratch;
  auto p = Process::spawn("hash", daemon_path, {"--hash-password"}, {}, scratch.path() + "/err");
  if (!p) return "";
  p->send(password);
  p->close_stdin();
  auto line = p->read_line();
  auto st = p->wait();
  if (!line || !st || !WIFEXITED(*st) || WEXITSTATUS(*st) != 0) return "";
  std::string h = *line;
  while (!h.empty() && std::isspace(static_cast<unsigned char>(h.back()))) h.pop_back();
  return h;
}

std::string login_name_for_same() {
  struct passwd *pw = ::getpwuid(::geteuid());
  if (pw == nullptr || pw->pw_name == nullptr) return "";
  std::string name = pw->pw_name;
  if (name.empty() || name.size() > 10) return "";
  for (char c : name) {
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '@' || c == '#' || c == '$' || c == '.'))
      return "";
  }
  return name;
}

// ---- raw socket client ------------------------------------------------

RawClient::~RawClient() {
  if (fd_ >= 0) ::close(fd_);
}

bool RawClient::connect_to(const std::string &socket_path) {
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) return false;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof addr.sun_path) return false;
  memcpy(addr.sun_path, socket_path.c_str(), socket_path.size());
  if (::connect(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    if (errno != EINPROGRESS) return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    if (poll_one(fd_, POLLOUT, deadline) <= 0) return false;
  }
  return true;
}

bool RawClient::write_all(const void *data, size_t n, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  const char *p = static_cast<const char *>(data);
  while (n > 0) {
    ssize_t w = ::send(fd_, p, n, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0 && errno == EAGAIN) {
      if (poll_one(fd_, POLLOUT, deadline) <= 0) return false;
      continue;
    }
    if (w <= 0) return false;
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

size_t RawClient::write_some(const void *data, size_t n) {
  ssize_t w = ::send(fd_, data, n, MSG_NOSIGNAL | MSG_DONTWAIT);
  return w > 0 ? static_cast<size_t>(w) : 0;
}

bool RawClient::hello(uint32_t flags) {
  uint8_t frame[sna::wire::kHeaderSize + sna::wire::kHelloSize];
  sna::wire::FrameHeader h;
  h.length = sizeof frame;
  h.kind = sna::wire::Kind::kHello;
  h.tag = 0;
  sna::wire::encode_header(frame, h);
  sna::wire::Hello hello;
  hello.word_bits = static_cast<uint16_t>(sizeof(void *) * 8);
  hello.pid = static_cast<uint32_t>(::getpid());
  hello.flags = flags;
  sna::wire::encode_hello(frame + sna::wire::kHeaderSize, hello);
  return write_all(frame, sizeof frame);
}

std::optional<std::vector<uint8_t>> RawClient::read_frame(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::vector<uint8_t> frame;
  size_t want = sna::wire::kHeaderSize;
  while (frame.size() < want) {
    if (poll_one(fd_, POLLIN, deadline) <= 0) return std::nullopt;
    uint8_t chunk[4096];
    size_t room = want - frame.size();
    ssize_t n = ::recv(fd_, chunk, room < sizeof chunk ? room : sizeof chunk, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return std::nullopt;
    frame.insert(frame.end(), chunk, chunk + n);
    if (frame.size() == sna::wire::kHeaderSize && want == sna::wire::kHeaderSize) {
      uint32_t length = sna::wire::decode_header(frame.data()).length;
      if (length < sna::wire::kHeaderSize || length > sna::wire::kMaxReplyFrame) return std::nullopt;
      want = length;
    }
  }
  return frame;
}

bool RawClient::closed_by_peer(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int ev = poll_one(fd_, POLLIN, deadline);
    if (ev <= 0) return false;
    uint8_t chunk[4096];
    ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n == 0) return true;
    if (n < 0) return errno == ECONNRESET || errno == EPIPE;
  }
}

}  // namespace e2e
