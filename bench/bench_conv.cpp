// Two-process figures through a real node daemon, each next to the same
// pattern over a raw Unix-domain socket measured in the same run:
//   rt      round trip (send with prepare-to-receive, receive the answer)
//   stream  one-way stream of 32767-byte sends
//   setup   conversation set-up and tear-down rate
//   many    N conversations open at once: total time, the daemon's peak
//           memory and its memory per open conversation
//
//   bench_conv --daemon PATH --partner PATH [--quick] [--only SECTION]
//
// Prints one line per figure: "ROW<Tab>name<Tab>value<Tab>unit". Exits 1
// when anything fails (a return code, a short answer, a time-out).
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cpic.h"

namespace {

constexpr int kMaxData = 32767;
const int kSizes[] = {1, 100, 1024, kMaxData};

struct Options {
  std::string daemon, partner, only;
  bool quick = false;
};
Options g_opt;

class Node;
Node *g_node = nullptr;  // stopped by fail(), so no daemon outlives a failure
void stop_node(Node *node);

[[noreturn]] void fail(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fprintf(stderr, "bench_conv: ");
  vfprintf(stderr, fmt, ap);
  fprintf(stderr, "\n");
  va_end(ap);
  if (g_node != nullptr) stop_node(g_node);
  exit(1);
}

double now_s() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void row(const std::string &name, double value, const char *unit) {
  printf("ROW\t%s\t%.3f\t%s\n", name.c_str(), value, unit);
  fflush(stdout);
}

bool wanted(const char *section) { return g_opt.only.empty() || g_opt.only == section; }

// ---- raw socket helpers ---------------------------------------------------

void write_all(int fd, const void *data, size_t n) {
  const char *p = static_cast<const char *>(data);
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) fail("raw write: %s", strerror(errno));
    p += w;
    n -= static_cast<size_t>(w);
  }
}

// False at end of file before the first byte.
bool read_all(int fd, void *data, size_t n) {
  char *p = static_cast<char *>(data);
  size_t got = 0;
  while (got < n) {
    ssize_t r = ::read(fd, p + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r == 0 && got == 0) return false;
    if (r <= 0) fail("raw read: %s", r == 0 ? "end of file" : strerror(errno));
    got += static_cast<size_t>(r);
  }
  return true;
}

pid_t fork_child(int fd_for_child, int fd_to_close, void (*body)(int)) {
  pid_t pid = ::fork();
  if (pid < 0) fail("fork: %s", strerror(errno));
  if (pid == 0) {
    ::close(fd_to_close);
    body(fd_for_child);
    _exit(0);
  }
  ::close(fd_for_child);
  return pid;
}

void reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

// Echo: a 4-byte length, that many bytes; the same goes back. The length
// prefix gives the raw pattern the record framing a conversation has.
// Each message goes out in one write, the best a raw sender can do.
void raw_echo_child(int fd) {
  static char buffer[4 + kMaxData];
  uint32_t len = 0;
  while (read_all(fd, buffer, 4)) {
    memcpy(&len, buffer, 4);
    if (len > kMaxData) _exit(2);
    read_all(fd, buffer + 4, len);
    write_all(fd, buffer, 4 + len);
  }
}

// Sink: reads everything; at end of the stream (shutdown by the writer)
// answers one byte so the writer knows all of it arrived.
void raw_sink_child(int fd) {
  static char buffer[kMaxData];
  for (;;) {
    ssize_t r = ::read(fd, buffer, sizeof buffer);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) _exit(2);
    if (r == 0) break;
  }
  char ack = 1;
  write_all(fd, &ack, 1);
}

// ---- the node and the partner ---------------------------------------------

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
  ::remove(path);
  return 0;
}

// Waits for one byte or line on fd; false on time-out or end of file.
bool wait_readable(int fd, int timeout_ms) {
  struct pollfd p = {fd, POLLIN, 0};
  for (;;) {
    int n = ::poll(&p, 1, timeout_ms);
    if (n < 0 && errno == EINTR) continue;
    return n > 0;
  }
}

