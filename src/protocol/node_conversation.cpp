// Verbs on a conversation end: state checks and what each verb sends.
#include <algorithm>
#include <initializer_list>

#include "protocol/gds.h"
#include "protocol/node.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

using S = ConvState;

bool in(S s, std::initializer_list<S> set) { return std::find(set.begin(), set.end(), s) != set.end(); }
bool sending(S s) { return s == S::kSend || s == S::kSendPending; }

bool fields_in_range(const Verb& v) {
  switch (v.opcode) {
    case Opcode::kSendData: return v.send_type <= 7 && v.data_length <= 32767;
    case Opcode::kDeallocate: return v.type <= 5 && v.data_length <= 32767;
    case Opcode::kPrepareToReceive: return v.type <= 1;
    case Opcode::kReceiveAndWait:
    case Opcode::kReceiveImmediately:
      return v.fill <= 1 && v.return_status_with_data <= 1 && v.max_length <= 32767;
    case Opcode::kSendError: return v.error_type <= 1 && v.direction <= 1 && v.data_length <= 32767;
    default: return true;
  }
}

bool checks_opext(Opcode op) {
  return op == Opcode::kSendData || op == Opcode::kReceiveAndWait ||
         op == Opcode::kReceiveImmediately || op == Opcode::kDeallocate || op == Opcode::kSendError;
}

// Verbs that go on regardless of a conversation failure.
bool ignores_failure(const End& e, const Verb& v) {
  switch (v.opcode) {
    case Opcode::kFlush:
    case Opcode::kConfirmed:
    case Opcode::kRequestToSend:
    case Opcode::kTestRts:
    case Opcode::kGetState:
      return true;
    case Opcode::kDeallocate: return !(v.type == 0 && e.sync == 1);
    default: return false;
  }
}

uint32_t abend_sense(uint8_t type) {
  if (type == 3) return sense::kAbendService;
  if (type == 4) return sense::kAbendTimer;
  return sense::kAbendProgram;
}

}  // namespace

uint8_t Node::take_rts(End& e) {
  const bool r = e.rts;
  e.rts = false;
  return r ? 1 : 0;
}

bool Node::report_waiting(const End& e) const {
  return sending(e.state) && !e.in_q.empty() && e.in_q.front().kind == InItem::Kind::kReport;
}

VerbResult Node::take_report(End& e) {
  const Report rep = e.in_q.front().report;
  e.in_q.pop_front();
  e.send_buf.clear();
  e.send_bytes = 0;
  e.out_lr.reset();
  VerbResult r = report_result(e, rep);
  r.rts_received = take_rts(e);
  if (rep.kind == Report::Kind::kError) {
    e.state = S::kReceive;
  } else {
    r.state = 0xFF;
  }
  return r;
}

void Node::complete_with_report(End& e, ClientId c, uint64_t tag, const Verb& v) {
  const uint32_t conv = e.conv_id;
  VerbResult r = take_report(e);
  const bool gone = r.state == 0xFF;  // the report ended the conversation
  r.state = 0;
  complete(c, tag, v, r);
  if (gone) delete_end(conv);
}

void Node::wait_for_reply(End& e, ClientId c, uint64_t tag, const Verb& v, bool delete_on_ok,
                          ConvState ok_state) {
  PendingVerb p;
  p.client = c;
  p.tag = tag;
  p.verb = v;
  p.wait = PendingVerb::Wait::kReply;
  p.issued_state = e.state;
  p.delete_on_ok = delete_on_ok;
  p.ok_state = ok_state;
  e.pending = std::move(p);
}

void Node::do_conversation_verb(ClientId c, uint64_t tag, const Verb& v) {
  if (!fields_in_range(v)) return complete(c, tag, v, code(rc::kParameterCheck, rc::kValueOutOfRange));
  VerbResult err;
  End* ep = find_end(c, v, err);
  if (!ep) return complete(c, tag, v, err);
  End& e = *ep;
  if (checks_opext(v.opcode) && v.opext != static_cast<uint8_t>(e.type))
    return complete(c, tag, v, code(rc::kParameterCheck, rc::kOpextMismatch));
  const S st = e.pending ? e.pending->issued_state : e.state;
  if (e.pending && v.opcode == Opcode::kGetState) {
    VerbResult r;
    r.state = static_cast<uint8_t>(S::kPending);
    return complete(c, tag, v, r);
  }
  if (e.pending && v.opcode != Opcode::kTestRts && v.opcode != Opcode::kRequestToSend)
    return complete(c, tag, v, code(rc::kStateCheck, rc::kVerbOutstanding));
  switch (v.opcode) {
    case Opcode::kGetState: {
      VerbResult r;
      r.state = static_cast<uint8_t>(e.state);
      return complete(c, tag, v, r);
    }
    case Opcode::kRequestToSend:
      if (!in(st, {S::kSend, S::kSendPending, S::kReceive, S::kConfirm, S::kConfirmSend,
                   S::kConfirmDeallocate}))
        return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
      send_signal(e);
      return complete(c, tag, v, code(rc::kOk));
    case Opcode::kTestRts:
      if (!in(st, {S::kSend, S::kSendPending, S::kReceive}))
        return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
      if (e.rts) {
        e.rts = false;
        return complete(c, tag, v, code(rc::kOk));
      }
      return complete(c, tag, v, code(rc::kUnsuccessful));
    default: break;
  }
  // A conversation failure is reported by every other verb at once.
  if (e.failed && !ignores_failure(e, v)) {
    // Its state check still comes first for verbs not valid here.
    VerbResult r = code(e.failure_code, e.failure_sense);
    const uint32_t conv = e.conv_id;
    complete(c, tag, v, r);
    delete_end(conv);
    return;
  }
  e.flushed_bytes = 0;
  switch (v.opcode) {
    case Opcode::kSendData: return verb_send_data(e, c, tag, v);
    case Opcode::kFlush: return verb_flush(e, c, tag, v);
    case Opcode::kConfirm: return verb_confirm(e, c, tag, v);
    case Opcode::kConfirmed: return verb_confirmed(e, c, tag, v);
    case Opcode::kPrepareToReceive: return verb_prepare_to_receive(e, c, tag, v);
    case Opcode::kReceiveAndWait:
    case Opcode::kReceiveImmediately: return verb_receive(e, c, tag, v);
    case Opcode::kSendError: return verb_send_error(e, c, tag, v);
    case Opcode::kDeallocate: return verb_deallocate(e, c, tag, v);
    default: return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadOpcodeOrFormat));
  }
}

