// The session-flow codecs under arbitrary bytes: whatever decodes must
// encode again into bytes that decode to the same value, and the
// incremental GDS and logical-record parsers must not depend on where the
// stream is split.
#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "fuzz_input.h"
#include "protocol/bind.h"
#include "protocol/ebcdic.h"
#include "protocol/flow.h"
#include "protocol/fmh.h"
#include "protocol/gds.h"
#include "protocol/node.h"
#include "protocol/rh.h"

namespace {

using namespace sna::proto;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// decode(encode(v)) == v for every v the decoder produced.
template <class T, class Enc, class Dec>
void round_trip(ByteView bytes, Enc encode, Dec decode) {
  Decoded<T> d = decode(bytes);
  if (!d) {
    // A refusal names an offset inside the input or its end.
    check(d.error().offset <= bytes.size());
    return;
  }
  const Bytes again = encode(d.value());
  Decoded<T> d2 = decode(ByteView(again));
  check(static_cast<bool>(d2));
  check(d2.value() == d.value());
}

void rh(ByteView b) {
  Decoded<Rh> d = decode_rh(b);
  if (!d) return;
  // Every bit of the three bytes is modelled or refused when set: the
  // encoding gives the same bytes back.
  const auto again = encode_rh(d.value());
  for (size_t i = 0; i < kRhSize; ++i) check(again[i] == b[i]);
  // A response to a request is itself a valid RH.
  if (!d->response) {
    for (bool negative : {false, true}) {
      const auto rsp = encode_rh(response_rh(d.value(), negative));
      check(static_cast<bool>(decode_rh(ByteView(rsp.data(), rsp.size()))));
    }
  }
}

void flow(ByteView b) {
  Decoded<Flow> d = decode_flow(b);
  if (!d) return;
  const Bytes again = encode_flow(d.value());
  Decoded<Flow> d2 = decode_flow(ByteView(again));
  check(static_cast<bool>(d2));
  check(d2.value() == d.value());
  (void)response_sense(d.value());
  if (!d->rh.response) {
    // The responses the node would send back decode as flows.
    check(static_cast<bool>(decode_flow(ByteView(encode_flow(positive_response(d.value()))))));
    check(static_cast<bool>(decode_flow(ByteView(encode_flow(negative_response(d.value(), 0x08460000))))));
  }
}

void fmh(ByteView b) {
  Decoded<FmhSplit> s = split_fmh(b);
  if (!s) return;
  check(s->header.size() + s->rest.size() == b.size());
  if (s->type == 5) round_trip<Attach>(s->header, encode_attach, decode_attach);
  if (s->type == 7) round_trip<Fmh7>(s->header, encode_fmh7, decode_fmh7);
}

void signal(ByteView b) {
  Decoded<uint32_t> d = decode_signal(b);
  if (!d) return;
  const Flow f = signal_flow(d.value());
  Decoded<uint32_t> d2 = decode_signal(ByteView(f.ru));
  check(static_cast<bool>(d2) && d2.value() == d.value());
}

// The variables of a GDS stream fed in the given pieces: complete
// variables (ID and data), and whether the stream was refused.
struct GdsResult {
  bool refused = false;
  std::vector<std::pair<uint16_t, Bytes>> variables;
  bool open = false;
  bool at_boundary = false;
};

GdsResult feed_gds(ByteView stream, const std::vector<size_t>& cuts) {
  GdsResult r;
  GdsAssembler a;
  size_t at = 0;
  for (size_t i = 0; i <= cuts.size(); ++i) {
    const size_t end = i < cuts.size() ? cuts[i] : stream.size();
    if (end < at) continue;
    auto pieces = a.feed(stream.subspan(at, end - at));
    at = end;
    if (!pieces) {
      r.refused = true;
      return r;
    }
    for (const auto& p : pieces.value()) {
      if (p.starts_variable) {
        check(!r.open);
        r.variables.emplace_back(p.id, Bytes());
        r.open = true;
      }
      check(r.open);
      check(p.id == r.variables.back().first);
      r.variables.back().second.insert(r.variables.back().second.end(), p.data.begin(), p.data.end());
      if (p.ends_variable) r.open = false;
    }
  }
  r.at_boundary = a.at_boundary();
  return r;
}

void gds(ByteView stream, const std::vector<size_t>& cuts) {
  const GdsResult whole = feed_gds(stream, {});
  const GdsResult split = feed_gds(stream, cuts);
  check(whole.refused == split.refused);
  if (whole.refused) return;
  check(whole.variables == split.variables);
  check(whole.open == split.open);
  check(whole.at_boundary == split.at_boundary);
  // Complete variables encode back into a stream that gives them again.
  Bytes again;
  std::vector<std::pair<uint16_t, Bytes>> complete = whole.variables;
  if (whole.open) complete.pop_back();
  for (const auto& [id, data] : complete) append_gds(id, ByteView(data), again);
  const GdsResult re = feed_gds(ByteView(again), {});
  check(!re.refused && !re.open && re.at_boundary);
  check(re.variables == complete);
}

void logical_records(ByteView stream, const std::vector<size_t>& cuts) {
  LogicalRecordScanner whole;
  std::vector<size_t> whole_ends;
  const bool whole_ok = whole.feed(stream, &whole_ends);
  LogicalRecordScanner split;
  std::vector<size_t> split_ends;
  bool split_ok = true;
  size_t at = 0;
  for (size_t i = 0; i <= cuts.size() && split_ok; ++i) {
    const size_t end = i < cuts.size() ? cuts[i] : stream.size();
    if (end < at) continue;
    std::vector<size_t> ends;
    split_ok = split.feed(stream.subspan(at, end - at), &ends);
    for (size_t e : ends) {
      check(e <= end - at);
      split_ends.push_back(at + e);
    }
    at = end;
  }
  check(whole_ok == split_ok);
  if (!whole_ok) return;
  check(whole_ends == split_ends);
  check(whole.incomplete() == split.incomplete());
}

// A node whose program talks to a partner LU on another node: the node
// sends BIND for the session, and the input plays the partner's
// half-session (any flows, on any session) between the program's verbs,
// timer expiries, session losses and program starts. Whatever arrives, the
// node only sends flows that decode, and completes each verb once.
class RemotePartner {
 public:
  explicit RemotePartner(fuzz::Input& in) : in_(in), node_(config(in)) {
    node_.client_connected(kClient, 100, "alice");
    Verb started;
    started.opcode = Opcode::kTpStarted;
    started.tp_name = name64("CLIENT");
    const VerbResult tp = run(started);
    tp_id_ = tp.tp_id;
    Verb a;
    a.opcode = Opcode::kAllocate;
    a.format = 1;
    a.opext = in_.u8() & 1;
    a.sync_level = in_.u8() & 1;
    a.return_control = 0;
    a.tp_id = tp_id_;
    const std::string partner = "REMOTE  ";
    std::copy(partner.begin(), partner.end(), a.partner_lu_alias.begin());
    const Bytes mode = ebcdic_field("#INTER", 8);
    std::copy(mode.begin(), mode.end(), a.mode_name.begin());
    a.tp_name = name64("SRV");
    opext_ = a.opext;
    issue(a);
  }

