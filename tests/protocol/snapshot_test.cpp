// The status view of the node, and new definitions taking over while
// conversations go on.
#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr bool A = true, B = false;

const NodeSnapshot::Conversation* conversation(const NodeSnapshot& s, uint32_t conv) {
  for (const auto& c : s.conversations)
    if (c.conv_id == conv) return &c;
  return nullptr;
}

Name8 mode8(const std::string& m) {
  Name8 n{};
  Bytes b = ebcdic_field(m, 8);
  std::copy(b.begin(), b.end(), n.begin());
  return n;
}

TEST(ProtoSnapshot, EmptyNodeShowsNothing) {
  Harness h;
  NodeSnapshot s = h.node.snapshot();
  EXPECT_TRUE(s.conversations.empty());
  EXPECT_TRUE(s.tps.empty());
  EXPECT_TRUE(s.registrations.empty());
  EXPECT_TRUE(s.queued_attaches.empty());
  EXPECT_TRUE(s.sessions.empty());
}

TEST(ProtoSnapshot, ConnectedConversationShowsBothEnds) {
  Harness h;
  h.connect(0, 1);
  uint64_t t = h.rcv(B, 100, 1, 0);
  EXPECT_FALSE(h.finished(t));
  NodeSnapshot s = h.node.snapshot();
  ASSERT_EQ(s.conversations.size(), 2u);
  const auto* a = conversation(s, h.conv_a);
  const auto* b = conversation(s, h.conv_b);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->tp_id, h.tp_a);
  EXPECT_TRUE(a->has_tp);
  EXPECT_EQ(a->state, ConvState::kSend);
  EXPECT_FALSE(a->verb_outstanding);
  EXPECT_EQ(a->type, ConvType::kBasic);
  EXPECT_EQ(a->sync_level, 1);
  EXPECT_EQ(a->local_lu, 0u);
  EXPECT_EQ(a->partner_fq, "NETWORK.LOCAL");
  EXPECT_EQ(a->mode, mode8(""));
  EXPECT_EQ(ebcdic_text(a->tp_name), "SRV");
  EXPECT_EQ(a->client, Harness::kA);
  EXPECT_EQ(b->tp_id, h.tp_b);
  EXPECT_EQ(b->state, ConvState::kReceive);
  EXPECT_TRUE(b->verb_outstanding);
  EXPECT_EQ(ebcdic_text(b->tp_name), "SRV");
  EXPECT_EQ(b->client, Harness::kB);
  EXPECT_EQ(b->partner_fq, "NETWORK.LOCAL");

  ASSERT_EQ(s.tps.size(), 2u);
  for (const auto& tp : s.tps) {
    if (tp.id == h.tp_b) {
      EXPECT_EQ(tp.client, Harness::kB);
      EXPECT_EQ(ebcdic_text(tp.tp_name), "SRV");  // the attach's name
    } else {
      EXPECT_EQ(tp.id, h.tp_a);
      EXPECT_EQ(tp.client, Harness::kA);
      EXPECT_TRUE(tp.tp_name.empty());  // TP_STARTED without a name
    }
  }
  ASSERT_EQ(s.registrations.size(), 1u);
  EXPECT_EQ(ebcdic_text(s.registrations[0].name), "SRV");
  EXPECT_EQ(s.registrations[0].client, Harness::kB);
  ASSERT_EQ(s.sessions.size(), 1u);
  EXPECT_TRUE(s.sessions[0].bound);
  EXPECT_TRUE(s.sessions[0].in_use);
  EXPECT_EQ(s.sessions[0].partner_fq, "NETWORK.LOCAL");
}

TEST(ProtoSnapshot, TpStartedNameIsRecordedForDisplay) {
  Harness h;
  Verb v;
  v.opcode = Opcode::kTpStarted;
  v.tp_name = tpn("CLIENTTP");
  VerbResult r = h.run(Harness::kA, v);
  ASSERT_EQ(r.primary, 0);
  NodeSnapshot s = h.node.snapshot();
  ASSERT_EQ(s.tps.size(), 1u);
  EXPECT_EQ(s.tps[0].id, r.tp_id);
  EXPECT_EQ(ebcdic_text(s.tps[0].tp_name), "CLIENTTP");
  EXPECT_TRUE(s.registrations.empty()) << "TP_STARTED registers nothing";
}