void Node::verb_send_data(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!sending(e.state)) return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  uint8_t type = v.send_type;
  if (type == 2 && e.sync == 0) return complete(c, tag, v, code(rc::kStateCheck, rc::kSyncLevelNone));
  if (e.sync == 0 && type == 4) type = 3;
  if (e.sync == 0 && type == 6) type = 5;
  LogicalRecordScanner lr = e.out_lr;
  if (e.type == ConvType::kBasic) {
    if (!lr.feed(v.data)) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadLlLength));
    if (type >= 2 && type <= 6 && lr.incomplete())
      return complete(c, tag, v, code(rc::kStateCheck, rc::kRecordIncomplete));
  }
  const uint32_t conv = e.conv_id;
  if (report_waiting(e)) return complete_with_report(e, c, tag, v);
  e.out_lr = lr;
  e.state = S::kSend;
  if (e.type == ConvType::kMapped) {
    Bytes rec;
    append_gds(kGdsApplicationData, v.data, rec);
    buffer_data(e, std::move(rec));
  } else if (!v.data.empty()) {
    buffer_data(e, v.data);
  }
  VerbResult r;
  switch (type) {
    case 0:
      maybe_flush_full(e);
      // Only a buffer-full flush makes a buffering SEND_DATA subject to pacing.
      if (e.flushed_bytes == 0) break;
      return finish_flush(e, c, tag, v, r, false);
    case 1:
      transmit(e, ChainEnd::kNone);
      return finish_flush(e, c, tag, v, r, false);
    case 2:
      transmit(e, ChainEnd::kConfirm);
      return wait_for_reply(e, c, tag, v, false, S::kSend);
    case 3:
      transmit(e, ChainEnd::kSend);
      e.state = S::kReceive;
      return finish_flush(e, c, tag, v, r, false);
    case 4:
      transmit(e, ChainEnd::kConfirmSend);
      return wait_for_reply(e, c, tag, v, false, S::kReceive);
    case 5:
      transmit(e, ChainEnd::kDeallocate);
      e.deallocated = true;
      return finish_flush(e, c, tag, v, r, true);
    case 6:
      transmit(e, ChainEnd::kConfirmDeallocate);
      return wait_for_reply(e, c, tag, v, true, S::kReset);
    case 7:
      // Ending abnormally never waits for the partner to catch up.
      abend_end(e, sense::kAbendProgram, {}, true);
      r.rts_received = take_rts(e);
      complete(c, tag, v, r);
      return delete_end(conv);
  }
  r.rts_received = take_rts(e);
  complete(c, tag, v, r);
}

void Node::verb_flush(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!sending(e.state)) return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  e.state = S::kSend;
  transmit(e, ChainEnd::kNone);
  finish_flush(e, c, tag, v, code(rc::kOk), false);
}

void Node::verb_confirm(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!sending(e.state)) return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  if (e.sync == 0) return complete(c, tag, v, code(rc::kStateCheck, rc::kSyncLevelNone));
  if (e.type == ConvType::kBasic && e.out_lr.incomplete())
    return complete(c, tag, v, code(rc::kStateCheck, rc::kRecordIncomplete));
  if (report_waiting(e)) return complete_with_report(e, c, tag, v);
  e.state = S::kSend;
  transmit(e, ChainEnd::kConfirm);
  wait_for_reply(e, c, tag, v, false, S::kSend);
}

void Node::verb_confirmed(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!in(e.state, {S::kConfirm, S::kConfirmSend, S::kConfirmDeallocate}))
    return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  send_positive_reply(e);
  const S was = e.state;
  complete(c, tag, v, code(rc::kOk));
  if (was == S::kConfirm) e.state = S::kReceive;
  else if (was == S::kConfirmSend) e.state = S::kSend;
  else delete_end(e.conv_id);
}

