// Faults: a partner killed in the middle of a verb, the daemon killed or
// stopped with verbs outstanding, garbage on the socket, and a client that
// never reads. The survivors get their codes promptly and other
// conversations go on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "configs.h"
#include "harness.h"
#include "scenario.h"
#include "wire/wire_protocol.h"

namespace e2e {
namespace {

using Steps = std::vector<std::string>;

Steps operator+(Steps a, const Steps &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// CPI-C pair: A allocated SRV with the Set calls given, B accepted.
Steps cpic_conversation(const Steps &sets = {}) {
  Steps s = {"+A cpic", "+B cpic", "B: CMSLTP SRV | CMSLTP CM_OK", "A: CMINIT c | CMINIT CM_OK",
             "A: CMSTPN c SRV | CMSTPN CM_OK"};
  for (const auto &set : sets) s.push_back("A: " + set);
  return s + Steps{"A: CMALLC c | CMALLC CM_OK", "B: CMACCP b", "A: CMFLUS c | CMFLUS CM_OK",
                   "B< CMACCP CM_OK"};
}

// Driver pair: A's C allocated to SRV, B accepted it as C.
Steps driver_conversation(const std::string &options = "") {
  return {"+A driver",
          "+B driver",
          "A: tp_started as=T | - TP_STARTED p=0x0000",
          "B: register name=SRV | - REGISTER p=0x0000",
          "B: accept as=C tpas=TB async=acc | issued acc",
          "A: allocate tp=T as=C tpn=SRV " + options + " | - ALLOCATE p=0x0000",
          "A: flush c=C | - FLUSH p=0x0000",
          "B< acc RECEIVE_ALLOCATE p=0x0000"};
}

const std::string kBasic = "CMSCT c CM_BASIC_CONVERSATION | CMSCT CM_OK";

const std::vector<Row> &kill_rows() {
  static const std::vector<Row> table = {
      {"CpicMidSendMapped",
       cpic_conversation() + Steps{
           "A: CMSST c CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND c PART | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=PART",
           "B: CMRCV b 100",
           "!mark",
           "!kill A",
           "B< CMRCV CM_DEALLOCATED_ABEND",
           "!elapsed 0 1000",
       }},
      {"CpicMidSendBasic",
       cpic_conversation({kBasic}) + Steps{
           "A: CMSST c CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND c x:000650415254 | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK data=000650415254",
           "B: CMRCV b 100",
           "!mark",
           "!kill A",
           "B< CMRCV CM_DEALLOCATED_ABEND_SVC",
           "!elapsed 0 1000",
       }},
      {"CpicMidReceiveMapped",
       cpic_conversation() + Steps{
           "B: CMRCV b 100",
           "!mark",
           "!kill B",
           // A receive in send state flushes and waits: it reports the end.
           "A: CMRCV c 100 | CMRCV CM_DEALLOCATED_ABEND",
           "!elapsed 0 1000",
       }},
      {"CpicMidConfirmMapped",
       cpic_conversation({"CMSSL c CM_CONFIRM | CMSSL CM_OK"}) + Steps{
           "A: CMSEND c Q | CMSEND CM_OK",
           "A: CMCFM c",
           "B: CMRCV b 100 | CMRCV CM_OK text=Q st=CM_CONFIRM_RECEIVED",
           "!mark",
           "!kill B",
           "A< CMCFM CM_DEALLOCATED_ABEND",
           "!elapsed 0 1000",
       }},
      {"CpicMidConfirmBasic",
       cpic_conversation({kBasic, "CMSSL c CM_CONFIRM | CMSSL CM_OK"}) + Steps{
           "A: CMSEND c x:000351 | CMSEND CM_OK",
           "A: CMCFM c",
           "B: CMRCV b 100 | CMRCV CM_OK data=000351 st=CM_CONFIRM_RECEIVED",
           "!mark",
           "!kill B",
           "A< CMCFM CM_DEALLOCATED_ABEND_SVC",
           "!elapsed 0 1000",
       }},
      {"NodeMidConfirmMapped",
       driver_conversation("sync=1") + Steps{
           "A: send c=C text=Q type=2",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0202",
           "!mark",
           "!kill B",
           "A< - SEND_DATA p=0x0005 s=0x08640001",
           "!elapsed 0 1000",
       }},
      {"NodeMidConfirmBasic",
       driver_conversation("sync=1 ctype=basic") + Steps{
           "A: send c=C hex=000351 type=2",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0202",
           "!mark",
           "!kill B",
           "A< - SEND_DATA p=0x0007 s=0x08640001",
           "!elapsed 0 1000",
       }},
      {"NodeMidSendBasic",
       driver_conversation("ctype=basic") + Steps{
           "A: send c=C hex=0006504152 type=1 | - SEND_DATA p=0x0000",
           // Five bytes of a six-byte record: A is in the middle of it.
           "B: rcvi c=C | - RECEIVE_IMMEDIATELY p=0x0000 wr=0x0400 len=5 data=0006504152",
           "B: rcv c=C async=r | issued r",
           "!mark",
           "!kill A",
           "B< r RECEIVE_AND_WAIT p=0x0007 s=0x08640001",
           "!elapsed 0 1000",
       }},
      {"NodeMidReceiveMapped",
       driver_conversation() + Steps{
           "B: rcv c=C async=r | issued r",
           "!mark",
           "!kill B",
           "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0005 s=0x08640001",
           "!elapsed 0 1000",
       }},
  };
  return table;
}

class PartnerKilled : public ::testing::TestWithParam<Row> {};

TEST_P(PartnerKilled, SurvivorGetsItsCodeWithinASecond) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(GetParam().steps), "");
}

INSTANTIATE_TEST_SUITE_P(Fault, PartnerKilled, ::testing::ValuesIn(kill_rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

// ---- daemon loss --------------------------------------------------------

// Steps that show two programs conversing again after a daemon restart.
Steps driver_converse_again() {
  return {"A: tp_started as=T2 | - TP_STARTED p=0x0000",
          "B: register name=SRV | - REGISTER p=0x0000",
          "B: accept as=C2 async=acc3 | issued acc3",
          "A: allocate tp=T2 as=C2 tpn=SRV | - ALLOCATE p=0x0000",
          "A: send c=C2 text=AGAIN type=3 | - SEND_DATA p=0x0000",
          "B< acc3 RECEIVE_ALLOCATE p=0x0000 tpn=SRV",
          "B: rcv c=C2 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=AGAIN",
          "B: send c=C2 text=BACK type=3 | - SEND_DATA p=0x0000",
          "A: rcv c=C2 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=BACK"};
}

TEST(DaemonLoss, EveryOutstandingVerbGetsF003ThenTheEventThenANewDaemonServes) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(Steps{
                "+A driver",
                "+B driver",
                "A: tp_started as=T | - TP_STARTED p=0x0000",
                "B: register name=SRV | - REGISTER p=0x0000",
                "B: accept as=C async=acc | issued acc",
                // S1 holds mode ONE's only session; S2 waits for it.
                "A: allocate tp=T as=S1 tpn=SRV mode=ONE | - ALLOCATE p=0x0000",
                "A: allocate tp=T as=S2 tpn=SRV mode=ONE async=w | issued w",
                "A: flush c=S1 | - FLUSH p=0x0000",
                "B< acc RECEIVE_ALLOCATE p=0x0000 tpn=SRV mode=ONE",
                "A: rcv c=S1 async=r | issued r",
                "B: accept as=C2 async=acc2 | issued acc2",
                "A: sync | - SYNC p=0x0001",
                "B: sync | - SYNC p=0x0001",
                "!killdaemon",
                "A~ w ALLOCATE p=0xF003 || r RECEIVE_AND_WAIT p=0xF003",
                "A< event 0x8001",
                "B< acc2 RECEIVE_ALLOCATE p=0xF003",
                "B< event 0x8001",
                "A: sync | - SYNC p=0xF002",
                "!restart",
                "A: state c=S1 | - GET_STATE p=0x0001 s=0x000000F1",
            } + driver_converse_again()),
            "");
}

TEST(DaemonLoss, CpicProgramsConverseAgainWithANewDaemon) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(cpic_conversation() + Steps{
                "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "A: CMSEND c X | CMSEND CM_OK",
                "B: CMRCV b 100 | CMRCV CM_OK text=X st=CM_SEND_RECEIVED",
                "A: CMRCV c 100",
                "B: CMACCP b2",
                "!killdaemon",
                // The call's return and the event come on different threads.
                // The script cannot tell when its blocking receive reached
                // the node: issued before the loss it gets the node-lost
                // code; issued after the event, the library has already
                // dropped the conversation.
                "A~ CMRCV CM_PRODUCT_SPECIFIC_ERROR OR CMRCV CM_PROGRAM_PARAMETER_CHECK || event 0x8001",
                "B~ CMACCP CM_PRODUCT_SPECIFIC_ERROR || event 0x8001",
                "!restart",
                "B: CMSLTP SRV | CMSLTP CM_OK",
                "A: CMINIT c | CMINIT CM_OK",
                "A: CMSTPN c SRV | CMSTPN CM_OK",
                "A: CMALLC c | CMALLC CM_OK",
                "B: CMACCP b",
                "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "A: CMSEND c AGAIN | CMSEND CM_OK",
                "B< CMACCP CM_OK",
                "B: CMRCV b 100 | CMRCV CM_OK text=AGAIN st=CM_SEND_RECEIVED",
                "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
                "B: CMSEND b BACK | CMSEND CM_OK",
                "A: CMRCV c 100 | CMRCV CM_OK text=BACK st=CM_SEND_RECEIVED",
            }),
            "");
}

