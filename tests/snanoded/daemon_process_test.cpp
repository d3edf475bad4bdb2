// The real snanoded, started with --ready-fd, talked to over its socket.
#include <gtest/gtest.h>

#include <crypt.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "harness.h"

namespace sna::test {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

bool file_exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

class DaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    socket_ = dir_.file("sock");
    state_ = dir_.file("state");
  }

  void start(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--socket", socket_, "--state-dir", state_};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(daemon_.start(args)) << daemon_.stderr_text();
  }

  void connect(WireClient& c, uint32_t flags = 0) {
    ASSERT_TRUE(c.connect(socket_));
    ASSERT_TRUE(c.hello(flags));
  }

  struct Tp {
    uint8_t id[8];
  };
  Tp start_tp(WireClient& c) {
    Tp tp{};
    auto r = c.call(tp_started());
    EXPECT_TRUE(r);
    if (r) {
      EXPECT_EQ(r->primary, 0);
      std::memcpy(tp.id, r->tp_id, 8);
    }
    return tp;
  }

  // A in SEND, B in RECEIVE on one conversation to the name SRV.
  struct Conversation {
    Tp a;
    uint32_t a_conv = 0;
    Tp b;
    uint32_t b_conv = 0;
  };
  Conversation converse(WireClient& a, WireClient& b, const std::string& name = "SRV") {
    Conversation c;
    c.a = start_tp(a);
    auto reg = b.call(register_name(name));
    EXPECT_TRUE(reg && reg->primary == 0);
    const uint64_t accept = b.issue(receive_allocate(0x1234));
    auto alloc = a.call(allocate(c.a.id, name));
    EXPECT_TRUE(alloc);
    if (!alloc) return c;
    EXPECT_EQ(alloc->primary, 0);
    EXPECT_EQ(alloc->outputs, wire::kOutConvId);
    c.a_conv = alloc->conv_id;
    auto flush = a.call(send_data(c.a.id, c.a_conv, 1, 0));  // sends the attach
    EXPECT_TRUE(flush && flush->primary == 0);
    auto accepted = b.reply_for(accept);
    EXPECT_TRUE(accepted);
    if (!accepted) return c;
    EXPECT_EQ(accepted->primary, 0);
    EXPECT_EQ(accepted->outputs, wire::kOutTpId | wire::kOutConvId | wire::kOutAttach | wire::kOutLocalLuAlias);
    EXPECT_EQ(ebcdic_string(accepted->tp_name, 64), name);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(accepted->local_lu_alias), 8), "LOCAL   ");
    EXPECT_EQ(ebcdic_string(accepted->partner_lu_name, 17), "NETWORK.LOCAL");
    EXPECT_EQ(accepted->conversation_type, 1);
    std::memcpy(c.b.id, accepted->tp_id, 8);
    c.b_conv = accepted->conv_id;
    // The null record the flush carried.
    Bytes got;
    auto first = b.call(receive_and_wait(c.b.id, c.b_conv, 100), {}, &got);
    EXPECT_TRUE(first && first->primary == 0 && first->what_received == 0x0200 && got.empty());
    return c;
  }

  TempDir dir_;
  std::string socket_, state_;
  DaemonProcess daemon_;
};

TEST_F(DaemonTest, HelloAndTpStarted) {
  start();
  WireClient c;
  connect(c);
  EXPECT_EQ(c.daemon_pid(), static_cast<uint32_t>(daemon_.pid()));
  auto r = c.call(tp_started());
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0);
  EXPECT_EQ(r->secondary, 0u);
  EXPECT_EQ(r->outputs, wire::kOutTpId | wire::kOutLocalLuAlias);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(r->local_lu_alias), 8), "LOCAL   ");
  const uint8_t zero[8] = {};
  EXPECT_NE(0, std::memcmp(r->tp_id, zero, 4)) << "the random stamp is never 0";
  // An unknown opcode is refused, and the connection goes on.
  wire::Verb odd;
  odd.opcode = 0x7777;
  auto bad = c.call(odd);
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->primary, 0x0001);
  EXPECT_EQ(bad->secondary, 0x00000101u);
  EXPECT_TRUE(c.call(tp_started()));
}

TEST_F(DaemonTest, TpIdsOfAnEarlierDaemonAreUnknown) {
  start();
  uint8_t old_id[8];
  {
    WireClient c;
    connect(c);
    auto r = c.call(tp_started());
    ASSERT_TRUE(r);
    std::memcpy(old_id, r->tp_id, 8);
  }
  daemon_.signal(SIGTERM);
  ASSERT_TRUE(daemon_.wait_exit(5000));
  DaemonProcess second;
  ASSERT_TRUE(second.start({"--socket", socket_, "--state-dir", state_}));
  WireClient c;
  connect(c);
  auto r = c.call(tp_started());
  ASSERT_TRUE(r);
  EXPECT_NE(0, std::memcmp(r->tp_id, old_id, 4)) << "a new stamp";
  auto ended = c.call(tp_ended(old_id));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->primary, 0x0001);
  EXPECT_EQ(ended->secondary, 0x000000F1u);
}

