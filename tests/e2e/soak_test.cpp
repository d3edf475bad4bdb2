// Soak: many conversations, one after another, through one daemon between
// a client and a partner that registered its TP name, and the daemon
// afterwards holding what it held after the first thousand: memory within
// a tolerance, exactly the same descriptors, no conversation, session in
// use or TP left behind. The two programs' memory and descriptors are held
// to the same, for the runtime libraries in them.
//
// SNA_SOAK_CONVERSATIONS sets the count (100000 when unset).
#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "node_status.h"
#include "wire/wire_protocol.h"

namespace e2e {
namespace {

long soak_count() {
  const char *v = std::getenv("SNA_SOAK_CONVERSATIONS");
  if (v == nullptr || *v == '\0') return 100000;
  const long n = std::strtol(v, nullptr, 10);
  return n > 0 ? n : 100000;
}

// Bound for running n conversations: generous, since a sanitizer build is
// several times slower than a plain one.
int budget_ms(long n) { return 60000 + static_cast<int>(n * 20); }

// One operator connection for the whole test: a connection opened per
// question would still be open in the daemon, or not, when its
// descriptors are counted.
class StatusChannel {
 public:
  bool open(const std::string &socket_path) {
    if (!client_.connect_to(socket_path) || !client_.hello(sna::wire::kHelloOperator)) return false;
    auto reply = client_.read_frame();
    return reply && sna::wire::decode_header(reply->data()).kind == sna::wire::Kind::kHelloReply;
  }
  std::optional<nlohmann::json> status() {
    const std::string text = R"({"command":"status"})";
    std::vector<uint8_t> frame(sna::wire::kHeaderSize + text.size());
    sna::wire::FrameHeader h;
    h.length = static_cast<uint32_t>(frame.size());
    h.kind = sna::wire::Kind::kOperator;
    h.tag = ++tag_;
    sna::wire::encode_header(frame.data(), h);
    std::copy(text.begin(), text.end(), frame.begin() + sna::wire::kHeaderSize);
    if (!client_.write_all(frame.data(), frame.size())) return std::nullopt;
    for (;;) {
      auto f = client_.read_frame();
      if (!f) return std::nullopt;
      if (sna::wire::decode_header(f->data()).kind != sna::wire::Kind::kOperatorReply) continue;
      auto parsed = nlohmann::json::parse(f->begin() + sna::wire::kHeaderSize, f->end(), nullptr, false);
      if (parsed.is_discarded()) return std::nullopt;
      return parsed;
    }
  }
  // Asks for the status until `done` holds for it; the last answer (or
  // none), whether it held or the time ran out.
  std::optional<nlohmann::json> status_when(const std::function<bool(const nlohmann::json &)> &done,
                                            int timeout_ms = kWaitMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      auto st = status();
      if (!st || done(*st) || Clock::now() >= deadline) return st;
      // Each answer comes at once; a short pause keeps the questions from
      // becoming the daemon's whole load.
      struct timespec step = {0, 10 * 1000 * 1000};
      ::nanosleep(&step, nullptr);
    }
  }
  // Waits until the daemon lists no client of this process (it has seen
  // the connection close and released what the client held).
  bool wait_client_gone(pid_t pid) {
    auto st = status_when([pid](const nlohmann::json &s) { return !status_lists_pid(s, pid); });
    return st && !status_lists_pid(*st, pid);
  }

