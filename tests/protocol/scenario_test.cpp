// The node's acceptance scenarios that need no real processes, driven
// through the core with two simulated programs.
#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true, B = false;

TEST(ProtoScenario, AllocateAndBufferedSendLeaveAcceptOutstanding) {  // row 1
  Harness h;
  h.setup();
  EXPECT_EQ(h.send(A, text("HELLO"), 0).primary, 0);
  EXPECT_FALSE(h.finished(h.accept_tag));
}

TEST(ProtoScenario, DeallocateDeliversDataThenNormalEnd) {  // row 2
  Harness h;
  h.setup();
  h.send(A, text("HELLO"), 0);
  EXPECT_EQ(h.deallocate(A, 1).primary, 0);
  VerbResult acc = h.result(h.accept_tag);
  ASSERT_EQ(acc.primary, 0);
  EXPECT_EQ(acc.conversation_type, 1);
  EXPECT_EQ(acc.sync_level, 0);
  EXPECT_EQ(ebcdic_text(acc.user_id), "alice");
  EXPECT_EQ(ebcdic_text(acc.tp_name), "SRV");
  h.tp_b = acc.tp_id;
  h.conv_b = acc.conv_id;
  EXPECT_EQ(h.state(B), 2);
  VerbResult r1 = h.result(h.rcv(B));
  EXPECT_EQ(r1.what_received, 0x0200);
  EXPECT_EQ(r1.data, text("HELLO"));
  EXPECT_EQ(h.result(h.rcv(B)).primary, 0x0009);
  VerbResult g = h.simple(B, Opcode::kGetState);
  EXPECT_EQ(g.primary, 1);
  EXPECT_EQ(g.secondary, 0x31u);
  EXPECT_EQ(h.node.live_conversations(), 0u);
}

TEST(ProtoScenario, PingPongWithCombinedStatus) {  // rows 3 and 4
  for (uint8_t rswd : {1, 0}) {
    Harness h;
    h.connect();
    h.send(A, text("PING"), 3);
    VerbResult r = h.result(h.rcv(B, 100, rswd));
    EXPECT_EQ(r.what_received, rswd ? 0x0201 : 0x0200);
    EXPECT_EQ(r.data.size(), 4u);
    if (!rswd) {
      EXPECT_EQ(h.result(h.rcv(B, 100, 0)).what_received, 0x0001);
    }
    EXPECT_EQ(h.state(B), rswd ? 9 : 1);
    EXPECT_EQ(h.send(B, text("PONG"), 3).primary, 0);
    VerbResult p = h.result(h.rcv(A));
    EXPECT_EQ(p.what_received, 0x0201);
    EXPECT_EQ(p.data, text("PONG"));
  }
}

TEST(ProtoScenario, ConfirmWaitsForConfirmed) {  // row 5
  Harness h;
  h.connect(1, 1);
  Verb v = h.conv_verb(Opcode::kSendData, A);
  v.data = text("X");
  v.send_type = 2;
  uint64_t t = h.issue(Harness::kA, v);
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(h.state(A), 6);
  EXPECT_EQ(h.result(h.rcv(B)).what_received, 0x0202);
  EXPECT_EQ(h.state(B), 3);
  EXPECT_EQ(h.simple(B, Opcode::kConfirmed).primary, 0);
  EXPECT_EQ(h.state(B), 2);
  EXPECT_EQ(h.result(t).primary, 0);
  EXPECT_EQ(h.state(A), 1);
}

TEST(ProtoScenario, ConfirmDeallocateEndsBothEnds) {  // row 6
  Harness h;
  h.connect(1, 1);
  Verb v = h.conv_verb(Opcode::kDeallocate, A);
  v.type = 0;
  uint64_t t = h.issue(Harness::kA, v);
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(h.result(h.rcv(B)).what_received, 0x0004);
  EXPECT_EQ(h.state(B), 5);
  EXPECT_EQ(h.simple(B, Opcode::kConfirmed).primary, 0);
  EXPECT_EQ(h.result(t).primary, 0);
  EXPECT_EQ(h.node.live_conversations(), 0u);
}