TEST_F(DaemonTest, VersionMismatchIsRefusedAndClosed) {
  start();
  WireClient c;
  ASSERT_TRUE(c.connect(socket_));
  EXPECT_FALSE(c.hello(0, wire::kVersion + 1));
  EXPECT_EQ(c.hello_status(), 1);
  EXPECT_TRUE(c.wait_closed(2000));
  // Others are served.
  WireClient d;
  connect(d);
}

TEST_F(DaemonTest, PingPongBetweenTwoConnections) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  for (int round = 0; round < 50; ++round) {
    SCOPED_TRACE(round);
    const std::string ping = "PING " + std::to_string(round);
    auto sent = a.call(send_data(c.a.id, c.a_conv, 3, static_cast<uint32_t>(ping.size())), bytes(ping));
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->primary, 0);
    EXPECT_EQ(sent->outputs, wire::kOutRts);
    Bytes got;
    auto rcv = b.call(receive_and_wait(c.b.id, c.b_conv, 100), {}, &got);
    ASSERT_TRUE(rcv);
    EXPECT_EQ(rcv->primary, 0);
    EXPECT_EQ(rcv->what_received, 0x0201);  // data complete, and SEND
    EXPECT_EQ(rcv->data_length, ping.size());
    EXPECT_EQ(got, bytes(ping));
    auto state = b.call(get_state(c.b.id, c.b_conv));
    ASSERT_TRUE(state);
    EXPECT_EQ(state->outputs, wire::kOutState);
    EXPECT_EQ(state->state, 9);  // SEND_PENDING
    const std::string pong = "PONG " + std::to_string(round);
    auto back = b.call(send_data(c.b.id, c.b_conv, 3, static_cast<uint32_t>(pong.size())), bytes(pong));
    ASSERT_TRUE(back && back->primary == 0);
    auto rcv2 = a.call(receive_and_wait(c.a.id, c.a_conv, 100), {}, &got);
    ASSERT_TRUE(rcv2);
    EXPECT_EQ(rcv2->primary, 0);
    EXPECT_EQ(rcv2->what_received, 0x0201);
    EXPECT_EQ(got, bytes(pong));
  }
  auto end = a.call(deallocate(c.a.id, c.a_conv, 1));
  ASSERT_TRUE(end && end->primary == 0);
  Bytes got;
  auto last = b.call(receive_and_wait(c.b.id, c.b_conv, 100), {}, &got);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->primary, 0x0009);
}

// Security "same": the partner learns the login name of the allocating
// client's user, which the daemon took from the peer credentials.
TEST_F(DaemonTest, SecuritySameCarriesTheLoginName) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  ASSERT_TRUE(b.call(register_name("SRV")));
  const uint64_t accept = b.issue(receive_allocate());
  auto at = start_tp(a);
  wire::Verb v = allocate(at.id, "SRV");
  v.security = 1;
  auto alloc = a.call(v);
  ASSERT_TRUE(alloc && alloc->primary == 0);
  ASSERT_TRUE(a.call(send_data(at.id, alloc->conv_id, 1, 0)));
  auto accepted = b.reply_for(accept);
  ASSERT_TRUE(accepted && accepted->primary == 0);
  const passwd* pw = getpwuid(getuid());
  ASSERT_NE(pw, nullptr);
  EXPECT_EQ(ebcdic_string(accepted->user_id, 10), pw->pw_name);
}

TEST_F(DaemonTest, ClientClosingMidConversation) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  // B waits for data; A's process goes away.
  auto gave_turn = a.call(send_data(c.a.id, c.a_conv, 3, 0));
  ASSERT_TRUE(gave_turn && gave_turn->primary == 0);
  Bytes got;
  auto turn = b.call(receive_and_wait(c.b.id, c.b_conv, 100), {}, &got);
  ASSERT_TRUE(turn);
  const uint64_t waiting = a.issue(receive_and_wait(c.a.id, c.a_conv, 100));
  const auto closed_at = Clock::now();
  b.close();
  auto r = a.reply_for(waiting, nullptr, 1000);
  ASSERT_TRUE(r) << "the partner's receive must complete within a second";
  EXPECT_LT(Clock::now() - closed_at, std::chrono::seconds(1));
  EXPECT_EQ(r->primary, 0x0005);
  EXPECT_EQ(r->secondary, 0x08640001u);
  EXPECT_EQ(r->outputs, wire::kOutRts | wire::kOutReceive);
  // The end is gone.
  auto after = a.call(get_state(c.a.id, c.a_conv));
  ASSERT_TRUE(after);
  EXPECT_EQ(after->primary, 0x0001);
  EXPECT_EQ(after->secondary, 0x00000031u);
}

