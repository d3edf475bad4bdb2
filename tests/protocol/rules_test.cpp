// The conversation rules beyond verb legality: replies to waiting verbs,
// reports that reach a sending end, failures, the receive rules, the RTS
// output, SEND_ERROR in each state, incomplete logical records and sync
// level none.
#include <string>
#include <vector>

#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true, B = false;
constexpr int kGone = -1;

Verb typed(const Harness& h, bool a, Opcode op, uint8_t type, uint8_t opext = 1) {
  Verb v = h.conv_verb(op, a, opext);
  v.type = type;
  v.send_type = type;
  v.data = text("Q");
  v.data_length = 1;
  v.max_length = 100;
  v.return_status_with_data = 1;
  v.fill = 1;
  return v;
}

void expect_state(Harness& h, bool a, int state) {
  if (state == kGone) {
    EXPECT_EQ(h.simple(a, Opcode::kGetState).secondary, rc::kBadConvId) << "the end is deleted";
  } else {
    EXPECT_EQ(h.state(a), state);
  }
}

// ------------------------------------------------ replies to waiting verbs

struct ReplyCase {
  const char* name;
  Opcode op;
  uint8_t type;
  uint16_t indication;  // what B's receive reports (low byte), with rswd 0
  int after_positive;   // A's state after CONFIRMED
};
inline void PrintTo(const ReplyCase& c, std::ostream* os) { *os << c.name; }

const ReplyCase kReplyCases[] = {
    {"SEND_DATA type 2", Opcode::kSendData, 2, 0x0002, 1},
    {"SEND_DATA type 4", Opcode::kSendData, 4, 0x0003, 2},
    {"SEND_DATA type 6", Opcode::kSendData, 6, 0x0004, kGone},
    {"CONFIRM", Opcode::kConfirm, 0, 0x0002, 1},
    {"PREPARE_TO_RECEIVE confirm", Opcode::kPrepareToReceive, 0, 0x0003, 2},
    {"DEALLOCATE confirm", Opcode::kDeallocate, 0, 0x0004, kGone},
};

class ProtoReplies : public ::testing::TestWithParam<ReplyCase> {};

// B brings itself to the confirmation state A asked for; returns B's
// receive result for the indication (data first when the verb sent some).
VerbResult take_indication(Harness& h, const ReplyCase& c) {
  if (c.op == Opcode::kSendData) {
    VerbResult d = h.result(h.rcv(B, 100, 0));
    EXPECT_EQ(d.what_received, 0x0200);
  }
  return h.result(h.rcv(B, 100, 0));
}

TEST_P(ProtoReplies, PositiveReply) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  const uint64_t t = h.issue(Harness::kA, typed(h, A, c.op, c.type));
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(take_indication(h, c).what_received, c.indication);
  EXPECT_EQ(h.simple(B, Opcode::kConfirmed).primary, 0);
  EXPECT_EQ(h.result(t).primary, 0);
  expect_state(h, A, c.after_positive);
  expect_state(h, B, c.after_positive == kGone ? kGone : (c.after_positive == 1 ? 2 : 1));
}

TEST_P(ProtoReplies, ErrorReplyLeavesTheConversationInReceive) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  const uint64_t t = h.issue(Harness::kA, typed(h, A, c.op, c.type));
  take_indication(h, c);
  EXPECT_EQ(h.simple(B, Opcode::kSendError).primary, 0);
  EXPECT_EQ(h.result(t).primary, rc::kProgErrorPurging);
  EXPECT_EQ(h.result(t).secondary, rc::kProgError);
  EXPECT_EQ(h.state(A), 2) << "the conversation continues, DEALLOCATE included";
  EXPECT_EQ(h.state(B), 1);
  EXPECT_EQ(h.send(B, text("AFTER"), 3).primary, 0);
  EXPECT_EQ(h.result(h.rcv(A)).what_received, 0x0201);
}

TEST_P(ProtoReplies, AbendReplyEndsTheConversation) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  const uint64_t t = h.issue(Harness::kA, typed(h, A, c.op, c.type));
  take_indication(h, c);
  EXPECT_EQ(h.deallocate(B, 2).primary, 0);
  EXPECT_EQ(h.result(t).primary, 0x0005);
  EXPECT_EQ(h.result(t).secondary, 0x08640000u);
  expect_state(h, A, kGone);
  EXPECT_EQ(h.node.live_conversations(), 0u);
}

TEST_P(ProtoReplies, ServiceErrorReplyOnBasic) {
  const auto& c = GetParam();
  Harness h;
  h.connect(0, 1);
  Verb v = typed(h, A, c.op, c.type, 0);
  v.data = {0x00, 0x03, 0x51};
  v.data_length = 3;
  const uint64_t t = h.issue(Harness::kA, v);
  if (c.op == Opcode::kSendData) h.result(h.rcv(B, 100, 0, 0));
  EXPECT_EQ(h.result(h.rcv(B, 100, 0, 0)).what_received, c.indication);
  Verb e = h.conv_verb(Opcode::kSendError, B, 0);
  e.error_type = 1;
  EXPECT_EQ(h.run(Harness::kB, e).primary, 0);
  EXPECT_EQ(h.result(t).primary, rc::kSvcErrorPurging);
  EXPECT_EQ(h.result(t).secondary, rc::kSvcError);
  EXPECT_EQ(h.state(A), 2);
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoReplies, ::testing::ValuesIn(kReplyCases));