  void run_script() {
    while (!in_.empty()) {
      const uint8_t op = in_.u8();
      switch (op % 10) {
        case 0: case 1: case 2: case 3: {
          const SessionId s = pick(sessions_);
          const Bytes b = in_.block(4096);
          absorb(node_.flow_in(s, ByteView(b)));
          break;
        }
        case 4: case 5: verb(); break;
        case 6: if (!timers_.empty()) absorb(node_.timer_expired(pick(timers_))); break;
        case 7: absorb(node_.session_lost(pick(sessions_), in_.flag(), in_.u32())); break;
        case 8: absorb(node_.unbind_session(pick(sessions_))); break;
        default: program_event(); break;
      }
    }
    absorb(node_.client_closed(kClient));
  }

 private:
  static constexpr ClientId kClient = 1;

  static NodeConfig config(fuzz::Input& in) {
    NodeConfig c;
    c.local_lus.push_back({"LOCAL", "NETA.LOCAL", "REMOTE"});
    PartnerLuConfig p;
    p.alias = "REMOTE";
    p.fq_name = "NETB.REMOTE";
    p.accepts_already_verified = in.flag();
    c.partners.push_back(p);
    ModeConfig m;
    m.name = "#INTER";
    m.session_limit = in.u8() % 3;
    c.modes.push_back(m);
    TpDefinition d;
    d.tp_name = "SRV";
    c.tp_definitions.push_back(d);
    return c;
  }
  static Name64 name64(const std::string& s) {
    Name64 n{};
    const Bytes b = ebcdic_field(s, 64);
    std::copy(b.begin(), b.end(), n.begin());
    return n;
  }
  template <class T>
  T pick(const std::set<T>& from) {
    if (from.empty()) return static_cast<T>(in_.u8());
    auto it = from.begin();
    std::advance(it, in_.u8() % from.size());
    return *it;
  }

  uint64_t issue(const Verb& v) {
    const uint64_t tag = next_tag_++;
    outstanding_.insert(tag);
    absorb(node_.issue(kClient, tag, v));
    return tag;
  }
  VerbResult run(const Verb& v) {
    const uint64_t tag = issue(v);
    auto it = results_.find(tag);
    check(it != results_.end());
    return it->second;
  }

