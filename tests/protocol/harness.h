// Two simulated programs driving one node: verbs in, completions and flows
// collected, so tests read like the node's acceptance scenarios.
#ifndef SNA_PROTO_TEST_HARNESS_H
#define SNA_PROTO_TEST_HARNESS_H

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/ebcdic.h"
#include "protocol/flow.h"
#include "protocol/node.h"

namespace sna::proto::test {

inline Name64 tpn(const std::string& s) {
  Name64 n{};
  Bytes b = ebcdic_field(s, 64);
  std::copy(b.begin(), b.end(), n.begin());
  return n;
}

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

struct Harness {
  static constexpr ClientId kA = 1, kB = 2;
  Node node;
  uint64_t next_tag = 1;
  std::map<uint64_t, Completion> done;
  std::vector<FlowOut> flows;
  std::vector<StartProgram> programs;
  std::vector<StartTimer> timers;
  std::vector<ProblemLog> logs;
  TpId tp_a{}, tp_b{};
  uint32_t conv_a = 0, conv_b = 0;
  uint64_t accept_tag = 0;

  explicit Harness(NodeConfig cfg = {}) : node(std::move(cfg)) {
    node.client_connected(kA, 100, "alice");
    node.client_connected(kB, 200, "bob");
  }

  void absorb(Actions acts) {
    for (auto& a : acts) {
      if (auto* c = std::get_if<Completion>(&a)) done[c->tag] = *c;
      else if (auto* f = std::get_if<FlowOut>(&a)) flows.push_back(*f);
      else if (auto* p = std::get_if<StartProgram>(&a)) programs.push_back(*p);
      else if (auto* t = std::get_if<StartTimer>(&a)) timers.push_back(*t);
      else if (auto* l = std::get_if<ProblemLog>(&a)) logs.push_back(*l);
    }
  }

  uint64_t issue(ClientId c, const Verb& v) {
    const uint64_t tag = next_tag++;
    absorb(node.issue(c, tag, v));
    return tag;
  }
  bool finished(uint64_t tag) const { return done.count(tag) != 0; }
  VerbResult result(uint64_t tag) {
    EXPECT_TRUE(finished(tag)) << "verb " << tag << " still outstanding";
    if (!finished(tag)) {
      VerbResult none;
      none.primary = 0xFFFF;
      return none;
    }
    return done.at(tag).result;
  }
  VerbResult run(ClientId c, const Verb& v) { return result(issue(c, v)); }

  Verb conv_verb(Opcode op, bool a, uint8_t opext = 1) const {
    Verb v;
    v.opcode = op;
    v.opext = opext;
    v.tp_id = a ? tp_a : tp_b;
    v.conv_id = a ? conv_a : conv_b;
    return v;
  }

  TpId start_tp(ClientId c) {
    Verb v;
    v.opcode = Opcode::kTpStarted;
    return run(c, v).tp_id;
  }
  void register_name(ClientId c, const std::string& name) {
    Verb v;
    v.opcode = Opcode::kRegisterTpName;
    v.tp_name = tpn(name);
    EXPECT_EQ(run(c, v).primary, 0);
  }
  uint64_t receive_allocate(ClientId c, uint32_t correlator = 0) {
    Verb v;
    v.opcode = Opcode::kReceiveAllocate;
    v.format = 1;
    v.correlator = correlator;
    return issue(c, v);
  }
  Verb allocate_verb(const std::string& name, uint8_t opext = 1, uint8_t sync = 0) const {
    Verb v;
    v.opcode = Opcode::kAllocate;
    v.format = 1;
    v.opext = opext;
    v.sync_level = sync;
    v.tp_id = tp_a;
    v.tp_name = tpn(name);
    v.security = 1;
    v.partner_lu_alias.fill(0x20);
    v.mode_name.fill(0x40);
    return v;
  }
  // A from TP_STARTED, B registered SRV with an accept outstanding.
  void setup(uint8_t opext = 1, uint8_t sync = 0) {
    tp_a = start_tp(kA);
    register_name(kB, "SRV");
    accept_tag = receive_allocate(kB);
    VerbResult r = run(kA, allocate_verb("SRV", opext, sync));
    ASSERT_EQ(r.primary, 0);
    conv_a = r.conv_id;
  }
  // setup, then the attach travels and B accepts (A in S, B in R).
  void connect(uint8_t opext = 1, uint8_t sync = 0) {
    setup(opext, sync);
    Verb f = conv_verb(Opcode::kFlush, true, opext);
    ASSERT_EQ(run(kA, f).primary, 0);
    VerbResult acc = result(accept_tag);
    ASSERT_EQ(acc.primary, 0);
    tp_b = acc.tp_id;
    conv_b = acc.conv_id;
  }

  VerbResult send(bool a, const Bytes& data, uint8_t type, uint8_t opext = 1) {
    Verb v = conv_verb(Opcode::kSendData, a, opext);
    v.data = data;
    v.data_length = static_cast<uint32_t>(data.size());
    v.send_type = type;
    return run(a ? kA : kB, v);
  }
  uint64_t rcv(bool a, uint16_t max = 100, uint8_t rswd = 1, uint8_t opext = 1, uint8_t fill = 1,
               bool wait = true) {
    Verb v = conv_verb(wait ? Opcode::kReceiveAndWait : Opcode::kReceiveImmediately, a, opext);
    v.max_length = max;
    v.return_status_with_data = rswd;
    v.fill = fill;
    return issue(a ? kA : kB, v);
  }
  uint8_t state(bool a) {
    VerbResult r = run(a ? kA : kB, conv_verb(Opcode::kGetState, a));
    return r.primary == 0 ? r.state : 0xEE;
  }
  VerbResult simple(bool a, Opcode op, uint8_t opext = 1) { return run(a ? kA : kB, conv_verb(op, a, opext)); }
  VerbResult deallocate(bool a, uint8_t type, uint8_t opext = 1) {
    Verb v = conv_verb(Opcode::kDeallocate, a, opext);
    v.type = type;
    return run(a ? kA : kB, v);
  }
};

}  // namespace sna::proto::test

#endif