// --------------------------------- reports that reach an end in S or SP

struct ReportCase {
  const char* name;
  bool abend;  // the partner abends; else it sends an error from R
  Opcode op;
  uint8_t type;
  uint16_t primary;
  int after;
  uint16_t next_receive;  // 0: no receive afterwards
};
inline void PrintTo(const ReportCase& c, std::ostream* os) { *os << c.name; }

const ReportCase kReportCases[] = {
    {"error: SEND_DATA type 0", false, Opcode::kSendData, 0, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_DATA type 1", false, Opcode::kSendData, 1, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_DATA type 2", false, Opcode::kSendData, 2, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_DATA type 3", false, Opcode::kSendData, 3, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_DATA type 5", false, Opcode::kSendData, 5, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_DATA type 6", false, Opcode::kSendData, 6, rc::kProgErrorPurging, 2, 0},
    {"error: CONFIRM", false, Opcode::kConfirm, 0, rc::kProgErrorPurging, 2, 0},
    {"error: SEND_ERROR", false, Opcode::kSendError, 0, rc::kProgErrorPurging, 2, 0},
    {"error: RECEIVE_AND_WAIT", false, Opcode::kReceiveAndWait, 0, rc::kProgErrorPurging, 2, 0},
    {"error: PREPARE_TO_RECEIVE confirm", false, Opcode::kPrepareToReceive, 0, rc::kProgErrorPurging, 2, 0},
    {"error: DEALLOCATE confirm", false, Opcode::kDeallocate, 0, rc::kProgErrorPurging, 2, 0},
    {"error: FLUSH acts", false, Opcode::kFlush, 0, 0, 1, 0},
    {"error: PREPARE_TO_RECEIVE flush acts", false, Opcode::kPrepareToReceive, 1, 0, 2,
     rc::kProgErrorPurging},
    {"error: DEALLOCATE flush acts", false, Opcode::kDeallocate, 1, 0, kGone, 0},
    {"error: DEALLOCATE abend unaffected", false, Opcode::kDeallocate, 2, 0, kGone, 0},
    {"error: REQUEST_TO_SEND unaffected", false, Opcode::kRequestToSend, 0, 0, 1, 0},
    {"error: TEST_RTS unaffected", false, Opcode::kTestRts, 0, rc::kUnsuccessful, 1, 0},
    {"abend: SEND_DATA type 1", true, Opcode::kSendData, 1, 0x0005, kGone, 0},
    {"abend: CONFIRM", true, Opcode::kConfirm, 0, 0x0005, kGone, 0},
    {"abend: SEND_ERROR", true, Opcode::kSendError, 0, 0x0005, kGone, 0},
    {"abend: RECEIVE_AND_WAIT", true, Opcode::kReceiveAndWait, 0, 0x0005, kGone, 0},
    {"abend: DEALLOCATE confirm", true, Opcode::kDeallocate, 0, 0x0005, kGone, 0},
    {"abend: FLUSH acts", true, Opcode::kFlush, 0, 0, 1, 0},
    {"abend: PREPARE_TO_RECEIVE flush acts", true, Opcode::kPrepareToReceive, 1, 0, 2, 0x0005},
    {"abend: DEALLOCATE flush acts", true, Opcode::kDeallocate, 1, 0, kGone, 0},
};

class ProtoReportWaiting : public ::testing::TestWithParam<ReportCase> {};

TEST_P(ProtoReportWaiting, VerbInSendStateMeetsTheReport) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  ASSERT_EQ(h.send(A, text("LOST"), 0).primary, 0);  // buffered: discarded by reporting verbs
  if (c.abend) {
    ASSERT_EQ(h.deallocate(B, 2).primary, 0);
  } else {
    ASSERT_EQ(h.simple(B, Opcode::kSendError).primary, 0);
  }
  const size_t flows_before = h.flows.size();
  const uint64_t t = h.issue(Harness::kA, typed(h, A, c.op, c.type));
  ASSERT_TRUE(h.finished(t)) << "a verb that meets a report does not wait";
  EXPECT_EQ(h.result(t).primary, c.primary);
  expect_state(h, A, c.after);
  if (c.primary == rc::kProgErrorPurging || c.primary == 0x0005) {
    bool data_sent = false;
    for (size_t i = flows_before; i < h.flows.size(); ++i)
      if (h.flows[i].from_primary) data_sent = true;
    EXPECT_FALSE(data_sent) << "the reporting verb performs nothing";
  }
  if (c.next_receive) {
    EXPECT_EQ(h.result(h.rcv(A)).primary, c.next_receive);
  }
  if (!c.abend && c.after == 2 && c.primary != 0) {
    // B holds the send direction: A's receive sees only what B sends now.
    EXPECT_EQ(h.send(B, text("NEW"), 3).primary, 0);
    VerbResult r = h.result(h.rcv(A));
    EXPECT_EQ(r.what_received, 0x0201);
    EXPECT_EQ(r.data, text("NEW"));
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoReportWaiting, ::testing::ValuesIn(kReportCases));

TEST(ProtoReportWaiting, AttachRejectionIsAReportLikeAnyOther) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("NOSUCH")).conv_id;
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A);
  p.type = 1;
  EXPECT_EQ(h.run(Harness::kA, p).primary, 0) << "PREPARE_TO_RECEIVE that does not wait";
  VerbResult r = h.result(h.rcv(A));
  EXPECT_EQ(r.primary, rc::kAllocationError);
  EXPECT_EQ(r.secondary, 0x10086021u);
}

