// Verb legality by conversation state, and the flows verbs put on the
// session, checked field by field.
#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true, B = false;

enum class At { kS, kR, kC, kCS, kCD, kSP };

// Brings an end of a sync-confirm mapped conversation to a state; returns
// which side is in it.
bool reach(Harness& h, At at) {
  h.connect(1, 1);
  switch (at) {
    case At::kS: return A;
    case At::kR: return B;
    case At::kC: h.issue(Harness::kA, h.conv_verb(Opcode::kConfirm, A)); break;
    case At::kCS: {
      Verb p = h.conv_verb(Opcode::kPrepareToReceive, A);
      p.type = 0;
      h.issue(Harness::kA, p);
      break;
    }
    case At::kCD: {
      Verb d = h.conv_verb(Opcode::kDeallocate, A);
      d.type = 0;
      h.issue(Harness::kA, d);
      break;
    }
    case At::kSP:
      h.send(A, text("D"), 3);
      break;
  }
  h.result(h.rcv(B));
  return B;
}

struct StateCase {
  const char* name;
  Opcode op;
  uint8_t type;
  At at;
  uint16_t primary;
  uint32_t secondary;
};
inline void PrintTo(const StateCase& c, std::ostream* os) { *os << c.name; }

const StateCase kCases[] = {
    {"SEND_DATA in R", Opcode::kSendData, 0, At::kR, 2, 0x20},
    {"SEND_DATA in C", Opcode::kSendData, 0, At::kC, 2, 0x20},
    {"SEND_DATA in CS", Opcode::kSendData, 0, At::kCS, 2, 0x20},
    {"SEND_DATA in CD", Opcode::kSendData, 0, At::kCD, 2, 0x20},
    {"SEND_DATA in S", Opcode::kSendData, 0, At::kS, 0, 0},
    {"SEND_DATA in SP", Opcode::kSendData, 0, At::kSP, 0, 0},
    {"FLUSH in R", Opcode::kFlush, 0, At::kR, 2, 0x20},
    {"FLUSH in C", Opcode::kFlush, 0, At::kC, 2, 0x20},
    {"FLUSH in SP", Opcode::kFlush, 0, At::kSP, 0, 0},
    {"CONFIRM in R", Opcode::kConfirm, 0, At::kR, 2, 0x20},
    {"CONFIRM in CD", Opcode::kConfirm, 0, At::kCD, 2, 0x20},
    {"CONFIRMED in S", Opcode::kConfirmed, 0, At::kS, 2, 0x20},
    {"CONFIRMED in R", Opcode::kConfirmed, 0, At::kR, 2, 0x20},
    {"CONFIRMED in SP", Opcode::kConfirmed, 0, At::kSP, 2, 0x20},
    {"CONFIRMED in C", Opcode::kConfirmed, 0, At::kC, 0, 0},
    {"CONFIRMED in CS", Opcode::kConfirmed, 0, At::kCS, 0, 0},
    {"CONFIRMED in CD", Opcode::kConfirmed, 0, At::kCD, 0, 0},
    {"PREPARE_TO_RECEIVE in R", Opcode::kPrepareToReceive, 1, At::kR, 2, 0x20},
    {"PREPARE_TO_RECEIVE in C", Opcode::kPrepareToReceive, 1, At::kC, 2, 0x20},
    {"PREPARE_TO_RECEIVE in SP", Opcode::kPrepareToReceive, 1, At::kSP, 0, 0},
    {"RECEIVE_IMMEDIATELY in S", Opcode::kReceiveImmediately, 0, At::kS, 2, 0x20},
    {"RECEIVE_IMMEDIATELY in SP", Opcode::kReceiveImmediately, 0, At::kSP, 2, 0x20},
    {"RECEIVE_IMMEDIATELY in C", Opcode::kReceiveImmediately, 0, At::kC, 2, 0x20},
    {"RECEIVE_IMMEDIATELY in R", Opcode::kReceiveImmediately, 0, At::kR, 0x14, 0},
    {"RECEIVE_AND_WAIT in C", Opcode::kReceiveAndWait, 0, At::kC, 2, 0x20},
    {"RECEIVE_AND_WAIT in CS", Opcode::kReceiveAndWait, 0, At::kCS, 2, 0x20},
    {"RECEIVE_AND_WAIT in CD", Opcode::kReceiveAndWait, 0, At::kCD, 2, 0x20},
    {"REQUEST_TO_SEND in C", Opcode::kRequestToSend, 0, At::kC, 0, 0},
    {"REQUEST_TO_SEND in CD", Opcode::kRequestToSend, 0, At::kCD, 0, 0},
    {"TEST_RTS in C", Opcode::kTestRts, 0, At::kC, 2, 0x20},
    {"TEST_RTS in CS", Opcode::kTestRts, 0, At::kCS, 2, 0x20},
    {"TEST_RTS in R", Opcode::kTestRts, 0, At::kR, 0x14, 0},
    {"TEST_RTS in SP", Opcode::kTestRts, 0, At::kSP, 0x14, 0},
    {"SEND_ERROR in C", Opcode::kSendError, 0, At::kC, 0, 0},
    {"SEND_ERROR in CD", Opcode::kSendError, 0, At::kCD, 0, 0},
    {"SEND_ERROR in SP", Opcode::kSendError, 0, At::kSP, 0, 0},
    {"DEALLOCATE flush in R", Opcode::kDeallocate, 1, At::kR, 2, 0x20},
    {"DEALLOCATE flush in C", Opcode::kDeallocate, 1, At::kC, 2, 0x20},
    {"DEALLOCATE confirm in CS", Opcode::kDeallocate, 0, At::kCS, 2, 0x20},
    {"DEALLOCATE abend in R", Opcode::kDeallocate, 2, At::kR, 0, 0},
    {"DEALLOCATE abend in C", Opcode::kDeallocate, 2, At::kC, 0, 0},
    {"DEALLOCATE service abend in CD", Opcode::kDeallocate, 3, At::kCD, 0, 0},
    {"DEALLOCATE timer abend in SP", Opcode::kDeallocate, 4, At::kSP, 0, 0},
    {"DEALLOCATE flush in SP", Opcode::kDeallocate, 1, At::kSP, 0, 0},
};

