// Faults through the real daemon: a partner killed at every step of a
// conversation, the daemon killed under programs that go on, clients that
// stop reading or flood the socket, and a thousand programs that vanish
// without cleaning up. Each case writes down the outcome it expects; the
// daemon must stay up and go on serving.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <random>
#include <thread>

#include "configs.h"
#include "harness.h"
#include "node_status.h"
#include "scenario.h"
#include "snanode/node.h"
#include "snanode/verbs.h"
#include "wire/wire_protocol.h"

namespace e2e {
namespace {

using Steps = std::vector<std::string>;

Steps operator+(Steps a, const Steps &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Actions this file adds to the scenario steps:
//   "!gone P"  the daemon has seen program P's connection close
//   "!alive"   the daemon process is still running
void add_actions(ScenarioRunner &runner, Daemon &daemon) {
  runner.extra_action = [&runner, &daemon](const std::string &text, std::string *why) {
    std::istringstream in(text);
    std::string verb, name;
    in >> verb >> name;
    if (verb == "gone") {
      Process *p = runner.program(name);
      if (p == nullptr) {
        *why = "no program " + name;
        return false;
      }
      if (!wait_client_gone(daemon.socket(), p->pid())) {
        *why = "the daemon still lists " + name + " as a client";
        return false;
      }
      return true;
    }
    if (verb == "alive") {
      if (!process_alive(daemon.pid())) {
        *why = "the daemon is gone";
        return false;
      }
      return true;
    }
    *why = "unknown action " + verb;
    return false;
  };
}

// ---- a partner killed at each step -----------------------------------

// A (allocator) and B (acceptor) are CPI-C programs; B registered SRV.
Steps pair() { return {"+A cpic", "+B cpic", "B: CMSLTP SRV | CMSLTP CM_OK"}; }

Steps allocated(const Steps &sets = {}) {
  Steps s = {"A: CMINIT c | CMINIT CM_OK", "A: CMSTPN c SRV | CMSTPN CM_OK"};
  for (const auto &set : sets) s.push_back("A: " + set);
  return s + Steps{"A: CMALLC c | CMALLC CM_OK", "B: CMACCP b", "A: CMFLUS c | CMFLUS CM_OK",
                   "B< CMACCP CM_OK"};
}

// The surviving allocator converses again, with a new acceptor.
Steps allocator_again() {
  return {"!alive",
          "+B2 cpic",
          "B2: CMSLTP SRV | CMSLTP CM_OK",
          "A: CMINIT n | CMINIT CM_OK",
          "A: CMSTPN n SRV | CMSTPN CM_OK",
          "A: CMALLC n | CMALLC CM_OK",
          "B2: CMACCP b",
          "A: CMSST n CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
          "A: CMSEND n AGAIN | CMSEND CM_OK",
          "B2< CMACCP CM_OK",
          "B2: CMRCV b 100 | CMRCV CM_OK text=AGAIN st=CM_SEND_RECEIVED",
          "B2: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
          "B2: CMSEND b BACK | CMSEND CM_OK",
          "A: CMRCV n 100 | CMRCV CM_OK text=BACK st=CM_SEND_RECEIVED"};
}

// The surviving acceptor accepts again, from a new allocator.
Steps acceptor_again() {
  return {"!alive",
          "+A2 cpic",
          "B: CMACCP n",
          "A2: CMINIT c | CMINIT CM_OK",
          "A2: CMSTPN c SRV | CMSTPN CM_OK",
          "A2: CMALLC c | CMALLC CM_OK",
          "A2: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
          "A2: CMSEND c AGAIN | CMSEND CM_OK",
          "B< CMACCP CM_OK",
          "B: CMRCV n 100 | CMRCV CM_OK text=AGAIN st=CM_SEND_RECEIVED",
          "B: CMSST n CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
          "B: CMSEND n BACK | CMSEND CM_OK",
          "A2: CMRCV c 100 | CMRCV CM_OK text=BACK st=CM_SEND_RECEIVED"};
}

const std::string kBasic = "CMSCT c CM_BASIC_CONVERSATION | CMSCT CM_OK";
const std::string kConfirm = "CMSSL c CM_CONFIRM | CMSSL CM_OK";

const std::vector<Row> &killed_partner_rows() {
  static const std::vector<Row> table = {
      // B has registered SRV but not yet accepted: A's attach waits in the
      // name's queue, and goes with B's registration.
      {"BeforeAcceptWithTheAttachQueued",
       pair() + Steps{
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c HI | CMSEND CM_OK",
           "!kill B",
           "!gone B",
           "A: CMRCV c 100 | CMRCV CM_TP_NOT_AVAILABLE_RETRY",
       } + allocator_again()},
      // B dies waiting in CMACCP: afterwards nobody has the name, and the
      // node knows no program for it.
      {"BeforeAcceptWhileWaitingInAccept",
       pair() + Steps{
           "B: CMACCP b",
           "!kill B",
           "!gone B",
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c HI | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_TPN_NOT_RECOGNIZED",
       } + allocator_again()},
      {"AfterAcceptBeforeReceivingMapped",
       pair() + allocated() + Steps{
           "!kill B",
           "!gone B",
           "A: CMSEND c LATE | CMSEND CM_DEALLOCATED_ABEND",
           "A: CMSEND c LATE | CMSEND CM_PROGRAM_PARAMETER_CHECK",
       } + allocator_again()},
      {"AfterAcceptBeforeReceivingBasic",
       pair() + allocated({kBasic}) + Steps{
           "!kill B",
           "!gone B",
           "A: CMSEND c x:00064C415445 | CMSEND CM_DEALLOCATED_ABEND_SVC",
       } + allocator_again()},
      // A has data in its send buffer when B goes: the buffer is discarded,
      // and A's next send reports the end.
      {"SurvivorInSendStateWithBufferedData",
       pair() + allocated() + Steps{
           "A: CMSEND c PART1 | CMSEND CM_OK",
           "!kill B",
           "!gone B",
           "A: CMSEND c PART2 | CMSEND CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      // B sent and flushed, then died before receiving: A gets the data
      // first, then the end.
      {"AfterThePartnerSentBeforeItReceived",
       pair() + allocated() + Steps{
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c TURN | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=TURN st=CM_SEND_RECEIVED",
           "B: CMSST b CM_SEND_AND_FLUSH | CMSST CM_OK",
           "B: CMSEND b REPLY | CMSEND CM_OK",
           "!kill B",
           "!gone B",
           "A: CMRCV c 100 | CMRCV CM_OK text=REPLY st=CM_NO_STATUS_RECEIVED",
           "A: CMRCV c 100 | CMRCV CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      {"AfterThePartnerSentBeforeItReceivedBasic",
       pair() + allocated({kBasic}) + Steps{
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c x:000354 | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK data=000354 st=CM_SEND_RECEIVED",
           "B: CMSST b CM_SEND_AND_FLUSH | CMSST CM_OK",
           "B: CMSEND b x:000352 | CMSEND CM_OK",
           "!kill B",
           "!gone B",
           "A: CMRCV c 100 | CMRCV CM_OK data=000352",
           "A: CMRCV c 100 | CMRCV CM_DEALLOCATED_ABEND_SVC",
       } + allocator_again()},
      // B waits in CMRCV for data that never comes.
      {"PartnerBlockedInReceive",
       pair() + allocated() + Steps{
           "B: CMRCV b 100",
           "!kill B",
           "!gone B",
           "A: CMSEND c LATE | CMSEND CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      // The survivor is the one blocked in CMRCV.
      {"SurvivorBlockedInReceive",
       pair() + allocated() + Steps{
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c TURN | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=TURN st=CM_SEND_RECEIVED",
           "A: CMRCV c 100",
           "!kill B",
           "A< CMRCV CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      // A waits in CMCFM for B's reply; B has seen the request and dies.
      {"DuringConfirmTheAllocatorWaits",
       pair() + allocated({kConfirm}) + Steps{
           "A: CMSEND c Q | CMSEND CM_OK",
           "A: CMCFM c",
           "B: CMRCV b 100 | CMRCV CM_OK text=Q st=CM_CONFIRM_RECEIVED",
           "!kill B",
           "A< CMCFM CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      // B holds A's confirmation request; A dies while it waits in CMCFM.
      // B's reply finds nobody but succeeds (it waits for nothing); the end
      // comes with B's next receive.
      {"DuringConfirmTheRequesterDies",
       pair() + allocated({kConfirm}) + Steps{
           "A: CMSEND c Q | CMSEND CM_OK",
           "A: CMCFM c",
           "B: CMRCV b 100 | CMRCV CM_OK text=Q st=CM_CONFIRM_RECEIVED",
           "!kill A",
           "!gone A",
           "B: CMCFMD b | CMCFMD CM_OK",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_ABEND",
       } + acceptor_again()},
      {"DuringConfirmTheRequesterDiesBasic",
       pair() + allocated({kBasic, kConfirm}) + Steps{
           "A: CMSEND c x:000351 | CMSEND CM_OK",
           "A: CMCFM c",
           "B: CMRCV b 100 | CMRCV CM_OK data=000351 st=CM_CONFIRM_RECEIVED",
           "!kill A",
           "!gone A",
           "B: CMCFMD b | CMCFMD CM_OK",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_ABEND_SVC",
       } + acceptor_again()},
      // A deallocates with confirmation and waits; B has the request, dies.
      {"DuringDeallocateTheDeallocatorWaits",
       pair() + allocated({kConfirm}) + Steps{
           "A: CMSDT c CM_DEALLOCATE_SYNC_LEVEL | CMSDT CM_OK",
           "A: CMDEAL c",
           "B: CMRCV b 100 | CMRCV CM_OK st=CM_CONFIRM_DEALLOC_RECEIVED",
           "!kill B",
           "A< CMDEAL CM_DEALLOCATED_ABEND",
       } + allocator_again()},
      // B holds the deallocation's confirmation request; A dies meanwhile.
      // Confirming ends B's end as it would have anyway.
      {"DuringDeallocateTheDeallocatorDies",
       pair() + allocated({kConfirm}) + Steps{
           "A: CMSDT c CM_DEALLOCATE_SYNC_LEVEL | CMSDT CM_OK",
           "A: CMDEAL c",
           "B: CMRCV b 100 | CMRCV CM_OK st=CM_CONFIRM_DEALLOC_RECEIVED",
           "!kill A",
           "!gone A",
           "B: CMCFMD b | CMCFMD CM_OK",
           "B: CMRCV b 100 | CMRCV CM_PROGRAM_PARAMETER_CHECK",
       } + acceptor_again()},
      // A deallocated normally and died before B received: the end was
      // already delivered, so B sees the data and the normal end.
      {"AfterANormalDeallocate",
       pair() + allocated() + Steps{
           "A: CMSEND c LAST | CMSEND CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "!kill A",
           "!gone A",
           "B: CMRCV b 100 | CMRCV CM_OK text=LAST",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_NORMAL",
       } + acceptor_again()},
  };
  return table;
}

class KilledPartner : public ::testing::TestWithParam<Row> {};

TEST_P(KilledPartner, SurvivorGetsItsCodeAndTheNodeGoesOn) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  add_actions(runner, daemon);
  EXPECT_EQ(runner.run(GetParam().steps), "");
  EXPECT_TRUE(process_alive(daemon.pid()));
}

INSTANTIATE_TEST_SUITE_P(Fault, KilledPartner, ::testing::ValuesIn(killed_partner_rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

// ---- the daemon killed under running programs --------------------------

bool connect_refused(const std::string &path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  const bool refused =
      ::connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 && errno == ECONNREFUSED;
  ::close(fd);
  return refused;
}

// Two programs hold two conversations when the daemon is killed. Both
// learn of the loss without a call outstanding, their conversations are
// gone, the killed daemon's socket file is replaced by the next one, and
// the same processes converse again.
TEST(DaemonKilled, ProgramsLoseTheirConversationsAndConverseAgainOnTheNextDaemon) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  runner.extra_action = [&](const std::string &text, std::string *why) {
    struct stat st {};
    if (text == "stale") {
      // What a killed daemon leaves: the socket file, with nobody behind it.
      if (::lstat(daemon.socket().c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
        *why = "no socket file left behind";
        return false;
      }
      if (!connect_refused(daemon.socket())) {
        *why = "connecting to the stale socket was not refused";
        return false;
      }
      return true;
    }
    if (text == "replaced") {
      if (::lstat(daemon.socket().c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
        *why = "no socket after the restart";
        return false;
      }
      // (The new file may well get the old one's inode number back.)
      if (connect_refused(daemon.socket())) {
        *why = "the socket after the restart refuses connections";
        return false;
      }
      if ((st.st_mode & 07777) != 0600) {
        *why = "the new socket's mode is not 0600";
        return false;
      }
      return true;
    }
    *why = "unknown action " + text;
    return false;
  };
  EXPECT_EQ(runner.run(Steps{
                "+A cpic",
                "+B cpic",
                "B: CMSLTP SRV | CMSLTP CM_OK",
                "A: CMINIT c1 | CMINIT CM_OK",
                "A: CMSTPN c1 SRV | CMSTPN CM_OK",
                "A: CMALLC c1 | CMALLC CM_OK",
                "B: CMACCP b1",
                "A: CMFLUS c1 | CMFLUS CM_OK",
                "B< CMACCP CM_OK",
                "A: CMINIT c2 | CMINIT CM_OK",
                "A: CMSTPN c2 SRV | CMSTPN CM_OK",
                "A: CMALLC c2 | CMALLC CM_OK",
                "B: CMACCP b2",
                "A: CMSEND c2 HELD | CMSEND CM_OK",
                "A: CMFLUS c2 | CMFLUS CM_OK",
                "B< CMACCP CM_OK",
                "!killdaemon",
                // Nothing outstanding: the runtime notices the closed
                // connection by itself.
                "A< event 0x8001",
                "B< event 0x8001",
                "!stale",
                // With no node at all: the old conversations are gone, and a
                // new allocation finds no node to go to.
                "A: CMSEND c1 X | CMSEND CM_PROGRAM_PARAMETER_CHECK",
                "A: CMINIT z | CMINIT CM_OK",
                "A: CMSTPN z SRV | CMSTPN CM_OK",
                "A: CMALLC z | CMALLC CM_PRODUCT_SPECIFIC_ERROR",
                "!restart",
                "!replaced",
                // The library has dropped every conversation of the lost node.
                "A: CMSEND c1 X | CMSEND CM_PROGRAM_PARAMETER_CHECK",
                "A: CMSEND c2 X | CMSEND CM_PROGRAM_PARAMETER_CHECK",
                "B: CMRCV b1 100 | CMRCV CM_PROGRAM_PARAMETER_CHECK",
                "B: CMRCV b2 100 | CMRCV CM_PROGRAM_PARAMETER_CHECK",
                // The same processes, without a restart, on the new daemon.
                "B: CMSLTP SRV | CMSLTP CM_OK",
                "A: CMINIT n | CMINIT CM_OK",
                "A: CMSTPN n SRV | CMSTPN CM_OK",
                "A: CMALLC n | CMALLC CM_OK",
                "B: CMACCP m",
                "A: CMSST n CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "A: CMSEND n AGAIN | CMSEND CM_OK",
                "B< CMACCP CM_OK",
                "B: CMRCV m 100 | CMRCV CM_OK text=AGAIN st=CM_SEND_RECEIVED",
                "B: CMSST m CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "B: CMSEND m BACK | CMSEND CM_OK",
                "A: CMRCV n 100 | CMRCV CM_OK text=BACK st=CM_SEND_RECEIVED",
            }, false),
            "");
  // The new daemon knows nothing of the old conversations: the two ends of
  // the new one are all it has.
  auto st = node_status(daemon.socket());
  ASSERT_TRUE(st);
  EXPECT_EQ((*st)["conversations"].size(), 2u) << st->dump();
  EXPECT_EQ(runner.finish(), "");
}

// ---- clients that stop reading or flood the socket ---------------------

std::vector<uint8_t> get_state_frame() {
  std::vector<uint8_t> f(sna::wire::kHeaderSize + sna::wire::kVerbFixedSize, 0);
  sna::wire::FrameHeader h;
  h.length = static_cast<uint32_t>(f.size());
  h.kind = sna::wire::Kind::kVerb;
  h.tag = 1;
  sna::wire::encode_header(f.data(), h);
  sna::wire::Verb v;
  v.opcode = 0x0009;  // GET_STATE for no TP: answered at once, with a check
  sna::wire::encode_verb(f.data() + sna::wire::kHeaderSize, v);
  return f;
}

// A ping-pong between the driver pair A and B (conversation C, A in send
// state): each round trip must complete within `bound_ms`; returns the
// slowest, or -1 with `why` set.
int round_trips(ScenarioRunner &runner, int count, int bound_ms, std::string *why) {
  int slowest = 0;
  for (int i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    const auto start = Clock::now();
    std::string failure = runner.run(Steps{
        "A: send c=C text=PING" + n + " type=3 | - SEND_DATA p=0x0000",
        "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=PING" + n,
        "B: send c=C text=PONG" + n + " type=3 | - SEND_DATA p=0x0000",
        "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=PONG" + n,
    }, false);
    if (!failure.empty()) {
      *why = "round trip " + n + ": " + failure;
      return -1;
    }
    const int ms = elapsed_ms(start);
    slowest = std::max(slowest, ms);
    if (ms > bound_ms) {
      *why = "round trip " + n + " took " + std::to_string(ms) + " ms";
      return -1;
    }
  }
  return slowest;
}

Steps driver_pair() {
  return {"+A driver",
          "+B driver",
          "A: tp_started as=T | - TP_STARTED p=0x0000",
          "B: register name=SRV | - REGISTER p=0x0000",
          "B: accept as=C async=acc | issued acc",
          "A: allocate tp=T as=C tpn=SRV | - ALLOCATE p=0x0000",
          "A: flush c=C | - FLUSH p=0x0000",
          "B< acc RECEIVE_ALLOCATE p=0x0000"};
}

// Growth of the daemon's resident set a test allows while a client
// misbehaves: far below what unbounded buffering of the test's traffic
// would take.
constexpr long kRssGrowthLimitKib = 16 * 1024;

// Under AddressSanitizer freed memory waits in a quarantine (256 MB by
// default) before it is reused, which a flood of short-lived buffers fills:
// the daemons of these tests get a small one, so that what they keep is
// what they hold.
void start_bounded_node(Daemon &daemon) {
#if defined(__SANITIZE_ADDRESS__)
  const char *old = ::getenv("ASAN_OPTIONS");
  const std::string saved = old ? old : "";
  ::setenv("ASAN_OPTIONS", (saved + (saved.empty() ? "" : ":") + "quarantine_size_mb=4").c_str(), 1);
  const std::string why = start_test_node(daemon);
  if (old) ::setenv("ASAN_OPTIONS", saved.c_str(), 1);
  else ::unsetenv("ASAN_OPTIONS");
#else
  const std::string why = start_test_node(daemon);
#endif
  ASSERT_EQ(why, "");
}

// A client that says HELLO, sends request after request and never reads a
// reply. The daemon stops reading it once its replies pile up (the
// connection stays, neither served nor dropped), its memory stays bounded,
// and another conversation's round trips go on completing meanwhile.
TEST(StuckClient, ReplyPileUpLeavesOthersServedAndTheDaemonBounded) {
  Daemon daemon(E2E_DAEMON);
  start_bounded_node(daemon);
  if (HasFatalFailure()) return;
  ScenarioRunner runner(daemon);
  ASSERT_EQ(runner.run(driver_pair(), false), "");
  std::string why;
  ASSERT_GE(round_trips(runner, 5, 2000, &why), 0) << why;  // warm
  const long rss_before = vm_rss_kib(daemon.pid());
  ASSERT_GT(rss_before, 0);

  RawClient stuck;
  ASSERT_TRUE(stuck.connect_to(daemon.socket()));
  ASSERT_TRUE(stuck.hello());
  const auto frame = get_state_frame();
  std::atomic<bool> stop{false};
  std::atomic<size_t> written{0};
  std::atomic<int> longest_block_ms{0};
  std::thread writer([&] {
    size_t off = 0;
    auto blocked_since = Clock::now();
    while (!stop.load()) {
      struct pollfd p = {stuck.fd(), POLLOUT, 0};
      if (::poll(&p, 1, 20) != 1) {
        longest_block_ms = std::max(longest_block_ms.load(), elapsed_ms(blocked_since));
        continue;
      }
      ssize_t n = ::send(stuck.fd(), frame.data() + off, frame.size() - off, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n <= 0) {
        if (errno == EAGAIN) continue;
        break;
      }
      blocked_since = Clock::now();
      off += static_cast<size_t>(n);
      if (off == frame.size()) {
        off = 0;
        ++written;
      }
    }
  });
  // Round trips while the client piles up replies.
  const int slowest = round_trips(runner, 200, 1000, &why);
  // Give the writer time to find the daemon has stopped reading it.
  const auto waited = Clock::now();
  while (longest_block_ms.load() < 1000 && elapsed_ms(waited) < 5000) {
    EXPECT_GE(round_trips(runner, 1, 1000, &why), 0) << why;
  }
  const long rss_after = vm_rss_kib(daemon.pid());
  stop = true;
  writer.join();
  EXPECT_GE(slowest, 0) << why;
  EXPECT_GT(written.load(), 100u);
  EXPECT_GE(longest_block_ms.load(), 1000) << "the daemon kept reading the client that never reads";
  EXPECT_LT(rss_after - rss_before, kRssGrowthLimitKib)
      << "RSS grew from " << rss_before << " to " << rss_after << " KiB";
  // Not dropped: the daemon still lists the client (this process).
  auto st = node_status(daemon.socket());
  ASSERT_TRUE(st);
  size_t mine = 0;
  for (const auto &c : (*st)["node"]["clients"]) {
    if (c.value("pid", -1) == ::getpid() && !c.value("operator", false)) ++mine;
  }
  EXPECT_EQ(mine, 1u) << st->dump();
  EXPECT_EQ(runner.finish(), "");
}

// A client that writes valid verb frames as fast as it can and reads its
// replies: the daemon serves it in full (it is neither throttled below
// what it reads nor dropped), and other clients' round trips stay fast.
TEST(FloodingClient, ValidRequestsAsFastAsPossibleLeaveOthersResponsive) {
  Daemon daemon(E2E_DAEMON);
  start_bounded_node(daemon);
  if (HasFatalFailure()) return;
  ScenarioRunner runner(daemon);
  ASSERT_EQ(runner.run(driver_pair(), false), "");
  std::string why;
  ASSERT_GE(round_trips(runner, 5, 2000, &why), 0) << why;
  const long rss_before = vm_rss_kib(daemon.pid());

  RawClient flood;
  ASSERT_TRUE(flood.connect_to(daemon.socket()));
  ASSERT_TRUE(flood.hello());
  auto hello_reply = flood.read_frame();
  ASSERT_TRUE(hello_reply);
  const auto frame = get_state_frame();
  std::vector<uint8_t> batch;
  for (int i = 0; i < 64; ++i) batch.insert(batch.end(), frame.begin(), frame.end());
  std::atomic<bool> stop{false};
  std::atomic<size_t> written_bytes{0};
  std::atomic<size_t> replies{0};
  std::atomic<bool> broken{false};
  std::thread writer([&] {
    size_t off = 0;
    while (!stop.load()) {
      struct pollfd p = {flood.fd(), POLLOUT, 0};
      if (::poll(&p, 1, 20) != 1) continue;
      ssize_t n = ::send(flood.fd(), batch.data() + off, batch.size() - off, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n < 0 && errno == EAGAIN) continue;
      if (n <= 0) {
        broken = true;
        return;
      }
      written_bytes += static_cast<size_t>(n);
      off = (off + static_cast<size_t>(n)) % batch.size();
    }
    // Finish the frame under way, so that every request is whole.
    while (off % frame.size() != 0) {
      size_t left = frame.size() - off % frame.size();
      if (!flood.write_all(batch.data() + off, left, 2000)) {
        broken = true;
        return;
      }
      written_bytes += left;
      off = (off + left) % batch.size();
    }
  });
  std::thread reader([&] {
    std::vector<uint8_t> pending;
    uint8_t chunk[65536];
    for (;;) {
      struct pollfd p = {flood.fd(), POLLIN, 0};
      int r = ::poll(&p, 1, 100);
      if (r == 0) {
        if (stop.load() && replies.load() * frame.size() >= written_bytes.load()) return;
        if (stop.load() && broken.load()) return;
        continue;
      }
      ssize_t n = ::recv(flood.fd(), chunk, sizeof chunk, MSG_DONTWAIT);
      if (n < 0 && errno == EAGAIN) continue;
      if (n <= 0) {
        broken = true;
        return;
      }
      pending.insert(pending.end(), chunk, chunk + n);
      size_t at = 0;
      while (pending.size() - at >= sna::wire::kHeaderSize) {
        const auto h = sna::wire::decode_header(pending.data() + at);
        if (pending.size() - at < h.length) break;
        if (h.kind == sna::wire::Kind::kVerbReply) ++replies;
        at += h.length;
      }
      pending.erase(pending.begin(), pending.begin() + static_cast<long>(at));
    }
  });
  const int slowest = round_trips(runner, 200, 1000, &why);
  const long rss_during = vm_rss_kib(daemon.pid());
  stop = true;
  writer.join();
  // Every request gets its reply once the flood stops.
  const auto drain = Clock::now();
  while (replies.load() * frame.size() < written_bytes.load() && !broken.load() && elapsed_ms(drain) < 10000) {
    struct timespec step = {0, 10 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  stop = true;
  reader.join();
  EXPECT_GE(slowest, 0) << why;
  EXPECT_FALSE(broken.load()) << "the daemon dropped the flooding client";
  EXPECT_GT(written_bytes.load() / frame.size(), 1000u) << "the flood did not get going";
  EXPECT_EQ(replies.load(), written_bytes.load() / frame.size());
  EXPECT_LT(rss_during - rss_before, kRssGrowthLimitKib)
      << "RSS grew from " << rss_before << " to " << rss_during << " KiB";
  EXPECT_TRUE(process_alive(daemon.pid()));
  EXPECT_EQ(runner.finish(), "");
}

// Malformed frame records in the problem log that name this process.
size_t malformed_records_naming(const std::string &log, pid_t pid) {
  size_t n = 0;
  const std::string id = std::to_string(pid);
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    if (line.find("malformed") != std::string::npos && line.find(id) != std::string::npos) ++n;
  }
  return n;
}

// A client that connects again and again and writes random bytes after its
// HELLO. The daemon drops each such connection and logs it; others' round
// trips stay fast and the daemon's memory and descriptors do not grow.
TEST(FloodingClient, GarbageIsDroppedAndLoggedWhileOthersStayResponsive) {
  Daemon daemon(E2E_DAEMON);
  start_bounded_node(daemon);
  if (HasFatalFailure()) return;
  ScenarioRunner runner(daemon);
  ASSERT_EQ(runner.run(driver_pair(), false), "");
  std::string why;
  ASSERT_GE(round_trips(runner, 5, 2000, &why), 0) << why;
  const pid_t me = ::getpid();
  {
    // A first one opens the problem log, which then stays open: the
    // descriptors to compare with are those after it.
    RawClient first;
    ASSERT_TRUE(first.connect_to(daemon.socket()));
    ASSERT_TRUE(first.hello());
    const std::string text = "not a frame at all, and long enough to be taken for one";
    ASSERT_TRUE(first.write_all(text.data(), text.size()));
    ASSERT_TRUE(first.closed_by_peer(2000));
    ASSERT_TRUE(wait_for_file(daemon.state_dir(), "problems.log",
                              [&](const std::string &log) { return malformed_records_naming(log, me) == 1; },
                              2000));
  }
  const long rss_before = vm_rss_kib(daemon.pid());
  const int fds_before = open_fd_count(daemon.pid());
  ASSERT_GT(fds_before, 0);
  const std::string fds_text = open_fds_text(daemon.pid());

  std::atomic<bool> stop{false};
  std::atomic<int> connections{0}, dropped{0}, kept{0};
  std::thread garbage([&] {
    std::mt19937 random(12345);
    std::vector<uint8_t> bytes(64 * 1024);
    while (!stop.load()) {
      RawClient c;
      if (!c.connect_to(daemon.socket()) || !c.hello()) break;
      ++connections;
      for (auto &b : bytes) b = static_cast<uint8_t>(random());
      c.write_all(bytes.data(), bytes.size(), 500);
      if (c.closed_by_peer(2000)) {
        ++dropped;
      } else {
        ++kept;
      }
    }
  });
  const int slowest = round_trips(runner, 200, 1000, &why);
  stop = true;
  garbage.join();
  EXPECT_GE(slowest, 0) << why;
  EXPECT_GT(connections.load(), 10);
  EXPECT_EQ(kept.load(), 0) << "the daemon kept a connection that sent garbage";
  EXPECT_EQ(dropped.load(), connections.load());
  // One problem record for each dropped connection (and the first one).
  const size_t want = static_cast<size_t>(dropped.load()) + 1;
  EXPECT_TRUE(wait_for_file(daemon.state_dir(), "problems.log",
                            [&](const std::string &log) { return malformed_records_naming(log, me) == want; },
                            kWaitMs))
      << malformed_records_naming(daemon.problems_log(), me) << " records for " << want
      << " dropped connections";
  EXPECT_LT(vm_rss_kib(daemon.pid()) - rss_before, kRssGrowthLimitKib);
  // Every dropped connection's descriptor is closed.
  const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
  while (open_fd_count(daemon.pid()) > fds_before && Clock::now() < deadline) {
    struct timespec step = {0, 10 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  EXPECT_EQ(open_fd_count(daemon.pid()), fds_before) << "before:\n" << fds_text << "after:\n"
                                                    << open_fds_text(daemon.pid());
  EXPECT_TRUE(process_alive(daemon.pid()));
  EXPECT_EQ(runner.finish(), "");
  std::cout << "garbage connections: " << connections.load() << ", slowest round trip " << slowest << " ms\n";
}

// ---- a thousand programs that vanish ----------------------------------

void put_ebcdic_name(uint8_t *field, size_t width, const char *text) {
  memset(field, 0x40, width);
  for (size_t i = 0; text[i] != '\0' && i < width; ++i) {
    const char c = text[i];
    uint8_t e = 0x6F;
    if (c >= 'A' && c <= 'I') e = static_cast<uint8_t>(0xC1 + (c - 'A'));
    if (c >= 'J' && c <= 'R') e = static_cast<uint8_t>(0xD1 + (c - 'J'));
    if (c >= 'S' && c <= 'Z') e = static_cast<uint8_t>(0xE2 + (c - 'S'));
    if (c >= '0' && c <= '9') e = static_cast<uint8_t>(0xF0 + (c - '0'));
    field[i] = e;
  }
}

void ignore_completion(void *, uint32_t, uint32_t, uint32_t) {}

// One short-lived program (in a forked child): it starts what `kind` says
// and exits without ending anything. Its exit status is 0 when every
// blocking verb it issued returned 0, else the number of the failing step.
[[noreturn]] void vanishing_program(const Daemon &daemon, int kind) {
  ::setenv("SNANODE_SOCKET", daemon.socket().c_str(), 1);
  ::setenv("SNANODE_STATE_DIR", daemon.state_dir().c_str(), 1);
  ::setenv("SNANODE_AUTOSTART", "0", 1);
  ::unsetenv("SNANODE_TRACE");
  VCB_TP_STARTED started;
  memset(&started, 0, sizeof started);
  started.opcode = VERB_TP_STARTED;
  put_ebcdic_name(started.tp_name, 64, "VANISH");
  appc_c_version(2, &started);
  if (started.primary_rc != 0) ::_exit(1);
  // Blocks that outstanding verbs still point at when the process ends.
  static VCB_RECEIVE_ALLOCATE accept;
  static VCB_ALLOCATE waiting;
  static VCB_RECEIVE receive;
  static uint8_t buffer[100];
  switch (kind) {
    case 0:  // a TP and nothing else
      break;
    case 1: {  // a registered name and a receive-allocate outstanding
      VCB_TP_NAME name;
      memset(&name, 0, sizeof name);
      name.opcode = VERB_REGISTER_TP_NAME;
      put_ebcdic_name(name.tp_name, 64, "GHOST");
      appc_c_version(2, &name);
      if (name.primary_rc != 0) ::_exit(2);
      memset(&accept, 0, sizeof accept);
      accept.opcode = VERB_RECEIVE_ALLOCATE_CPIC;
      accept.format = 1;
      appc_c_async_version(2, &accept, ignore_completion, 0);
      break;
    }
    case 2:    // an attach waiting in SRV's queue, and a receive outstanding
    case 3: {  // or an ALLOCATE waiting for mode ONE's only session
      VCB_ALLOCATE alloc;
      memset(&alloc, 0, sizeof alloc);
      alloc.hdr.opcode = VERB_ALLOCATE;
      alloc.hdr.opext = 1;
      alloc.hdr.format = 1;
      memcpy(alloc.hdr.tp_id, started.tp_id, 8);
      memset(alloc.partner_lu_alias, ' ', 8);
      put_ebcdic_name(alloc.mode_name, 8, kind == 3 ? "ONE" : "");
      put_ebcdic_name(alloc.tp_name, 64, "SRV");
      alloc.security = 0;
      memset(alloc.password, 0x40, 10);
      memset(alloc.user_id, 0x40, 10);
      if (kind == 3) {
        waiting = alloc;
        appc_c_async_version(2, &waiting, ignore_completion, 0);
        break;
      }
      appc_c_version(2, &alloc);
      if (alloc.hdr.primary_rc != 0) ::_exit(3);
      VCB_PREPARE_TO_RECEIVE ptr;
      memset(&ptr, 0, sizeof ptr);
      ptr.hdr = alloc.hdr;
      ptr.hdr.opcode = VERB_PREPARE_TO_RECEIVE;
      ptr.type = 1;
      appc_c_version(2, &ptr);
      if (ptr.hdr.primary_rc != 0) ::_exit(4);
      memset(&receive, 0, sizeof receive);
      receive.hdr = alloc.hdr;
      receive.hdr.opcode = VERB_RECEIVE_AND_WAIT;
      receive.max_length = sizeof buffer;
      receive.buffer = buffer;
      appc_c_async_version(2, &receive, ignore_completion, 0);
      break;
    }
  }
  ::_exit(0);
}

TEST(VanishingPrograms, AThousandLeaveNoClientConversationOrTpBehind) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  // B has SRV registered and never accepts while the programs come and go:
  // their attaches wait in its queue.
  ASSERT_EQ(runner.run(Steps{"+B driver", "B: register name=SRV | - REGISTER p=0x0000",
                             "B: sync | - SYNC p=0x0001"},
                       false),
            "");
  const int fds_before = open_fd_count(daemon.pid());
  ASSERT_GT(fds_before, 0);

  constexpr int kPrograms = 1000, kAtOnce = 25;
  int failed = 0;
  std::string failures;
  for (int first = 0; first < kPrograms; first += kAtOnce) {
    std::vector<pid_t> pids;
    for (int i = first; i < first + kAtOnce && i < kPrograms; ++i) {
      const pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) vanishing_program(daemon, i % 4);
      pids.push_back(pid);
    }
    for (pid_t pid : pids) {
      auto status = wait_exit(pid, 10000);
      if (!status) {
        ::kill(pid, SIGKILL);
        wait_exit(pid, kWaitMs);
      }
      if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        ++failed;
        if (failures.size() < 200) failures += std::to_string(status ? *status : -1) + " ";
      }
    }
  }
  EXPECT_EQ(failed, 0) << "wait statuses: " << failures;

  // Once the daemon has seen every program go, only B is left.
  const auto deadline = Clock::now() + std::chrono::milliseconds(10000);
  std::optional<nlohmann::json> st;
  for (;;) {
    st = node_status(daemon.socket());
    ASSERT_TRUE(st);
    if (application_clients(*st) == 1 || Clock::now() >= deadline) break;
    struct timespec step = {0, 20 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  EXPECT_EQ(application_clients(*st), 1u) << (*st)["node"]["clients"].dump();
  EXPECT_TRUE((*st)["conversations"].empty()) << (*st)["conversations"].dump();
  EXPECT_TRUE((*st)["tps"].empty()) << (*st)["tps"].dump();
  EXPECT_TRUE((*st)["queued_attaches"].empty()) << (*st)["queued_attaches"].dump();
  ASSERT_EQ((*st)["registered_names"].size(), 1u) << (*st)["registered_names"].dump();
  EXPECT_EQ((*st)["registered_names"][0].value("name", ""), "SRV");

  const auto fd_deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
  while (open_fd_count(daemon.pid()) > fds_before && Clock::now() < fd_deadline) {
    struct timespec step = {0, 10 * 1000 * 1000};
    ::nanosleep(&step, nullptr);
  }
  EXPECT_EQ(open_fd_count(daemon.pid()), fds_before);

  // It still serves: B's accept gets the new allocator's conversation, not
  // one a vanished program left in the queue.
  EXPECT_EQ(runner.run(Steps{
                "+A driver",
                "A: tp_started as=T | - TP_STARTED p=0x0000",
                "B: accept as=C async=acc | issued acc",
                "A: allocate tp=T as=C tpn=SRV mode=ONE | - ALLOCATE p=0x0000",
                "A: send c=C text=ALIVE type=3 | - SEND_DATA p=0x0000",
                "B< acc RECEIVE_ALLOCATE p=0x0000 tpn=SRV mode=ONE",
                "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=ALIVE",
                "B: send c=C text=YES type=3 | - SEND_DATA p=0x0000",
                "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=YES",
            }),
            "");
  EXPECT_TRUE(process_alive(daemon.pid()));
}

}  // namespace
}  // namespace e2e
