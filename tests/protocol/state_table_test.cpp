// Verb legality by conversation state, and the flows verbs put on the
// session, checked field by field.
#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

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

// Every verb of the conversation state table in every state an end can be
// observed in: where the table says the verb is legal, what it does and the
// state it leaves; elsewhere 0x0002 / 0x00000020 and nothing changed.
enum class Outcome { kOk, kWaits, kUnsuccessful, kState };
constexpr int kSame = -1, kGone = -2;

struct VerbRow {
  const char* name;
  Opcode op;
  uint8_t type;  // send type, DEALLOCATE or PREPARE_TO_RECEIVE type
  std::initializer_list<At> legal;
  Outcome outcome;
  int after;  // GET_STATE after a legal verb, kSame or kGone
};

const VerbRow kVerbRows[] = {
    {"SEND_DATA type 0", Opcode::kSendData, 0, {At::kS, At::kSP}, Outcome::kOk, 1},
    {"SEND_DATA type 1", Opcode::kSendData, 1, {At::kS, At::kSP}, Outcome::kOk, 1},
    {"SEND_DATA type 2", Opcode::kSendData, 2, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"SEND_DATA type 3", Opcode::kSendData, 3, {At::kS, At::kSP}, Outcome::kOk, 2},
    {"SEND_DATA type 4", Opcode::kSendData, 4, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"SEND_DATA type 5", Opcode::kSendData, 5, {At::kS, At::kSP}, Outcome::kOk, kGone},
    {"SEND_DATA type 6", Opcode::kSendData, 6, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"SEND_DATA type 7", Opcode::kSendData, 7, {At::kS, At::kSP}, Outcome::kOk, kGone},
    {"FLUSH", Opcode::kFlush, 0, {At::kS, At::kSP}, Outcome::kOk, 1},
    {"CONFIRM", Opcode::kConfirm, 0, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"PREPARE_TO_RECEIVE flush", Opcode::kPrepareToReceive, 1, {At::kS, At::kSP}, Outcome::kOk, 2},
    {"PREPARE_TO_RECEIVE confirm", Opcode::kPrepareToReceive, 0, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"RECEIVE_AND_WAIT", Opcode::kReceiveAndWait, 0, {At::kR, At::kS, At::kSP}, Outcome::kWaits, 6},
    {"RECEIVE_IMMEDIATELY", Opcode::kReceiveImmediately, 0, {At::kR}, Outcome::kUnsuccessful, kSame},
    {"REQUEST_TO_SEND", Opcode::kRequestToSend, 0, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD},
     Outcome::kOk, kSame},
    {"TEST_RTS", Opcode::kTestRts, 0, {At::kS, At::kSP, At::kR}, Outcome::kUnsuccessful, kSame},
    {"SEND_ERROR", Opcode::kSendError, 0, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD}, Outcome::kOk,
     1},
    {"DEALLOCATE confirm", Opcode::kDeallocate, 0, {At::kS, At::kSP}, Outcome::kWaits, 6},
    {"DEALLOCATE flush", Opcode::kDeallocate, 1, {At::kS, At::kSP}, Outcome::kOk, kGone},
    {"DEALLOCATE abend program", Opcode::kDeallocate, 2, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD},
     Outcome::kOk, kGone},
    {"DEALLOCATE abend service", Opcode::kDeallocate, 3, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD},
     Outcome::kOk, kGone},
    {"DEALLOCATE abend timer", Opcode::kDeallocate, 4, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD},
     Outcome::kOk, kGone},
    {"DEALLOCATE abend", Opcode::kDeallocate, 5, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD},
     Outcome::kOk, kGone},
    {"GET_STATE", Opcode::kGetState, 0, {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD}, Outcome::kState,
     kSame},
};

struct StateCase {
  std::string name;
  Opcode op;
  uint8_t type;
  At at;
  bool legal;
  Outcome outcome;
  int after;
};
inline void PrintTo(const StateCase& c, std::ostream* os) { *os << c.name; }

const char* at_name(At a) {
  switch (a) {
    case At::kS: return "S";
    case At::kSP: return "SP";
    case At::kR: return "R";
    case At::kC: return "C";
    case At::kCS: return "CS";
    case At::kCD: return "CD";
  }
  return "?";
}

uint8_t state_value(At a) {
  switch (a) {
    case At::kS: return 1;
    case At::kSP: return 9;
    case At::kR: return 2;
    case At::kC: return 3;
    case At::kCS: return 4;
    case At::kCD: return 5;
  }
  return 0;
}

std::vector<StateCase> state_cases() {
  std::vector<StateCase> out;
  for (const VerbRow& row : kVerbRows)
    for (At at : {At::kS, At::kSP, At::kR, At::kC, At::kCS, At::kCD}) {
      const bool legal = std::find(row.legal.begin(), row.legal.end(), at) != row.legal.end();
      out.push_back(
          {std::string(row.name) + " in " + at_name(at), row.op, row.type, at, legal, row.outcome, row.after});
    }
  return out;
}

class ProtoVerbState : public ::testing::TestWithParam<StateCase> {};

TEST_P(ProtoVerbState, LegalityAndEffectFollowTheState) {
  const auto& c = GetParam();
  Harness h;
  const bool side = reach(h, c.at);
  const uint8_t before = h.state(side);
  ASSERT_EQ(before, state_value(c.at));
  Verb v = h.conv_verb(c.op, side);
  v.type = c.type;
  v.send_type = c.type;
  v.max_length = 10;
  v.data = text("Q");
  v.data_length = 1;
  const uint64_t t = h.issue(side ? Harness::kA : Harness::kB, v);
  if (!c.legal) {
    VerbResult r = h.result(t);
    EXPECT_EQ(r.primary, rc::kStateCheck);
    EXPECT_EQ(r.secondary, rc::kBadState);
    EXPECT_EQ(h.state(side), before) << "a refused verb changes nothing";
    return;
  }
  switch (c.outcome) {
    case Outcome::kWaits:
      EXPECT_FALSE(h.finished(t)) << "the verb waits for the partner";
      break;
    case Outcome::kOk:
      EXPECT_EQ(h.result(t).primary, 0);
      EXPECT_EQ(h.result(t).secondary, 0u);
      break;
    case Outcome::kUnsuccessful:
      EXPECT_EQ(h.result(t).primary, rc::kUnsuccessful);
      break;
    case Outcome::kState:
      EXPECT_EQ(h.result(t).primary, 0);
      EXPECT_EQ(h.result(t).state, before);
      break;
  }
  if (c.after == kGone) {
    EXPECT_EQ(h.simple(side, Opcode::kGetState).secondary, rc::kBadConvId) << "the end is deleted";
  } else {
    EXPECT_EQ(h.state(side), c.after == kSame ? before : c.after);
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoVerbState, ::testing::ValuesIn(state_cases()));

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
