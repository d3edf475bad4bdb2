// Half-sessions: turning a conversation end's buffer into chains of RUs,
// and incoming flows back into data, statuses and reports.
#include <algorithm>

#include "protocol/bind.h"
#include "protocol/ebcdic.h"
#include "protocol/gds.h"
#include "protocol/node.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

bool sending(ConvState s) { return s == ConvState::kSend || s == ConvState::kSendPending; }

Bytes fmh7_ru(uint32_t sense_code, ByteView log) {
  Bytes ru = encode_fmh7(Fmh7{sense_code, !log.empty()});
  if (!log.empty()) append_gds(kGdsErrorLog, log, ru);
  return ru;
}

}  // namespace

End* Node::end_of(Session& s, int half) {
  const uint32_t conv = s.half[half].conv;
  if (!conv) return nullptr;
  auto it = ends_.find(conv);
  return it == ends_.end() ? nullptr : &it->second;
}

void Node::buffer_data(End& e, ByteView data) {
  if (!e.send_buf.empty() && e.send_buf.back().kind == OutItem::Kind::kData) {
    Bytes& b = e.send_buf.back().bytes;
    b.insert(b.end(), data.begin(), data.end());
  } else {
    OutItem it;
    it.bytes.assign(data.begin(), data.end());
    e.send_buf.push_back(std::move(it));
  }
  e.send_bytes += data.size();
}

// A record built for the purpose (a mapped conversation's GDS) becomes the
// buffered item itself when it starts one, instead of being copied.
void Node::buffer_data(End& e, Bytes&& data) {
  if (!e.send_buf.empty() && e.send_buf.back().kind == OutItem::Kind::kData)
    return buffer_data(e, ByteView(data));
  e.send_bytes += data.size();
  OutItem it;
  it.bytes = std::move(data);
  e.send_buf.push_back(std::move(it));
}

void Node::maybe_flush_full(End& e) {
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) return;
  const size_t B = std::max<uint32_t>(sit->second.send_buffer, 1);
  if (e.send_bytes < B) return;
  // Transmit the leading multiple of B bytes; keep the rest buffered.
  size_t keep_from = (e.send_bytes / B) * B;
  std::vector<OutItem> head, tail;
  size_t seen = 0;
  for (OutItem& it : e.send_buf) {
    if (it.kind != OutItem::Kind::kData || seen >= keep_from) {
      if (seen >= keep_from) tail.push_back(std::move(it));
      else head.push_back(std::move(it));
      continue;
    }
    const size_t n = it.bytes.size();
    if (seen + n <= keep_from) {
      seen += n;
      head.push_back(std::move(it));
    } else {
      // The head keeps the item's own bytes; only the short tail is copied.
      const size_t cut = keep_from - seen;
      OutItem b;
      b.bytes.assign(it.bytes.begin() + static_cast<std::ptrdiff_t>(cut), it.bytes.end());
      it.bytes.resize(cut);
      seen = keep_from;
      head.push_back(std::move(it));
      tail.push_back(std::move(b));
    }
  }
  // transmit() zeroes the count; what stays buffered is the tail.
  const size_t kept = e.send_bytes - keep_from;
  e.send_buf = std::move(head);
  transmit(e, ChainEnd::kNone);
  e.send_buf = std::move(tail);
  e.send_bytes = kept;
}