// A process that connects, says HELLO and then sends `junk`.
pid_t garbage_sender(const std::string& socket, const Bytes& junk, int done_fd) {
  const pid_t pid = fork();
  if (pid == 0) {
    WireClient c;
    if (!c.connect(socket) || !c.hello()) _exit(2);
    c.send_raw(junk.data(), junk.size());
    const bool closed = c.wait_closed(3000);
    const char result = closed ? 'C' : 'O';
    ssize_t n = write(done_fd, &result, 1);
    (void)n;
    _exit(0);
  }
  return pid;
}

// Log data a partner sends with an abend goes to the problem log.
TEST_F(DaemonTest, PartnerLogDataGoesToTheProblemLog) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  auto at = start_tp(a);
  ASSERT_TRUE(b.call(register_name("SRV")));
  const uint64_t accept = b.issue(receive_allocate());
  auto alloc = a.call(allocate(at.id, "SRV", false));
  ASSERT_TRUE(alloc && alloc->primary == 0);
  wire::Verb ptr;
  ptr.opcode = 0x000A;  // PREPARE_TO_RECEIVE, flush: the attach and SEND go
  std::memcpy(ptr.tp_id, at.id, 8);
  ptr.conv_id = alloc->conv_id;
  ptr.type = 1;
  auto prepared = a.call(ptr);
  ASSERT_TRUE(prepared && prepared->primary == 0);
  auto accepted = b.reply_for(accept);
  ASSERT_TRUE(accepted && accepted->primary == 0);
  EXPECT_EQ(accepted->conversation_type, 0);
  auto turn = b.call(receive_and_wait(accepted->tp_id, accepted->conv_id, 100, false));
  ASSERT_TRUE(turn);
  EXPECT_EQ(turn->what_received, 0x0001);  // SEND: B may send
  const std::string log = "disk on fire";
  wire::Verb abend = deallocate(at.id, alloc->conv_id, 2, false);
  abend.data_length = static_cast<uint32_t>(log.size());
  auto ended = a.call(abend, bytes(log));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->primary, 0);
  auto r = b.call(send_data(accepted->tp_id, accepted->conv_id, 0, 4, false), Bytes{0, 4, 'x', 'y'});
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0x0006);
  EXPECT_EQ(r->secondary, 0x08640000u);
  EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "08640000", 2000)) << read_file(state_ + "/problems.log");
  EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "6469736B206F6E2066697265", 2000))  // the text in hex
      << read_file(state_ + "/problems.log");
}

// Data a partner does not receive is bounded by the pacing window: the
// sender's flush waits, and goes on when the partner receives.
TEST_F(DaemonTest, UnreceivedDataHoldsTheSender) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  const Bytes record(32000, 'd');
  std::optional<uint64_t> held;
  for (int i = 0; i < 16 && !held; ++i) {
    const uint64_t tag = a.issue(send_data(c.a.id, c.a_conv, 1, static_cast<uint32_t>(record.size())), record);
    if (!a.reply_for(tag, nullptr, 300)) held = tag;
  }
  ASSERT_TRUE(held) << "some flush must wait for the partner";
  const long rss = rss_kib(daemon_.pid());
  EXPECT_LT(rss, 64 * 1024);
  // B receives; A's send completes.
  Bytes got;
  auto rcv = b.call(receive_and_wait(c.b.id, c.b_conv, 32767), {}, &got);
  ASSERT_TRUE(rcv && rcv->primary == 0);
  EXPECT_EQ(got.size(), record.size());
  bool released = false;
  for (int i = 0; i < 16 && !released; ++i) {
    if (a.reply_for(*held, nullptr, 200)) released = true;
    else ASSERT_TRUE(b.call(receive_and_wait(c.b.id, c.b_conv, 32767)));
  }
  EXPECT_TRUE(released);
}

