// Running the tools and the node as child processes, with every wait
// bounded: output is collected through pipes, exits are awaited on a
// pidfd, the node's readiness on its --ready-fd pipe.
#ifndef SNA_TESTS_TOOLS_TOOL_PROCESS_H
#define SNA_TESTS_TOOLS_TOOL_PROCESS_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace tooltest {

using Env = std::vector<std::pair<std::string, std::string>>;

struct RunResult {
  int status = -1;         // exit status; -1 if killed by a signal or timed out
  bool timed_out = false;
  std::string out, err;
};

// Runs argv[0] (a path) with the environment of this process plus `env`
// (which overrides), waits at most timeout_ms, and returns its output.
RunResult run(const std::vector<std::string>& argv, const Env& env = {},
              const std::string& input = "", int timeout_ms = 60000);

// A temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);

// A program left running: stdin and stdout are pipes, stderr goes to a
// file. Closing its stdin is how the tests' helper programs are told to end.
class Child {
 public:
  Child() = default;
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Starts argv; extra_fd_source >= 0 is given to the child as descriptor 3.
  bool start(const std::vector<std::string>& argv, const Env& env, const std::string& stderr_file,
             int extra_fd_source = -1);
  // One line of its stdout (without the new line), or false on time-out
  // or end of output.
  bool read_line(std::string& line, int timeout_ms);
  void close_stdin();
  // Waits for the exit; false on time-out. `status` is the exit status,
  // or -1 when it ended by a signal.
  bool wait(int timeout_ms, int& status);
  // SIGKILL and reap, if still running.
  void kill_now();
  void signal(int sig);
  pid_t pid() const { return pid_; }
  int pidfd() const { return pidfd_; }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  int in_ = -1, out_ = -1;
  std::string buffered_;
  bool reaped_ = false;
};

// snanoded started for one test: its own socket, state directory and
// configuration file, awaited through --ready-fd.
class Node {
 public:
  explicit Node(const TempDir& dir) : dir_(dir) {}
  ~Node();
  // Writes the configuration and starts the daemon. False with a reason.
  bool start(const std::string& config_text, std::string& error);
  // SIGTERM and wait; the exit status, or -1.
  int stop();
  const std::string& socket() const { return socket_; }
  const std::string& state_dir() const { return state_dir_; }
  pid_t pid() const { return child_.pid(); }
  Child& process() { return child_; }
  // The environment that points a CPI-C program at this node.
  Env client_env() const;
  std::string daemon_log() const;

 private:
  const TempDir& dir_;
  Child child_;
  std::string socket_, state_dir_;
  bool running_ = false;
};

}  // namespace tooltest

#endif
