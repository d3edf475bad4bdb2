// Parameter and state checks of the verb blocks, TP and TP-name verbs:
// each refusal with its code, and a refusal changes nothing.
#include <functional>
#include <string>

#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true;

void set_alias(Name8& n, const std::string& s) {
  n.fill(' ');
  std::copy(s.begin(), s.end(), n.begin());
}
void set_ebcdic(Name8& n, const std::string& s) {
  Bytes b = ebcdic_field(s, 8);
  std::copy(b.begin(), b.end(), n.begin());
}

struct CheckCase {
  const char* name;
  std::function<Verb(const Harness&)> verb;  // issued by A on a connected conversation
  uint16_t primary;
  uint32_t secondary;
};
inline void PrintTo(const CheckCase& c, std::ostream* os) { *os << c.name; }

Verb allocate(const Harness& h) { return h.allocate_verb("SRV"); }
Verb conv(const Harness& h, Opcode op) {
  Verb v = h.conv_verb(op, A);
  v.max_length = 10;
  return v;
}

const CheckCase kChecks[] = {
    {"ALLOCATE format 0",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.format = 0;
       return v;
     },
     1, 0x101},
    {"ALLOCATE sync level 2",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.sync_level = 2;
       return v;
     },
     1, 0x102},
    {"ALLOCATE security 3",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.security = 3;
       return v;
     },
     1, 0x102},
    {"ALLOCATE security 4",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.security = 4;
       return v;
     },
     1, 0x102},
    {"ALLOCATE PIP length",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.pip_length = 1;
       return v;
     },
     1, 0x102},
    {"ALLOCATE return control 2",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.return_control = 2;
       return v;
     },
     1, 0x102},
    {"ALLOCATE unknown TP",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.tp_id[7] ^= 0x5A;
       return v;
     },
     1, 0xF1},
    {"ALLOCATE unknown partner alias",
     [](const Harness& h) {
       Verb v = allocate(h);
       set_alias(v.partner_lu_alias, "NOSUCH");
       return v;
     },
     1, 0x17},
    {"ALLOCATE malformed qualified name",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.partner_lu_alias[0] = 0;
       Bytes b = ebcdic_field("NETWORK..X", 17);
       std::copy(b.begin(), b.end(), v.partner_lu_name.begin());
       return v;
     },
     1, 0x17},
    {"ALLOCATE qualified name nobody knows",
     [](const Harness& h) {
       Verb v = allocate(h);
       v.partner_lu_alias[0] = 0;
       Bytes b = ebcdic_field("FAR.AWAY", 17);
       std::copy(b.begin(), b.end(), v.partner_lu_name.begin());
       return v;
     },
     3, 0x04},
    {"ALLOCATE mode not defined",
     [](const Harness& h) {
       Verb v = allocate(h);
       set_ebcdic(v.mode_name, "NOMODE");
       return v;
     },
     1, 0x18},
    {"ALLOCATE mode SNASVCMG",
     [](const Harness& h) {
       Verb v = allocate(h);
       set_ebcdic(v.mode_name, "SNASVCMG");
       return v;
     },
     1, 0x18},
    {"ALLOCATE mode CPSVCMG",
     [](const Harness& h) {
       Verb v = allocate(h);
       set_ebcdic(v.mode_name, "CPSVCMG");
       return v;
     },
     1, 0x18},
    {"SEND_DATA longer than 32767",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendData);
       v.data_length = 32768;
       return v;
     },
     1, 0x102},
    {"SEND_DATA type 8",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendData);
       v.send_type = 8;
       return v;
     },
     1, 0x102},
    {"SEND_DATA basic opext on mapped",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendData);
       v.opext = 0;
       return v;
     },
     1, 0x103},
    {"RECEIVE_AND_WAIT maximum 32768",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kReceiveAndWait);
       v.max_length = 32768;
       return v;
     },
     1, 0x102},
    {"RECEIVE_AND_WAIT fill 2",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kReceiveAndWait);
       v.fill = 2;
       return v;
     },
     1, 0x102},
    {"RECEIVE_IMMEDIATELY status-with-data 2",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kReceiveImmediately);
       v.return_status_with_data = 2;
       return v;
     },
     1, 0x102},
    {"RECEIVE_IMMEDIATELY opext",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kReceiveImmediately);
       v.opext = 0;
       return v;
     },
     1, 0x103},
    {"DEALLOCATE type 6",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kDeallocate);
       v.type = 6;
       return v;
     },
     1, 0x102},
    {"DEALLOCATE log longer than 32767",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kDeallocate);
       v.type = 2;
       v.data_length = 40000;
       return v;
     },
     1, 0x102},
    {"DEALLOCATE opext",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kDeallocate);
       v.type = 1;
       v.opext = 0;
       return v;
     },
     1, 0x103},
    {"PREPARE_TO_RECEIVE type 2",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kPrepareToReceive);
       v.type = 2;
       return v;
     },
     1, 0x102},
    {"SEND_ERROR error type 2",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendError);
       v.error_type = 2;
       return v;
     },
     1, 0x102},
    {"SEND_ERROR direction 2",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendError);
       v.direction = 2;
       return v;
     },
     1, 0x102},
    {"SEND_ERROR opext",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kSendError);
       v.opext = 0;
       return v;
     },
     1, 0x103},
    {"conversation verb with an unknown TP",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kFlush);
       v.tp_id[0] ^= 0xFF;
       return v;
     },
     1, 0xF1},
    {"conversation verb with the partner's TP",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kFlush);
       v.tp_id = h.tp_b;
       return v;
     },
     1, 0xF1},
    {"conversation verb with the partner's end",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kFlush);
       v.conv_id = h.conv_b;
       return v;
     },
     1, 0x31},
    {"unknown opcode",
     [](const Harness& h) {
       Verb v = conv(h, Opcode::kFlush);
       v.opcode = static_cast<Opcode>(0x0099);
       return v;
     },
     1, 0x101},
    {"TP_ENDED type 2",
     [](const Harness& h) {
       Verb v;
       v.opcode = Opcode::kTpEnded;
       v.tp_id = h.tp_a;
       v.type = 2;
       return v;
     },
     1, 0x102},
    {"TP_ENDED unknown TP",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kTpEnded;
       v.tp_id[7] = 0x77;
       return v;
     },
     1, 0xF1},
    {"TP_STARTED unknown alias",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kTpStarted;
       set_alias(v.local_lu_alias, "NOSUCH");
       return v;
     },
     1, 0x104},
    {"RECEIVE_ALLOCATE_CPIC format 0",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kReceiveAllocate;
       v.format = 0;
       return v;
     },
     1, 0x101},
    {"RECEIVE_ALLOCATE_CPIC without a registered name",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kReceiveAllocate;
       v.format = 1;
       return v;
     },
     2, 0x24},
    {"register an all-blank name",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kRegisterTpName;
       v.tp_name = tpn("");
       return v;
     },
     1, 0x105},
    {"withdraw a name not registered",
     [](const Harness&) {
       Verb v;
       v.opcode = Opcode::kWithdrawTpName;
       v.tp_name = tpn("SRV");
       return v;
     },
     1, 0x105},
};