TEST(ProtoSnapshot, QueuedAttachHasNoTpYet) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "QN");
  h.conv_a = h.run(Harness::kA, h.allocate_verb("QN")).conv_id;
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  NodeSnapshot s = h.node.snapshot();
  ASSERT_EQ(s.queued_attaches.size(), 1u);
  EXPECT_EQ(ebcdic_text(s.queued_attaches[0].tp_name), "QN");
  const auto* q = conversation(s, s.queued_attaches[0].conv_id);
  ASSERT_TRUE(q);
  EXPECT_FALSE(q->has_tp);
  EXPECT_EQ(q->client, 0u);
  EXPECT_EQ(q->state, ConvState::kReceive);
  VerbResult acc = h.result(h.receive_allocate(Harness::kB));
  ASSERT_EQ(acc.primary, 0);
  s = h.node.snapshot();
  EXPECT_TRUE(s.queued_attaches.empty());
  q = conversation(s, acc.conv_id);
  ASSERT_TRUE(q);
  EXPECT_TRUE(q->has_tp);
  EXPECT_EQ(q->client, Harness::kB);
}

// The allocator goes before anyone accepts: its queued attach goes with it,
// and the next accept waits for a live conversation instead of getting a
// dead one. A normal deallocation, by contrast, is still delivered.
TEST(ProtoSnapshot, QueuedAttachGoesWithItsAbendedAllocator) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "QN");
  h.conv_a = h.run(Harness::kA, h.allocate_verb("QN")).conv_id;
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  ASSERT_EQ(h.node.snapshot().queued_attaches.size(), 1u);
  h.absorb(h.node.client_closed(Harness::kA));
  NodeSnapshot s = h.node.snapshot();
  EXPECT_TRUE(s.queued_attaches.empty());
  EXPECT_TRUE(s.conversations.empty());
  const uint64_t acc = h.receive_allocate(Harness::kB);
  EXPECT_FALSE(h.finished(acc));

  constexpr ClientId kC = 3;
  h.node.client_connected(kC, 300, "carol");
  h.tp_a = h.start_tp(kC);
  h.conv_a = h.run(kC, h.allocate_verb("QN")).conv_id;
  Verb dealloc = h.conv_verb(Opcode::kDeallocate, A, 1);
  dealloc.type = 1;  // flush: the attach and the end go together
  ASSERT_EQ(h.run(kC, dealloc).primary, 0);
  ASSERT_TRUE(h.finished(acc));
  EXPECT_EQ(h.result(acc).primary, 0);
}

TEST(ProtoSnapshot, SessionOutlivesItsConversation) {
  Harness h;
  h.connect();
  ASSERT_EQ(h.deallocate(A, 1).primary, 0);
  ASSERT_EQ(h.result(h.rcv(B)).primary, 0x0009);
  NodeSnapshot s = h.node.snapshot();
  EXPECT_TRUE(s.conversations.empty());
  ASSERT_EQ(s.sessions.size(), 1u);
  EXPECT_FALSE(s.sessions[0].in_use);
}

NodeConfig two_lus() {
  NodeConfig c;
  c.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  c.local_lus.push_back({"OTHER", "NETWORK.OTHER", ""});
  c.tp_id_stamp = 0x11223344;
  return c;
}

TEST(ProtoReconfigure, LiveConversationContinuesAndStampStays) {
  Harness h(two_lus());
  h.connect();
  NodeConfig next;
  next.local_lus.push_back({"NEWDFLT", "NETWORK.NEWLU", ""});
  next.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  next.tp_id_stamp = 0x55667788;  // ignored: ids stay those of this node's life
  h.node.reconfigure(next);
  // The conversation goes on.
  EXPECT_EQ(h.send(A, text("AFTER"), 3).primary, 0);
  VerbResult r = h.result(h.rcv(B));
  EXPECT_EQ(r.what_received, 0x0201);
  EXPECT_EQ(r.data, text("AFTER"));
  // The LU that moved keeps its identity in the status view.
  NodeSnapshot s = h.node.snapshot();
  for (const auto& c : s.conversations) {
    ASSERT_LT(c.local_lu, h.node.config().local_lus.size());
    EXPECT_EQ(h.node.config().local_lus[c.local_lu].fq_name, "NETWORK.LOCAL");
  }
  // A new TP gets the new default LU and the old stamp.
  Verb v;
  v.opcode = Opcode::kTpStarted;
  VerbResult t = h.run(Harness::kA, v);
  ASSERT_EQ(t.primary, 0);
  EXPECT_EQ(std::string(t.local_lu_alias.begin(), t.local_lu_alias.end()), "NEWDFLT ");
  EXPECT_EQ((Bytes{t.tp_id[0], t.tp_id[1], t.tp_id[2], t.tp_id[3]}), (Bytes{0x11, 0x22, 0x33, 0x44}));
  EXPECT_NE(t.tp_id, h.tp_a);
  EXPECT_NE(t.tp_id, h.tp_b);
}

