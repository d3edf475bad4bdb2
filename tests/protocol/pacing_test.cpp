// Pacing: a sender's flush is held while its partner end holds a window's
// worth of data it has not received, and released by receives or by the
// partner going away.
#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true, B = false;
constexpr size_t kRecord = 32767;

Bytes record(size_t n, uint8_t fill = 0x41) { return Bytes(n, fill); }

// A basic logical record of n bytes (n >= 2) including its LL.
Bytes logical_record(size_t n) {
  Bytes b(n, 0x62);
  b[0] = static_cast<uint8_t>(n >> 8);
  b[1] = static_cast<uint8_t>(n);
  return b;
}

uint64_t send_async(Harness& h, bool a, const Bytes& data, uint8_t type, uint8_t opext = 1) {
  Verb v = h.conv_verb(Opcode::kSendData, a, opext);
  v.data = data;
  v.data_length = static_cast<uint32_t>(data.size());
  v.send_type = type;
  return h.issue(a ? Harness::kA : Harness::kB, v);
}

NodeConfig window(uint32_t w) {
  NodeConfig cfg;
  ModeConfig blank;
  blank.name = "";
  blank.pacing_window = w;
  cfg.modes.push_back(blank);
  return cfg;
}

// A fills B's queue until a send is held; returns that send's tag.
uint64_t fill_until_held(Harness& h, uint8_t opext = 1) {
  for (int i = 0; i < 10; ++i) {
    const Bytes data = opext ? record(kRecord) : logical_record(kRecord);
    const uint64_t t = send_async(h, A, data, 1, opext);
    if (!h.finished(t)) return t;
    EXPECT_EQ(h.result(t).primary, 0);
  }
  ADD_FAILURE() << "no send was ever held";
  return 0;
}

TEST(ProtoPacing, SenderAheadByAWindowIsHeldUntilReceivesCatchUp) {
  Harness h;  // default window 65536
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);  // 32767 queued at B
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);  // 65534
  const uint64_t t = send_async(h, A, record(kRecord), 1);
  EXPECT_FALSE(h.finished(t)) << "98301 unreceived bytes reach the window";
  EXPECT_EQ(h.state(A), 6);
  EXPECT_EQ(h.simple(A, Opcode::kFlush).secondary, rc::kVerbOutstanding);
  EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, rc::kUnsuccessful);
  // The held data has gone to B: B can receive all three records.
  VerbResult r1 = h.result(h.rcv(B, 32767));
  EXPECT_EQ(r1.data.size(), kRecord);
  ASSERT_TRUE(h.finished(t)) << "65534 left: below the window";
  EXPECT_EQ(h.result(t).primary, 0);
  EXPECT_EQ(h.state(A), 1);
  EXPECT_EQ(h.result(h.rcv(B, 32767)).data.size(), kRecord);
  EXPECT_EQ(h.result(h.rcv(B, 32767)).data.size(), kRecord);
}

TEST(ProtoPacing, ConfiguredWindowAndPartialReceives) {
  Harness h(window(40000));
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);
  const uint64_t t = send_async(h, A, record(10000), 1);  // 42767 >= 40000
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(h.result(h.rcv(B, 2000)).what_received, 0x0400);  // 40767 left
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(h.result(h.rcv(B, 1000)).what_received, 0x0400);  // 39767 left
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, 0);
}

TEST(ProtoPacing, WindowBelowTheMinimumIsRaised) {
  Harness h(window(1000));  // taken as 32768: a whole record always fits
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);
  const uint64_t t = send_async(h, A, record(1), 1);  // 32768
  EXPECT_FALSE(h.finished(t));
  h.result(h.rcv(B, 100));
  EXPECT_TRUE(h.finished(t));
}

TEST(ProtoPacing, BufferingSendIsHeldOnlyWhenItFlushes) {
  Harness h(window(32768));
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);
  EXPECT_EQ(h.send(A, record(100), 0).primary, 0) << "buffered only: not a flush";
  const uint64_t t = send_async(h, A, record(8000), 0);  // buffer full: 8192 bytes go
  EXPECT_FALSE(h.finished(t));
  EXPECT_EQ(h.result(h.rcv(B, kRecord)).data.size(), kRecord);
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, 0);
}

