#include "snanoded/attach_manager.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace sna::daemon {
namespace {

constexpr const char* kDefaultPath = "/usr/local/bin:/usr/bin:/bin";

// What the child sends back when it cannot execute the program.
struct FailureRecord {
  int32_t step;
  int32_t error;
};
enum Step : int32_t { kStepSession = 1, kStepStdin, kStepLogFile, kStepDirectory, kStepExec };

const char* step_text(int32_t step) {
  switch (step) {
    case kStepSession: return "new session";
    case kStepStdin: return "open /dev/null";
    case kStepLogFile: return "open log file";
    case kStepDirectory: return "change directory";
    case kStepExec: return "execute";
  }
  return "start";
}

void set_var(std::vector<std::string>& env, const std::string& name, const std::string& value) {
  const std::string prefix = name + "=";
  for (std::string& e : env)
    if (e.compare(0, prefix.size(), prefix) == 0) {
      e = prefix + value;
      return;
    }
  env.push_back(prefix + value);
}

std::string lookup(const std::vector<std::string>& env, const std::string& name) {
  const std::string prefix = name + "=";
  for (const std::string& e : env)
    if (e.compare(0, prefix.size(), prefix) == 0) return e.substr(prefix.size());
  return {};
}

// The program's path: names without a slash are searched in the PATH the
// program will get.
std::string resolve_program(const std::string& program, const std::string& path) {
  if (program.find('/') != std::string::npos) return program;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    const std::string dir = end > start ? path.substr(start, end - start) : ".";
    const std::string candidate = dir + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return program;
}

std::string home_directory() {
  if (const char* h = getenv("HOME"); h && *h) return h;
  std::vector<char> buf(16384);
  passwd pw{}, *found = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_dir)
    return found->pw_dir;
  return "/";
}

[[noreturn]] void child_fail(int fd, int32_t step) {
  FailureRecord r{step, errno};
  ssize_t n = write(fd, &r, sizeof r);
  (void)n;
  _exit(127);
}

void close_other_fds(int keep) {
  // close_range where the kernel has it; otherwise one by one.
#ifdef SYS_close_range
  if (keep > 3 && syscall(SYS_close_range, 3u, static_cast<unsigned>(keep - 1), 0u) != 0) goto slow;
  if (syscall(SYS_close_range, static_cast<unsigned>(keep + 1), ~0u, 0u) == 0) return;
slow:
#endif
  {
    const long max = sysconf(_SC_OPEN_MAX);
    for (int fd = 3; fd < (max > 0 ? max : 1024); ++fd)
      if (fd != keep) close(fd);
  }
}

}  // namespace

std::vector<std::string> program_environment(
    const ProgramSpec& spec, const std::string& tp_name, const std::string& lu_alias,
    const std::string& socket, const std::function<const char*(const char*)>& daemon_env) {
  std::vector<std::string> env;
  set_var(env, "PATH", kDefaultPath);
  for (const char* name : {"HOME", "USER", "LOGNAME", "LANG"})
    if (const char* v = daemon_env(name)) set_var(env, name, v);
  for (const auto& [name, value] : spec.environment) set_var(env, name, value);
  set_var(env, "APPCTPN", tp_name);
  set_var(env, "APPCLLU", lu_alias);
  set_var(env, "SNANODE_SOCKET", socket);
  return env;
}

AttachManager::AttachManager(EventLoop& loop, Hooks hooks) : loop_(loop), hooks_(std::move(hooks)) {}

AttachManager::~AttachManager() {
  for (auto& [pid, c] : children_) close_pipe(c);
}

void AttachManager::start(uint64_t instance, const ProgramSpec& spec, const std::string& tp_name,
                          const std::string& lu_alias, const std::string& socket) {
  // Everything the child needs is prepared here: between fork and exec
  // only async-signal-safe calls are allowed.
  const std::vector<std::string> env =
      program_environment(spec, tp_name, lu_alias, socket, [](const char* n) { return getenv(n); });
  const std::string path = resolve_program(spec.program, lookup(env, "PATH"));
  std::vector<std::string> args;
  args.push_back(spec.program);
  args.insert(args.end(), spec.arguments.begin(), spec.arguments.end());
  std::vector<char*> argv, envp;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  const std::string dir = spec.directory.empty() ? home_directory() : spec.directory;
  const std::string log = spec.log_file.empty() ? "/dev/null" : spec.log_file;

  if (spec.program.empty()) {
    hooks_.failed(instance, "no program is defined");
    return;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    hooks_.failed(instance, std::string("pipe: ") + std::strerror(errno));
    return;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    const int err = errno;
    close(fds[0]);
    close(fds[1]);
    hooks_.failed(instance, std::string("fork: ") + std::strerror(err));
    return;
  }
  if (pid == 0) {
    int report = fds[1];
    close(fds[0]);
    // Keep the report pipe clear of the standard descriptors about to be
    // replaced (a daemon started with them closed gets it as 0, 1 or 2).
    if (report < 3) report = fcntl(report, F_DUPFD_CLOEXEC, 3);
    // The daemon blocks the signals it reads through its signalfd and
    // ignores SIGPIPE: give the program the defaults.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD}) signal(s, SIG_DFL);
    if (setsid() < 0) child_fail(report, kStepSession);
    const int in = open("/dev/null", O_RDONLY);
    if (in < 0) child_fail(report, kStepStdin);
    const int out = open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (out < 0) child_fail(report, kStepLogFile);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    if (in > 2) close(in);
    if (out > 2) close(out);
    if (chdir(dir.c_str()) != 0) child_fail(report, kStepDirectory);
    close_other_fds(report);
    execve(path.c_str(), argv.data(), envp.data());
    child_fail(report, kStepExec);
  }
  close(fds[1]);
  fcntl(fds[0], F_SETFL, O_NONBLOCK);
  Child& c = children_[pid];
  c.instance = instance;
  c.pipe_fd = fds[0];
  c.program = spec.program;
  c.token = loop_.add(fds[0], EPOLLIN, [this, pid](uint32_t) {
    auto it = children_.find(pid);
    if (it != children_.end()) drain(pid, it->second);
  });
  hooks_.started(instance, pid);
}

void AttachManager::close_pipe(Child& c) {
  if (c.token) loop_.remove(c.token);
  c.token = 0;
  if (c.pipe_fd >= 0) close(c.pipe_fd);
  c.pipe_fd = -1;
}

void AttachManager::drain(pid_t, Child& c) {
  if (c.pipe_fd < 0) return;
  FailureRecord r{};
  ssize_t n;
  do {
    n = read(c.pipe_fd, &r, sizeof r);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;  // not yet decided
  close_pipe(c);
  if (n == static_cast<ssize_t>(sizeof r) && !c.failure_reported) {
    c.failure_reported = true;
    hooks_.failed(c.instance, c.program + ": " + step_text(r.step) + ": " + std::strerror(r.error));
  }
}

void AttachManager::reap() {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return;
    auto it = children_.find(pid);
    if (it == children_.end()) continue;
    Child c = it->second;
    children_.erase(it);
    // The child is gone, so whatever it wrote is in the pipe: read it
    // first, so a failed exec is reported as a failure, not an exit.
    if (c.pipe_fd >= 0) {
      fcntl(c.pipe_fd, F_SETFL, 0);
      drain(pid, c);
      close_pipe(c);
    }
    if (!c.failure_reported) hooks_.exited(c.instance);
  }
}

}  // namespace sna::daemon