// ---------------------------------------------------------------- failure

struct FailureCase {
  const char* name;
  bool side;
  Opcode op;
  uint8_t type;
  uint16_t primary;
  int after;
};
inline void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

const FailureCase kFailureCases[] = {
    {"SEND_DATA", A, Opcode::kSendData, 0, rc::kConvFailureNoRetry, kGone},
    {"CONFIRM", A, Opcode::kConfirm, 0, rc::kConvFailureNoRetry, kGone},
    {"SEND_ERROR", A, Opcode::kSendError, 0, rc::kConvFailureNoRetry, kGone},
    {"RECEIVE_AND_WAIT in S", A, Opcode::kReceiveAndWait, 0, rc::kConvFailureNoRetry, kGone},
    {"DEALLOCATE confirm", A, Opcode::kDeallocate, 0, rc::kConvFailureNoRetry, kGone},
    {"PREPARE_TO_RECEIVE", A, Opcode::kPrepareToReceive, 1, rc::kConvFailureNoRetry, kGone},
    {"FLUSH acts", A, Opcode::kFlush, 0, 0, 1},
    {"REQUEST_TO_SEND acts", A, Opcode::kRequestToSend, 0, 0, 1},
    {"TEST_RTS acts", A, Opcode::kTestRts, 0, rc::kUnsuccessful, 1},
    {"DEALLOCATE flush acts", A, Opcode::kDeallocate, 1, 0, kGone},
    {"DEALLOCATE abend acts", A, Opcode::kDeallocate, 2, 0, kGone},
    {"RECEIVE_AND_WAIT with data queued", B, Opcode::kReceiveAndWait, 0, rc::kConvFailureNoRetry, kGone},
    {"RECEIVE_IMMEDIATELY with data queued", B, Opcode::kReceiveImmediately, 0, rc::kConvFailureNoRetry,
     kGone},
};

class ProtoFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(ProtoFailure, FailureOverridesTheQueue) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  ASSERT_EQ(h.send(A, text("DATA"), 1).primary, 0);  // queued at B, never received
  auto ids = h.node.sessions();
  ASSERT_EQ(ids.size(), 1u);
  h.absorb(h.node.unbind_session(ids[0]));
  VerbResult r = h.run(c.side ? Harness::kA : Harness::kB, typed(h, c.side, c.op, c.type));
  EXPECT_EQ(r.primary, c.primary);
  expect_state(h, c.side, c.after);
  if (c.after != kGone) {
    EXPECT_EQ(h.send(A, text("x"), 0).primary, rc::kConvFailureNoRetry) << "the next reporting verb";
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoFailure, ::testing::ValuesIn(kFailureCases));

TEST(ProtoFailure, OutstandingVerbsCompleteAtOnce) {
  Harness h;
  h.connect(1, 1);
  const uint64_t confirm = h.issue(Harness::kA, h.conv_verb(Opcode::kConfirm, A));
  h.result(h.rcv(B, 100, 0));
  h.absorb(h.node.unbind_session(h.node.sessions()[0]));
  EXPECT_EQ(h.result(confirm).primary, rc::kConvFailureNoRetry);
  EXPECT_EQ(h.simple(B, Opcode::kConfirmed).primary, 0) << "CONFIRMED acts as usual";
}

// ------------------------------------------------------------ receiving

struct ReceiveCase {
  const char* name;
  uint8_t opext;
  uint8_t fill;
  Opcode sender_op;  // what A does after sending "ABCD" type 0
  uint8_t sender_type;
  uint8_t rswd;
  std::vector<uint16_t> what;  // B's receives, in order (primary 0 unless 0x0009)
  uint8_t state_after;         // B's GET_STATE after them; 0: gone
};
inline void PrintTo(const ReceiveCase& c, std::ostream* os) { *os << c.name; }