class ProtoChecks : public ::testing::TestWithParam<CheckCase> {};

TEST_P(ProtoChecks, RefusedWithItsCodeAndNothingChanges) {
  const auto& c = GetParam();
  Harness h;
  h.connect();
  const size_t ends = h.node.live_conversations(), sessions = h.node.session_count();
  const size_t tps = h.node.snapshot().tps.size();
  VerbResult r = h.run(Harness::kA, c.verb(h));
  EXPECT_EQ(r.primary, c.primary);
  EXPECT_EQ(r.secondary, c.secondary);
  EXPECT_EQ(h.node.live_conversations(), ends);
  EXPECT_EQ(h.node.session_count(), sessions);
  EXPECT_EQ(h.node.snapshot().tps.size(), tps);
  EXPECT_EQ(h.state(A), 1);
  EXPECT_EQ(h.send(A, text("still"), 3).primary, 0);
  EXPECT_EQ(h.result(h.rcv(false)).data, text("still"));
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoChecks, ::testing::ValuesIn(kChecks));

TEST(ProtoChecks, LocksOtherThanZeroAreTakenAsZero) {
  Harness h;
  h.connect();
  Verb v = h.conv_verb(Opcode::kPrepareToReceive, A);
  v.type = 1;
  v.locks = 7;
  EXPECT_EQ(h.run(Harness::kA, v).primary, 0);
}