TEST(ProtoPacing, UnreceivedDataStaysBoundedWhateverTheSender) {
  Harness h;
  h.connect();
  size_t sent = 0, received = 0, max_behind = 0;
  for (int i = 0; i < 300; ++i) {
    const Bytes data = record(1000 + static_cast<size_t>(i) * 37 % 5000);
    const uint64_t t = send_async(h, A, data, static_cast<uint8_t>(i % 3 == 0 ? 0 : 1));
    sent += data.size();
    while (!h.finished(t)) {
      VerbResult r = h.result(h.rcv(B, 3000));
      ASSERT_EQ(r.primary, 0);
      received += r.data.size();
    }
    ASSERT_EQ(h.result(t).primary, 0);
    max_behind = std::max(max_behind, sent - received);
  }
  // Beyond the window by at most one verb's data and one buffer of 4096.
  EXPECT_LT(max_behind, 65536u + 6000u + 4096u);
  EXPECT_GT(max_behind, 60000u) << "the sender was let ahead up to the window";
}

// A stream of buffering sends goes out a send buffer at a time: the
// sender never holds more than one partial buffer, however long it goes on.
TEST(ProtoPacing, BufferingSendsHoldBackAtMostOnePartialBuffer) {
  Harness h;
  h.connect(0);
  size_t sent = 0, received = 0;
  for (int i = 0; i < 12; ++i) {
    const uint64_t t = send_async(h, A, logical_record(kRecord), 0, 0);
    sent += kRecord;
    while (!h.finished(t)) {
      VerbResult r = h.result(h.rcv(B, kRecord, 1, 0, 0));
      ASSERT_EQ(r.primary, 0);
      received += r.data.size();
    }
    ASSERT_EQ(h.result(t).primary, 0);
    for (;;) {  // what has reached B, without waiting for more
      VerbResult r = h.result(h.rcv(B, kRecord, 1, 0, 0, false));
      if (r.primary != 0 || r.data.empty()) break;
      received += r.data.size();
    }
    EXPECT_LT(sent - received, 4096u) << "after send " << i;
  }
}

TEST(ProtoPacing, ReleaseWritesRequestToSendReceivedMeanwhile) {
  Harness h;
  h.connect();
  const uint64_t t = fill_until_held(h);
  EXPECT_EQ(h.simple(B, Opcode::kRequestToSend).primary, 0);
  h.result(h.rcv(B, 32767));
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).rts_received, 1);
  EXPECT_EQ(h.simple(A, Opcode::kTestRts).primary, rc::kUnsuccessful) << "reported once";
}

struct HeldVerbCase {
  const char* name;
  Opcode op;
  uint8_t type;
  uint8_t state_after;  // GET_STATE after release; 0: the end is gone
};
inline void PrintTo(const HeldVerbCase& c, std::ostream* os) { *os << c.name; }

const HeldVerbCase kHeldVerbs[] = {
    {"SEND_DATA type 1", Opcode::kSendData, 1, 1},
    {"SEND_DATA type 3", Opcode::kSendData, 3, 2},
    {"SEND_DATA type 5", Opcode::kSendData, 5, 0},
    {"FLUSH", Opcode::kFlush, 0, 1},
    {"PREPARE_TO_RECEIVE flush", Opcode::kPrepareToReceive, 1, 2},
    {"DEALLOCATE flush", Opcode::kDeallocate, 1, 0},
};

class ProtoPacingVerbs : public ::testing::TestWithParam<HeldVerbCase> {};