TEST_F(DaemonTest, GarbageOnOneConnectionLeavesOthersWorking) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  const Bytes cases[] = {
      Bytes{'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '/', '1', '.', '1', '\r', '\n', '\r', '\n'},
      Bytes{0x20, 0, 0, 0, 0x63, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
  };
  for (const Bytes& junk : cases) {
    int done[2];
    ASSERT_EQ(pipe(done), 0);
    const pid_t pid = garbage_sender(socket_, junk, done[1]);
    close(done[1]);
    pollfd p{done[0], POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 5000), 1);
    char result = 0;
    ASSERT_EQ(read(done[0], &result, 1), 1);
    close(done[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(result, 'C') << "the daemon closes the sender";
    EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "client pid " + std::to_string(pid) + " disconnected: malformed frame", 2000))
        << read_file(state_ + "/problems.log");
  }
  // The conversation between the others goes on.
  auto sent = a.call(send_data(c.a.id, c.a_conv, 3, 5), bytes("STILL"));
  ASSERT_TRUE(sent && sent->primary == 0);
  Bytes got;
  auto rcv = b.call(receive_and_wait(c.b.id, c.b_conv, 100), {}, &got);
  ASSERT_TRUE(rcv);
  EXPECT_EQ(got, bytes("STILL"));
}

TEST_F(DaemonTest, OperatorFrameOnApplicationConnectionIsMalformed) {
  start();
  WireClient app;
  connect(app);
  ASSERT_TRUE(app.send_frame(wire::Kind::kOperator, 5, bytes(R"({"command":"status"})")));
  EXPECT_TRUE(app.wait_closed(2000));
  EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "operator frame on an application connection", 2000));
}

// A client that sends verbs and never reads the replies stops being read
// itself; the daemon does not grow.
TEST_F(DaemonTest, ClientThatNeverReadsDoesNotGrowTheDaemon) {
  start();
  WireClient flood;
  connect(flood);
  Tp tp = start_tp(flood);
  const long before = rss_kib(daemon_.pid());
  ASSERT_GT(before, 0);
  // GET_STATE on a conversation that does not exist: each 208-byte
  // request brings a 160-byte reply.
  wire::Verb v = get_state(tp.id, 12345);
  Bytes frame(wire::kHeaderSize + wire::kVerbFixedSize);
  wire::FrameHeader h;
  h.length = static_cast<uint32_t>(frame.size());
  h.kind = wire::Kind::kVerb;
  wire::encode_header(frame.data(), h);
  wire::encode_verb(frame.data() + wire::kHeaderSize, v);
  Bytes batch;
  for (int i = 0; i < 256; ++i) batch.insert(batch.end(), frame.begin(), frame.end());
  // Write until the daemon stops taking requests (the socket stays full
  // for half a second), with 100 MB as the bound a growing daemon would
  // pass.
  size_t sent = 0;
  bool blocked = false;
  const size_t limit = 100u * 1024 * 1024;
  size_t offset = 0;
  while (sent < limit) {
    pollfd p{flood.fd(), POLLOUT, 0};
    if (poll(&p, 1, 500) != 1) {
      blocked = true;
      break;
    }
    const ssize_t n = ::send(flood.fd(), batch.data() + offset, batch.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
    ASSERT_GE(n, 0) << std::strerror(errno);
    sent += static_cast<size_t>(n);
    offset = (offset + static_cast<size_t>(n)) % batch.size();
  }
  EXPECT_TRUE(blocked) << "the daemon kept reading " << sent << " bytes of requests";
  const long after = rss_kib(daemon_.pid());
  EXPECT_LT(after - before, 16 * 1024) << "RSS grew from " << before << " to " << after << " KiB";
  // The daemon still serves others meanwhile.
  WireClient other;
  connect(other);
  auto r = other.call(tp_started(), {}, nullptr, 2000);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0);
  // Once the flooder reads, every reply comes, in order.
  size_t replies = 0;
  while (auto f = flood.read_frame(2000)) {
    if (f->header.kind != wire::Kind::kVerbReply) continue;
    const wire::VerbReply rep = wire::decode_verb_reply(f->body.data());
    EXPECT_EQ(rep.secondary, 0x00000031u);
    if (++replies == sent / frame.size()) break;
  }
  EXPECT_EQ(replies, sent / frame.size());
}

// CPU time the process has used, in clock ticks.
long cpu_ticks(pid_t pid) {
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream in(stat.substr(stat.rfind(')') + 2));
  std::string field;
  long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && in >> field; ++i) {
    if (i == 14) utime = std::stol(field);
    if (i == 15) stime = std::stol(field);
  }
  return utime + stime;
}