void Node::transmit(End& e, ChainEnd how) {
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) {
    e.send_buf.clear();
    e.send_bytes = 0;
    return;
  }
  Session& s = sit->second;
  HalfSession& hs = s.half[e.half];
  const size_t max_ru = std::max<uint32_t>(s.max_ru, 16);
  std::vector<Flow> flows;  // in order; responses interleaved with requests
  Flow* cur = nullptr;
  auto open_ru = [&](bool fmh) {
    flows.emplace_back();
    cur = &flows.back();
    cur->rh.format = fmh;
  };
  bool secret = false;  // flows[0] is an attach carrying a password
  if (!e.attach_sent) {
    open_ru(true);
    Bytes attach = encode_attach(e.attach);
    // Sent: the conversation keeps no password for the rest of its life.
    if (e.attach.password) {
      secret = true;
      wipe(*e.attach.password);
      e.attach.password.reset();
      // Room for the data that may follow in the same RU, so that growing
      // it leaves no freed copy of the attach behind.
      cur->ru.reserve(std::max(max_ru, attach.size()));
      cur->ru.assign(attach.begin(), attach.end());
      wipe(attach);
    } else {
      cur->ru = std::move(attach);
    }
    e.attach_sent = true;
    hs.type = e.type;
  }
  for (const OutItem& it : e.send_buf) {
    if (it.kind == OutItem::Kind::kData) e.flushed_bytes += it.bytes.size();
    if (it.kind == OutItem::Kind::kError) {
      if (it.purging) {
        Flow neg;
        neg.rh = response_rh(hs.have_request ? hs.last_request : Rh{}, true);
        Writer(neg.ru).u32(sense::kErrorFollows);
        flows.push_back(std::move(neg));
      }
      open_ru(true);
      cur->ru = fmh7_ru(it.sense, it.bytes);
      continue;
    }
    size_t pos = 0;
    while (pos < it.bytes.size()) {
      if (!cur || cur->rh.response || cur->ru.size() >= max_ru) open_ru(false);
      const size_t take = std::min(max_ru - cur->ru.size(), it.bytes.size() - pos);
      cur->ru.insert(cur->ru.end(), it.bytes.begin() + static_cast<std::ptrdiff_t>(pos),
                     it.bytes.begin() + static_cast<std::ptrdiff_t>(pos + take));
      pos += take;
    }
  }
  e.send_buf.clear();
  e.send_bytes = 0;
  if (how != ChainEnd::kNone && (!cur || cur->rh.response)) open_ru(false);
  // Chain and bracket bits over the requests, in order.
  Flow* last = nullptr;
  for (Flow& f : flows) {
    if (f.rh.response) continue;
    f.rh.begin_chain = !hs.chain_open;
    f.rh.end_chain = false;
    if (!hs.bracket_open) {
      f.rh.begin_bracket = true;
      hs.bracket_open = true;
    }
    f.rh.set_response_mode(ResponseMode::kException);
    hs.chain_open = true;
    last = &f;
  }
  if (last && how != ChainEnd::kNone) {
    Rh& rh = last->rh;
    rh.end_chain = true;
    hs.chain_open = false;
    switch (how) {
      case ChainEnd::kSend: rh.change_direction = true; break;
      case ChainEnd::kConfirm: rh.set_response_mode(ResponseMode::kDefinite); break;
      case ChainEnd::kConfirmSend:
        rh.change_direction = true;
        rh.set_response_mode(ResponseMode::kDefinite);
        break;
      case ChainEnd::kConfirmDeallocate:
        rh.conditional_end_bracket = true;
        rh.set_response_mode(ResponseMode::kDefinite);
        break;
      case ChainEnd::kDeallocate: rh.conditional_end_bracket = true; break;
      case ChainEnd::kNone: break;
    }
  }
  for (size_t i = 0; i < flows.size(); ++i) send_flow(s, e.half, flows[i], secret && i == 0);
  if (secret) wipe(flows[0].ru);
}

void Node::send_flow(Session& s, int from_half, const Flow& f, bool secret) {
  FlowOut out;
  out.session = s.id;
  out.from_primary = from_half == 0;
  out.bytes = encode_flow(f);
  out.secret = secret;
  out.delivered_locally = s.half[1 - from_half].here;
  if (out.delivered_locally) deliveries_.push_back(Delivery{s.id, 1 - from_half, out.bytes, secret});
  emit(std::move(out));
}