TEST(ProtoScenario, SendErrorAnswersConfirm) {  // row 7
  Harness h;
  h.connect(1, 1);
  h.send(A, text("ABC"), 0);
  uint64_t c = h.issue(Harness::kA, h.conv_verb(Opcode::kConfirm, A));
  VerbResult r = h.result(h.rcv(B));
  EXPECT_EQ(r.what_received, 0x0202);
  EXPECT_EQ(r.data.size(), 3u);
  EXPECT_EQ(h.simple(B, Opcode::kSendError).primary, 0);
  EXPECT_EQ(h.result(c).primary, 0x000E);
  EXPECT_EQ(h.state(A), 2);
  h.send(B, text("WHY"), 3);
  VerbResult w = h.result(h.rcv(A));
  EXPECT_EQ(w.what_received, 0x0201);
  EXPECT_EQ(w.data, text("WHY"));
}

TEST(ProtoScenario, ReceiveImmediatelyInPieces) {  // row 8
  Harness h;
  h.connect();
  h.send(A, text("0123456789"), 1);
  const uint16_t expect[] = {0x0400, 0x0400, 0x0200};
  const size_t lens[] = {4, 4, 2};
  for (int i = 0; i < 3; ++i) {
    VerbResult r = h.result(h.rcv(B, 4, 1, 1, 1, false));
    EXPECT_EQ(r.what_received, expect[i]);
    EXPECT_EQ(r.data.size(), lens[i]);
  }
  EXPECT_EQ(h.result(h.rcv(B, 4, 1, 1, 1, false)).primary, 0x0014);
}

TEST(ProtoScenario, NullRecords) {  // row 9
  Harness h;
  h.connect();
  h.send(A, {}, 1);
  h.send(A, {}, 1);
  VerbResult r = h.result(h.rcv(B));
  EXPECT_EQ(r.what_received, 0x0200);
  EXPECT_TRUE(r.data.empty());
  VerbResult z = h.result(h.rcv(B, 0));
  EXPECT_EQ(z.what_received, 0x0200);
  EXPECT_EQ(h.result(h.rcv(B, 4, 1, 1, 1, false)).primary, 0x0014);
}

TEST(ProtoScenario, BasicLogicalRecordsWithAndWithoutFill) {  // row 10
  const Bytes data = {0x00, 0x05, 0x61, 0x62, 0x63, 0x00, 0x03, 0x64};
  {
    Harness h;
    h.connect(0);
    EXPECT_EQ(h.send(A, data, 3, 0).primary, 0);
    VerbResult r1 = h.result(h.rcv(B, 100, 1, 0, 1));
    EXPECT_EQ(r1.what_received, 0x0200);
    EXPECT_EQ(r1.data, Bytes(data.begin(), data.begin() + 5));
    VerbResult r2 = h.result(h.rcv(B, 100, 1, 0, 1));
    EXPECT_EQ(r2.what_received, 0x0201);
    EXPECT_EQ(r2.data, Bytes(data.begin() + 5, data.end()));
  }
  {
    Harness h;
    h.connect(0);
    h.send(A, data, 3, 0);
    VerbResult r = h.result(h.rcv(B, 100, 1, 0, 0));
    EXPECT_EQ(r.what_received, 0x0101);
    EXPECT_EQ(r.data.size(), 8u);
  }
}

TEST(ProtoScenario, InvalidLogicalRecordLength) {  // row 11
  Harness h;
  h.connect(0);
  VerbResult r = h.send(A, {0x00, 0x01, 0x41}, 1, 0);
  EXPECT_EQ(r.primary, 1);
  EXPECT_EQ(r.secondary, 0x15Bu);
  EXPECT_EQ(h.state(A), 1);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 0, 1, false)).primary, 0x0014);
}

TEST(ProtoScenario, IncompleteRecordBlocksPrepareToReceive) {  // row 12
  Harness h;
  h.connect(0);
  EXPECT_EQ(h.send(A, {0x00, 0x0A, 0x61}, 0, 0).primary, 0);
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A, 0);
  p.type = 1;
  VerbResult r = h.run(Harness::kA, p);
  EXPECT_EQ(r.primary, 2);
  EXPECT_EQ(r.secondary, 0x21u);
  EXPECT_EQ(h.send(A, Bytes(7, 0x62), 0, 0).primary, 0);
  EXPECT_EQ(h.run(Harness::kA, p).primary, 0);
}