// Out of descriptors, the daemon neither spins on the waiting connections
// nor loses them: they are served once descriptors are free again.
TEST_F(DaemonTest, OutOfDescriptorsWaitsInsteadOfSpinning) {
  daemon_.limit_descriptors(24);
  start();
  std::vector<std::unique_ptr<WireClient>> clients;
  for (int i = 0; i < 30; ++i) {
    clients.push_back(std::make_unique<WireClient>());
    ASSERT_TRUE(clients.back()->connect(socket_));  // the backlog takes them
  }
  // Those the daemon accepted answer HELLO; the rest wait.
  size_t served = 0;
  for (auto& c : clients) {
    wire::Hello h;
    std::vector<uint8_t> body(wire::kHelloSize);
    wire::encode_hello(body.data(), h);
    ASSERT_TRUE(c->send_frame(wire::Kind::kHello, 1, body));
  }
  for (auto& c : clients)
    if (c->read_frame(100)) ++served;
  EXPECT_GT(served, 0u);
  EXPECT_LT(served, clients.size());
  const long before = cpu_ticks(daemon_.pid());
  EXPECT_FALSE(clients.back()->read_frame(1000));  // still waiting, a second later
  const long used = cpu_ticks(daemon_.pid()) - before;
  EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 4) << "the daemon spun for " << used << " ticks";
  EXPECT_TRUE(wait_for_text(state_ + "/problems.log", "accept: Too many open files", 1000));
  // Free the served ones; the others are answered.
  size_t late = 0;
  std::vector<std::unique_ptr<WireClient>> waiting;
  for (size_t i = 0; i < clients.size(); ++i) {
    if (i < served) clients[i]->close();
    else waiting.push_back(std::move(clients[i]));
  }
  for (size_t i = 0; i < waiting.size() && i < served; ++i)
    if (waiting[i]->read_frame(3000)) ++late;
  EXPECT_EQ(late, std::min(served, waiting.size()));
}

TEST_F(DaemonTest, SigtermEndsConversationsAndRemovesTheSocket) {
  start();
  WireClient a, b;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  // B waits to receive; A (the older client) is in SEND.
  const uint64_t waiting = b.issue(receive_and_wait(c.b.id, c.b_conv, 100));
  auto state = a.call(get_state(c.a.id, c.a_conv));  // the receive is in place
  ASSERT_TRUE(state);
  EXPECT_TRUE(file_exists(socket_ + ".lock"));
  daemon_.signal(SIGTERM);
  auto r = b.reply_for(waiting, nullptr, 3000);
  ASSERT_TRUE(r) << "B's receive completes before the daemon goes";
  EXPECT_EQ(r->primary, 0x0005);
  EXPECT_EQ(r->secondary, 0x08640001u);
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->exited);
  EXPECT_EQ(status->code, 0);
  EXPECT_FALSE(file_exists(socket_));
  EXPECT_FALSE(file_exists(socket_ + ".lock"));
  EXPECT_TRUE(a.wait_closed(1000));
  EXPECT_TRUE(wait_for_text(state_ + "/audit.log", "stopped: SIGTERM", 1000));
}

TEST_F(DaemonTest, SigintStopsToo) {
  start();
  daemon_.signal(SIGINT);
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 0);
  EXPECT_FALSE(file_exists(socket_));
}

TEST_F(DaemonTest, SecondDaemonOnTheSameSocketExitsAfterTheReadyByte) {
  start();
  DaemonProcess second;
  ASSERT_TRUE(second.start({"--socket", socket_, "--state-dir", state_}));
  auto status = second.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->exited);
  EXPECT_EQ(status->code, 0);
  // The first one still serves, on the same socket.
  WireClient c;
  connect(c);
  EXPECT_EQ(c.daemon_pid(), static_cast<uint32_t>(daemon_.pid()));
}

TEST_F(DaemonTest, ManyDaemonsAtOnceLeaveOne) {
  // Started together, as programs autostarting at once would.
  std::vector<std::unique_ptr<DaemonProcess>> all;
  for (int i = 0; i < 6; ++i) {
    all.push_back(std::make_unique<DaemonProcess>());
    ASSERT_TRUE(all.back()->launch({"--socket", socket_, "--state-dir", state_}));
  }
  for (auto& d : all) ASSERT_TRUE(d->wait_ready(10000)) << d->stderr_text();
  WireClient c;
  connect(c);
  int running = 0;
  for (auto& d : all) {
    auto st = d->wait_exit(d->pid() == static_cast<pid_t>(c.daemon_pid()) ? 300 : 5000);
    if (!st) {
      ++running;
      EXPECT_EQ(d->pid(), static_cast<pid_t>(c.daemon_pid()));
    } else {
      EXPECT_EQ(st->code, 0);
    }
  }
  EXPECT_EQ(running, 1);
}

TEST_F(DaemonTest, StaleSocketFileIsReplaced) {
  // A socket file nobody listens on, as a killed daemon leaves it.
  const int s = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket_.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  close(s);
  ASSERT_TRUE(file_exists(socket_));
  start();
  WireClient c;
  connect(c);
  EXPECT_EQ(c.daemon_pid(), static_cast<uint32_t>(daemon_.pid()));
}

