// End-to-end harness: a node daemon of its own for every test (socket and
// state directory in a fresh temporary directory), and programs run as
// child processes that are driven through pipes. Every wait is bounded.
#ifndef TESTS_E2E_HARNESS_H
#define TESTS_E2E_HARNESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

// Default bound of one wait for a line or an event.
inline constexpr int kWaitMs = 5000;

using Clock = std::chrono::steady_clock;

int elapsed_ms(Clock::time_point since);

// A directory under /tmp (short, so that socket paths fit), removed with
// everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

std::string read_file(const std::string &path);
bool write_file(const std::string &path, const std::string &text);

// Waits until file `name` in directory `dir` satisfies `ok`, watching the
// directory for changes; false if it does not within timeout_ms.
bool wait_for_file(const std::string &dir, const std::string &name,
                   const std::function<bool(const std::string &)> &ok, int timeout_ms);

// Waits until the child has exited or timeout_ms has passed. Returns the
// wait status, or nullopt on time-out (the child is left running).
std::optional<int> wait_exit(pid_t pid, int timeout_ms);

// A program with pipes on its stdin and stdout; stderr goes to a file.
class Process {
 public:
  // env: variables added to (or replacing those of) the harness's own
  // environment; a value of "\x01" removes the variable.
  static std::unique_ptr<Process> spawn(const std::string &name, const std::string &path,
                                        const std::vector<std::string> &args,
                                        const std::map<std::string, std::string> &env,
                                        const std::string &stderr_path);
  ~Process();

  pid_t pid() const { return pid_; }
  const std::string &name() const { return name_; }

  bool send(const std::string &line);
  void close_stdin();
  // The next line of stdout, or nullopt on time-out or end of file.
  std::optional<std::string> read_line(int timeout_ms = kWaitMs);
  // Reads the next line and checks it against the expectation (see
  // line_matches). On mismatch or time-out describes what happened.
  bool expect(const std::string &expected, std::string *why, int timeout_ms = kWaitMs);

  void signal(int sig);
  // Waits for the exit; nullopt on time-out.
  std::optional<int> wait(int timeout_ms = kWaitMs);

  // Everything read so far, and the stderr file, for failure messages.
  std::string transcript() const;
  std::string stderr_text() const;

  // The test killed it on purpose: its exit status says nothing.
  void mark_killed() { killed_ = true; }
  bool killed_by_test() const { return killed_; }

 private:
  Process() = default;
  std::string name_;
  pid_t pid_ = -1;
  int in_fd_ = -1;
  int out_fd_ = -1;
  bool reaped_ = false;
  bool killed_ = false;
  int status_ = 0;
  std::string buffer_;
  std::string stderr_path_;
  std::vector<std::string> lines_;
};

// Token match: every blank-separated token of `expected` must be present in
// `line`, and the first tokens must be equal. A token text=ABC stands for
// data=<hex of ABC>. A token ending in '*' matches any token that starts
// with the text before it. "E1 OR E2" accepts a line that matches either.
bool line_matches(const std::string &line, const std::string &expected);
std::string hex_of(const std::string &bytes);

// The node daemon of one test.
class Daemon {
 public:
  explicit Daemon(std::string daemon_path);
  ~Daemon();

  // Writes the configuration (empty text: run with built-in defaults) and
  // starts the daemon; waits for its ready byte.
  bool start(const std::string &config_text, std::string *why);
  // Starts it again on the same socket and state directory.
  bool restart(std::string *why);
  void kill_hard();                  // SIGKILL, and reap
  bool terminate(std::string *why);  // SIGTERM, wait for exit 0
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  const std::string &dir() const { return dir_.path(); }
  const std::string &socket() const { return socket_; }
  const std::string &state_dir() const { return state_dir_; }
  std::string problems_log() const;
  std::string stderr_text() const;

  // The environment every program of this test gets.
  std::map<std::string, std::string> client_env() const;

  // Starts a program against this daemon (its stderr in the test directory).
  std::unique_ptr<Process> run(const std::string &name, const std::string &path,
                               const std::vector<std::string> &args = {},
                               const std::map<std::string, std::string> &extra_env = {});

 private:
  bool launch(std::string *why);
  std::string daemon_path_;
  TempDir dir_;
  std::string socket_, state_dir_, config_path_;
  bool with_config_ = false;
  pid_t pid_ = -1;
  int starts_ = 0;
};

// `snanoded --hash-password` for the password; "" on failure.
std::string hash_password(const std::string &daemon_path, const std::string &password);

// Login name of the effective uid as the node sends it with security
// "same" (1-10 of letters, digits, @ # $ .), or "" when none is sent.
std::string login_name_for_same();

// Raw client of the daemon socket, for the tests that misbehave on it.
class RawClient {
 public:
  ~RawClient();
  bool connect_to(const std::string &socket_path);
  bool write_all(const void *data, size_t n, int timeout_ms = kWaitMs);
  // Writes as much as fits without blocking; returns the byte count.
  size_t write_some(const void *data, size_t n);
  // Sends a HELLO frame for this process.
  bool hello(uint32_t flags = 0);
  // Reads a whole frame (header included); nullopt on time-out or close.
  std::optional<std::vector<uint8_t>> read_frame(int timeout_ms = kWaitMs);
  // True once the daemon has closed the connection (read gives end of file
  // or a reset) within timeout_ms; unread data is skipped.
  bool closed_by_peer(int timeout_ms);
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace e2e

#endif