const ReceiveCase kReceiveCases[] = {
    {"mapped SEND combined", 1, 1, Opcode::kPrepareToReceive, 1, 1, {0x0201}, 9},
    {"mapped SEND separate", 1, 1, Opcode::kPrepareToReceive, 1, 0, {0x0200, 0x0001}, 1},
    {"mapped CONFIRM combined", 1, 1, Opcode::kConfirm, 0, 1, {0x0202}, 3},
    {"mapped CONFIRM separate", 1, 1, Opcode::kConfirm, 0, 0, {0x0200, 0x0002}, 3},
    {"mapped CONFIRM_SEND combined", 1, 1, Opcode::kPrepareToReceive, 0, 1, {0x0203}, 4},
    {"mapped CONFIRM_SEND separate", 1, 1, Opcode::kPrepareToReceive, 0, 0, {0x0200, 0x0003}, 4},
    {"mapped CONFIRM_DEALLOCATE combined", 1, 1, Opcode::kDeallocate, 0, 1, {0x0204}, 5},
    {"mapped CONFIRM_DEALLOCATE separate", 1, 1, Opcode::kDeallocate, 0, 0, {0x0200, 0x0004}, 5},
    {"mapped DEALLOCATE_NORMAL never combined", 1, 1, Opcode::kDeallocate, 1, 1, {0x0200, 0x0009}, 0},
    {"basic fill 0 SEND combined", 0, 0, Opcode::kPrepareToReceive, 1, 1, {0x0101}, 9},
    {"basic fill 0 CONFIRM combined", 0, 0, Opcode::kConfirm, 0, 1, {0x0102}, 3},
    {"basic fill 0 CONFIRM_SEND combined", 0, 0, Opcode::kPrepareToReceive, 0, 1, {0x0103}, 4},
    {"basic fill 0 CONFIRM_DEALLOCATE combined", 0, 0, Opcode::kDeallocate, 0, 1, {0x0104}, 5},
    {"basic fill 0 separate", 0, 0, Opcode::kConfirm, 0, 0, {0x0100, 0x0002}, 3},
    {"basic fill 1 SEND combined", 0, 1, Opcode::kPrepareToReceive, 1, 1, {0x0201}, 9},
    {"basic fill 0 DEALLOCATE_NORMAL never combined", 0, 0, Opcode::kDeallocate, 1, 1, {0x0100, 0x0009}, 0},
};

class ProtoReceive : public ::testing::TestWithParam<ReceiveCase> {};

TEST_P(ProtoReceive, StatusesAndData) {
  const auto& c = GetParam();
  Harness h;
  h.connect(c.opext, 1);
  const Bytes data = c.opext ? text("ABCD") : Bytes{0x00, 0x04, 0x43, 0x44};
  ASSERT_EQ(h.send(A, data, 0, c.opext).primary, 0);
  h.issue(Harness::kA, typed(h, A, c.sender_op, c.sender_type, c.opext));
  for (size_t i = 0; i < c.what.size(); ++i) {
    VerbResult r = h.result(h.rcv(B, 100, c.rswd, c.opext, c.fill));
    if (c.what[i] == 0x0009) {
      EXPECT_EQ(r.primary, rc::kDeallocNormal);
      EXPECT_EQ(r.what_received, 0);
      EXPECT_TRUE(r.data.empty());
    } else {
      EXPECT_EQ(r.primary, 0);
      EXPECT_EQ(r.what_received, c.what[i]) << "receive " << i;
      EXPECT_EQ(r.data.empty(), (c.what[i] & 0xFF00) == 0);
    }
  }
  expect_state(h, B, c.state_after ? c.state_after : kGone);
}

TEST_P(ProtoReceive, WaitingReceiveSeesTheSame) {
  const auto& c = GetParam();
  Harness h;
  h.connect(c.opext, 1);
  const uint64_t first = h.rcv(B, 100, c.rswd, c.opext, c.fill);
  EXPECT_FALSE(h.finished(first));
  const Bytes data = c.opext ? text("ABCD") : Bytes{0x00, 0x04, 0x43, 0x44};
  ASSERT_EQ(h.send(A, data, 0, c.opext).primary, 0);
  EXPECT_FALSE(h.finished(first)) << "buffered data is not receivable";
  h.issue(Harness::kA, typed(h, A, c.sender_op, c.sender_type, c.opext));
  ASSERT_TRUE(h.finished(first));
  EXPECT_EQ(h.result(first).what_received, c.what[0]);
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoReceive, ::testing::ValuesIn(kReceiveCases));

TEST(ProtoReceive, ZeroLengthReceiveConsumesNothing) {
  Harness h;
  h.connect();
  h.send(A, text("ABC"), 3);
  VerbResult z = h.result(h.rcv(B, 0));
  EXPECT_EQ(z.primary, 0);
  EXPECT_EQ(z.what_received, 0x0400);
  EXPECT_TRUE(z.data.empty());
  EXPECT_EQ(h.state(B), 2) << "no status is combined";
  VerbResult r = h.result(h.rcv(B));
  EXPECT_EQ(r.what_received, 0x0201);
  EXPECT_EQ(r.data, text("ABC"));
}

