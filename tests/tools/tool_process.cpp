#include "tool_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace tooltest {
namespace {

int64_t now_ms() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

int open_pidfd(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

// The environment of this process with `env` laid over it, built before
// fork so that the child only has to exec.
std::vector<std::string> merged_env(const Env& env) {
  std::vector<std::string> out;
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    const std::string key = entry.substr(0, entry.find('='));
    bool overridden = false;
    for (const auto& kv : env) overridden = overridden || kv.first == key;
    if (!overridden) out.push_back(entry);
  }
  for (const auto& kv : env) out.push_back(kv.first + "=" + kv.second);
  return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (std::string& s : strings) p.push_back(s.data());
  p.push_back(nullptr);
  return p;
}

// Forks and execs; the child's descriptors 0, 1, 2 (and 3) become the
// given ones (-1 leaves /dev/null).
pid_t spawn(const std::vector<std::string>& argv_in, const Env& env, int in, int out, int err,
            int extra) {
  std::vector<std::string> argv_s = argv_in;
  std::vector<std::string> env_s = merged_env(env);
  std::vector<char*> argv = pointers(argv_s);
  std::vector<char*> envp = pointers(env_s);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int null_fd = ::open("/dev/null", O_RDWR);
  // Above 3 first, so that the dup2 calls below cannot clobber a source.
  int sources[4] = {in, out, err, extra};
  for (int& s : sources)
    if (s >= 0) s = fcntl(s, F_DUPFD, 10);
  for (int target = 0; target < 4; ++target) {
    const int source = sources[target] >= 0 ? sources[target] : (target < 3 ? null_fd : -1);
    if (source >= 0) dup2(source, target);
  }
  ::closefrom(4);
  execve(argv[0], argv.data(), envp.data());
  const char message[] = "exec failed\n";
  (void)!::write(2, message, sizeof message - 1);
  _exit(127);
}

}  // namespace

RunResult run(const std::vector<std::string>& argv, const Env& env, const std::string& input,
              int timeout_ms) {
  RunResult r;
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0 ||
      pipe2(err_pipe, O_CLOEXEC) != 0)
    return r;
  const pid_t pid = spawn(argv, env, in_pipe[0], out_pipe[1], err_pipe[1], -1);
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  if (!input.empty()) (void)!::write(in_pipe[1], input.data(), input.size());
  ::close(in_pipe[1]);
  const int pidfd = open_pidfd(pid);
  fcntl(out_pipe[0], F_SETFL, O_NONBLOCK);
  fcntl(err_pipe[0], F_SETFL, O_NONBLOCK);

  const int64_t deadline = now_ms() + timeout_ms;
  bool exited = false, out_open = true, err_open = true;
  auto drain = [&](int fd, std::string& into, bool& open) {
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n > 0) {
        into.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n == 0) open = false;
      return;
    }
  };
  // Until the program has exited and its output is read; a grandchild
  // that kept the pipes open does not hold the test up after the exit.
  while (!exited || out_open || err_open) {
    const int64_t left = deadline - now_ms();
    if (left <= 0) {
      r.timed_out = true;
      break;
    }
    pollfd p[3] = {{pidfd, POLLIN, 0}, {out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    if (exited) p[0].fd = -1;
    if (!out_open) p[1].fd = -1;
    if (!err_open) p[2].fd = -1;
    const int ready = ::poll(p, 3, exited ? std::min<int64_t>(left, 200) : left);
    if (ready < 0 && errno != EINTR) break;
    if (out_open) drain(out_pipe[0], r.out, out_open);
    if (err_open) drain(err_pipe[0], r.err, err_open);
    if (!exited && (p[0].revents & POLLIN)) exited = true;
    if (exited && ready == 0) break;  // output quiet after the exit
  }
  int status = 0;
  if (!exited) {
    ::kill(pid, SIGKILL);
  }
  waitpid(pid, &status, 0);
  if (!r.timed_out && WIFEXITED(status)) r.status = WEXITSTATUS(status);
  ::close(pidfd);
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);
  return r;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/snatools-XXXXXX";
  const char* made = mkdtemp(pattern);
  path_ = made ? made : "";
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << text;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

Child::~Child() { kill_now(); }

bool Child::start(const std::vector<std::string>& argv, const Env& env,
                  const std::string& stderr_file, int extra_fd_source) {
  int in_pipe[2], out_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0) return false;
  const int err = ::open(stderr_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_ = spawn(argv, env, in_pipe[0], out_pipe[1], err, extra_fd_source);
  ::close(in_pipe[0]);
  ::close(out_pipe[1]);
  if (err >= 0) ::close(err);
  in_ = in_pipe[1];
  out_ = out_pipe[0];
  pidfd_ = open_pidfd(pid_);
  reaped_ = false;
  return pid_ > 0 && pidfd_ >= 0;
}

bool Child::read_line(std::string& line, int timeout_ms) {
  const int64_t deadline = now_ms() + timeout_ms;
  for (;;) {
    const size_t nl = buffered_.find('\n');
    if (nl != std::string::npos) {
      line = buffered_.substr(0, nl);
      buffered_.erase(0, nl + 1);
      return true;
    }
    const int64_t left = deadline - now_ms();
    if (left <= 0 || out_ < 0) return false;
    pollfd p{out_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    char buf[1024];
    const ssize_t n = ::read(out_, buf, sizeof buf);
    if (n <= 0) return false;
    buffered_.append(buf, static_cast<size_t>(n));
  }
}

void Child::close_stdin() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
}

bool Child::wait(int timeout_ms, int& status) {
  if (pid_ <= 0 || reaped_) return false;
  pollfd p{pidfd_, POLLIN, 0};
  const int64_t deadline = now_ms() + timeout_ms;
  for (;;) {
    const int64_t left = deadline - now_ms();
    if (left <= 0) return false;
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready > 0) break;
    if (ready < 0 && errno != EINTR) return false;
  }
  int raw = 0;
  waitpid(pid_, &raw, 0);
  reaped_ = true;
  status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  return true;
}