  // One of the program's verbs on its conversation (or a made-up one).
  void verb() {
    static const Opcode kOps[] = {
        Opcode::kSendData,    Opcode::kReceiveAndWait, Opcode::kReceiveImmediately,
        Opcode::kConfirm,     Opcode::kConfirmed,      Opcode::kDeallocate,
        Opcode::kFlush,       Opcode::kGetState,       Opcode::kPrepareToReceive,
        Opcode::kRequestToSend, Opcode::kSendError,    Opcode::kTestRts,
        Opcode::kCancelConversation, Opcode::kTpEnded, Opcode::kReceiveAllocate,
        Opcode::kAllocate};
    Verb v;
    v.opcode = kOps[in_.u8() % (sizeof kOps / sizeof kOps[0])];
    v.opext = opext_;
    v.format = v.opcode == Opcode::kAllocate || v.opcode == Opcode::kReceiveAllocate ? 1 : 0;
    v.tp_id = tp_id_;
    v.conv_id = in_.flag() || convs_.empty() ? pick(convs_) : in_.u32();
    const uint8_t f = in_.u8();
    v.type = f & 3;
    v.send_type = (f >> 2) & 7;
    v.fill = (f >> 5) & 1;
    v.return_status_with_data = (f >> 6) & 1;
    v.max_length = in_.u16();
    if (v.opcode == Opcode::kSendData || v.opcode == Opcode::kSendError || v.opcode == Opcode::kDeallocate) {
      v.data = in_.block(1024);
      v.data_length = static_cast<uint32_t>(v.data.size());
    }
    if (v.opcode == Opcode::kAllocate) {
      const std::string partner = "REMOTE  ";
      std::copy(partner.begin(), partner.end(), v.partner_lu_alias.begin());
      const Bytes mode = ebcdic_field("#INTER", 8);
      std::copy(mode.begin(), mode.end(), v.mode_name.begin());
      v.tp_name = name64("SRV");
    }
    if (v.opcode == Opcode::kReceiveAllocate) v.tp_name = name64("SRV");
    issue(v);
  }

  void program_event() {
    if (programs_.empty()) return;
    const uint64_t instance = pick(programs_);
    switch (in_.u8() % 3) {
      case 0: absorb(node_.program_started(instance, 4242)); break;
      case 1: absorb(node_.program_failed(instance)); break;
      default: absorb(node_.program_exited(instance)); break;
    }
  }

  void absorb(Actions actions) {
    for (Action& a : actions) {
      if (auto* c = std::get_if<Completion>(&a)) {
        // Each verb completes once, for the client that issued it.
        check(c->client == kClient);
        check(outstanding_.erase(c->tag) == 1);
        results_[c->tag] = c->result;
        if (c->result.primary == 0 && (c->opcode == Opcode::kAllocate || c->opcode == Opcode::kReceiveAllocate))
          convs_.insert(c->result.conv_id);
      } else if (auto* f = std::get_if<FlowOut>(&a)) {
        // The node sends only flows that decode.
        check(static_cast<bool>(decode_flow(ByteView(f->bytes))));
        sessions_.insert(f->session);
      } else if (auto* t = std::get_if<StartTimer>(&a)) {
        timers_.insert(t->timer);
      } else if (auto* t = std::get_if<CancelTimer>(&a)) {
        timers_.erase(t->timer);
      } else if (auto* p = std::get_if<StartProgram>(&a)) {
        programs_.insert(p->instance);
      }
    }
  }

  fuzz::Input& in_;
  Node node_;
  TpId tp_id_{};
  uint8_t opext_ = 1;
  uint64_t next_tag_ = 1;
  std::set<uint64_t> outstanding_;
  std::map<uint64_t, VerbResult> results_;
  std::set<uint32_t> convs_;
  std::set<SessionId> sessions_;
  std::set<uint64_t> timers_;
  std::set<uint64_t> programs_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  // The first byte chooses the codec (8: the node with a remote partner);
  // the incremental parsers then take a count and that many split points
  // (u16 each).
  const int which = in.u8() % 9;
  if (which == 8) {
    RemotePartner partner(in);
    partner.run_script();
    return 0;
  }
  std::vector<size_t> cuts;
  if (which >= 6) {
    const size_t n = in.u8() % 9;
    for (size_t i = 0; i < n; ++i) cuts.push_back(in.u16());
    std::sort(cuts.begin(), cuts.end());
  }
  const std::vector<uint8_t> rest = in.rest();
  for (size_t& c : cuts) c = std::min(c, rest.size());
  const ByteView b(rest);
  switch (which) {
    case 0: rh(b); break;
    case 1: round_trip<Bind>(b, encode_bind, decode_bind);
            round_trip<Bind>(b, encode_bind_response, decode_bind_response);
            if (auto d = decode_bind(b)) {
              // The secondary's answer to any BIND it accepted is a valid response.
              const Bind n = negotiate_bind(d.value(), 4096, 7, SyncSupport::kConfirm);
              check(static_cast<bool>(decode_bind_response(ByteView(encode_bind_response(n)))));
            }
            break;
    case 2: round_trip<Unbind>(b, encode_unbind, decode_unbind); break;
    case 3: fmh(b); round_trip<Attach>(b, encode_attach, decode_attach);
            round_trip<Fmh7>(b, encode_fmh7, decode_fmh7); break;
    case 4: flow(b); break;
    case 5: signal(b);
            if (!b.empty() && ru_size_code_valid(b[0]) && decode_ru_size(b[0]) != 0) {
              // a * 2^b with a of 8 to 15 names each size once.
              check(encode_ru_size(decode_ru_size(b[0])) == b[0]);
            }
            break;
    case 6: gds(b, cuts); break;
    default: logical_records(b, cuts); break;
  }
  return 0;
}