class ProtoVerbState : public ::testing::TestWithParam<StateCase> {};

TEST_P(ProtoVerbState, LegalityFollowsTheState) {
  const auto& c = GetParam();
  Harness h;
  const bool side = reach(h, c.at);
  const uint8_t before = h.state(side);
  Verb v = h.conv_verb(c.op, side);
  v.type = c.type;
  v.send_type = c.type;
  v.max_length = 10;
  VerbResult r = h.run(side ? Harness::kA : Harness::kB, v);
  EXPECT_EQ(r.primary, c.primary);
  EXPECT_EQ(r.secondary, c.secondary);
  if (r.primary == 2) {
    EXPECT_EQ(h.state(side), before) << "a refused verb changes nothing";
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoVerbState, ::testing::ValuesIn(kCases));

TEST(ProtoVerbChecks, OutstandingVerbBlocksOthersButNotGetStateOrRts) {
  Harness h;
  h.connect(1, 1);
  h.issue(Harness::kA, h.conv_verb(Opcode::kConfirm, A));
  EXPECT_EQ(h.state(A), 6);
  EXPECT_EQ(h.simple(A, Opcode::kFlush).secondary, 0x23u);
  EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, 0x14);
  EXPECT_EQ(h.simple(A, Opcode::kRequestToSend).primary, 0);
}

TEST(ProtoVerbChecks, ParameterChecks) {
  Harness h;
  h.connect();
  Verb v = h.conv_verb(Opcode::kSendData, A, 0);
  EXPECT_EQ(h.run(Harness::kA, v).secondary, 0x103u);
  v.opext = 1;
  v.send_type = 8;
  EXPECT_EQ(h.run(Harness::kA, v).secondary, 0x102u);
  v.send_type = 2;
  EXPECT_EQ(h.run(Harness::kA, v).secondary, 0x22u);
  v.conv_id += 100;
  v.send_type = 0;
  EXPECT_EQ(h.run(Harness::kA, v).secondary, 0x31u);
  v.tp_id[7] ^= 0xFF;
  EXPECT_EQ(h.run(Harness::kA, v).secondary, 0xF1u);
}

// The last request flow the node transmitted from half-session side
// `primary` (the allocator is the primary here).
Rh last_request_rh(const Harness& h, bool from_primary) {
  for (auto it = h.flows.rbegin(); it != h.flows.rend(); ++it) {
    if (it->from_primary != from_primary) continue;
    auto f = decode_flow(it->bytes);
    if (f && !f->rh.response) return f->rh;
  }
  return Rh{};
}