TEST(ProtoReconfigure, RemovedLuServesWhatUsesItAndTakesNothingNew) {
  Harness h(two_lus());
  Verb v;
  v.opcode = Opcode::kTpStarted;
  v.local_lu_alias = {'O', 'T', 'H', 'E', 'R', ' ', ' ', ' '};
  VerbResult t = h.run(Harness::kA, v);
  ASSERT_EQ(t.primary, 0);
  h.tp_a = t.tp_id;
  h.register_name(Harness::kB, "SRV");
  const uint64_t acc = h.receive_allocate(Harness::kB);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("SRV")).conv_id;  // OTHER to itself
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  VerbResult a = h.result(acc);
  ASSERT_EQ(a.primary, 0);
  EXPECT_EQ(std::string(a.local_lu_alias.begin(), a.local_lu_alias.end()), "OTHER   ");
  h.tp_b = a.tp_id;
  h.conv_b = a.conv_id;

  NodeConfig next;
  next.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  h.node.reconfigure(next);

  EXPECT_EQ(h.run(Harness::kA, v).secondary, rc::kBadLocalLu) << "no new TP on a removed LU";
  Verb al = h.allocate_verb("SRV");
  const std::string other = "OTHER   ";
  std::copy(other.begin(), other.end(), al.partner_lu_alias.begin());
  EXPECT_EQ(h.run(Harness::kA, al).secondary, rc::kBadPartnerLu) << "no new conversation to it";
  EXPECT_EQ(h.send(A, text("STILL"), 3).primary, 0);
  VerbResult r = h.result(h.rcv(B));
  EXPECT_EQ(r.data, text("STILL"));
  NodeSnapshot s = h.node.snapshot();
  ASSERT_EQ(s.tps.size(), 2u);
  for (const auto& tp : s.tps) {
    ASSERT_LT(tp.local_lu, h.node.config().local_lus.size());
    EXPECT_EQ(h.node.config().local_lus[tp.local_lu].fq_name, "NETWORK.OTHER");
  }
}

TEST(ProtoReconfigure, NewDefinitionsApplyToLaterAttaches) {
  Harness h;
  h.tp_a = h.start_tp(Harness::kA);
  h.conv_a = h.run(Harness::kA, h.allocate_verb("LATER")).conv_id;
  VerbResult r = h.result(h.rcv(A));
  EXPECT_EQ(r.secondary, 0x10086021u) << "not yet defined";

  NodeConfig next;
  TpDefinition d{"LATER"};
  d.attach_timeout_ms = 1500;
  next.tp_definitions.push_back(d);
  next.modes.push_back({"ONE", 1});
  h.node.reconfigure(next);

  h.conv_a = h.run(Harness::kA, h.allocate_verb("LATER")).conv_id;
  ASSERT_EQ(h.simple(A, Opcode::kFlush).primary, 0);
  ASSERT_EQ(h.programs.size(), 1u);
  EXPECT_EQ(h.programs[0].tp_name, "LATER");
  ASSERT_EQ(h.timers.size(), 1u);
  EXPECT_EQ(h.timers[0].milliseconds, 1500u);

  Verb al = h.allocate_verb("LATER");
  al.mode_name = mode8("ONE");
  al.return_control = 1;
  EXPECT_EQ(h.run(Harness::kA, al).primary, 0);
  EXPECT_EQ(h.run(Harness::kA, al).primary, rc::kUnsuccessful);
}

}  // namespace
}  // namespace sna::proto::test