TEST(ProtoScenario, SendErrorTruncatesARecord) {  // row 13
  Harness h;
  h.connect(0);
  h.send(A, {0x00, 0x10, 0x61, 0x62}, 1, 0);
  EXPECT_EQ(h.simple(A, Opcode::kSendError, 0).primary, 0);
  h.send(A, {0x00, 0x03, 0x7A}, 3, 0);
  VerbResult r1 = h.result(h.rcv(B, 100, 1, 0, 1));
  EXPECT_EQ(r1.what_received, 0x0400);
  EXPECT_EQ(r1.data.size(), 4u);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 0, 1)).primary, 0x000D);
  VerbResult r3 = h.result(h.rcv(B, 100, 1, 0, 1));
  EXPECT_EQ(r3.what_received, 0x0201);
  EXPECT_EQ(r3.data, (Bytes{0x00, 0x03, 0x7A}));
}

TEST(ProtoScenario, ReceiveImmediatelyWithNothing) {  // row 14
  Harness h;
  h.connect();
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, 0x0014);
  EXPECT_EQ(h.state(B), 2);
}

TEST(ProtoScenario, RequestToSend) {  // row 15
  {
    Harness h;
    h.connect();
    EXPECT_EQ(h.simple(B, Opcode::kRequestToSend).primary, 0);
    EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, 0);
    EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, 0x0014);
    EXPECT_EQ(h.send(A, text("x"), 0).rts_received, 0);
  }
  {
    Harness h;
    h.connect();
    h.simple(B, Opcode::kRequestToSend);
    EXPECT_EQ(h.send(A, text("x"), 0).rts_received, 1);
    EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, 0x0014);
  }
}

TEST(ProtoScenario, AttachRejectionReportedByLaterVerbs) {  // row 16
  {
    Harness h;
    h.tp_a = h.start_tp(Harness::kA);
    VerbResult al = h.run(Harness::kA, h.allocate_verb("NOSUCH"));
    ASSERT_EQ(al.primary, 0);
    h.conv_a = al.conv_id;
    EXPECT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
    VerbResult s = h.send(A, text("x"), 0);
    EXPECT_EQ(s.primary, 3);
    EXPECT_EQ(s.secondary, 0x10086021u);
    EXPECT_EQ(h.simple(A, Opcode::kGetState).secondary, 0x31u);
  }
  {
    Harness h;
    h.tp_a = h.start_tp(Harness::kA);
    h.conv_a = h.run(Harness::kA, h.allocate_verb("NOSUCH")).conv_id;
    EXPECT_EQ(h.deallocate(A, 1).primary, 0);
  }
  {
    Harness h;
    h.tp_a = h.start_tp(Harness::kA);
    h.conv_a = h.run(Harness::kA, h.allocate_verb("NOSUCH", 1, 1)).conv_id;
    VerbResult c = h.simple(A, Opcode::kConfirm);
    EXPECT_EQ(c.primary, 3);
    EXPECT_EQ(c.secondary, 0x10086021u);
  }
}

NodeConfig with_definitions() {
  NodeConfig cfg;
  cfg.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  TpDefinition monly{"MONLY"};
  monly.conversation_type = TypeAllowed::kMapped;
  TpDefinition nconf{"NCONF"};
  nconf.sync_level = SyncAllowed::kNone;
  TpDefinition bad{"BAD"};
  TpDefinition slow{"SLOW"};
  slow.attach_timeout_ms = 2000;
  cfg.tp_definitions = {monly, nconf, bad, slow};
  cfg.security_users.push_back({"USER1", "PASS1"});
  cfg.modes.push_back({"ONE", 1});
  return cfg;
}

struct RejectCase {
  const char* name;
  const char* tp;
  uint8_t opext;
  uint8_t sync;
  uint32_t secondary;
};
inline void PrintTo(const RejectCase& c, std::ostream* os) { *os << c.name; }

class ProtoAttachReject : public ::testing::TestWithParam<RejectCase> {};

TEST_P(ProtoAttachReject, ReportedByReceiveAndWait) {  // rows 17, 18
  const auto& c = GetParam();
  Harness h(with_definitions());
  h.tp_a = h.start_tp(Harness::kA);
  VerbResult al = h.run(Harness::kA, h.allocate_verb(c.tp, c.opext, c.sync));
  ASSERT_EQ(al.primary, 0);
  h.conv_a = al.conv_id;
  VerbResult r = h.result(h.rcv(A, 100, 1, c.opext));
  EXPECT_EQ(r.primary, 3);
  EXPECT_EQ(r.secondary, c.secondary);
}