void Node::send_negative_then_fmh7(End& e, uint32_t rsp_sense, uint32_t fmh7_sense, ByteView log,
                                   bool end_bracket) {
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) return;
  Session& s = sit->second;
  HalfSession& hs = s.half[e.half];
  Flow neg;
  neg.rh = response_rh(hs.have_request ? hs.last_request : Rh{}, true);
  Writer(neg.ru).u32(rsp_sense);
  send_flow(s, e.half, neg);
  Flow f;
  f.rh.format = true;
  f.rh.begin_chain = true;
  f.rh.end_chain = end_bracket;
  f.rh.conditional_end_bracket = end_bracket;
  f.rh.set_response_mode(ResponseMode::kException);
  f.ru = fmh7_ru(fmh7_sense, log);
  hs.chain_open = !end_bracket;
  send_flow(s, e.half, f);
}

void Node::send_positive_reply(End& e) {
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) return;
  Session& s = sit->second;
  const HalfSession& hs = s.half[e.half];
  Flow req;
  req.rh = hs.have_request ? hs.last_request : Rh{};
  send_flow(s, e.half, positive_response(req));
}

void Node::send_signal(End& e) {
  if (!e.attach_sent) return;  // no partner end yet: no effect
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) return;
  send_flow(sit->second, e.half, signal_flow(kSignalRequestToSend));
}

void Node::abend_end(End& e, uint32_t sense_code, ByteView log, bool flush_first) {
  if (!e.attach_sent || e.deallocated) {
    // The partner never heard of this conversation, or has already been
    // told that it ended.
    e.send_buf.clear();
    e.send_bytes = 0;
    return;
  }
  if (sending(e.state) || (e.pending && e.pending->wait == PendingVerb::Wait::kReply)) {
    if (!flush_first) {
      e.send_buf.clear();
      e.send_bytes = 0;
    }
    OutItem it;
    it.kind = OutItem::Kind::kError;
    it.sense = sense_code;
    it.bytes.assign(log.begin(), log.end());
    e.send_buf.push_back(std::move(it));
    transmit(e, ChainEnd::kDeallocate);
    return;
  }
  clear_incoming(e);
  send_negative_then_fmh7(e, sense::kDeallocateFollows, sense_code, log, true);
}

void Node::delete_end(uint32_t conv) {
  auto it = ends_.find(conv);
  if (it == ends_.end()) return;
  const SessionId sid = it->second.session;
  const int half = it->second.half;
  if (it->second.attach_timer) {
    emit(CancelTimer{it->second.attach_timer});
    attach_timers_.erase(it->second.attach_timer);
  }
  for (auto& [name, q] : queued_attaches_) q.erase(std::remove(q.begin(), q.end(), conv), q.end());
  ends_.erase(it);
  auto sit = sessions_.find(sid);
  if (sit != sessions_.end() && sit->second.half[half].conv == conv) release_half(sid, half);
}

void Node::release_half(SessionId sid, int half) {
  auto sit = sessions_.find(sid);
  if (sit == sessions_.end()) return;
  Session& s = sit->second;
  s.half[half].conv = 0;
  if (s.half[0].conv == 0 && s.half[1].conv == 0) {
    for (HalfSession& h : s.half) {
      h.bracket_open = false;
      h.chain_open = false;
      h.in_chain = false;
      h.neg_rsp_seen = false;
      h.chain_had_fmh7_end = false;
      h.gds = GdsAssembler();
      h.lr = LogicalRecordScanner();
    }
    serve_waiting_allocates();
  }
}

void Node::pump() {
  if (pumping_) return;
  pumping_ = true;
  do {
    while (!deliveries_.empty()) {
      Delivery d = std::move(deliveries_.front());
      deliveries_.pop_front();
      auto sit = sessions_.find(d.session);
      if (sit != sessions_.end()) receive_flow(sit->second, d.to_half, d.bytes, d.secret);
      if (d.secret) wipe(d.bytes);
    }
  } while (release_due_paced());
  pumping_ = false;
}