void stop_process(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  for (int i = 0; i < 500; ++i) {
    int status = 0;
    pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid || r < 0) return;
    struct timespec step = {0, 10 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  ::kill(pid, SIGKILL);
  reap(pid);
}

class Node {
 public:
  Node() {
    char pattern[] = "/tmp/snabench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) fail("mkdtemp: %s", strerror(errno));
    dir_ = pattern;
    g_node = this;
  }
  ~Node() {
    stop();
    g_node = nullptr;
  }
  void stop() {
    stop_process(partner_);
    partner_ = -1;
    stop_process(pid_);
    pid_ = -1;
    if (!dir_.empty() && getenv("BENCH_KEEP") == nullptr)
      ::nftw(dir_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    dir_.clear();
  }
  Node(const Node &) = delete;
  Node &operator=(const Node &) = delete;

  void start() {
    socket_ = dir_ + "/socket";
    state_ = dir_ + "/state";
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) fail("pipe: %s", strerror(errno));
    pid_ = ::fork();
    if (pid_ < 0) fail("fork: %s", strerror(errno));
    if (pid_ == 0) {
      ::dup2(ready[1], 3);
      int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, 0);
      std::string err = dir_ + "/daemon.err";
      int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      ::dup2(e, 1);
      ::dup2(e, 2);
      ::unsetenv("SNANODE_SOCKET");
      ::unsetenv("SNANODE_STATE_DIR");
      ::execl(g_opt.daemon.c_str(), g_opt.daemon.c_str(), "--socket", socket_.c_str(), "--state-dir",
              state_.c_str(), "--ready-fd", "3", static_cast<char *>(nullptr));
      _exit(127);
    }
    ::close(ready[1]);
    char byte = 0;
    bool ok = wait_readable(ready[0], 10000) && ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    if (!ok) fail("the daemon %s did not become ready (see %s/daemon.err)", g_opt.daemon.c_str(), dir_.c_str());
    // This process is the allocating TP: its runtime talks to this node.
    ::setenv("SNANODE_SOCKET", socket_.c_str(), 1);
    ::setenv("SNANODE_STATE_DIR", state_.c_str(), 1);
    ::setenv("SNANODE_AUTOSTART", "0", 1);
    ::unsetenv("SNANODE_TRACE");
    ::unsetenv("APPCTPN");
    ::unsetenv("APPCLLU");
  }

  // Starts the partner program with the arguments and waits for "ready".
  void start_partner(const std::vector<std::string> &args) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) fail("pipe: %s", strerror(errno));
    partner_ = ::fork();
    if (partner_ < 0) fail("fork: %s", strerror(errno));
    if (partner_ == 0) {
      ::dup2(out[1], 1);
      std::string err = dir_ + "/partner.err";
      int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      ::dup2(e, 2);
      std::vector<char *> argv;
      argv.push_back(const_cast<char *>(g_opt.partner.c_str()));
      for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      ::execv(g_opt.partner.c_str(), argv.data());
      _exit(127);
    }
    ::close(out[1]);
    char line[16] = {0};
    bool ok = wait_readable(out[0], 10000) && ::read(out[0], line, sizeof line - 1) > 0 &&
              strncmp(line, "ready", 5) == 0;
    ::close(out[0]);
    if (!ok) fail("the partner did not start (see %s/partner.err)", dir_.c_str());
  }

  // Kilobytes of a /proc/<pid>/status field of the daemon.
  long status_kb(const char *field) const {
    std::string path = "/proc/" + std::to_string(pid_) + "/status";
    FILE *f = ::fopen(path.c_str(), "r");
    if (f == nullptr) fail("open %s: %s", path.c_str(), strerror(errno));
    char line[256];
    long kb = -1;
    size_t flen = strlen(field);
    while (::fgets(line, sizeof line, f) != nullptr) {
      if (strncmp(line, field, flen) == 0 && line[flen] == ':') kb = atol(line + flen + 1);
    }
    ::fclose(f);
    if (kb < 0) fail("no %s in %s", field, path.c_str());
    return kb;
  }

 private:
  std::string dir_, socket_, state_;
  pid_t pid_ = -1;
  pid_t partner_ = -1;
};

void stop_node(Node *node) {
  g_node = nullptr;
  node->stop();
}

// ---- conversations ---------------------------------------------------------

void check(const char *call, CM_INT32 rc, CM_INT32 want = CM_OK) {
  if (rc != want) fail("%s gave return code %d (expected %d)", call, (int)rc, (int)want);
}

struct Conversation {
  unsigned char id[8];
};

Conversation allocate(const char *tp_name) {
  Conversation c;
  unsigned char blank[8];
  memset(blank, ' ', sizeof blank);
  CM_INT32 rc = 0;
  CMINIT(c.id, blank, &rc);
  check("CMINIT", rc);
  CM_INT32 len = static_cast<CM_INT32>(strlen(tp_name));
  CMSTPN(c.id, reinterpret_cast<unsigned char *>(const_cast<char *>(tp_name)), &len, &rc);
  check("CMSTPN", rc);
  unsigned char mode[] = "#INTER";
  CM_INT32 mode_len = 6;
  CMSMN(c.id, mode, &mode_len, &rc);
  check("CMSMN", rc);
  CMALLC(c.id, &rc);
  check("CMALLC", rc);
  return c;
}

void set_send_type(Conversation &c, CM_INT32 type) {
  CM_INT32 rc = 0;
  CMSST(c.id, &type, &rc);
  check("CMSST", rc);
}