TEST(ProtoChecks, BlankAndClearedModesAreTheSameMode) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SRV");
  Verb v = h.allocate_verb("SRV");
  v.mode_name.fill(0);
  VerbResult first = h.run(Harness::kA, v);
  ASSERT_EQ(first.primary, 0);
  h.conv_a = first.conv_id;
  h.deallocate(A, 1);
  VerbResult acc = h.result(h.receive_allocate(Harness::kB));
  ASSERT_EQ(acc.primary, 0);
  EXPECT_EQ(acc.mode_name, (Name8{0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40}));
  h.tp_b = acc.tp_id;
  h.conv_b = acc.conv_id;
  EXPECT_EQ(h.result(h.rcv(false)).primary, rc::kDeallocNormal);
  v.mode_name.fill(0x40);
  EXPECT_EQ(h.run(Harness::kA, v).primary, 0);
  EXPECT_EQ(h.node.session_count(), 1u) << "one session serves both spellings";
}

struct TpStartedCase {
  const char* name;
  Name8 alias;
  const char* used;
};
inline void PrintTo(const TpStartedCase& c, std::ostream* os) { *os << c.name; }

const TpStartedCase kTpStarted[] = {
    {"zeros: default LU", Name8{}, "LOCAL   "},
    {"blanks: default LU", Name8{' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '}, "LOCAL   "},
    {"named", Name8{'O', 'T', 'H', 'E', 'R', ' ', ' ', ' '}, "OTHER   "},
};

class ProtoTpStarted : public ::testing::TestWithParam<TpStartedCase> {};

TEST_P(ProtoTpStarted, ReturnsTheAliasUsedAndAFreshId) {
  NodeConfig cfg;
  cfg.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  cfg.local_lus.push_back({"OTHER", "NETWORK.OTHER", ""});
  cfg.tp_id_stamp = 0xA1B2C3D4;
  Harness h(std::move(cfg));
  Verb v;
  v.opcode = Opcode::kTpStarted;
  v.local_lu_alias = GetParam().alias;
  VerbResult r1 = h.run(Harness::kA, v), r2 = h.run(Harness::kA, v);
  ASSERT_EQ(r1.primary, 0);
  EXPECT_EQ(std::string(r1.local_lu_alias.begin(), r1.local_lu_alias.end()), GetParam().used);
  EXPECT_EQ((Bytes{r1.tp_id[0], r1.tp_id[1], r1.tp_id[2], r1.tp_id[3]}), (Bytes{0xA1, 0xB2, 0xC3, 0xD4}));
  EXPECT_NE(r1.tp_id, r2.tp_id);
  EXPECT_NE(r1.tp_id, TpId{});
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoTpStarted, ::testing::ValuesIn(kTpStarted));

TEST(ProtoTpNames, RegisteringTwiceIsFineAndSeveralClientsMayShareAName) {
  Harness h;
  h.register_name(Harness::kA, "SRV");
  h.register_name(Harness::kA, "SRV");
  h.register_name(Harness::kB, "SRV");
  Verb w;
  w.opcode = Opcode::kWithdrawTpName;
  w.tp_name = tpn("SRV");
  EXPECT_EQ(h.run(Harness::kA, w).primary, 0);
  EXPECT_EQ(h.run(Harness::kA, w).secondary, rc::kBadTpName) << "once withdrawn, gone";
  EXPECT_EQ(h.node.snapshot().registrations.size(), 1u);
}