const RejectCase kRejects[] = {
    {"basic to mapped-only", "MONLY", 0, 0, 0x10086034},
    {"confirm to none-only", "NCONF", 1, 1, 0x10086041},
    {"unknown name", "NOSUCH", 1, 0, 0x10086021},
};
INSTANTIATE_TEST_SUITE_P(ProtoScenario, ProtoAttachReject, ::testing::ValuesIn(kRejects));

TEST(ProtoScenario, ProgramSecurity) {  // row 19
  Harness h(with_definitions());
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SRV");
  uint64_t acc = h.receive_allocate(Harness::kB);
  Verb al = h.allocate_verb("SRV");
  al.security = 2;
  Bytes u = ebcdic_field("USER1", 10), bad = ebcdic_field("WRONG", 10), good = ebcdic_field("PASS1", 10);
  std::copy(u.begin(), u.end(), al.user_id.begin());
  std::copy(bad.begin(), bad.end(), al.password.begin());
  h.conv_a = h.run(Harness::kA, al).conv_id;
  VerbResult r = h.result(h.rcv(A));
  EXPECT_EQ(r.primary, 3);
  EXPECT_EQ(r.secondary, 0x080F6051u);
  std::copy(good.begin(), good.end(), al.password.begin());
  h.conv_a = h.run(Harness::kA, al).conv_id;
  h.simple(A, Opcode::kFlush);
  VerbResult a2 = h.result(acc);
  EXPECT_EQ(a2.primary, 0);
  EXPECT_EQ(ebcdic_text(a2.user_id), "USER1");
}

TEST(ProtoScenario, AbendByProgramReachesSender) {  // row 20
  for (uint8_t opext : {0, 1}) {
    Harness h;
    h.connect(opext);
    Verb p = h.conv_verb(Opcode::kPrepareToReceive, A, opext);
    p.type = 1;
    h.run(Harness::kA, p);
    EXPECT_EQ(h.result(h.rcv(B, 100, 1, opext)).what_received, 0x0001);
    Verb d = h.conv_verb(Opcode::kDeallocate, A, opext);
    d.type = 2;
    d.data = text("LOG");
    EXPECT_EQ(h.run(Harness::kA, d).primary, 0);
    VerbResult s = h.send(B, {0x00, 0x03, 0x41}, 0, opext);
    EXPECT_EQ(s.primary, opext ? 0x0005 : 0x0006);
    EXPECT_EQ(s.secondary, 0x08640000u);
    if (opext == 0) {
      ASSERT_EQ(h.logs.size(), 1u);
      EXPECT_EQ(h.logs[0].data, text("LOG"));
    }
  }
}

TEST(ProtoScenario, TpEndedHardAbendsPartner) {  // row 21
  for (uint8_t opext : {0, 1}) {
    Harness h;
    h.connect(opext);
    Verb p = h.conv_verb(Opcode::kPrepareToReceive, A, opext);
    p.type = 1;
    h.run(Harness::kA, p);
    uint64_t t = h.rcv(A, 100, 1, opext);
    h.result(h.rcv(B, 100, 1, opext));
    Verb e;
    e.opcode = Opcode::kTpEnded;
    e.tp_id = h.tp_b;
    e.type = 1;
    EXPECT_EQ(h.run(Harness::kB, e).primary, 0);
    VerbResult r = h.result(t);
    EXPECT_EQ(r.primary, opext ? 0x0005 : 0x0007);
    EXPECT_EQ(r.secondary, 0x08640001u);
  }
}

TEST(ProtoScenario, CancelConversationCompletesOutstandingReceive) {  // row 22
  Harness h;
  h.connect();
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A);
  p.type = 1;
  h.run(Harness::kA, p);
  h.result(h.rcv(B));
  uint64_t t = h.rcv(A);
  EXPECT_FALSE(h.finished(t));
  Verb c;
  c.opcode = Opcode::kCancelConversation;
  c.tp_id = h.tp_a;
  c.conv_id = h.conv_a;
  uint64_t ct = h.issue(Harness::kA, c);
  EXPECT_EQ(h.result(t).primary, 0x0021);
  EXPECT_EQ(h.result(ct).primary, 0);
  EXPECT_LT(t, ct);
  EXPECT_EQ(h.send(B, text("x"), 0).primary, 0x0005);
}