void send(Conversation &c, unsigned char *data, CM_INT32 n) {
  CM_INT32 rts = 0, rc = 0;
  CMSEND(c.id, data, &n, &rts, &rc);
  check("CMSEND", rc);
}

// Receives until the right to send comes back; the data must be `expect`
// bytes (the partner's echo of our last record).
void receive_answer(Conversation &c, unsigned char *buffer, CM_INT32 expect) {
  CM_INT32 total = 0;
  for (;;) {
    CM_INT32 requested = kMaxData, received = 0, data_received = 0, status = 0, rts = 0, rc = 0;
    CMRCV(c.id, buffer, &requested, &data_received, &received, &status, &rts, &rc);
    check("CMRCV", rc);
    if (data_received != CM_NO_DATA_RECEIVED) total = received;
    if (status == CM_SEND_RECEIVED) break;
  }
  if (total != expect) fail("the answer has %d bytes, expected %d", (int)total, (int)expect);
}

void deallocate(Conversation &c) {
  CM_INT32 rc = 0;
  CMDEAL(c.id, &rc);
  check("CMDEAL", rc);
}

// Iterations of one timed loop: until `seconds` have passed, at least
// `min_count`, at most `max_count`.
struct Budget {
  double seconds;
  long min_count, max_count;
};
Budget rt_budget() { return g_opt.quick ? Budget{0.0, 5, 5} : Budget{1.0, 200, 2000000}; }

// The median of five windows, each a fifth of the budget: a burst of other
// load on the machine spoils one window, not the figure.
template <class Fn>
double per_iteration_us(const Budget &b, Fn &&fn) {
  constexpr int kWindows = 5;
  double window_us[kWindows];
  for (int w = 0; w < kWindows; ++w) {
    const double seconds = b.seconds / kWindows;
    const long min_count = (b.min_count + kWindows - 1) / kWindows;
    const long max_count = (b.max_count + kWindows - 1) / kWindows;
    double t0 = now_s(), t = t0;
    long n = 0;
    while (n < min_count || (t - t0 < seconds && n < max_count)) {
      fn();
      ++n;
      if ((n & 15) == 0 || n < 16) t = now_s();
    }
    t = now_s();
    window_us[w] = (t - t0) * 1e6 / static_cast<double>(n);
  }
  std::sort(window_us, window_us + kWindows);
  return window_us[kWindows / 2];
}

// ---- the figures -----------------------------------------------------------

std::vector<unsigned char> g_data(kMaxData, 0x5A);
std::vector<unsigned char> g_reply(kMaxData);

void bench_round_trip_ours(const char *tp) {
  Conversation c = allocate(tp);
  set_send_type(c, CM_SEND_AND_PREP_TO_RECEIVE);
  for (int i = 0; i < 20; ++i) {  // warm the session and both runtimes
    send(c, g_data.data(), 100);
    receive_answer(c, g_reply.data(), 100);
  }
  for (int size : kSizes) {
    double us = per_iteration_us(rt_budget(), [&] {
      send(c, g_data.data(), size);
      receive_answer(c, g_reply.data(), size);
    });
    row("rt_ours_" + std::to_string(size), us, "us");
  }
  deallocate(c);
}

void bench_round_trip_raw() {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) fail("socketpair: %s", strerror(errno));
  pid_t child = fork_child(sv[1], sv[0], raw_echo_child);
  int fd = sv[0];
  std::vector<unsigned char> message(4 + kMaxData, 0x5A);
  auto one = [&](int size) {
    uint32_t len = static_cast<uint32_t>(size);
    memcpy(message.data(), &len, 4);
    write_all(fd, message.data(), 4 + len);
    uint32_t back = 0;
    if (!read_all(fd, &back, sizeof back) || back != len) fail("raw echo: bad length");
    read_all(fd, g_reply.data(), back);
  };
  for (int i = 0; i < 20; ++i) one(100);
  for (int size : kSizes) {
    double us = per_iteration_us(rt_budget(), [&] { one(size); });
    row("rt_raw_" + std::to_string(size), us, "us");
  }
  ::close(fd);
  reap(child);
}

long long stream_bytes() { return g_opt.quick ? (1LL << 20) : (1LL << 30); }

void bench_stream_ours(const char *tp) {
  Conversation c = allocate(tp);
  set_send_type(c, CM_BUFFER_DATA);
  const long long total = stream_bytes();
  double t0 = now_s();
  for (long long sent = 0; sent < total; sent += kMaxData) {
    CM_INT32 n = static_cast<CM_INT32>(total - sent < kMaxData ? total - sent : kMaxData);
    send(c, g_data.data(), n);
  }
  // The partner answers the last record once it holds the right to send:
  // then everything before it has been received.
  set_send_type(c, CM_SEND_AND_PREP_TO_RECEIVE);
  send(c, g_data.data(), 1);
  receive_answer(c, g_reply.data(), 1);
  double t = now_s() - t0;
  row("stream_ours", static_cast<double>(total + 1) / t / 1e6, "MB/s");
  deallocate(c);
}