TEST_P(ProtoPacingVerbs, EveryFlushingVerbIsHeldAndReleased) {
  const auto& c = GetParam();
  Harness h(window(32768));
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);  // 32767 at B
  EXPECT_EQ(h.send(A, record(100), 0).primary, 0);      // buffered at A
  Verb v = h.conv_verb(c.op, A);
  v.type = c.type;
  v.send_type = c.type;
  v.data = record(10);
  v.data_length = 10;
  const uint64_t t = h.issue(Harness::kA, v);
  EXPECT_FALSE(h.finished(t)) << "the flush brings B to the window";
  EXPECT_EQ(h.state(A), 6);
  NodeSnapshot s = h.node.snapshot();
  for (const auto& conv : s.conversations) {
    if (conv.conv_id == h.conv_a) {
      EXPECT_TRUE(conv.verb_outstanding);
    }
  }
  VerbResult first = h.result(h.rcv(B, 32767));
  EXPECT_EQ(first.data.size(), kRecord);
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, 0);
  if (c.state_after) {
    EXPECT_EQ(h.state(A), c.state_after);
  } else {
    EXPECT_EQ(h.simple(A, Opcode::kGetState).secondary, rc::kBadConvId);
  }
  // B gets the rest of what A sent, then what the verb indicated.
  std::vector<size_t> sizes = {100};
  if (c.op == Opcode::kSendData) sizes.push_back(10);
  VerbResult r;
  for (size_t n : sizes) {
    r = h.result(h.rcv(B, 32767));
    EXPECT_EQ(r.primary, 0);
    EXPECT_EQ(r.data.size(), n);
    EXPECT_EQ(r.what_received & 0xFF00, 0x0200);
  }
  if (c.state_after == 0) {
    EXPECT_EQ(h.result(h.rcv(B, 32767)).primary, rc::kDeallocNormal);
  } else if (c.state_after == 2) {
    EXPECT_EQ(r.what_received, 0x0201) << "SEND comes with the last data";
  } else {
    EXPECT_EQ(h.result(h.rcv(B, 100, 1, 1, 1, false)).primary, rc::kUnsuccessful);
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoPacingVerbs, ::testing::ValuesIn(kHeldVerbs));

struct PartnerEndCase {
  const char* name;
  uint8_t opext;
  int how;  // 0 TP_ENDED hard, 1 client gone, 2 DEALLOCATE abend program, 3 CANCEL, 4 SEND_ERROR
  uint16_t primary;
  uint32_t secondary;
  uint8_t state_after;  // 0: the end is gone
};
inline void PrintTo(const PartnerEndCase& c, std::ostream* os) { *os << c.name; }

const PartnerEndCase kPartnerEnds[] = {
    {"partner TP ended, mapped", 1, 0, 0x0005, 0x08640001, 0},
    {"partner TP ended, basic", 0, 0, 0x0007, 0x08640001, 0},
    {"partner's client gone, mapped", 1, 1, 0x0005, 0x08640001, 0},
    {"partner abends, basic", 0, 2, 0x0006, 0x08640000, 0},
    {"partner abends, mapped", 1, 2, 0x0005, 0x08640000, 0},
    {"partner cancels, basic", 0, 3, 0x0006, 0x08640000, 0},
    {"partner sends an error, mapped", 1, 4, 0x000E, 0x08890000, 2},
    {"partner sends an error, basic", 0, 4, 0x000E, 0x08890000, 2},
};

class ProtoPacingPartnerEnds : public ::testing::TestWithParam<PartnerEndCase> {};

TEST_P(ProtoPacingPartnerEnds, HeldSendDataGetsThePartnersCode) {
  const auto& c = GetParam();
  Harness h;
  h.connect(c.opext);
  const uint64_t t = fill_until_held(h, c.opext);
  ASSERT_FALSE(h.finished(t));
  switch (c.how) {
    case 0: {
      Verb e;
      e.opcode = Opcode::kTpEnded;
      e.tp_id = h.tp_b;
      e.type = 1;
      ASSERT_EQ(h.run(Harness::kB, e).primary, 0);
      break;
    }
    case 1:
      h.absorb(h.node.client_closed(Harness::kB));
      break;
    case 2:
      ASSERT_EQ(h.deallocate(B, 2, c.opext).primary, 0);
      break;
    case 3: {
      Verb x;
      x.opcode = Opcode::kCancelConversation;
      x.tp_id = h.tp_b;
      x.conv_id = h.conv_b;
      ASSERT_EQ(h.run(Harness::kB, x).primary, 0);
      break;
    }
    case 4:
      ASSERT_EQ(h.simple(B, Opcode::kSendError, c.opext).primary, 0);
      break;
  }
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, c.primary);
  EXPECT_EQ(h.result(t).secondary, c.secondary);
  if (c.state_after) {
    EXPECT_EQ(h.state(A), c.state_after);
  } else {
    EXPECT_EQ(h.simple(A, Opcode::kGetState).secondary, rc::kBadConvId);
    EXPECT_EQ(h.node.live_conversations(), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(ProtoTable, ProtoPacingPartnerEnds, ::testing::ValuesIn(kPartnerEnds));

TEST(ProtoPacing, HeldFlushActsAsUsualWhenThePartnerEnds) {
  Harness h(window(32768));
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);
  EXPECT_EQ(h.send(A, record(100), 0).primary, 0);
  const uint64_t t = h.issue(Harness::kA, h.conv_verb(Opcode::kFlush, A));
  ASSERT_FALSE(h.finished(t));
  ASSERT_EQ(h.deallocate(B, 2).primary, 0);
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, 0) << "FLUSH returns 0 with a report waiting";
  VerbResult s = h.send(A, record(1), 0);
  EXPECT_EQ(s.primary, 0x0005);
  EXPECT_EQ(s.secondary, 0x08640000u);
}

