// The attach manager: program instances for queued attaches, their limit,
// their exits and failures, and names that only start programs while
// nobody has them registered.
#include <string>

#include "harness.h"

namespace sna::proto::test {
namespace {

constexpr ClientId kProgram1 = 11, kProgram2 = 12;

NodeConfig defined(TpDefinition d) {
  NodeConfig cfg;
  cfg.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  cfg.local_lus.push_back({"SECOND", "NETWORK.SECOND", ""});
  cfg.partners.push_back({"TOSECOND", "NETWORK.SECOND"});
  cfg.tp_definitions.push_back(std::move(d));
  return cfg;
}

// A allocates `name` (to `partner` alias, blank: the default) and flushes;
// returns the conversation id.
uint32_t attach(Harness& h, const std::string& name, const std::string& partner = "") {
  Verb v = h.allocate_verb(name);
  std::copy(partner.begin(), partner.end(), v.partner_lu_alias.begin());
  VerbResult r = h.run(Harness::kA, v);
  EXPECT_EQ(r.primary, 0);
  h.conv_a = r.conv_id;
  EXPECT_EQ(h.simple(true, Opcode::kFlush).primary, 0);
  return r.conv_id;
}

// A started program connects from `pid` and accepts.
VerbResult program_accepts(Harness& h, ClientId client, uint32_t pid, const std::string& name) {
  h.node.client_connected(client, pid, "prog");
  h.register_name(client, name);
  return h.result(h.receive_allocate(client));
}

TEST(ProtoAttachManager, OneInstancePerQueuedAttachUpToTheLimit) {
  TpDefinition d{"WORK"};
  d.instance_limit = 2;
  Harness h(defined(d));
  h.tp_a = h.start_tp(Harness::kA);
  attach(h, "WORK");
  attach(h, "WORK");
  attach(h, "WORK");
  ASSERT_EQ(h.programs.size(), 2u) << "the limit counts running instances";
  h.absorb(h.node.program_started(h.programs[0].instance, 501));
  EXPECT_EQ(program_accepts(h, kProgram1, 501, "WORK").primary, 0);
  EXPECT_EQ(h.programs.size(), 2u) << "a busy instance still runs";
  // The busy instance exits: the third attach gets an instance now.
  h.absorb(h.node.program_exited(h.programs[0].instance));
  ASSERT_EQ(h.programs.size(), 3u);
  EXPECT_EQ(h.programs[2].tp_name, "WORK");
}

TEST(ProtoAttachManager, IdleInstanceExitingRejectsTheOldestAttach) {
  Harness h(defined(TpDefinition{"WORK"}));
  h.tp_a = h.start_tp(Harness::kA);
  const uint32_t first = attach(h, "WORK");
  ASSERT_EQ(h.programs.size(), 1u);
  h.absorb(h.node.program_started(h.programs[0].instance, 502));
  h.absorb(h.node.program_exited(h.programs[0].instance));
  h.conv_a = first;
  VerbResult r = h.result(h.rcv(true));
  EXPECT_EQ(r.primary, rc::kAllocationError);
  EXPECT_EQ(r.secondary, 0x084C0000u);
}

TEST(ProtoAttachManager, FailedStartRejectsOneAttachAndOthersKeepTheirInstances) {
  Harness h(defined(TpDefinition{"WORK"}));
  h.tp_a = h.start_tp(Harness::kA);
  const uint32_t first = attach(h, "WORK");
  attach(h, "WORK");
  ASSERT_EQ(h.programs.size(), 2u);
  h.absorb(h.node.program_failed(h.programs[0].instance));
  h.conv_a = first;
  EXPECT_EQ(h.result(h.rcv(true)).secondary, 0x084C0000u);
  EXPECT_EQ(h.programs.size(), 2u) << "one queued attach, one idle instance: nothing more to start";
  NodeSnapshot s = h.node.snapshot();
  ASSERT_EQ(s.queued_attaches.size(), 1u);
  const uint32_t queued = s.queued_attaches[0].conv_id;
  h.absorb(h.node.program_started(h.programs[1].instance, 503));
  VerbResult acc = program_accepts(h, kProgram2, 503, "WORK");
  ASSERT_EQ(acc.primary, 0);
  EXPECT_EQ(acc.conv_id, queued) << "the second attach";
  EXPECT_TRUE(h.node.snapshot().queued_attaches.empty());
}

TEST(ProtoAttachManager, EachInstanceIsStartedOnTheLuOfItsAttach) {
  Harness h(defined(TpDefinition{"WORK"}));
  h.tp_a = h.start_tp(Harness::kA);
  attach(h, "WORK");
  attach(h, "WORK", "TOSECOND");
  ASSERT_EQ(h.programs.size(), 2u);
  EXPECT_EQ(h.programs[0].local_lu_alias, "LOCAL");
  EXPECT_EQ(h.programs[1].local_lu_alias, "SECOND");
}

TEST(ProtoAttachManager, OnlyWhenUnregisteredWaitsForTheLastRegistration) {
  TpDefinition d{"SHARED"};
  d.only_when_unregistered = true;
  Harness h(defined(d));
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SHARED");
  attach(h, "SHARED");
  EXPECT_TRUE(h.programs.empty()) << "a client has the name registered";
  Verb w;
  w.opcode = Opcode::kWithdrawTpName;
  w.tp_name = tpn("SHARED");
  EXPECT_EQ(h.run(Harness::kB, w).primary, 0);
  ASSERT_EQ(h.programs.size(), 1u) << "nobody has it now";
  EXPECT_EQ(h.programs[0].tp_name, "SHARED");
}

TEST(ProtoAttachManager, OnlyWhenUnregisteredStartsWhenTheClientGoes) {
  TpDefinition d{"SHARED"};
  d.only_when_unregistered = true;
  Harness h(defined(d));
  h.tp_a = h.start_tp(Harness::kA);
  h.register_name(Harness::kB, "SHARED");
  attach(h, "SHARED");
  EXPECT_TRUE(h.programs.empty());
  h.absorb(h.node.client_closed(Harness::kB));
  EXPECT_EQ(h.programs.size(), 1u);
}

TEST(ProtoAttachManager, TakenAttachCancelsItsTimer) {
  TpDefinition d{"WORK"};
  d.attach_timeout_ms = 5000;
  Harness h(defined(d));
  h.tp_a = h.start_tp(Harness::kA);
  attach(h, "WORK");
  ASSERT_EQ(h.timers.size(), 1u);
  EXPECT_EQ(h.timers[0].milliseconds, 5000u);
  h.absorb(h.node.program_started(h.programs[0].instance, 504));
  Actions acts;
  h.node.client_connected(kProgram1, 504, "prog");
  h.register_name(kProgram1, "WORK");
  Verb v;
  v.opcode = Opcode::kReceiveAllocate;
  v.format = 1;
  acts = h.node.issue(kProgram1, 900, v);
  bool cancelled = false;
  for (const Action& a : acts)
    if (auto* c = std::get_if<CancelTimer>(&a)) cancelled = c->timer == h.timers[0].timer;
  EXPECT_TRUE(cancelled);
  h.absorb(acts);
  EXPECT_EQ(h.result(900).primary, 0);
  // A late expiry of that timer does nothing.
  h.absorb(h.node.timer_expired(h.timers[0].timer));
  EXPECT_EQ(h.node.live_conversations(), 2u);
}

}  // namespace
}  // namespace sna::proto::test