TEST_F(DaemonTest, RegularFileInTheWayIsNotRemoved) {
  write_file(socket_, "keep me");
  EXPECT_FALSE(daemon_.start({"--socket", socket_, "--state-dir", state_}, {}, 5000));
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 1);
  EXPECT_NE(daemon_.stderr_text().find("is not a socket"), std::string::npos) << daemon_.stderr_text();
  EXPECT_EQ(read_file(socket_), "keep me");
}

TEST_F(DaemonTest, SocketIsPrivateToTheUser) {
  start();
  struct stat st {};
  ASSERT_EQ(lstat(socket_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_uid, getuid());
}

// A peer of another user is refused even if the socket's mode lets it in
// (an operator loosened it): only the daemon's user and root are served.
TEST_F(DaemonTest, PeerOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run processes as other users";
  constexpr uid_t kDaemonUser = 65534, kOtherUser = 65533;
  ASSERT_EQ(chown(dir_.path().c_str(), kDaemonUser, kDaemonUser), 0);
  daemon_.run_as(kDaemonUser, kDaemonUser);
  start();
  ASSERT_EQ(chmod(socket_.c_str(), 0666), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0711), 0);
  int done[2];
  ASSERT_EQ(pipe(done), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgid(kOtherUser) != 0 || setuid(kOtherUser) != 0) _exit(2);
    WireClient c;
    char result = 'X';
    if (c.connect(socket_)) {
      // The connection is accepted by the kernel, then closed unanswered.
      c.hello();
      result = c.hello_status() == 0xFFFF ? 'R' : 'A';
    }
    ssize_t n = write(done[1], &result, 1);
    (void)n;
    _exit(0);
  }
  close(done[1]);
  pollfd p{done[0], POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 10000), 1);
  char result = 0;
  ASSERT_EQ(read(done[0], &result, 1), 1);
  close(done[0]);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(result, 'R');
  EXPECT_TRUE(wait_for_text(state_ + "/audit.log",
                            "refused client pid " + std::to_string(pid) + " uid " + std::to_string(kOtherUser), 2000))
      << read_file(state_ + "/audit.log");
  // Root is served.
  WireClient root;
  connect(root);
  EXPECT_TRUE(root.call(tp_started()));
}

TEST_F(DaemonTest, SocketDirectoryOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give the directory away";
  const std::string theirs = dir_.file("theirs");
  ASSERT_EQ(mkdir(theirs.c_str(), 0755), 0);
  ASSERT_EQ(chown(theirs.c_str(), 65534, 65534), 0);
  EXPECT_FALSE(daemon_.start({"--socket", theirs + "/sock", "--state-dir", state_}, {}, 5000));
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 1);
  EXPECT_NE(daemon_.stderr_text().find("belongs to another user"), std::string::npos) << daemon_.stderr_text();
  EXPECT_FALSE(file_exists(theirs + "/sock"));
}

