// The daemon's smaller parts: timers on the event loop, the socket and
// state directory precedence, and a started program's environment.
#include <gtest/gtest.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "snanoded/attach_manager.h"
#include "snanoded/event_loop.h"
#include "snanoded/paths.h"
#include "snanoded/timer_queue.h"

namespace sna::daemon {
namespace {

TEST(TimerQueue, FiresInDeadlineOrderAndCancelledNever) {
  EventLoop loop;
  TimerQueue timers(loop);
  ASSERT_TRUE(timers.ok());
  std::vector<int> fired;
  // Taken before the first timer is armed: its deadline counts from then.
  const auto start = std::chrono::steady_clock::now();
  timers.start(60, [&] {
    fired.push_back(60);
    loop.stop();
  });
  timers.start(10, [&] { fired.push_back(10); });
  const uint64_t cancelled = timers.start(30, [&] { fired.push_back(30); });
  timers.start(20, [&] { fired.push_back(20); });
  timers.cancel(cancelled);
  timers.cancel(cancelled);  // twice is harmless
  bool guard_hit = false;
  timers.start(5000, [&] {
    guard_hit = true;
    loop.stop();
  });
  loop.run();
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(guard_hit);
  EXPECT_EQ(fired, (std::vector<int>{10, 20, 60}));
  EXPECT_GE(took, std::chrono::milliseconds(60));
  EXPECT_EQ(timers.pending(), 1u);  // the guard
}

TEST(TimerQueue, CallbackMayStartAndCancelTimers) {
  EventLoop loop;
  TimerQueue timers(loop);
  std::vector<std::string> fired;
  uint64_t victim = 0;
  timers.start(10, [&] {
    fired.push_back("first");
    timers.cancel(victim);
    timers.start(0, [&] {
      fired.push_back("started by first");
      loop.stop();
    });
  });
  victim = timers.start(10, [&] { fired.push_back("victim"); });
  timers.start(5000, [&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(fired, (std::vector<std::string>{"first", "started by first"}));
}

TEST(EventLoop, HandlerMayRemoveItsOwnRegistration) {
  EventLoop loop;
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  ASSERT_EQ(write(p[1], "x", 1), 1);
  int calls = 0;
  uint64_t token = 0;
  token = loop.add(p[0], EPOLLIN, [&](uint32_t) {
    ++calls;
    loop.remove(token);
    loop.stop();
  });
  ASSERT_NE(token, 0u);
  loop.run();
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(loop.modify(token, EPOLLIN));  // gone
  close(p[0]);
  close(p[1]);
}

struct PathCase {
  const char* name;
  std::string option, configured;
  std::map<std::string, std::string> env;
  std::string socket, state;
};

TEST(Paths, Precedence) {
  const PathCase cases[] = {
      {"option wins", "/o/sock", "/c/sock",
       {{"SNANODE_SOCKET", "/e/sock"}, {"SNANODE_STATE_DIR", "/e/state"}}, "/o/sock", "/o/sock"},
      {"configuration next", "", "/c/x", {{"SNANODE_SOCKET", "/e/sock"}, {"SNANODE_STATE_DIR", "/e/st"}},
       "/c/x", "/c/x"},
      {"environment next", "", "", {{"SNANODE_SOCKET", "/e/sock"}, {"SNANODE_STATE_DIR", "/e/st"},
                                    {"XDG_RUNTIME_DIR", "/run/u"}, {"XDG_STATE_HOME", "/xs"}},
       "/e/sock", "/e/st"},
      {"XDG next", "", "", {{"XDG_RUNTIME_DIR", "/run/u"}, {"XDG_STATE_HOME", "/xs"}, {"HOME", "/h"}},
       "/run/u/snanode/socket", "/xs/snanode"},
      {"fallbacks", "", "", {{"HOME", "/h"}}, "/tmp/snanode-1234/socket", "/h/.local/state/snanode"},
      {"empty values do not count", "", "", {{"SNANODE_SOCKET", ""}, {"XDG_RUNTIME_DIR", ""}, {"HOME", "/h"},
                                              {"SNANODE_STATE_DIR", ""}, {"XDG_STATE_HOME", ""}},
       "/tmp/snanode-1234/socket", "/h/.local/state/snanode"},
      {"nothing for the state", "", "", {}, "/tmp/snanode-1234/socket", ""},
  };
  for (const PathCase& c : cases) {
    SCOPED_TRACE(c.name);
    EnvReader env = [&](const char* n) -> const char* {
      auto it = c.env.find(n);
      return it == c.env.end() ? nullptr : it->second.c_str();
    };
    EXPECT_EQ(choose_socket_path(c.option, c.configured, env, 1234), c.socket);
    EXPECT_EQ(choose_state_dir(c.option, c.configured, env), c.state);
  }
}

std::map<std::string, std::string> as_map(const std::vector<std::string>& env) {
  std::map<std::string, std::string> m;
  for (const std::string& e : env) {
    const size_t eq = e.find('=');
    EXPECT_NE(eq, std::string::npos) << e;
    EXPECT_EQ(m.count(e.substr(0, eq)), 0u) << "twice: " << e;
    m[e.substr(0, eq)] = e.substr(eq + 1);
  }
  return m;
}

TEST(ProgramEnvironment, CleanWithFixedVariablesLast) {
  const std::map<std::string, std::string> daemon = {
      {"HOME", "/home/op"}, {"USER", "op"}, {"LOGNAME", "op"}, {"LANG", "C.UTF-8"},
      {"PATH", "/daemon/bin"}, {"SECRET", "not passed"}, {"LD_PRELOAD", "/evil.so"}};
  auto env = [&](const char* n) -> const char* {
    auto it = daemon.find(n);
    return it == daemon.end() ? nullptr : it->second.c_str();
  };
  ProgramSpec spec;
  spec.environment = {{"MYVAR", "1"}, {"APPCTPN", "FORGED"}, {"SNANODE_SOCKET", "/forged"}, {"USER", "other"}};
  const auto m = as_map(program_environment(spec, "ECHO", "LOCAL", "/run/sock", env));
  const std::map<std::string, std::string> want = {
      {"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"HOME", "/home/op"}, {"USER", "other"},
      {"LOGNAME", "op"}, {"LANG", "C.UTF-8"}, {"MYVAR", "1"}, {"APPCTPN", "ECHO"},
      {"APPCLLU", "LOCAL"}, {"SNANODE_SOCKET", "/run/sock"}};
  EXPECT_EQ(m, want);
}

TEST(ProgramEnvironment, DefinitionMayGivePath) {
  ProgramSpec spec;
  spec.environment = {{"PATH", "/opt/tp/bin"}};
  auto none = [](const char*) -> const char* { return nullptr; };
  const auto m = as_map(program_environment(spec, "T", "L", "/s", none));
  EXPECT_EQ(m.at("PATH"), "/opt/tp/bin");
  EXPECT_EQ(m.count("HOME"), 0u);  // the daemon had none to give
  EXPECT_EQ(m.size(), 4u);
}

}  // namespace
}  // namespace sna::daemon