void Node::verb_prepare_to_receive(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!sending(e.state)) return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  if (e.type == ConvType::kBasic && e.out_lr.incomplete())
    return complete(c, tag, v, code(rc::kStateCheck, rc::kRecordIncomplete));
  const bool waits = v.type == 0 && e.sync == 1;
  if (waits) {
    if (report_waiting(e)) return complete_with_report(e, c, tag, v);
    e.state = S::kSend;
    transmit(e, ChainEnd::kConfirmSend);
    return wait_for_reply(e, c, tag, v, false, S::kReceive);
  }
  transmit(e, ChainEnd::kSend);
  e.state = S::kReceive;
  finish_flush(e, c, tag, v, code(rc::kOk), false);
}

void Node::verb_receive(End& e, ClientId c, uint64_t tag, const Verb& v) {
  const bool wait = v.opcode == Opcode::kReceiveAndWait;
  const S issued = e.state;
  if (wait) {
    if (!in(e.state, {S::kReceive, S::kSend, S::kSendPending}))
      return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
    if (sending(e.state)) {
      if (e.type == ConvType::kBasic && e.out_lr.incomplete())
        return complete(c, tag, v, code(rc::kStateCheck, rc::kRecordIncomplete));
      if (report_waiting(e)) return complete_with_report(e, c, tag, v);
      transmit(e, ChainEnd::kSend);
      e.state = S::kReceive;
    }
  } else if (e.state != S::kReceive) {
    return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  }
  VerbResult r;
  if (!try_receive(e, v, wait, r)) {
    PendingVerb p;
    p.client = c;
    p.tag = tag;
    p.verb = v;
    p.wait = PendingVerb::Wait::kReceive;
    p.issued_state = issued;
    e.pending = std::move(p);
    return;
  }
  const bool gone = r.state == 0xFF;
  r.state = 0;
  r.rts_received = take_rts(e);
  const uint32_t conv = e.conv_id;
  complete(c, tag, v, r);
  if (gone) delete_end(conv);
}

void Node::verb_send_error(End& e, ClientId c, uint64_t tag, const Verb& v) {
  if (!in(e.state, {S::kSend, S::kSendPending, S::kReceive, S::kConfirm, S::kConfirmSend,
                    S::kConfirmDeallocate}))
    return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  const bool basic = e.type == ConvType::kBasic;
  const bool service = basic && v.error_type == 1;
  const Bytes log = basic ? v.data : Bytes{};
  const uint32_t conv = e.conv_id;
  if (sending(e.state)) {
    if (report_waiting(e)) return complete_with_report(e, c, tag, v);
    OutItem item;
    item.kind = OutItem::Kind::kError;
    const bool trunc = e.state == S::kSend && basic && e.out_lr.incomplete();
    item.sense = service ? (trunc ? sense::kServiceErrorTrunc : sense::kServiceError)
                         : (trunc ? sense::kProgramErrorTrunc : sense::kProgramError);
    item.purging = e.state == S::kSendPending && v.direction == 0;
    item.bytes = log;
    e.out_lr.reset();
    e.send_buf.push_back(std::move(item));
  } else {
    if (e.state == S::kReceive) {
      for (const InItem& it : e.in_q) {
        if (it.kind == InItem::Kind::kReport && it.report.kind != Report::Kind::kError) {
          VerbResult r = report_result(e, it.report);
          r.rts_received = take_rts(e);
          complete(c, tag, v, r);
          return delete_end(conv);
        }
      }
    }
    clear_incoming(e);
    send_negative_then_fmh7(e, sense::kErrorFollows, service ? sense::kServiceError : sense::kProgramError,
                            log, false);
  }
  e.state = S::kSend;
  VerbResult r;
  r.rts_received = take_rts(e);
  complete(c, tag, v, r);
}

void Node::verb_deallocate(End& e, ClientId c, uint64_t tag, const Verb& v) {
  const uint32_t conv = e.conv_id;
  if (v.type >= 2) {
    const Bytes log = e.type == ConvType::kBasic ? v.data : Bytes{};
    abend_end(e, abend_sense(v.type), log, sending(e.state));
    complete(c, tag, v, code(rc::kOk));
    return delete_end(conv);
  }
  if (!sending(e.state)) return complete(c, tag, v, code(rc::kStateCheck, rc::kBadState));
  if (e.type == ConvType::kBasic && e.out_lr.incomplete())
    return complete(c, tag, v, code(rc::kStateCheck, rc::kRecordIncomplete));
  if (v.type == 0 && e.sync == 1) {
    if (report_waiting(e)) return complete_with_report(e, c, tag, v);
    e.state = S::kSend;
    transmit(e, ChainEnd::kConfirmDeallocate);
    return wait_for_reply(e, c, tag, v, true, S::kReset);
  }
  transmit(e, ChainEnd::kDeallocate);
  e.deallocated = true;
  finish_flush(e, c, tag, v, code(rc::kOk), true);
}

}  // namespace sna::proto