TEST_F(DaemonTest, SocketDirectoryFromTheEnvironment) {
  // No --socket: $SNANODE_SOCKET names it, and a missing parent is made 0700.
  const std::string path = dir_.file("run/sub/socket");
  ASSERT_TRUE(daemon_.start({"--state-dir", state_}, {"SNANODE_SOCKET=" + path}));
  struct stat st {};
  ASSERT_EQ(lstat(dir_.file("run/sub").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  WireClient c;
  ASSERT_TRUE(c.connect(path));
  EXPECT_TRUE(c.hello());
}

TEST_F(DaemonTest, StateDirectoryGetsTheLogs) {
  start();
  EXPECT_TRUE(wait_for_text(state_ + "/audit.log", "started: config built-in defaults", 2000));
  const std::string audit = read_file(state_ + "/audit.log");
  EXPECT_NE(audit.find("socket " + socket_), std::string::npos) << audit;
  EXPECT_NE(audit.find("pid " + std::to_string(daemon_.pid())), std::string::npos) << audit;
}

TEST_F(DaemonTest, HashPasswordOutputVerifies) {
  const RunResult r = run_program({SNANODED_PATH, "--hash-password"}, "s3cret pass\n");
  ASSERT_TRUE(r.status.exited);
  EXPECT_EQ(r.status.code, 0) << r.err;
  ASSERT_FALSE(r.out.empty());
  ASSERT_EQ(r.out.back(), '\n');
  const std::string hash = r.out.substr(0, r.out.size() - 1);
  EXPECT_EQ(hash.find('\n'), std::string::npos);
  crypt_data data{};
  const char* again = crypt_r("s3cret pass", hash.c_str(), &data);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(hash, again);
  crypt_data other{};
  const char* wrong = crypt_r("s3cret pasS", hash.c_str(), &other);
  EXPECT_TRUE(wrong == nullptr || hash != wrong);
  // Salted: the same password hashes differently each time.
  const RunResult r2 = run_program({SNANODED_PATH, "--hash-password"}, "s3cret pass\n");
  EXPECT_NE(r.out, r2.out);
  // Nothing to hash.
  EXPECT_EQ(run_program({SNANODED_PATH, "--hash-password"}, "").status.code, 2);
}

TEST_F(DaemonTest, UnknownOptionIsRefused) {
  const RunResult r = run_program({SNANODED_PATH, "--no-such-option"});
  EXPECT_TRUE(r.status.exited);
  EXPECT_NE(r.status.code, 0);
}

TEST_F(DaemonTest, IdleExitAfterTheLastClient) {
  start({"--idle-exit", "1"});
  {
    WireClient c;
    connect(c);
    // While a client is connected the daemon stays, well past the idle time.
    EXPECT_FALSE(daemon_.wait_exit(1500));
  }
  const auto closed = Clock::now();
  auto status = daemon_.wait_exit(4000);
  ASSERT_TRUE(status) << "the daemon exits once idle";
  EXPECT_EQ(status->code, 0);
  EXPECT_GE(Clock::now() - closed, std::chrono::milliseconds(900));
  EXPECT_FALSE(file_exists(socket_));
}

TEST_F(DaemonTest, NoIdleExitByDefault) {
  start();
  EXPECT_FALSE(daemon_.wait_exit(1500));
}

TEST_F(DaemonTest, OperatorStatus) {
  start();
  WireClient a, b, op;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  connect(op, wire::kHelloOperator);
  auto text = op.operator_command(R"({"command":"status"})");
  ASSERT_TRUE(text);
  const nlohmann::json s = nlohmann::json::parse(*text, nullptr, false);
  ASSERT_FALSE(s.is_discarded()) << *text;
  EXPECT_EQ(s["node"]["pid"], daemon_.pid());
  EXPECT_EQ(s["node"]["socket"], socket_);
  EXPECT_EQ(s["node"]["state_dir"], state_);
  EXPECT_EQ(s["node"]["config"], "built-in defaults");
  EXPECT_EQ(s["node"]["clients"].size(), 3u);
  ASSERT_EQ(s["local_lus"].size(), 1u);
  EXPECT_EQ(s["local_lus"][0]["alias"], "LOCAL");
  EXPECT_EQ(s["local_lus"][0]["name"], "NETWORK.LOCAL");
  EXPECT_EQ(s["local_lus"][0]["default"], true);
  EXPECT_EQ(s["sessions"].size(), 1u);
  ASSERT_EQ(s["conversations"].size(), 2u);
  for (const auto& conv : s["conversations"]) {
    EXPECT_EQ(conv["tp_name"], "SRV");
    EXPECT_EQ(conv["type"], "mapped");
    EXPECT_EQ(conv["sync_level"], "none");
    EXPECT_EQ(conv["local_lu"], "LOCAL");
    EXPECT_EQ(conv["partner_lu"], "NETWORK.LOCAL");
    EXPECT_EQ(conv["client_pid"], getpid());
    EXPECT_EQ(conv["state"], conv["conv_id"] == c.a_conv ? "SEND" : "RECEIVE");
  }
  EXPECT_EQ(s["tps"].size(), 2u);
  ASSERT_EQ(s["registered_names"].size(), 1u);
  EXPECT_EQ(s["registered_names"][0]["name"], "SRV");
  EXPECT_EQ(s["registered_names"][0]["client_pid"], getpid());
  EXPECT_TRUE(s["queued_attaches"].empty());

  auto unknown = op.operator_command(R"({"command":"fly"})");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(nlohmann::json::parse(*unknown)["error"], "unknown command: fly");
  auto junk = op.operator_command("not json");
  ASSERT_TRUE(junk);
  EXPECT_TRUE(nlohmann::json::parse(*junk).contains("error"));
}

TEST_F(DaemonTest, OperatorStatusTimesQueuedAttaches) {
  start();
  WireClient a, b, op;
  connect(a);
  connect(b);
  connect(op, wire::kHelloOperator);
  // B registers QN but does not accept: A's attach waits in the queue.
  ASSERT_TRUE(b.call(register_name("QN")));
  Tp tp = start_tp(a);
  auto alloc = a.call(allocate(tp.id, "QN"));
  ASSERT_TRUE(alloc && alloc->primary == 0);
  ASSERT_TRUE(a.call(send_data(tp.id, alloc->conv_id, 1, 0)));
  EXPECT_FALSE(op.read_frame(300));  // let some time pass; nothing is pushed to an operator
  auto text = op.operator_command(R"({"command":"status"})");
  ASSERT_TRUE(text);
  const nlohmann::json s = nlohmann::json::parse(*text);
  ASSERT_EQ(s["queued_attaches"].size(), 1u);
  EXPECT_EQ(s["queued_attaches"][0]["tp_name"], "QN");
  EXPECT_GE(s["queued_attaches"][0]["since_ms"].get<uint64_t>(), 250u);
  EXPECT_LT(s["queued_attaches"][0]["since_ms"].get<uint64_t>(), 10000u);
}

TEST_F(DaemonTest, OperatorTracePushesToApplications) {
  start();
  WireClient app1, app2, op;
  connect(app1);
  connect(app2);
  connect(op, wire::kHelloOperator);
  auto text = op.operator_command(R"({"command":"trace","api":true,"file":"/tmp/x.trace"})");
  ASSERT_TRUE(text);
  const nlohmann::json r = nlohmann::json::parse(*text);
  EXPECT_EQ(r["ok"], true);
  EXPECT_EQ(r["clients"], 2);
  for (WireClient* app : {&app1, &app2}) {
    auto f = app->read_frame(2000);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->header.kind, wire::Kind::kTraceControl);
    EXPECT_EQ(f->header.tag, 0u);
    ASSERT_EQ(f->body.size(), wire::kTraceControlFixedSize + 12);
    EXPECT_EQ(f->body[0], 1);
    EXPECT_EQ(wire::get16(f->body.data(), 2), 12);
    EXPECT_EQ(std::string(f->body.begin() + 4, f->body.end()), "/tmp/x.trace");
  }
  auto off = op.operator_command(R"({"command":"trace","api":false})");
  ASSERT_TRUE(off);
  auto f = app1.read_frame(2000);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->body, (Bytes{0, 0, 0, 0}));
  auto bad = op.operator_command(R"({"command":"trace"})");
  ASSERT_TRUE(bad);
  EXPECT_TRUE(nlohmann::json::parse(*bad).contains("error"));
}