TEST(ProtoReceive, ZeroLengthOnBasicFillZero) {
  Harness h;
  h.connect(0);
  h.send(A, {0x00, 0x03, 0x41}, 1, 0);
  VerbResult z = h.result(h.rcv(B, 0, 1, 0, 0));
  EXPECT_EQ(z.what_received, 0x0100);
  EXPECT_TRUE(z.data.empty());
  const uint64_t t = h.rcv(B, 100, 1, 0, 0);
  EXPECT_FALSE(h.finished(t)) << "fill 0 waits for 100 bytes or an indication";
  h.simple(A, Opcode::kFlush, 0);
  EXPECT_FALSE(h.finished(t));
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A, 0);
  p.type = 1;
  h.run(Harness::kA, p);
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).data.size(), 3u);
  EXPECT_EQ(h.result(t).what_received, 0x0101);
}

TEST(ProtoReceive, NullRecordWithZeroLengthIsConsumedWithoutItsStatus) {
  Harness h;
  h.connect();
  h.send(A, {}, 3);
  VerbResult z = h.result(h.rcv(B, 0));
  EXPECT_EQ(z.what_received, 0x0200);
  EXPECT_EQ(h.state(B), 2);
  EXPECT_EQ(h.result(h.rcv(B)).what_received, 0x0001);
  EXPECT_EQ(h.state(B), 1);
}

TEST(ProtoReceive, ImmediateReceiveDeliversWhatHasArrivedOfARecord) {
  Harness h;
  h.connect();
  EXPECT_EQ(h.send(A, Bytes(5000, 0x51), 0).primary, 0);  // a buffer's worth is transmitted
  VerbResult part = h.result(h.rcv(B, 10000, 1, 1, 1, false));
  EXPECT_EQ(part.primary, 0);
  EXPECT_EQ(part.what_received, 0x0400);
  EXPECT_GT(part.data.size(), 0u);
  EXPECT_LT(part.data.size(), 5000u);
  const uint64_t rest = h.rcv(B, 10000);
  EXPECT_FALSE(h.finished(rest)) << "RECEIVE_AND_WAIT waits for the rest of the record";
  h.simple(A, Opcode::kFlush);
  ASSERT_TRUE(h.finished(rest));
  EXPECT_EQ(h.result(rest).what_received, 0x0200);
  EXPECT_EQ(part.data.size() + h.result(rest).data.size(), 5000u);
}

TEST(ProtoReceive, BasicFillZeroWaitsForTheLengthOrAnIndication) {
  Harness h;
  h.connect(0);
  h.send(A, {0x00, 0x05, 0x61, 0x62, 0x63}, 1, 0);
  const uint64_t t = h.rcv(B, 8, 1, 0, 0);
  EXPECT_FALSE(h.finished(t)) << "5 of 8 bytes";
  h.send(A, {0x00, 0x04, 0x64, 0x65}, 1, 0);
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).what_received, 0x0100);
  EXPECT_EQ(h.result(t).data.size(), 8u);
  const uint64_t u = h.rcv(B, 8, 1, 0, 0);
  EXPECT_FALSE(h.finished(u));
  Verb p = h.conv_verb(Opcode::kPrepareToReceive, A, 0);
  p.type = 1;
  h.run(Harness::kA, p);
  ASSERT_TRUE(h.finished(u));
  EXPECT_EQ(h.result(u).what_received, 0x0101);
  EXPECT_EQ(h.result(u).data.size(), 1u);
}

TEST(ProtoReceive, HighBitOfTheLengthIsData) {
  Harness h;
  h.connect(0);
  EXPECT_EQ(h.send(A, {0x80, 0x04, 0x61, 0x62}, 3, 0).primary, 0);
  VerbResult r = h.result(h.rcv(B, 100, 1, 0, 1));
  EXPECT_EQ(r.what_received, 0x0201);
  EXPECT_EQ(r.data, (Bytes{0x80, 0x04, 0x61, 0x62}));
}

struct LlCase {
  const char* name;
  Bytes before;  // sent first (type 0)
  Bytes bad;
  Bytes after;                 // sent then (type 3)
  std::vector<Bytes> records;  // what B receives
};
inline void PrintTo(const LlCase& c, std::ostream* os) { *os << c.name; }

const LlCase kBadLl[] = {
    {"0x0000",
     {0x00, 0x03, 0x41},
     {0x00, 0x00},
     {0x00, 0x03, 0x42},
     {{0x00, 0x03, 0x41}, {0x00, 0x03, 0x42}}},
    {"0x0001",
     {0x00, 0x03, 0x41},
     {0x00, 0x01, 0x41},
     {0x00, 0x03, 0x42},
     {{0x00, 0x03, 0x41}, {0x00, 0x03, 0x42}}},
    {"0x8000",
     {0x00, 0x03, 0x41},
     {0x80, 0x00},
     {0x00, 0x03, 0x42},
     {{0x00, 0x03, 0x41}, {0x00, 0x03, 0x42}}},
    {"0x8001",
     {0x00, 0x03, 0x41},
     {0x80, 0x01, 0x41},
     {0x00, 0x03, 0x42},
     {{0x00, 0x03, 0x41}, {0x00, 0x03, 0x42}}},
    {"bad length behind the end of the current record",
     {0x00, 0x04, 0x61},
     {0x62, 0x00, 0x01},
     {0x62},
     {{0x00, 0x04, 0x61, 0x62}}},
};