TEST(ProtoPacing, HeldVerbCancelledWhenItsOwnTpEnds) {
  Harness h;
  h.connect();
  const uint64_t t = fill_until_held(h);
  Verb e;
  e.opcode = Opcode::kTpEnded;
  e.tp_id = h.tp_a;
  e.type = 1;
  EXPECT_EQ(h.run(Harness::kA, e).primary, 0);
  EXPECT_EQ(h.result(t).primary, rc::kCancelled);
  // B gets the data that went before, then the abend.
  VerbResult r;
  do {
    r = h.result(h.rcv(B, 32767));
  } while (r.primary == 0);
  EXPECT_EQ(r.primary, 0x0005);
  EXPECT_EQ(r.secondary, 0x08640001u);
}

TEST(ProtoPacing, HeldDeallocateEndsQuietlyWhenItsTpEnds) {
  Harness h(window(32768));
  h.connect();
  EXPECT_EQ(h.send(A, record(kRecord), 1).primary, 0);
  EXPECT_EQ(h.send(A, record(100), 0).primary, 0);
  Verb d = h.conv_verb(Opcode::kDeallocate, A);
  d.type = 1;
  const uint64_t t = h.issue(Harness::kA, d);
  ASSERT_FALSE(h.finished(t));
  Verb e;
  e.opcode = Opcode::kTpEnded;
  e.tp_id = h.tp_a;
  e.type = 1;
  EXPECT_EQ(h.run(Harness::kA, e).primary, 0);
  EXPECT_EQ(h.result(t).primary, rc::kCancelled);
  // The deallocation had already gone: B sees the data, then a normal end.
  size_t total = 0;
  VerbResult r;
  do {
    r = h.result(h.rcv(B, 32767));
    total += r.data.size();
  } while (r.primary == 0);
  EXPECT_EQ(total, kRecord + 100);
  EXPECT_EQ(r.primary, rc::kDeallocNormal);
  EXPECT_EQ(h.node.live_conversations(), 0u);
}

TEST(ProtoPacing, QueuedAttachPacesItsAllocatorAndItsRejectionReleasesIt) {
  NodeConfig cfg;
  TpDefinition slow{"SLOW"};
  slow.attach_timeout_ms = 1000;
  cfg.tp_definitions.push_back(slow);
  Harness h(std::move(cfg));
  h.tp_a = h.start_tp(Harness::kA);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("SLOW")).conv_id;
  const uint64_t t = fill_until_held(h);
  ASSERT_FALSE(h.finished(t)) << "the attach's queue counts as the partner's";
  ASSERT_EQ(h.timers.size(), 1u);
  h.absorb(h.node.timer_expired(h.timers[0].timer));
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, rc::kAllocationError);
  EXPECT_EQ(h.result(t).secondary, 0x084B6031u);
  EXPECT_EQ(h.node.live_conversations(), 0u);
}

TEST(ProtoPacing, UnbindReleasesAHeldSendWithTheFailure) {
  Harness h;
  h.connect();
  const uint64_t t = fill_until_held(h);
  auto ids = h.node.sessions();
  ASSERT_EQ(ids.size(), 1u);
  h.absorb(h.node.unbind_session(ids[0]));
  ASSERT_TRUE(h.finished(t));
  EXPECT_EQ(h.result(t).primary, rc::kConvFailureNoRetry);
}

}  // namespace
}  // namespace sna::proto::test