// --- pacing
//
// A verb that flushed is answered once the partner end holds fewer than W
// data bytes that this end transmitted and the partner has not received.
// The data itself has gone; holding the verb keeps the program from sending
// more, which bounds what a conversation can pile up at its partner. Only a
// partner on this node is measured; a remote partner's node paces its
// session itself.

void Node::clear_incoming(End& e) {
  e.in_q.clear();
  e.in_bytes = 0;
}

size_t Node::pacing_window(const End& e) const {
  auto sit = sessions_.find(e.session);
  return sit == sessions_.end() ? 0 : sit->second.pacing_window;
}

size_t Node::unreceived(const End& e) {
  auto sit = sessions_.find(e.session);
  if (sit == sessions_.end()) return 0;
  Session& s = sit->second;
  const int other = 1 - e.half;
  if (!s.half[other].here) return 0;
  const End* p = end_of(s, other);
  return p ? p->in_bytes : 0;
}

void Node::finish_flush(End& e, ClientId c, uint64_t tag, const Verb& v, VerbResult r, bool delete_after) {
  // What this verb transmitted is still on its way to the partner end;
  // counting it here answers at once in the common case, and the check
  // after delivery (release_due_paced) corrects an over-estimate.
  const size_t W = pacing_window(e);
  if (W == 0 || unreceived(e) + e.flushed_bytes < W) {
    return answer_flush(e, c, tag, v, std::move(r), delete_after);
  }
  PendingVerb p;
  p.client = c;
  p.tag = tag;
  p.verb = v;
  p.wait = PendingVerb::Wait::kPacing;
  p.issued_state = e.pending ? e.pending->issued_state : e.state;
  p.delete_on_ok = delete_after;
  p.paced_result = std::move(r);
  e.pending = std::move(p);
  paced_.insert(e.conv_id);
}

// The verb's answer, by the usual rules as they stand now: a SEND_DATA that
// leaves its end sending returns a report that arrived meanwhile, or a
// failure; everything else returns what it did.
void Node::answer_flush(End& e, ClientId c, uint64_t tag, const Verb& v, VerbResult r, bool delete_after) {
  const uint32_t conv = e.conv_id;
  if (v.opcode == Opcode::kSendData) {
    if (!delete_after && report_waiting(e)) return complete_with_report(e, c, tag, v);
    if (!delete_after && e.failed) {
      complete(c, tag, v, code(e.failure_code, e.failure_sense));
      return delete_end(conv);
    }
    r.rts_received = take_rts(e);
  }
  complete(c, tag, v, std::move(r));
  if (delete_after) delete_end(conv);
}

void Node::release_paced(End& e) {
  paced_.erase(e.conv_id);
  if (!e.pending || e.pending->wait != PendingVerb::Wait::kPacing) return;
  PendingVerb p = std::move(*e.pending);
  e.pending.reset();
  answer_flush(e, p.client, p.tag, p.verb, std::move(p.paced_result), p.delete_on_ok);
}

bool Node::release_due_paced() {
  std::vector<uint32_t> due;
  for (auto it = paced_.begin(); it != paced_.end();) {
    auto e = ends_.find(*it);
    if (e == ends_.end() || !e->second.pending || e->second.pending->wait != PendingVerb::Wait::kPacing) {
      it = paced_.erase(it);
      continue;
    }
    const size_t W = pacing_window(e->second);  // 0: the session is gone
    if (W == 0 || unreceived(e->second) < W) due.push_back(*it);
    ++it;
  }
  for (uint32_t conv : due) {
    auto e = ends_.find(conv);
    if (e != ends_.end()) release_paced(e->second);
  }
  return !due.empty();
}

void Node::receive_flow(Session& s, int half, ByteView bytes, bool secret) {
  auto f = decode_flow(bytes);
  if (!f) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
  if (f->rh.response) return receive_response(s, half, f.value());
  if (f->rh.category != RuCategory::kFmd) return receive_control(s, half, f.value());
  receive_fmd(s, half, f.value());
  if (secret) wipe(f.value().ru);  // the decoded attach with its password
}