class ProtoBadLl : public ::testing::TestWithParam<LlCase> {};

TEST_P(ProtoBadLl, RefusedAndNothingBuffered) {
  const auto& c = GetParam();
  Harness h;
  h.connect(0);
  ASSERT_EQ(h.send(A, c.before, 0, 0).primary, 0);
  VerbResult r = h.send(A, c.bad, 1, 0);
  EXPECT_EQ(r.primary, rc::kParameterCheck);
  EXPECT_EQ(r.secondary, rc::kBadLlLength);
  EXPECT_EQ(h.state(A), 1);
  // The record position is unchanged.
  EXPECT_EQ(h.send(A, c.after, 3, 0).primary, 0);
  for (size_t i = 0; i < c.records.size(); ++i) {
    VerbResult got = h.result(h.rcv(B, 100, 1, 0, 1));
    EXPECT_EQ(got.data, c.records[i]);
    EXPECT_EQ(got.what_received, i + 1 == c.records.size() ? 0x0201 : 0x0200);
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoBadLl, ::testing::ValuesIn(kBadLl));

TEST(ProtoReceive, EmptyBasicSendPerformsItsType) {
  Harness h;
  h.connect(0);
  EXPECT_EQ(h.send(A, {}, 3, 0).primary, 0);
  EXPECT_EQ(h.state(A), 2);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 0, 1)).what_received, 0x0001);
}

// --------------------------------------------------------- RTS output

struct RtsCase {
  const char* name;
  bool side;  // the end whose flag is set
  Opcode op;
  uint8_t type;
};
inline void PrintTo(const RtsCase& c, std::ostream* os) { *os << c.name; }

const RtsCase kRtsCases[] = {
    {"SEND_DATA", A, Opcode::kSendData, 1},
    {"SEND_ERROR in S", A, Opcode::kSendError, 0},
    {"CONFIRM", A, Opcode::kConfirm, 0},
    {"RECEIVE_AND_WAIT in S", A, Opcode::kReceiveAndWait, 0},
    {"RECEIVE_IMMEDIATELY", B, Opcode::kReceiveImmediately, 0},
    {"RECEIVE_AND_WAIT", B, Opcode::kReceiveAndWait, 0},
    {"SEND_ERROR in R", B, Opcode::kSendError, 0},
};

class ProtoRtsOutput : public ::testing::TestWithParam<RtsCase> {};

TEST_P(ProtoRtsOutput, ReportedOnceThenCleared) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  if (c.side == B) {
    h.send(A, text("D1"), 1);
    h.send(A, text("D2"), 1);
  }
  // The partner asks; its flag goes ahead of any queued data.
  EXPECT_EQ(h.simple(!c.side, Opcode::kRequestToSend).primary, 0);
  const uint64_t t = h.issue(c.side ? Harness::kA : Harness::kB, typed(h, c.side, c.op, c.type));
  if (!h.finished(t)) {
    // A verb that waits reports the flag when it completes.
    if (c.op == Opcode::kConfirm) {
      h.result(h.rcv(B));
      h.simple(B, Opcode::kConfirmed);
    } else {
      EXPECT_EQ(h.result(h.rcv(B)).what_received, 0x0001);
      EXPECT_EQ(h.send(B, text("R"), 1).primary, 0);
    }
  }
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, 0);
  EXPECT_EQ(h.result(t).rts_received, 1);
  if (h.state(c.side) == 1 || h.state(c.side) == 2) {
    EXPECT_EQ(h.simple(c.side, Opcode::kTestRts).primary, rc::kUnsuccessful) << "cleared";
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoRtsOutput, ::testing::ValuesIn(kRtsCases));

TEST(ProtoRtsOutput, RefusedVerbLeavesTheFlag) {
  Harness h;
  h.connect();
  h.simple(B, Opcode::kRequestToSend);
  Verb bad = h.conv_verb(Opcode::kReceiveImmediately, A);  // A is in S
  EXPECT_EQ(h.run(Harness::kA, bad).primary, rc::kStateCheck);
  EXPECT_EQ(h.send(A, text("x"), 0).rts_received, 1);
}

TEST(ProtoRtsOutput, RequestToSendToAnEndNotYetAttachedHasNoEffect) {
  Harness h;
  h.setup();
  EXPECT_EQ(h.simple(A, Opcode::kRequestToSend).primary, 0);
  h.simple(A, Opcode::kFlush);
  VerbResult acc = h.result(h.accept_tag);
  h.tp_b = acc.tp_id;
  h.conv_b = acc.conv_id;
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).rts_received, 0);
}

// ------------------------------------------------------------ SEND_ERROR

