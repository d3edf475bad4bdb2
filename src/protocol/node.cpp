#include "protocol/node.h"

#include <algorithm>

#include "protocol/ebcdic.h"

namespace sna::proto {

Node::Node(NodeConfig config) : config_(std::move(config)) {
  if (config_.local_lus.empty()) config_.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  active_lus_ = config_.local_lus.size();
}

Actions Node::take() {
  Actions a;
  a.swap(out_);
  return a;
}

VerbResult Node::code(uint16_t primary, uint32_t secondary) const {
  VerbResult r;
  r.primary = primary;
  r.secondary = secondary;
  return r;
}

void Node::complete(ClientId client, uint64_t tag, const Verb& v, VerbResult r) {
  emit(Completion{client, tag, v.opcode, std::move(r)});
}

void Node::complete_pending(End& e, VerbResult r) {
  if (!e.pending) return;
  PendingVerb p = std::move(*e.pending);
  e.pending.reset();
  complete(p.client, p.tag, p.verb, std::move(r));
}

void Node::client_connected(ClientId client, uint32_t pid, std::string login_name) {
  ClientInfo& ci = clients_[client];
  ci.pid = pid;
  ci.login = std::move(login_name);
}

Actions Node::client_closed(ClientId client) {
  // Its RECEIVE_ALLOCATE_CPIC verbs are dropped without completion.
  receive_allocates_.remove_if([&](const WaitingReceiveAllocate& w) { return w.client == client; });
  std::vector<TpId> owned;
  for (auto& [id, tp] : tps_)
    if (tp.client == client) owned.push_back(id);
  for (const TpId& id : owned) end_tp(id, true);
  waiting_allocates_.remove_if([&](const WaitingAllocate& w) { return w.client == client; });
  auto it = clients_.find(client);
  if (it != clients_.end()) {
    std::set<Bytes> names = std::move(it->second.names);
    clients_.erase(it);
    for (const Bytes& n : names) name_unregistered(n);
  }
  pump();
  return take();
}

int Node::find_local_lu_by_alias(const Name8& alias) const {
  bool blank = std::all_of(alias.begin(), alias.end(), [](uint8_t b) { return b == 0 || b == ' '; });
  if (blank) return 0;
  std::string a(alias.begin(), alias.end());
  while (!a.empty() && (a.back() == ' ' || a.back() == '\0')) a.pop_back();
  for (size_t i = 0; i < active_lus_; ++i)
    if (config_.local_lus[i].alias == a) return static_cast<int>(i);
  return -1;
}

Tp* Node::find_tp(ClientId client, const TpId& id) {
  auto it = tps_.find(id);
  if (it == tps_.end() || it->second.client != client) return nullptr;
  return &it->second;
}

End* Node::find_end(ClientId client, const Verb& v, VerbResult& err) {
  if (!find_tp(client, v.tp_id)) {
    err = code(rc::kParameterCheck, rc::kBadTpId);
    return nullptr;
  }
  auto it = ends_.find(v.conv_id);
  if (it == ends_.end() || !it->second.has_tp || it->second.tp != v.tp_id) {
    err = code(rc::kParameterCheck, rc::kBadConvId);
    return nullptr;
  }
  return &it->second;
}

Actions Node::issue(ClientId client, uint64_t tag, const Verb& v) {
  switch (v.opcode) {
    case Opcode::kAllocate: do_allocate(client, tag, v); break;
    case Opcode::kTpStarted: do_tp_started(client, tag, v); break;
    case Opcode::kTpEnded: do_tp_ended(client, tag, v); break;
    case Opcode::kRegisterTpName: do_register(client, tag, v); break;
    case Opcode::kWithdrawTpName: do_withdraw(client, tag, v); break;
    case Opcode::kCancelConversation: do_cancel(client, tag, v); break;
    case Opcode::kReceiveAllocate: do_receive_allocate(client, tag, v); break;
    case Opcode::kConfirm:
    case Opcode::kConfirmed:
    case Opcode::kDeallocate:
    case Opcode::kFlush:
    case Opcode::kGetState:
    case Opcode::kPrepareToReceive:
    case Opcode::kReceiveAndWait:
    case Opcode::kReceiveImmediately:
    case Opcode::kRequestToSend:
    case Opcode::kSendData:
    case Opcode::kSendError:
    case Opcode::kTestRts:
      do_conversation_verb(client, tag, v);
      break;
    default:
      complete(client, tag, v, code(rc::kParameterCheck, rc::kBadOpcodeOrFormat));
  }
  pump();
  return take();
}

std::vector<SessionId> Node::sessions() const {
  std::vector<SessionId> ids;
  for (const auto& [id, s] : sessions_) ids.push_back(id);
  return ids;
}

bool Node::session_bound(SessionId s) const {
  auto it = sessions_.find(s);
  return it != sessions_.end() && it->second.bound;
}

bool Node::session_in_use(SessionId s) const {
  auto it = sessions_.find(s);
  return it != sessions_.end() && (it->second.half[0].conv || it->second.half[1].conv);
}

}  // namespace sna::proto
