// Runs a piece of a test in a child process, so that it meets the library
// and the environment fresh (the library reads APPCTPN and APPCLLU once per
// process and keeps its state for the life of the process).
#ifndef TESTS_CPIC_CHILD_PROCESS_H
#define TESTS_CPIC_CHILD_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "snanode/node.h"
#include "testnode.h"

namespace cpictest {

// fn returns "" when every check held, else a description of what failed.
// Environment variables are set in the child before fn runs (a null value
// removes the variable). Returns the child's verdict.
inline std::string in_child(const std::vector<std::pair<const char *, const char *>> &env,
                            const std::function<std::string()> &fn) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  pid_t pid = fork();
  if (pid < 0) return "fork failed";
  if (pid == 0) {
    close(fds[0]);
    for (const auto &kv : env) {
      if (kv.second == nullptr) {
        unsetenv(kv.first);
      } else {
        setenv(kv.first, kv.second, 1);
      }
    }
    // The child inherits the parent's library; losing the node tears it
    // down, so the first call in the child initialises from scratch.
    testnode::raise_path_event(VPM_EVENT_NODE_LOST);
    testnode::reset();
    std::string verdict = fn();
    ssize_t ignored = write(fds[1], verdict.data(), verdict.size());
    (void)ignored;
    close(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child died: " + out;
  return out;
}

// Collects failed checks inside a child.
struct Verdict {
  std::string text;
  template <typename A, typename B>
  void eq(const A &actual, const B &expected, const char *what) {
    if (!(actual == expected)) {
      text += std::string(what) + ": got " + std::to_string(actual) + ", expected " +
              std::to_string(expected) + "; ";
    }
  }
  void check(bool ok, const char *what) {
    if (!ok) text += std::string(what) + "; ";
  }
};

}  // namespace cpictest

#endif