TEST(ProtoSendError, InSendTravelsBehindTheDataAtTheNextFlush) {
  Harness h;
  h.connect();
  h.send(A, text("AB"), 0);
  EXPECT_EQ(h.simple(A, Opcode::kSendError).primary, 0);
  EXPECT_EQ(h.state(A), 1);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, rc::kUnsuccessful) << "nothing flushed yet";
  h.send(A, text("X"), 3);
  EXPECT_EQ(h.result(h.rcv(B)).data, text("AB"));
  VerbResult e = h.result(h.rcv(B));
  EXPECT_EQ(e.primary, rc::kProgErrorNoTrunc);
  EXPECT_EQ(e.secondary, rc::kProgError);
  EXPECT_EQ(h.state(B), 2);
  VerbResult x = h.result(h.rcv(B));
  EXPECT_EQ(x.what_received, 0x0201);
  EXPECT_EQ(x.data, text("X"));
}

TEST(ProtoSendError, BufferedErrorWaitsForAFlushPoint) {
  Harness h;
  h.connect();
  EXPECT_EQ(h.simple(A, Opcode::kSendError).primary, 0);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, rc::kUnsuccessful);
  h.simple(A, Opcode::kFlush);
  EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, rc::kProgErrorNoTrunc);
}

struct SendPendingCase {
  const char* name;
  uint8_t direction;
  uint16_t partner_sees;
};
inline void PrintTo(const SendPendingCase& c, std::ostream* os) { *os << c.name; }

const SendPendingCase kSendPending[] = {
    {"receive error purges", 0, rc::kProgErrorPurging},
    {"send error does not", 1, rc::kProgErrorNoTrunc},
};

class ProtoSendErrorInSendPending : public ::testing::TestWithParam<SendPendingCase> {};

TEST_P(ProtoSendErrorInSendPending, DirectionDecidesThePartnersCode) {
  Harness h;
  h.connect();
  h.send(A, text("D"), 3);
  ASSERT_EQ(h.result(h.rcv(B)).what_received, 0x0201);
  ASSERT_EQ(h.state(B), 9);
  Verb e = h.conv_verb(Opcode::kSendError, B);
  e.direction = GetParam().direction;
  EXPECT_EQ(h.run(Harness::kB, e).primary, 0);
  EXPECT_EQ(h.state(B), 1);
  h.simple(B, Opcode::kFlush);
  EXPECT_EQ(h.result(h.rcv(A)).primary, GetParam().partner_sees);
  EXPECT_EQ(h.state(A), 2);
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoSendErrorInSendPending, ::testing::ValuesIn(kSendPending));

struct ErrorInReceiveCase {
  const char* name;
  int queued;  // 0 data only, 1 data + DEALLOCATE_NORMAL, 2 data + ABEND, 3 data + CONFIRM waiting
  uint16_t returns;
  int after;
};
inline void PrintTo(const ErrorInReceiveCase& c, std::ostream* os) { *os << c.name; }

const ErrorInReceiveCase kErrorInReceive[] = {
    {"data only: the error goes to the partner's queue", 0, 0, 1},
    {"normal end queued: returned instead", 1, rc::kDeallocNormal, kGone},
    {"abend queued: returned instead", 2, 0x0005, kGone},
    {"confirmation queued: the error answers it", 3, 0, 1},
};

class ProtoSendErrorInReceive : public ::testing::TestWithParam<ErrorInReceiveCase> {};

TEST_P(ProtoSendErrorInReceive, DiscardsTheQueue) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 1);
  h.send(A, text("DATA"), 1);
  uint64_t waiting = 0;
  if (c.queued == 1) h.deallocate(A, 1);
  if (c.queued == 2) h.deallocate(A, 2);
  if (c.queued == 3) waiting = h.issue(Harness::kA, h.conv_verb(Opcode::kConfirm, A));
  const size_t flows_before = h.flows.size();
  VerbResult r = h.simple(B, Opcode::kSendError);
  EXPECT_EQ(r.primary, c.returns);
  expect_state(h, B, c.after);
  if (c.after == kGone) {
    bool sent = false;
    for (size_t i = flows_before; i < h.flows.size(); ++i)
      if (!h.flows[i].from_primary) sent = true;
    EXPECT_FALSE(sent) << "nothing is sent";
    return;
  }
  if (c.queued == 3) {
    EXPECT_EQ(h.result(waiting).primary, rc::kProgErrorPurging);
  } else {
    EXPECT_EQ(h.send(A, text("x"), 1).primary, rc::kProgErrorPurging) << "A's next reporting verb";
  }
  EXPECT_EQ(h.state(A), 2);
  h.send(B, text("NEW"), 3);
  VerbResult n = h.result(h.rcv(A));
  EXPECT_EQ(n.data, text("NEW")) << "the discarded data never reappears";
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoSendErrorInReceive, ::testing::ValuesIn(kErrorInReceive));

// ----------------------------------------- incomplete records, sync none

struct IncompleteCase {
  const char* name;
  Opcode op;
  uint8_t type;
  bool refused;
};
inline void PrintTo(const IncompleteCase& c, std::ostream* os) { *os << c.name; }