// SIGTERM: the daemon ends every conversation, removes its socket and
// exits 0; its clients lose the node.
TEST(DaemonStop, SigtermEndsConversationsAndRemovesTheSocket) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  std::string failure = runner.run(driver_conversation() + Steps{
      "A: ptr c=C type=1 | - PREPARE_TO_RECEIVE p=0x0000",
      "A: rcv c=C async=r | issued r",
      "A: sync | - SYNC p=0x0001",
  }, false);
  ASSERT_EQ(failure, "");
  std::string why;
  EXPECT_TRUE(daemon.terminate(&why)) << why;
  struct stat st;
  EXPECT_NE(::stat(daemon.socket().c_str(), &st), 0) << "socket file left behind";
  // The receive ends either when the daemon ends its conversation (the
  // partner's end as if B had closed, or the verb cancelled) or when the
  // connection goes; then the node is lost for both programs.
  failure = runner.run(Steps{
      "A< r RECEIVE_AND_WAIT p=0xF003 OR r RECEIVE_AND_WAIT p=0x0005 s=0x08640001 OR "
      "r RECEIVE_AND_WAIT p=0x0021",
      "A< event 0x8001",
      "B< event 0x8001",
      "B: sync | - SYNC p=0xF002",
  });
  EXPECT_EQ(failure, "");
}