void bench_stream_raw() {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) fail("socketpair: %s", strerror(errno));
  pid_t child = fork_child(sv[1], sv[0], raw_sink_child);
  int fd = sv[0];
  const long long total = stream_bytes();
  double t0 = now_s();
  for (long long sent = 0; sent < total; sent += kMaxData) {
    size_t n = static_cast<size_t>(total - sent < kMaxData ? total - sent : kMaxData);
    write_all(fd, g_data.data(), n);
  }
  ::shutdown(fd, SHUT_WR);
  char ack = 0;
  if (!read_all(fd, &ack, 1)) fail("raw stream: no acknowledgement");
  double t = now_s() - t0;
  row("stream_raw", static_cast<double>(total) / t / 1e6, "MB/s");
  ::close(fd);
  reap(child);
}

// A conversation that the (sequential) partner can only answer after it has
// finished every earlier one.
void barrier(const char *tp) {
  Conversation c = allocate(tp);
  set_send_type(c, CM_SEND_AND_PREP_TO_RECEIVE);
  send(c, g_data.data(), 1);
  receive_answer(c, g_reply.data(), 1);
  deallocate(c);
}

void bench_setup(const char *tp) {
  barrier(tp);  // warm
  const Budget b = g_opt.quick ? Budget{0.0, 5, 5} : Budget{2.0, 100, 100000};
  double t0 = now_s(), t = t0;
  long n = 0;
  while (n < b.min_count || (t - t0 < b.seconds && n < b.max_count)) {
    Conversation c = allocate(tp);
    send(c, g_data.data(), 100);
    deallocate(c);
    ++n;
    t = now_s();
  }
  barrier(tp);
  t = now_s() - t0;
  row("setup_ours", static_cast<double>(n) / t, "conv/s");
}

void bench_many(Node &node, int count, const char *tp) {
  const long rss_before = node.status_kb("VmRSS");
  double t0 = now_s();
  std::vector<Conversation> convs;
  convs.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    convs.push_back(allocate(tp));
    set_send_type(convs.back(), CM_SEND_AND_PREP_TO_RECEIVE);
    send(convs.back(), g_data.data(), 100);
  }
  for (auto &c : convs) receive_answer(c, g_reply.data(), 100);
  // All of them open and idle: what the daemon holds for them now.
  const long rss_open = node.status_kb("VmRSS");
  for (auto &c : convs) deallocate(c);
  barrier(tp);
  double t = now_s() - t0;
  row("many_total", t * 1e3, "ms");
  row("many_daemon_vmhwm", static_cast<double>(node.status_kb("VmHWM")), "KiB");
  row("mem_per_conv", static_cast<double>(rss_open - rss_before) * 1024.0 / count, "B");
}

void usage() {
  fprintf(stderr, "usage: bench_conv --daemon PATH --partner PATH [--quick] [--only rt|stream|setup|many]\n");
  exit(2);
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--daemon" && i + 1 < argc) {
      g_opt.daemon = argv[++i];
    } else if (a == "--partner" && i + 1 < argc) {
      g_opt.partner = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      g_opt.only = argv[++i];
    } else if (a == "--quick") {
      g_opt.quick = true;
    } else {
      usage();
    }
  }
  if (g_opt.daemon.empty() || g_opt.partner.empty()) usage();
  ::signal(SIGPIPE, SIG_IGN);

  // Each group in a process of its own with a node of its own: the
  // runtime keeps one connection per process, and the peak memory of the
  // "many" node must be that figure's alone.
  auto run_group = [](void (*body)()) {
    fflush(stdout);
    pid_t pid = ::fork();
    if (pid < 0) fail("fork: %s", strerror(errno));
    if (pid == 0) {
      body();
      fflush(stdout);
      _exit(0);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  };
  bool ok = true;
  if (wanted("rt") || wanted("stream") || wanted("setup")) {
    ok = run_group([] {
           Node node;
           node.start();
           node.start_partner({"BENCHSRV", "serve"});
           if (wanted("rt")) {
             bench_round_trip_raw();
             bench_round_trip_ours("BENCHSRV");
           }
           if (wanted("stream")) {
             bench_stream_raw();
             bench_stream_ours("BENCHSRV");
           }
           if (wanted("setup")) bench_setup("BENCHSRV");
         }) && ok;
  }
  if (wanted("many")) {
    ok = run_group([] {
           const int count = g_opt.quick ? 20 : 1000;
           Node node;
           node.start();
           node.start_partner({"BENCHMNY", "many", std::to_string(count)});
           bench_many(node, count, "BENCHMNY");
         }) && ok;
  }
  return ok ? 0 : 1;
}