void Node::receive_fmd(Session& s, int half, const Flow& f) {
  HalfSession& hs = s.half[half];
  const SessionId sid = s.id;
  if (f.rh.begin_bracket) {
    hs.bracket_open = true;
    hs.discard_bracket = false;
    hs.gds = GdsAssembler();
    hs.lr = LogicalRecordScanner();
  }
  if (f.rh.begin_chain) hs.chain_had_fmh7_end = false;
  hs.last_request = f.rh;
  hs.have_request = true;
  if (hs.discard_bracket) return;
  ByteView ru = f.ru;
  if (f.rh.format) {
    auto split = split_fmh(ru);
    if (!split) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
    ru = split->rest;
    if (split->type == 5) {
      auto a = decode_attach(split->header);
      if (!a || !f.rh.begin_bracket || hs.conv != 0)
        return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
      route_attach(s, half, a.value());
      if (a->password) wipe(*a.value().password);
      if (!sessions_.count(sid)) return;
      if (s.half[half].conv == 0) {
        hs.discard_bracket = true;
        return;
      }
    } else {
      auto f7 = decode_fmh7(split->header);
      if (!f7) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
      if (f7->error_log_follows) {
        GdsAssembler log;
        auto pieces = log.feed(ru);
        if (pieces) {
          Bytes data;
          for (const auto& p : pieces.value())
            if (p.id == kGdsErrorLog) data.insert(data.end(), p.data.begin(), p.data.end());
          emit(ProblemLog{f7->sense, std::move(data)});
        }
        ru = {};
      }
      Report rep;
      rep.sense = f7->sense;
      if (sense::is_error(rep.sense)) {
        rep.kind = Report::Kind::kError;
        rep.purging = hs.neg_rsp_seen;
      } else {
        rep.kind = sense::is_abend(rep.sense) ? Report::Kind::kAbend : Report::Kind::kAllocError;
        hs.chain_had_fmh7_end = true;
      }
      hs.neg_rsp_seen = false;
      // A record cut short by the error: what arrived stays incomplete.
      hs.gds = GdsAssembler();
      hs.lr = LogicalRecordScanner();
      if (End* e = end_of(s, half)) deliver_report(*e, rep);
      if (!sessions_.count(sid)) return;
    }
  }
  End* e = end_of(s, half);
  // A receive waiting at the end learns of the chain's end indication
  // together with the data that came in the same request, so that it can
  // report both at once.
  if (!ru.empty()) receive_data_bytes(s, half, e, ru, !f.rh.end_chain);
  if (!sessions_.count(sid)) return;
  if (f.rh.end_chain) {
    end_of_chain(s, half, end_of(s, half), f.rh);
    if (!sessions_.count(sid)) return;
    if (End* after = end_of(s, half)) retry_pending_receive(*after);
  }
}

void Node::receive_data_bytes(Session& s, int half, End* e, ByteView data, bool retry) {
  HalfSession& hs = s.half[half];
  std::vector<InItem> items;
  if (hs.type == ConvType::kMapped) {
    auto pieces = hs.gds.feed(data);
    if (!pieces) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
    for (auto& p : pieces.value()) {
      if (p.id != kGdsApplicationData) continue;
      if (p.data.empty() && !p.ends_variable) continue;
      InItem it;
      it.data = std::move(p.data);
      it.unit_end = p.ends_variable;
      items.push_back(std::move(it));
    }
  } else {
    std::vector<size_t> ends;
    if (!hs.lr.feed(data, &ends)) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
    size_t from = 0;
    for (size_t at : ends) {
      InItem it;
      it.data.assign(data.begin() + static_cast<std::ptrdiff_t>(from), data.begin() + static_cast<std::ptrdiff_t>(at));
      it.unit_end = true;
      items.push_back(std::move(it));
      from = at;
    }
    if (from < data.size()) {
      InItem it;
      it.data.assign(data.begin() + static_cast<std::ptrdiff_t>(from), data.end());
      items.push_back(std::move(it));
    }
  }
  if (!e) return;
  // An end that holds the send direction takes nothing from its partner
  // unless a report already waits for it.
  if (sending(e->state) && e->in_q.empty()) return;
  for (InItem& it : items) {
    e->in_bytes += it.data.size();
    e->in_q.push_back(std::move(it));
  }
  if (retry) retry_pending_receive(*e);
}