// ---- misbehaving clients -------------------------------------------------

std::vector<uint8_t> frame(uint32_t length, uint16_t kind, size_t body_bytes) {
  std::vector<uint8_t> f(sna::wire::kHeaderSize + body_bytes, 0);
  sna::wire::FrameHeader h;
  h.length = length;
  h.kind = static_cast<sna::wire::Kind>(kind);
  h.tag = 1;
  sna::wire::encode_header(f.data(), h);
  return f;
}

struct Garbage {
  const char *name;
  bool hello_first;
  std::vector<uint8_t> bytes;
};

std::ostream &operator<<(std::ostream &os, const Garbage &g) { return os << g.name; }

std::vector<Garbage> garbage_cases() {
  using namespace sna::wire;
  std::vector<Garbage> cases;
  std::string text = "GET / HTTP/1.0\r\nHost: snanode\r\n\r\n";
  cases.push_back({"TextBeforeHello", false, std::vector<uint8_t>(text.begin(), text.end())});
  {
    auto f = frame(kHeaderSize + kHelloSize, static_cast<uint16_t>(Kind::kHello), kHelloSize);
    Hello h;
    h.magic = 0x12345678;
    h.pid = static_cast<uint32_t>(::getpid());
    encode_hello(f.data() + kHeaderSize, h);
    cases.push_back({"HelloWithBadMagic", false, f});
  }
  {
    auto f = frame(kHeaderSize + kVerbFixedSize, static_cast<uint16_t>(Kind::kVerb), kVerbFixedSize);
    Verb v;
    v.opcode = 0x0009;
    encode_verb(f.data() + kHeaderSize, v);
    cases.push_back({"VerbBeforeHello", false, f});
  }
  cases.push_back({"OversizedFrame", true,
                   frame(kMaxRequestFrame + 1, static_cast<uint16_t>(Kind::kVerb), 64)});
  cases.push_back({"HugeLength", true, frame(0xFFFFFFF0u, static_cast<uint16_t>(Kind::kVerb), 32)});
  cases.push_back({"LengthBelowHeader", true, frame(8, static_cast<uint16_t>(Kind::kVerb), 0)});
  cases.push_back({"VerbShorterThanItsFixedPart", true,
                   frame(kHeaderSize + 10, static_cast<uint16_t>(Kind::kVerb), 10)});
  return cases;
}