TEST(ProtoTpNames, WithdrawingTheLastNameEndsWaitingAccepts) {
  Harness h;
  h.register_name(Harness::kB, "ONE");
  h.register_name(Harness::kB, "TWO");
  const uint64_t a1 = h.receive_allocate(Harness::kB), a2 = h.receive_allocate(Harness::kB);
  Verb w;
  w.opcode = Opcode::kWithdrawTpName;
  w.tp_name = tpn("ONE");
  EXPECT_EQ(h.run(Harness::kB, w).primary, 0);
  EXPECT_FALSE(h.finished(a1)) << "a name remains";
  w.tp_name = tpn("TWO");
  EXPECT_EQ(h.run(Harness::kB, w).primary, 0);
  for (uint64_t t : {a1, a2}) {
    EXPECT_EQ(h.result(t).primary, rc::kStateCheck);
    EXPECT_EQ(h.result(t).secondary, rc::kNoRegisteredName);
  }
}

TEST(ProtoTpNames, OldestWaitingAcceptWinsAndQueuedAttachesAreFifo) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SRV");
  const uint64_t first = h.receive_allocate(Harness::kB, 1), second = h.receive_allocate(Harness::kB, 2);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("SRV")).conv_id;
  h.simple(A, Opcode::kFlush);
  EXPECT_TRUE(h.finished(first));
  EXPECT_FALSE(h.finished(second));
}

TEST(ProtoTpNames, LastRegistrationGoneRejectsQueuedAttaches) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "QN");
  h.conv_a = h.run(Harness::kA, h.allocate_verb("QN")).conv_id;
  h.simple(A, Opcode::kFlush);
  h.absorb(h.node.client_closed(Harness::kB));
  VerbResult r = h.result(h.rcv(A));
  EXPECT_EQ(r.primary, rc::kAllocationError);
  EXPECT_EQ(r.secondary, 0x084B6031u);
}

TEST(ProtoCancel, AllocateWaitingForASessionIsCancelled) {
  NodeConfig cfg;
  cfg.modes.push_back({"ONE", 1});
  Harness h(std::move(cfg));
  h.tp_a = h.start_tp(Harness::kA);
  Verb al = h.allocate_verb("SRV");
  set_ebcdic(al.mode_name, "ONE");
  ASSERT_EQ(h.run(Harness::kA, al).primary, 0);
  const uint64_t waiting = h.issue(Harness::kA, al);
  ASSERT_FALSE(h.finished(waiting));
  Verb c;
  c.opcode = Opcode::kCancelConversation;
  c.tp_id = h.tp_a;
  EXPECT_EQ(h.run(Harness::kA, c).primary, 0);
  EXPECT_EQ(h.result(waiting).primary, rc::kCancelled);
  c.tp_id = TpId{};
  EXPECT_EQ(h.run(Harness::kA, c).primary, 0) << "both zero: nothing";
  c.tp_id = h.tp_a;
  c.conv_id = 0x7777;
  EXPECT_EQ(h.run(Harness::kA, c).secondary, rc::kBadConvId);
}

TEST(ProtoCancel, EndWhoseAttachIsUnsentDisappearsSilently) {
  Harness h;
  h.setup();
  h.send(A, text("never"), 0);
  Verb c;
  c.opcode = Opcode::kCancelConversation;
  c.tp_id = h.tp_a;
  c.conv_id = h.conv_a;
  const size_t flows = h.flows.size();
  EXPECT_EQ(h.run(Harness::kA, c).primary, 0);
  for (size_t i = flows; i < h.flows.size(); ++i) {
    auto f = decode_flow(h.flows[i].bytes);
    ASSERT_TRUE(f);
    EXPECT_NE(f->rh.category, RuCategory::kFmd) << "nothing reaches the partner";
  }
  EXPECT_FALSE(h.finished(h.accept_tag));
}

}  // namespace
}  // namespace sna::proto::test