TEST(ProtoFlows, AttachBeginsTheBracketWithAnFmh5) {
  Harness h;
  h.setup();
  h.send(A, text("HI"), 1);
  auto f = decode_flow(h.flows.back().bytes);
  ASSERT_TRUE(f);
  EXPECT_TRUE(f->rh.begin_bracket);
  EXPECT_TRUE(f->rh.begin_chain);
  EXPECT_FALSE(f->rh.end_chain);
  EXPECT_TRUE(f->rh.format);
  EXPECT_EQ(f->ru[1], 0x05);
  // the data follows the attach as a mapped GDS variable
  const Bytes tail(f->ru.end() - 6, f->ru.end());
  EXPECT_EQ(tail, (Bytes{0x00, 0x06, 0x12, 0xFF, 'H', 'I'}));
}

struct FlowCase {
  const char* name;
  uint8_t sync;
  Opcode op;
  uint8_t type;
  bool cd, ceb, definite;
};
inline void PrintTo(const FlowCase& c, std::ostream* os) { *os << c.name; }

const FlowCase kFlowCases[] = {
    {"SEND_DATA type 3: end chain, change direction", 0, Opcode::kSendData, 3, true, false, false},
    {"SEND_DATA type 2: definite response", 1, Opcode::kSendData, 2, false, false, true},
    {"SEND_DATA type 4: change direction, definite", 1, Opcode::kSendData, 4, true, false, true},
    {"SEND_DATA type 5: conditional end bracket", 0, Opcode::kSendData, 5, false, true, false},
    {"SEND_DATA type 6: CEB with definite response", 1, Opcode::kSendData, 6, false, true, true},
    {"CONFIRM: definite response", 1, Opcode::kConfirm, 0, false, false, true},
    {"PREPARE_TO_RECEIVE flush: change direction", 1, Opcode::kPrepareToReceive, 1, true, false, false},
    {"PREPARE_TO_RECEIVE confirm: CD and definite", 1, Opcode::kPrepareToReceive, 0, true, false, true},
    {"DEALLOCATE flush: CEB", 1, Opcode::kDeallocate, 1, false, true, false},
    {"DEALLOCATE confirm: CEB and definite", 1, Opcode::kDeallocate, 0, false, true, true},
    {"DEALLOCATE sync none type 0: CEB", 0, Opcode::kDeallocate, 0, false, true, false},
};

class ProtoFlowBits : public ::testing::TestWithParam<FlowCase> {};

TEST_P(ProtoFlowBits, ChainEndsAsTheVerbRequires) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, c.sync);
  Verb v = h.conv_verb(c.op, A);
  v.send_type = c.type;
  v.type = c.type;
  v.data = text("Z");
  h.issue(Harness::kA, v);
  Rh rh = last_request_rh(h, true);
  EXPECT_TRUE(rh.end_chain);
  EXPECT_EQ(rh.change_direction, c.cd);
  EXPECT_EQ(rh.conditional_end_bracket, c.ceb);
  EXPECT_EQ(rh.response_mode(), c.definite ? ResponseMode::kDefinite : ResponseMode::kException);
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoFlowBits, ::testing::ValuesIn(kFlowCases));

TEST(ProtoFlows, RequestToSendIsASignal) {
  Harness h;
  h.connect();
  h.simple(B, Opcode::kRequestToSend);
  bool seen = false;
  for (const FlowOut& f : h.flows)
    if (!f.from_primary && f.bytes == Bytes({0x4B, 0x80, 0x00, 0xC9, 0x00, 0x01, 0x00, 0x00})) seen = true;
  EXPECT_TRUE(seen);
}

TEST(ProtoSessions, SessionIsReusedByTheNextConversation) {
  Harness h;
  h.connect();
  EXPECT_EQ(h.deallocate(A, 1).primary, 0);
  EXPECT_EQ(h.result(h.rcv(B)).primary, 9);
  EXPECT_EQ(h.node.session_count(), 1u);
  VerbResult again = h.run(Harness::kA, h.allocate_verb("SRV"));
  EXPECT_EQ(again.primary, 0);
  EXPECT_EQ(h.node.session_count(), 1u);
}

TEST(ProtoSessions, UnbindFailsTheConversation) {
  Harness h;
  h.connect();
  auto ids = h.node.sessions();
  ASSERT_EQ(ids.size(), 1u);
  h.absorb(h.node.unbind_session(ids[0]));
  EXPECT_EQ(h.node.session_count(), 0u);
  EXPECT_EQ(h.send(A, text("x"), 0).primary, 0x0010);
}

}  // namespace
}  // namespace sna::proto::test