 private:
  RawClient client_;
  uint64_t tag_ = 0;
};

struct Sample {
  long rss_kib;
  int fds;
  nlohmann::json status;
  // The two programs' own: their runtime libraries run every conversation too.
  long client_rss_kib = -1, server_rss_kib = -1;
  int client_fds = -1, server_fds = -1;
};

void add_programs(Sample &s, const Process &client, const Process &server) {
  s.client_rss_kib = vm_rss_kib(client.pid());
  s.server_rss_kib = vm_rss_kib(server.pid());
  s.client_fds = open_fd_count(client.pid());
  s.server_fds = open_fd_count(server.pid());
}

size_t sessions_in_use(const nlohmann::json &status) {
  size_t n = 0;
  for (const auto &s : status["sessions"]) n += s.value("in_use", false) ? 1 : 0;
  return n;
}

// Between two conversations: the client's deallocation has returned, but
// the partner's end of that conversation, and the TP the client's library
// ends with its last conversation, may still be on their way through the
// daemon. Settled, nothing is open but the TP of the partner's last
// conversation (its context until it accepts the next).
bool settled(const nlohmann::json &status) {
  return status["conversations"].empty() && sessions_in_use(status) == 0 &&
         status["tps"].size() <= 1;
}

// The status first: once the daemon has answered, it has finished with
// everything that came before.
Sample sample(const Daemon &d, StatusChannel &channel,
              const std::function<bool(const nlohmann::json &)> &done = settled) {
  auto st = channel.status_when(done);
  Sample s{vm_rss_kib(d.pid()), open_fd_count(d.pid()), nullptr};
  if (st) s.status = *st;
  return s;
}

TEST(Soak, ManyConversationsThroughOneDaemon) {
  const long count = soak_count();
  const long first = count < 1000 ? count : 1000;

  Daemon d(E2E_DAEMON);
  std::string why;
  ASSERT_TRUE(d.start("", &why)) << why;
  StatusChannel channel;
  ASSERT_TRUE(channel.open(d.socket()));
  const Sample idle = sample(d, channel, [](const nlohmann::json &) { return true; });
  ASSERT_TRUE(idle.status.is_object()) << "no status from the daemon";
  ASSERT_GT(idle.fds, 0);

  auto server = d.run("server", E2E_SOAK_PAIR, {"server", "SOAKSRV"});
  ASSERT_TRUE(server->expect("ready", &why)) << why << server->stderr_text();
  auto client = d.run("client", E2E_SOAK_PAIR,
                      {"client", "SOAKSRV", std::to_string(count), std::to_string(first)});

  const auto started = Clock::now();
  ASSERT_TRUE(client->expect("at " + std::to_string(first), &why, budget_ms(first)))
      << why << client->stderr_text() << server->transcript();
  Sample after_first = sample(d, channel);
  add_programs(after_first, *client, *server);
  if (first < count) {
    ASSERT_TRUE(client->send("go"));
    ASSERT_TRUE(client->expect("at " + std::to_string(count), &why, budget_ms(count - first)))
        << why << client->stderr_text() << server->transcript();
  }
  const int took_ms = elapsed_ms(started);
  Sample at_end = sample(d, channel);
  add_programs(at_end, *client, *server);
  std::printf("soak: %ld conversations in %.1f s (%.0f per second); daemon VmRSS %ld KiB after %ld, "
              "%ld KiB at the end; descriptors %d and %d\n",
              count, took_ms / 1000.0, took_ms > 0 ? count * 1000.0 / took_ms : 0.0,
              after_first.rss_kib, first, at_end.rss_kib, after_first.fds, at_end.fds);
  std::printf("soak: client VmRSS %ld and %ld KiB, partner %ld and %ld KiB\n", after_first.client_rss_kib,
              at_end.client_rss_kib, after_first.server_rss_kib, at_end.server_rss_kib);

  // Between conversations: none open, no session in use, the client's and
  // the partner's connections the only ones, at most the partner's TP.
  for (const Sample *s : {&after_first, &at_end}) {
    ASSERT_TRUE(s->status.is_object()) << "no status from the daemon";
    EXPECT_EQ(s->status["conversations"].size(), 0u) << s->status["conversations"].dump();
    EXPECT_EQ(sessions_in_use(s->status), 0u) << s->status["sessions"].dump();
    EXPECT_LE(s->status["tps"].size(), 1u) << s->status["tps"].dump();
    EXPECT_EQ(application_clients(s->status), 2u) << s->status["node"]["clients"].dump();
    EXPECT_TRUE(s->status["queued_attaches"].empty());
  }
  // A session is free again once both ends of its conversation are gone;
  // the client's next allocate may come before the partner has seen the
  // last one end, and then a second session is bound. No more can be
  // needed: the partner accepts the next conversation only after it has
  // finished the one before.
  for (const Sample *s : {&after_first, &at_end}) {
    EXPECT_LE(s->status["sessions"].size(), 2u) << s->status["sessions"].dump();
  }
  EXPECT_EQ(at_end.fds, after_first.fds) << "descriptors grew in the daemon";
  EXPECT_EQ(at_end.client_fds, after_first.client_fds) << "descriptors grew in the client";
  EXPECT_EQ(at_end.server_fds, after_first.server_fds) << "descriptors grew in the partner";
#if E2E_SANITIZED
  // The sanitizer's quarantine and shadow memory hold freed blocks back
  // for a while and grow with use, so the resident size says nothing about
  // leaks here; the sanitizer's own leak check at the daemon's exit does.
  std::printf("soak: resident size not compared under a sanitizer\n");
#else
  // The allocator keeps some freed memory cached and the status replies
  // vary in size: 2 MB covers a few arenas' worth of slack whatever the
  // count, 5 % the heap's fragmentation growing with it. A leak of even a
  // few dozen bytes per conversation exceeds that over 100,000.
  // Only a run several times longer than the first thousand says anything.
  if (count >= 5 * first) {
    auto within = [](long before, long after) { return after <= before + 2048 + before / 20; };
    EXPECT_TRUE(within(after_first.rss_kib, at_end.rss_kib))
        << "daemon VmRSS grew from " << after_first.rss_kib << " KiB to " << at_end.rss_kib << " KiB";
    EXPECT_TRUE(within(after_first.client_rss_kib, at_end.client_rss_kib))
        << "client VmRSS grew from " << after_first.client_rss_kib << " KiB to "
        << at_end.client_rss_kib << " KiB";
    EXPECT_TRUE(within(after_first.server_rss_kib, at_end.server_rss_kib))
        << "partner VmRSS grew from " << after_first.server_rss_kib << " KiB to "
        << at_end.server_rss_kib << " KiB";
  }
#endif

  // The last conversation ends the partner; both programs end cleanly.
  ASSERT_TRUE(client->send("go"));
  ASSERT_TRUE(client->expect("done " + std::to_string(count), &why)) << why;
  ASSERT_TRUE(server->expect("served " + std::to_string(count + 1), &why)) << why;
  auto client_status = client->wait();
  auto server_status = server->wait();
  ASSERT_TRUE(client_status && server_status);
  EXPECT_EQ(*client_status, 0) << client->stderr_text();
  EXPECT_EQ(*server_status, 0) << server->stderr_text();

  // With both gone the daemon is back where it started.
  EXPECT_TRUE(channel.wait_client_gone(client->pid()));
  EXPECT_TRUE(channel.wait_client_gone(server->pid()));
  const Sample gone = sample(d, channel, [](const nlohmann::json &st) {
    return settled(st) && st["tps"].empty() && st["registered_names"].empty();
  });
  ASSERT_TRUE(gone.status.is_object());
  EXPECT_EQ(gone.status["conversations"].size(), 0u);
  EXPECT_EQ(gone.status["tps"].size(), 0u) << gone.status["tps"].dump();
  EXPECT_EQ(gone.status["registered_names"].size(), 0u);
  EXPECT_EQ(sessions_in_use(gone.status), 0u);
  EXPECT_EQ(application_clients(gone.status), 0u);
  EXPECT_EQ(gone.fds, idle.fds) << "descriptors left open in the daemon";
  EXPECT_EQ(d.problems_log(), "") << "problem records during the soak";
  ASSERT_TRUE(d.terminate(&why)) << why;
}

}  // namespace
}  // namespace e2e