TEST_F(DaemonTest, OperatorStopActsAsSigterm) {
  start();
  WireClient a, b, op;
  connect(a);
  connect(b);
  Conversation c = converse(a, b);
  const uint64_t waiting = b.issue(receive_and_wait(c.b.id, c.b_conv, 100));
  ASSERT_TRUE(a.call(get_state(c.a.id, c.a_conv)));
  connect(op, wire::kHelloOperator);
  auto text = op.operator_command(R"({"command":"stop"})");
  ASSERT_TRUE(text);
  EXPECT_EQ(nlohmann::json::parse(*text)["ok"], true);
  auto r = b.reply_for(waiting, nullptr, 3000);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->primary, 0x0005);
  auto status = daemon_.wait_exit(5000);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 0);
  EXPECT_FALSE(file_exists(socket_));
}

TEST_F(DaemonTest, NodeOperatorRecordsOverTheSocket) {
  start();
  WireClient c;
  connect(c);
  wire::Nof open;
  open.opcode = 0xF004;
  open.access = 2;
  auto r = c.nof(open);
  ASSERT_TRUE(r);
  const wire::NofReply opened = wire::decode_nof_reply(r->data());
  EXPECT_EQ(opened.primary, 0);
  ASSERT_NE(opened.target_handle, 0u);
  wire::Nof q;
  q.opcode = 0x2121;
  q.format = 1;
  q.target_handle = opened.target_handle;
  q.buffer_size = 212;
  q.entries_wanted = 1;
  q.list_option = 4;
  std::memcpy(q.sym_dest_name, "UNKNOWN ", 8);
  r = c.nof(q);
  ASSERT_TRUE(r);
  const wire::NofReply missing = wire::decode_nof_reply(r->data());
  EXPECT_EQ(missing.primary, 0x0002);
  EXPECT_EQ(missing.secondary, 0x00001058u);
  q.list_option = 1;
  r = c.nof(q);
  ASSERT_TRUE(r);
  EXPECT_EQ(wire::decode_nof_reply(r->data()).primary, 0);
  EXPECT_EQ(wire::decode_nof_reply(r->data()).entries, 0);  // built-in defaults: no side information
  wire::Nof close;
  close.opcode = 0xF005;
  close.target_handle = opened.target_handle;
  r = c.nof(close);
  ASSERT_TRUE(r);
  EXPECT_EQ(wire::decode_nof_reply(r->data()).primary, 0);
  r = c.nof(close);
  ASSERT_TRUE(r);
  EXPECT_EQ(wire::decode_nof_reply(r->data()).secondary, 0x00000002u);
}

}  // namespace
}  // namespace sna::test
