// Receiving: the order in which data, statuses and reports reach the
// program, record boundaries, and statuses combined with data.
#include <algorithm>

#include "protocol/node.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

uint16_t status_code(StatusKind s) { return static_cast<uint16_t>(s); }

ConvState status_state(StatusKind s, bool with_data) {
  switch (s) {
    case StatusKind::kSend: return with_data ? ConvState::kSendPending : ConvState::kSend;
    case StatusKind::kConfirm: return ConvState::kConfirm;
    case StatusKind::kConfirmSend: return ConvState::kConfirmSend;
    case StatusKind::kConfirmDeallocate: return ConvState::kConfirmDeallocate;
  }
  return ConvState::kReceive;
}

}  // namespace

VerbResult Node::report_result(const End& e, const Report& rep) const {
  const bool mapped = e.type == ConvType::kMapped;
  switch (rep.kind) {
    case Report::Kind::kDeallocNormal: return code(rc::kDeallocNormal);
    case Report::Kind::kAllocError: return code(rc::kAllocationError, rep.sense);
    case Report::Kind::kAbend: {
      if (mapped) return code(rc::kDeallocAbendMapped, rep.sense);
      if (rep.sense == sense::kAbendService) return code(rc::kDeallocAbendSvc, rep.sense);
      if (rep.sense == sense::kAbendTimer) return code(rc::kDeallocAbendTimer, rep.sense);
      return code(rc::kDeallocAbendProg, rc::kAbendProgram);
    }
    case Report::Kind::kError: {
      const bool svc = !mapped && (rep.sense & 0xFFFFFF00u) == 0x08890100u;
      const bool trunc = rep.sense == sense::kProgramErrorTrunc || rep.sense == sense::kServiceErrorTrunc;
      if (rep.purging)
        return svc ? code(rc::kSvcErrorPurging, rc::kSvcError) : code(rc::kProgErrorPurging, rc::kProgError);
      if (trunc)
        return svc ? code(rc::kSvcErrorTrunc, rc::kSvcErrorTruncSecondary)
                   : code(rc::kProgErrorTrunc, rc::kProgErrorTruncSecondary);
      return svc ? code(rc::kSvcErrorNoTrunc, rc::kSvcError) : code(rc::kProgErrorNoTrunc, rc::kProgError);
    }
  }
  return code(rc::kOk);
}