void Node::end_of_chain(Session& s, int half, End* e, const Rh& rh) {
  HalfSession& hs = s.half[half];
  hs.in_chain = false;
  if (hs.chain_had_fmh7_end || !e) return;
  const bool rqd = rh.response_mode() == ResponseMode::kDefinite;
  if (rh.conditional_end_bracket && !rqd) {
    Report rep;
    rep.kind = Report::Kind::kDeallocNormal;
    deliver_report(*e, rep);
    return;
  }
  InItem it;
  it.kind = InItem::Kind::kStatus;
  if (rh.conditional_end_bracket) it.status = StatusKind::kConfirmDeallocate;
  else if (rh.change_direction && rqd) it.status = StatusKind::kConfirmSend;
  else if (rh.change_direction) it.status = StatusKind::kSend;
  else if (rqd) it.status = StatusKind::kConfirm;
  else return;
  if (sending(e->state) && e->in_q.empty()) return;
  e->in_q.push_back(std::move(it));
  retry_pending_receive(*e);
}

void Node::receive_response(Session& s, int half, const Flow& f) {
  HalfSession& hs = s.half[half];
  const size_t code_at = f.rh.negative() ? 4 : 0;
  const bool to_bind = f.ru.size() > code_at && f.ru[code_at] == kBindRequestCode;
  if (f.rh.category == RuCategory::kSc && to_bind) {
    if (half != 0) return;
    if (!f.rh.negative()) {
      auto b = decode_bind_response(f.ru);
      if (!b) return session_failed(s, rc::kConvFailureNoRetry, sense::kProtocolViolation);
      if (b->max_ru_primary_sends) s.max_ru = std::min(s.max_ru, b->max_ru_primary_sends);
      s.bound = true;
      serve_waiting_allocates();
      return;
    }
    const SessionId sid = s.id;
    for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
      if (it->binding == sid) {
        complete(it->client, it->tag, it->verb, code(rc::kAllocationError, rc::kAllocNoRetry));
        it = waiting_allocates_.erase(it);
      } else {
        ++it;
      }
    }
    sessions_.erase(sid);
    return;
  }
  if (f.rh.category != RuCategory::kFmd) return;
  End* e = end_of(s, half);
  if (f.rh.negative()) {
    hs.neg_rsp_seen = true;
    return;
  }
  if (!e || !e->pending || e->pending->wait != PendingVerb::Wait::kReply) return;
  VerbResult r;
  r.rts_received = take_rts(*e);
  const bool del = e->pending->delete_on_ok;
  const ConvState next = e->pending->ok_state;
  const uint32_t conv = e->conv_id;
  if (!del) e->state = next;
  complete_pending(*e, std::move(r));
  if (del) delete_end(conv);
}