void Child::signal(int sig) {
  if (pid_ > 0 && !reaped_) ::kill(pid_, sig);
}

void Child::kill_now() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    reaped_ = true;
  }
  for (int* fd : {&in_, &out_, &pidfd_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

Node::~Node() {
  if (running_) stop();
}

bool Node::start(const std::string& config_text, std::string& error) {
  socket_ = dir_.file("node.socket");
  state_dir_ = dir_.file("state");
  const std::string config = dir_.file("node.toml");
  write_file(config, config_text);
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    error = "pipe failed";
    return false;
  }
  const std::vector<std::string> argv = {SNA_TEST_DAEMON, "--config",    config,
                                         "--socket",      socket_,       "--state-dir",
                                         state_dir_,      "--ready-fd",  "3"};
  if (!child_.start(argv, {}, dir_.file("daemon.log"), ready[1])) {
    ::close(ready[0]);
    ::close(ready[1]);
    error = "cannot start " + std::string(SNA_TEST_DAEMON);
    return false;
  }
  ::close(ready[1]);
  pollfd p[2] = {{ready[0], POLLIN, 0}, {child_.pidfd(), POLLIN, 0}};
  const int n = ::poll(p, 2, 20000);
  char byte = 0;
  const bool got = n > 0 && (p[0].revents & POLLIN) && ::read(ready[0], &byte, 1) == 1;
  ::close(ready[0]);
  if (!got) {
    error = "the node did not get ready; its output: " + daemon_log();
    child_.kill_now();
    return false;
  }
  running_ = true;
  return true;
}

int Node::stop() {
  if (!running_) return -1;
  running_ = false;
  child_.signal(SIGTERM);
  int status = -1;
  if (!child_.wait(20000, status)) {
    child_.kill_now();
    return -1;
  }
  return status;
}

Env Node::client_env() const {
  return {{"SNANODE_SOCKET", socket_},
          {"SNANODE_AUTOSTART", "0"},
          {"SNANODE_STATE_DIR", dir_.file("client-state")}};
}

std::string Node::daemon_log() const { return read_file(dir_.file("daemon.log")); }

}  // namespace tooltest