bool Node::try_receive(End& e, const Verb& v, bool wait, VerbResult& r) {
  // Returns false when the verb must wait. Sets r.state to 0xFF when the
  // end is to be deleted after completion (reported to the caller only).
  r = VerbResult{};
  if (e.failed) {
    r = code(e.failure_code, e.failure_sense);
    r.state = 0xFF;
    return true;
  }
  if (e.in_q.empty()) {
    if (wait) return false;
    r = code(rc::kUnsuccessful);
    return true;
  }
  InItem& head = e.in_q.front();
  if (head.kind == InItem::Kind::kStatus) {
    r.what_received = status_code(head.status);
    e.state = status_state(head.status, false);
    e.in_q.pop_front();
    return true;
  }
  if (head.kind == InItem::Kind::kReport) {
    const Report rep = head.report;
    e.in_q.pop_front();
    r = report_result(e, rep);
    if (rep.kind == Report::Kind::kError) e.state = ConvState::kReceive;
    else r.state = 0xFF;
    return true;
  }
  const bool mapped = e.type == ConvType::kMapped;
  const bool unit_mode = mapped || v.fill == 1;
  const size_t L = v.max_length;
  size_t avail = 0, idx = 0;
  bool complete = false;
  for (; idx < e.in_q.size() && e.in_q[idx].kind == InItem::Kind::kData; ++idx) {
    avail += e.in_q[idx].data.size();
    if (unit_mode && e.in_q[idx].unit_end) {
      complete = true;
      ++idx;
      break;
    }
  }
  const bool nondata_follows = idx < e.in_q.size() && e.in_q[idx].kind != InItem::Kind::kData;
  if (L == 0) {
    if (mapped && complete && avail == 0) {
      e.in_q.pop_front();
      r.what_received = 0x0200;
      return true;
    }
    r.what_received = unit_mode ? 0x0400 : 0x0100;
    return true;
  }
  const bool unit_done = unit_mode ? complete : false;
  if (!unit_done && !nondata_follows && avail < L) {
    if (wait) return false;
    if (avail == 0) {
      r = code(rc::kUnsuccessful);
      return true;
    }
  }
  const size_t n = std::min(L, avail);
  const bool ends_unit = unit_mode ? (complete && n == avail) : (n == avail && nondata_follows);
  size_t need = n;
  while (!e.in_q.empty() && e.in_q.front().kind == InItem::Kind::kData) {
    InItem& it = e.in_q.front();
    if (it.data.size() <= need) {
      r.data.insert(r.data.end(), it.data.begin(), it.data.end());
      need -= it.data.size();
      const bool end = it.unit_end;
      e.in_q.pop_front();
      if (unit_mode && end) break;
      if (need == 0 && !(unit_mode && ends_unit)) break;
    } else {
      r.data.insert(r.data.end(), it.data.begin(), it.data.begin() + static_cast<std::ptrdiff_t>(need));
      it.data.erase(it.data.begin(), it.data.begin() + static_cast<std::ptrdiff_t>(need));
      need = 0;
      break;
    }
  }
  e.in_bytes -= std::min(e.in_bytes, r.data.size());
  r.what_received = unit_mode ? (ends_unit ? 0x0200 : 0x0400) : 0x0100;
  e.state = ConvState::kReceive;
  if (ends_unit && v.return_status_with_data == 1 && !e.in_q.empty() &&
      e.in_q.front().kind == InItem::Kind::kStatus) {
    const StatusKind s = e.in_q.front().status;
    e.in_q.pop_front();
    r.what_received = static_cast<uint16_t>(r.what_received | status_code(s));
    e.state = status_state(s, true);
  }
  return true;
}

void Node::retry_pending_receive(End& e) {
  if (!e.pending || e.pending->wait != PendingVerb::Wait::kReceive) return;
  VerbResult r;
  if (!try_receive(e, e.pending->verb, true, r)) return;
  const bool gone = r.state == 0xFF;
  r.state = 0;
  r.rts_received = take_rts(e);
  const uint32_t conv = e.conv_id;
  complete_pending(e, std::move(r));
  if (gone) delete_end(conv);
}

void Node::deliver_report(End& e, const Report& rep) {
  if (e.pending && e.pending->wait == PendingVerb::Wait::kReply) {
    VerbResult r = report_result(e, rep);
    r.rts_received = take_rts(e);
    e.send_buf.clear();
    e.send_bytes = 0;
    const uint32_t conv = e.conv_id;
    const bool keep = rep.kind == Report::Kind::kError;
    if (keep) e.state = ConvState::kReceive;
    complete_pending(e, std::move(r));
    if (!keep) delete_end(conv);
    return;
  }
  // An attach still waiting in a queue has reached no program: abended
  // before that, it has nobody to tell and would only hand a later accept a
  // dead conversation (and stay queued as long as the name is registered).
  if (!e.has_tp && rep.kind == Report::Kind::kAbend) {
    delete_end(e.conv_id);
    return;
  }
  InItem it;
  it.kind = InItem::Kind::kReport;
  it.report = rep;
  e.in_q.push_back(std::move(it));
  retry_pending_receive(e);
}

void Node::fail_end(End& e, uint16_t primary, uint32_t sense_code) {
  e.failed = true;
  e.failure_code = primary;
  e.failure_sense = sense_code;
  clear_incoming(e);
  e.send_buf.clear();
  e.send_bytes = 0;
  e.session = 0;  // the session is gone
  if (e.pending && e.pending->wait == PendingVerb::Wait::kPacing) {
    release_paced(e);  // a held SEND_DATA reports the failure; other verbs their own result
    return;
  }
  if (e.pending) {
    VerbResult r = code(primary, sense_code);
    const uint32_t conv = e.conv_id;
    complete_pending(e, std::move(r));
    delete_end(conv);
  }
}

}  // namespace sna::proto