TEST(ProtoScenario, CancelReceiveAllocateByCorrelator) {  // row 23
  Harness h;
  h.register_name(Harness::kB, "SRV");
  uint64_t acc = h.receive_allocate(Harness::kB, 0x1234);
  Verb c;
  c.opcode = Opcode::kCancelConversation;
  c.conv_id = 0x1234;
  EXPECT_EQ(h.run(Harness::kB, c).primary, 0);
  EXPECT_EQ(h.result(acc).primary, 0x0021);
}

TEST(ProtoScenario, TpEndedCompletesVerbsFirst) {  // row 24
  Harness h;
  h.connect();
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A);
  p.type = 1;
  h.run(Harness::kA, p);
  h.result(h.rcv(B));
  uint64_t t = h.rcv(A);
  Verb e;
  e.opcode = Opcode::kTpEnded;
  e.tp_id = h.tp_a;
  e.type = 1;
  Actions acts = h.node.issue(Harness::kA, 999, e);
  ASSERT_GE(acts.size(), 2u);
  size_t rcv_at = 0, ended_at = 0;
  for (size_t i = 0; i < acts.size(); ++i)
    if (auto* c = std::get_if<Completion>(&acts[i])) {
      if (c->tag == t) rcv_at = i + 1;
      if (c->tag == 999) ended_at = i + 1;
    }
  ASSERT_TRUE(rcv_at && ended_at);
  EXPECT_LT(rcv_at, ended_at);
  h.absorb(acts);
  EXPECT_EQ(h.result(t).primary, 0x0021);
  EXPECT_EQ(h.send(B, text("x"), 0).primary, 0x0005);
  Verb g = h.conv_verb(Opcode::kGetState, A);
  EXPECT_EQ(h.run(Harness::kA, g).secondary, 0xF1u);
}

TEST(ProtoScenario, StartedProgramAcceptsAndEchoes) {  // row 26
  NodeConfig cfg;
  cfg.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  cfg.local_lus.push_back({"SECOND", "NETWORK.SECOND", ""});
  cfg.partners.push_back({"TOSECOND", "NETWORK.SECOND"});
  cfg.tp_definitions.push_back(TpDefinition{"ECHO"});
  Harness h(std::move(cfg));
  h.tp_a = h.start_tp(Harness::kA);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("ECHO")).conv_id;
  EXPECT_TRUE(h.programs.empty()) << "the attach has not been sent yet";
  EXPECT_EQ(h.send(A, text("E"), 3).primary, 0);
  ASSERT_EQ(h.programs.size(), 1u);
  EXPECT_EQ(h.programs[0].tp_name, "ECHO");           // APPCTPN
  EXPECT_EQ(h.programs[0].local_lu_alias, "LOCAL");   // APPCLLU
  ASSERT_EQ(h.timers.size(), 1u);
  EXPECT_EQ(h.timers[0].milliseconds, 60000u) << "the node's default attach timeout";
  const uint64_t rcv_a = h.rcv(A);

  // The program starts, connects, takes the attach and echoes.
  h.absorb(h.node.program_started(h.programs[0].instance, 300));
  constexpr ClientId kEcho = 3;
  h.node.client_connected(kEcho, 300, "echo");
  h.register_name(kEcho, "ECHO");
  VerbResult acc = h.result(h.receive_allocate(kEcho));
  ASSERT_EQ(acc.primary, 0);
  EXPECT_EQ(ebcdic_text(acc.tp_name), "ECHO");
  EXPECT_EQ(std::string(acc.local_lu_alias.begin(), acc.local_lu_alias.end()), "LOCAL   ");
  Verb r = h.conv_verb(Opcode::kReceiveAndWait, B);
  r.tp_id = acc.tp_id;
  r.conv_id = acc.conv_id;
  r.max_length = 100;
  r.return_status_with_data = 1;
  VerbResult got = h.run(kEcho, r);
  EXPECT_EQ(got.what_received, 0x0201);
  EXPECT_EQ(got.data, text("E"));
  Verb s = h.conv_verb(Opcode::kSendData, B);
  s.tp_id = acc.tp_id;
  s.conv_id = acc.conv_id;
  s.data = got.data;
  s.data_length = 1;
  s.send_type = 3;
  EXPECT_EQ(h.run(kEcho, s).primary, 0);
  VerbResult echoed = h.result(rcv_a);
  EXPECT_EQ(echoed.what_received, 0x0201);
  EXPECT_EQ(echoed.data, text("E"));

  // The instance has taken its attach: the next attach needs another one,
  // started on the LU that receives it.
  Verb second = h.allocate_verb("ECHO");
  const std::string alias = "TOSECOND";
  std::copy(alias.begin(), alias.end(), second.partner_lu_alias.begin());
  h.conv_a = h.run(Harness::kA, second).conv_id;
  EXPECT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  ASSERT_EQ(h.programs.size(), 2u);
  EXPECT_EQ(h.programs[1].tp_name, "ECHO");
  EXPECT_EQ(h.programs[1].local_lu_alias, "SECOND");
  EXPECT_NE(h.programs[1].instance, h.programs[0].instance);
}