bool log_names_pid(const std::string &log, pid_t pid) {
  const std::regex word("(^|[^0-9])" + std::to_string(pid) + "([^0-9]|$)");
  std::istringstream in(log);
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, word)) return true;
  }
  return false;
}

class GarbageOnSocket : public ::testing::TestWithParam<Garbage> {};

TEST_P(GarbageOnSocket, OnlyThatClientIsDisconnectedAndLogged) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  RawClient raw;
  const Garbage &g = GetParam();
  runner.extra_action = [&](const std::string &text, std::string *w) {
    if (text != "garbage") return false;
    if (!raw.connect_to(daemon.socket())) {
      *w = "cannot connect";
      return false;
    }
    if (g.hello_first) {
      if (!raw.hello()) {
        *w = "cannot send HELLO";
        return false;
      }
      auto reply = raw.read_frame();
      if (!reply || sna::wire::decode_header(reply->data()).kind != sna::wire::Kind::kHelloReply) {
        *w = "no HELLO_REPLY";
        return false;
      }
    }
    raw.write_all(g.bytes.data(), g.bytes.size(), 1000);
    if (!raw.closed_by_peer(2000)) {
      *w = "the daemon did not close the connection";
      return false;
    }
    const pid_t me = ::getpid();
    if (!wait_for_file(daemon.state_dir(), "problems.log",
                       [&](const std::string &log) { return log_names_pid(log, me); }, 2000)) {
      *w = "problems.log does not name pid " + std::to_string(me);
      return false;
    }
    return true;
  };
  EXPECT_EQ(runner.run(driver_conversation() + Steps{
                "A: send c=C text=BEFORE type=1 | - SEND_DATA p=0x0000",
                "!garbage",
                "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 text=BEFORE",
                "A: send c=C text=AFTER type=3 | - SEND_DATA p=0x0000",
                "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=AFTER",
                "B: send c=C text=REPLY type=3 | - SEND_DATA p=0x0000",
                "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=REPLY",
            }),
            "");
}

INSTANTIATE_TEST_SUITE_P(Fault, GarbageOnSocket, ::testing::ValuesIn(garbage_cases()),
                         [](const ::testing::TestParamInfo<Garbage> &info) { return info.param.name; });

// A client that says HELLO, then sends request after request and never
// reads a reply, must not stall the daemon for anybody else.
TEST(SlowClient, ClientThatNeverReadsDoesNotStallOthers) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  ASSERT_EQ(runner.run(driver_conversation(), false), "");

  RawClient raw;
  ASSERT_TRUE(raw.connect_to(daemon.socket()));
  ASSERT_TRUE(raw.hello());
  // GET_STATE for no TP: each one is answered, and never read.
  auto f = frame(sna::wire::kHeaderSize + sna::wire::kVerbFixedSize,
                 static_cast<uint16_t>(sna::wire::Kind::kVerb), sna::wire::kVerbFixedSize);
  sna::wire::Verb v;
  v.opcode = 0x0009;
  sna::wire::encode_verb(f.data() + sna::wire::kHeaderSize, v);
  size_t frames = 0;
  const auto started = Clock::now();
  while (frames < 50000 && elapsed_ms(started) < 3000) {
    size_t n = raw.write_some(f.data(), f.size());
    if (n != f.size()) {
      // The socket is full: the daemon has stopped reading this client
      // (or dropped it). Finish the frame if it takes it, then stop.
      if (n > 0) raw.write_all(f.data() + n, f.size() - n, 200);
      break;
    }
    ++frames;
  }
  EXPECT_GT(frames, 100u);

  EXPECT_EQ(runner.run(Steps{
                "A: send c=C text=PING type=3 | - SEND_DATA p=0x0000",
                "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=PING",
                "B: send c=C text=PONG type=3 | - SEND_DATA p=0x0000",
                "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=PONG",
                "+D driver",
                "D: tp_started as=T | - TP_STARTED p=0x0000",
            }),
            "");
  EXPECT_TRUE(daemon.running());
}

// A client that connects and says nothing at all.
TEST(SlowClient, SilentConnectionDoesNotStallOthers) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  RawClient raw;
  ASSERT_TRUE(raw.connect_to(daemon.socket()));
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(driver_conversation() + Steps{
                "A: send c=C text=PING type=3 | - SEND_DATA p=0x0000",
                "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=PING",
            }),
            "");
}

}  // namespace
}  // namespace e2e