const IncompleteCase kIncomplete[] = {
    {"CONFIRM", Opcode::kConfirm, 0, true},
    {"PREPARE_TO_RECEIVE flush", Opcode::kPrepareToReceive, 1, true},
    {"PREPARE_TO_RECEIVE confirm", Opcode::kPrepareToReceive, 0, true},
    {"DEALLOCATE confirm", Opcode::kDeallocate, 0, true},
    {"DEALLOCATE flush", Opcode::kDeallocate, 1, true},
    {"SEND_DATA type 2", Opcode::kSendData, 2, true},
    {"SEND_DATA type 3", Opcode::kSendData, 3, true},
    {"SEND_DATA type 4", Opcode::kSendData, 4, true},
    {"SEND_DATA type 5", Opcode::kSendData, 5, true},
    {"SEND_DATA type 6", Opcode::kSendData, 6, true},
    {"RECEIVE_AND_WAIT", Opcode::kReceiveAndWait, 0, true},
    {"SEND_DATA type 0", Opcode::kSendData, 0, false},
    {"SEND_DATA type 1", Opcode::kSendData, 1, false},
    {"FLUSH", Opcode::kFlush, 0, false},
    {"SEND_DATA type 7", Opcode::kSendData, 7, false},
    {"DEALLOCATE abend", Opcode::kDeallocate, 2, false},
    {"SEND_ERROR", Opcode::kSendError, 0, false},
};

class ProtoIncompleteRecord : public ::testing::TestWithParam<IncompleteCase> {};

TEST_P(ProtoIncompleteRecord, VerbsThatEndARecordAreRefused) {
  const auto& c = GetParam();
  Harness h;
  h.connect(0, 1);
  ASSERT_EQ(h.send(A, {0x00, 0x06, 0x61}, 0, 0).primary, 0);
  Verb v = typed(h, A, c.op, c.type, 0);
  v.data = {0x62};  // still one byte short
  v.data_length = 1;
  const uint64_t t = h.issue(Harness::kA, v);
  if (c.refused) {
    EXPECT_EQ(h.result(t).primary, rc::kStateCheck);
    EXPECT_EQ(h.result(t).secondary, rc::kRecordIncomplete);
    EXPECT_EQ(h.state(A), 1);
    // A refused SEND_DATA buffered nothing: three bytes complete the record.
    EXPECT_EQ(h.send(A, {0x62, 0x63, 0x64}, 3, 0).primary, 0);
    EXPECT_EQ(h.result(h.rcv(B, 100, 1, 0, 1)).data, (Bytes{0x00, 0x06, 0x61, 0x62, 0x63, 0x64}));
  } else {
    ASSERT_TRUE(h.finished(t));
    EXPECT_EQ(h.result(t).primary, 0) << "allowed in the middle of a record";
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoIncompleteRecord, ::testing::ValuesIn(kIncomplete));

TEST(ProtoIncompleteRecord, SendDataThatCompletesTheRecordMayEndIt) {
  Harness h;
  h.connect(0);
  h.send(A, {0x00, 0x04, 0x61}, 0, 0);
  EXPECT_EQ(h.send(A, {0x62}, 3, 0).primary, 0) << "the test is made after appending";
}

struct SyncNoneCase {
  const char* name;
  Opcode op;
  uint8_t type;
  uint16_t primary;
  uint32_t secondary;
  int after;
  uint16_t partner_sees;  // what_received of B's receive after the data, or a primary
};
inline void PrintTo(const SyncNoneCase& c, std::ostream* os) { *os << c.name; }

const SyncNoneCase kSyncNone[] = {
    {"CONFIRM refused", Opcode::kConfirm, 0, rc::kStateCheck, rc::kSyncLevelNone, 1, 0},
    {"SEND_DATA type 2 refused", Opcode::kSendData, 2, rc::kStateCheck, rc::kSyncLevelNone, 1, 0},
    {"SEND_DATA type 4 as type 3", Opcode::kSendData, 4, 0, 0, 2, 0x0201},
    {"SEND_DATA type 6 as type 5", Opcode::kSendData, 6, 0, 0, kGone, 0x0200},
    {"PREPARE_TO_RECEIVE type 0 as flush", Opcode::kPrepareToReceive, 0, 0, 0, 2, 0x0001},
    {"DEALLOCATE type 0 as flush", Opcode::kDeallocate, 0, 0, 0, kGone, 0x0009},
};

class ProtoSyncNone : public ::testing::TestWithParam<SyncNoneCase> {};

TEST_P(ProtoSyncNone, ConfirmationsAreNotAsked) {
  const auto& c = GetParam();
  Harness h;
  h.connect(1, 0);
  VerbResult r = h.run(Harness::kA, typed(h, A, c.op, c.type));
  EXPECT_EQ(r.primary, c.primary);
  EXPECT_EQ(r.secondary, c.secondary);
  expect_state(h, A, c.after);
  if (!c.partner_sees) {
    EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, rc::kUnsuccessful) << "nothing sent";
    return;
  }
  VerbResult got = h.result(h.rcv(B));
  if (c.partner_sees == 0x0009) {
    EXPECT_EQ(got.primary, rc::kDeallocNormal);
  } else {
    EXPECT_EQ(got.what_received, c.partner_sees);
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoSyncNone, ::testing::ValuesIn(kSyncNone));

}  // namespace
}  // namespace sna::proto::test