TEST(ProtoScenario, AttachManagerFailureAndTimeout) {  // rows 27, 28
  {
    Harness h(with_definitions());
    h.tp_a = h.start_tp(Harness::kA);
    h.conv_a = h.run(Harness::kA, h.allocate_verb("BAD")).conv_id;
    uint64_t t = h.rcv(A);
    ASSERT_EQ(h.programs.size(), 1u);
    EXPECT_EQ(h.programs[0].tp_name, "BAD");
    h.absorb(h.node.program_failed(h.programs[0].instance));
    EXPECT_EQ(h.result(t).primary, 3);
    EXPECT_EQ(h.result(t).secondary, 0x084C0000u);
  }
  {
    Harness h(with_definitions());
    h.tp_a = h.start_tp(Harness::kA);
    h.conv_a = h.run(Harness::kA, h.allocate_verb("SLOW")).conv_id;
    uint64_t t = h.rcv(A);
    ASSERT_EQ(h.timers.size(), 1u);
    EXPECT_EQ(h.timers[0].milliseconds, 2000u);
    EXPECT_FALSE(h.finished(t));
    h.absorb(h.node.timer_expired(h.timers[0].timer));
    EXPECT_EQ(h.result(t).secondary, 0x084B6031u);
  }
}

TEST(ProtoScenario, QueuedAttachTakenByLaterAccept) {  // row 29
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "QN");
  h.conv_a = h.run(Harness::kA, h.allocate_verb("QN")).conv_id;
  EXPECT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  VerbResult acc = h.result(h.receive_allocate(Harness::kB));
  EXPECT_EQ(acc.primary, 0);
  EXPECT_EQ(ebcdic_text(acc.tp_name), "QN");
}

TEST(ProtoScenario, SessionLimitWithImmediateReturn) {  // row 30
  Harness h(with_definitions());
  h.tp_a = h.start_tp(Harness::kA);
  Verb al = h.allocate_verb("SRV");
  Bytes m = ebcdic_field("ONE", 8);
  std::copy(m.begin(), m.end(), al.mode_name.begin());
  al.return_control = 1;
  EXPECT_EQ(h.run(Harness::kA, al).primary, 0);
  EXPECT_EQ(h.run(Harness::kA, al).primary, 0x0014);
  EXPECT_EQ(h.node.session_count(), 1u);
}

TEST(ProtoScenario, SessionLimitMakesAllocateWaitForTheSession) {  // row 30, return control 0
  Harness h(with_definitions());
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SRV");
  const uint64_t acc = h.receive_allocate(Harness::kB);
  Verb al = h.allocate_verb("SRV");
  Bytes m = ebcdic_field("ONE", 8);
  std::copy(m.begin(), m.end(), al.mode_name.begin());
  VerbResult first = h.run(Harness::kA, al);
  ASSERT_EQ(first.primary, 0);
  h.conv_a = first.conv_id;
  const uint64_t waiting = h.issue(Harness::kA, al);
  EXPECT_FALSE(h.finished(waiting)) << "no session free: the ALLOCATE waits";
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  VerbResult b = h.result(acc);
  ASSERT_EQ(b.primary, 0);
  h.tp_b = b.tp_id;
  h.conv_b = b.conv_id;
  EXPECT_EQ(h.deallocate(A, 1).primary, 0);
  EXPECT_FALSE(h.finished(waiting)) << "B has not yet received the end";
  EXPECT_EQ(h.result(h.rcv(B)).primary, rc::kDeallocNormal);
  ASSERT_TRUE(h.finished(waiting));
  EXPECT_EQ(h.result(waiting).primary, 0);
  EXPECT_EQ(h.node.session_count(), 1u);
}

}  // namespace
}  // namespace sna::proto::test
