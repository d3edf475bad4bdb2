// TPs, registered TP names and cancellation.
#include <algorithm>

#include "protocol/node.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

bool all_zero(const TpId& id) {
  return std::all_of(id.begin(), id.end(), [](uint8_t b) { return b == 0; });
}

bool blank_name(const Name64& n) {
  return std::all_of(n.begin(), n.end(), [](uint8_t b) { return b == 0x40 || b == 0; });
}

}  // namespace

void Node::do_tp_started(ClientId c, uint64_t tag, const Verb& v) {
  const int lu = find_local_lu_by_alias(v.local_lu_alias);
  if (lu < 0) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadLocalLu));
  TpId id{};
  const uint32_t stamp = config_.tp_id_stamp, n = next_tp_++;
  for (int i = 0; i < 4; ++i) {
    id[i] = static_cast<uint8_t>(stamp >> (24 - 8 * i));
    id[4 + i] = static_cast<uint8_t>(n >> (24 - 8 * i));
  }
  clients_[c];  // a client seen for the first time
  tps_[id] = Tp{c, static_cast<size_t>(lu), {}, Bytes(v.tp_name.begin(), v.tp_name.end())};
  VerbResult r;
  r.tp_id = id;
  r.local_lu_alias.fill(' ');
  const std::string& alias = config_.local_lus[static_cast<size_t>(lu)].alias;
  std::copy_n(alias.begin(), std::min<size_t>(alias.size(), 8), r.local_lu_alias.begin());
  complete(c, tag, v, r);
}

void Node::do_tp_ended(ClientId c, uint64_t tag, const Verb& v) {
  if (v.type > 1) return complete(c, tag, v, code(rc::kParameterCheck, rc::kValueOutOfRange));
  if (!find_tp(c, v.tp_id)) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadTpId));
  end_tp(v.tp_id, v.type == 1);
  complete(c, tag, v, code(rc::kOk));
}

void Node::end_tp(const TpId& id, bool hard) {
  // Every verb outstanding on the TP completes first, then its
  // conversations end, then the id goes.
  for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
    if (it->verb.tp_id == id) {
      complete(it->client, it->tag, it->verb, code(rc::kCancelled));
      it = waiting_allocates_.erase(it);
    } else {
      ++it;
    }
  }
  std::vector<uint32_t> convs;
  for (auto& [cid, e] : ends_)
    if (e.has_tp && e.tp == id) convs.push_back(cid);
  for (uint32_t cid : convs) complete_pending(ends_.at(cid), code(rc::kCancelled));
  for (uint32_t cid : convs) {
    End& e = ends_.at(cid);
    const bool sending = e.state == ConvState::kSend || e.state == ConvState::kSendPending;
    abend_end(e, sense::kAbendService, {}, !hard && sending);
    delete_end(cid);
  }
  tps_.erase(id);
}

void Node::do_register(ClientId c, uint64_t tag, const Verb& v) {
  if (blank_name(v.tp_name)) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadTpName));
  clients_[c].names.insert(Bytes(v.tp_name.begin(), v.tp_name.end()));
  complete(c, tag, v, code(rc::kOk));
}

void Node::do_withdraw(ClientId c, uint64_t tag, const Verb& v) {
  ClientInfo& ci = clients_[c];
  Bytes name(v.tp_name.begin(), v.tp_name.end());
  if (blank_name(v.tp_name) || !ci.names.erase(name))
    return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadTpName));
  if (ci.names.empty()) {
    for (auto it = receive_allocates_.begin(); it != receive_allocates_.end();) {
      if (it->client == c) {
        complete(it->client, it->tag, it->verb, code(rc::kStateCheck, rc::kNoRegisteredName));
        it = receive_allocates_.erase(it);
      } else {
        ++it;
      }
    }
  }
  name_unregistered(name);
  complete(c, tag, v, code(rc::kOk));
}

void Node::name_unregistered(const Bytes& name) {
  if (name_registered(name)) return;
  if (definition(name)) {
    // A definition that starts programs only while nobody has the name
    // registered may start them now.
    attach_manager(name);
    return;
  }
  auto it = queued_attaches_.find(name);
  if (it == queued_attaches_.end()) return;
  std::deque<uint32_t> q = std::move(it->second);
  queued_attaches_.erase(it);
  for (uint32_t conv : q) reject_queued(conv, sense::kTpNotAvailableRetry);
}

void Node::do_cancel(ClientId c, uint64_t tag, const Verb& v) {
  const bool tp_set = !all_zero(v.tp_id);
  if (tp_set && v.conv_id != 0) {
    VerbResult err;
    End* e = find_end(c, v, err);
    if (!e) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadConvId));
    complete_pending(*e, code(rc::kCancelled));
    e->send_buf.clear();
    e->send_bytes = 0;
    clear_incoming(*e);
    abend_end(*e, sense::kAbendProgram, {}, false);
    delete_end(v.conv_id);
  } else if (tp_set) {
    for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
      if (it->client == c && it->verb.tp_id == v.tp_id) {
        complete(it->client, it->tag, it->verb, code(rc::kCancelled));
        it = waiting_allocates_.erase(it);
      } else {
        ++it;
      }
    }
  } else if (v.conv_id != 0) {
    for (auto it = receive_allocates_.begin(); it != receive_allocates_.end();) {
      if (it->client == c && it->verb.correlator == v.conv_id) {
        complete(it->client, it->tag, it->verb, code(rc::kCancelled));
        it = receive_allocates_.erase(it);
      } else {
        ++it;
      }
    }
  }
  complete(c, tag, v, code(rc::kOk));
}

}  // namespace sna::proto