void Node::receive_control(Session& s, int half, const Flow& f) {
  const uint8_t rq = f.ru[0];
  if (f.rh.category == RuCategory::kSc && rq == kBindRequestCode) {
    auto b = decode_bind(f.ru);
    bool refused = false;
    Name8 mode{};
    if (b) {
      Bytes m = ebcdic_field(b->mode_name, 8);
      std::copy_n(m.begin(), 8, mode.begin());
    }
    if (!b || !mode_defined(mode, refused)) {
      send_flow(s, half, negative_response(f, sense::kBindParameterError));
      return;
    }
    const uint32_t limit = s.max_ru;
    Bind n = negotiate_bind(b.value(), limit, 63, SyncSupport::kConfirm);
    Flow rsp = positive_response(f);
    rsp.ru = encode_bind_response(n);
    send_flow(s, half, rsp);
    return;
  }
  if (f.rh.category == RuCategory::kSc && rq == kUnbindRequestCode) {
    auto u = decode_unbind(f.ru);
    const SessionId sid = s.id;
    send_flow(s, half, positive_response(f));
    session_failed(s, rc::kConvFailureNoRetry, u && u->type == UnbindType::kSessionFailure ? u->sense : 0);
    sessions_.erase(sid);
    return;
  }
  if (f.rh.category == RuCategory::kDfc && rq == kSignalRequestCode) {
    if (End* e = end_of(s, half)) e->rts = true;
    send_flow(s, half, positive_response(f));
    return;
  }
  send_flow(s, half, negative_response(f, 0x10030000));  // function not supported
}

void Node::session_failed(Session& s, uint16_t primary, uint32_t sense_code) {
  const SessionId sid = s.id;
  for (int h = 0; h < 2; ++h) {
    if (End* e = end_of(s, h)) {
      s.half[h].conv = 0;
      fail_end(*e, primary, sense_code);
    }
  }
  for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
    if (it->binding == sid) {
      complete(it->client, it->tag, it->verb, code(rc::kAllocationError, rc::kAllocRetry));
      it = waiting_allocates_.erase(it);
    } else {
      ++it;
    }
  }
  s.bound = false;
}

Actions Node::flow_in(SessionId sid, ByteView bytes) {
  auto sit = sessions_.find(sid);
  if (sit != sessions_.end()) {
    const int half = sit->second.half[0].here && !sit->second.half[1].here ? 0 : 1;
    receive_flow(sit->second, half, bytes);
  }
  pump();
  return take();
}

Actions Node::session_lost(SessionId sid, bool retry, uint32_t sense_code) {
  auto sit = sessions_.find(sid);
  if (sit != sessions_.end()) {
    session_failed(sit->second, retry ? rc::kConvFailureRetry : rc::kConvFailureNoRetry, sense_code);
    sessions_.erase(sid);
    serve_waiting_allocates();
  }
  pump();
  return take();
}

Actions Node::unbind_session(SessionId sid) {
  auto sit = sessions_.find(sid);
  if (sit != sessions_.end()) {
    Session& s = sit->second;
    Flow f;
    f.rh.category = RuCategory::kSc;
    f.rh.format = true;
    f.rh.set_response_mode(ResponseMode::kDefinite);
    f.ru = encode_unbind(Unbind{});
    FlowOut out;
    out.session = sid;
    out.from_primary = true;
    out.bytes = encode_flow(f);
    emit(std::move(out));  // the partner half, if here, goes with the session
    session_failed(s, rc::kConvFailureNoRetry, 0);
    sessions_.erase(sid);
    serve_waiting_allocates();
  }
  pump();
  return take();
}

}  // namespace sna::proto

namespace sna::proto {

// The target LU refuses an attach: a negative response to the attach
// chain, then an FMH-7 with the reason that ends the bracket.
void Node::reject_attach(Session& s, int half, uint32_t sense_code) {
  HalfSession& hs = s.half[half];
  Flow neg;
  neg.rh = response_rh(hs.have_request ? hs.last_request : Rh{}, true);
  Writer(neg.ru).u32(sense_code);
  send_flow(s, half, neg);
  Flow f;
  f.rh.format = true;
  f.rh.conditional_end_bracket = true;
  f.rh.set_response_mode(ResponseMode::kException);
  f.ru = encode_fmh7(Fmh7{sense_code, false});
  send_flow(s, half, f);
  hs.discard_bracket = true;
}

}  // namespace sna::proto
