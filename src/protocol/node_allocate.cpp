// ALLOCATE, session pooling and activation, and attach routing at the
// target LU, with the attach manager's queue and time-outs.
#include <algorithm>

#include "protocol/bind.h"
#include "protocol/ebcdic.h"
#include "protocol/node.h"
#include "protocol/sense.h"

namespace sna::proto {
namespace {

// The smallest window that still lets a receiver wait for a whole record
// (up to 32767 bytes) without holding its sender.
constexpr uint32_t kMinPacingWindow = 32768;

std::string ascii_trim(const uint8_t* p, size_t n) {
  std::string s(reinterpret_cast<const char*>(p), n);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
  return s;
}

bool name_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '@' || c == '#' || c == '$';
}

// "NET.LU" with 1-8 name characters each side of the one period.
bool qualified_name_ok(const std::string& s) {
  const size_t dot = s.find('.');
  if (dot == std::string::npos || s.find('.', dot + 1) != std::string::npos) return false;
  const size_t net = dot, lu = s.size() - dot - 1;
  if (net < 1 || net > 8 || lu < 1 || lu > 8) return false;
  for (char c : s)
    if (c != '.' && !name_char(c)) return false;
  return true;
}

bool login_ok(const std::string& s) {
  if (s.empty() || s.size() > 10) return false;
  for (char c : s)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == '@' || c == '#' || c == '$' || c == '.'))
      return false;
  return true;
}

Bytes trimmed(const uint8_t* p, size_t n) {
  Bytes b(p, p + n);
  while (!b.empty() && (b.back() == 0x40 || b.back() == 0)) b.pop_back();
  return b;
}

Bytes padded64(ByteView name) {
  Bytes b(64, 0x40);
  std::copy_n(name.begin(), std::min<size_t>(name.size(), 64), b.begin());
  return b;
}

std::string service_safe_name(const Bytes& name) {
  const size_t n = ebcdic_trimmed_length(name);
  if (n > 0 && name[0] < 0x40) {
    static const char* hexd = "0123456789ABCDEF";
    std::string s = "SNA_SERVICE_TP_0x";
    for (size_t i = 0; i < n; ++i) {
      s.push_back(hexd[name[i] >> 4]);
      s.push_back(hexd[name[i] & 15]);
    }
    return s;
  }
  return ebcdic_text(name);
}

}  // namespace

uint32_t Node::new_conv_id() {
  // Never 0, and after the counter wraps never an id still in use.
  for (;;) {
    const uint32_t id = next_conv_++;
    if (id != 0 && !ends_.count(id)) return id;
  }
}

bool Node::mode_defined(const Name8& mode, bool& refused) const {
  // A cleared block (all zeros) names the blank mode, as all 0x40 does.
  const bool cleared = std::all_of(mode.begin(), mode.end(), [](uint8_t b) { return b == 0; });
  const std::string m = cleared ? std::string() : ebcdic_text(mode);
  refused = m == "SNASVCMG" || m == "CPSVCMG";
  if (refused) return false;
  if (m.empty() || m == "#INTER" || m == "#INTERSC" || m == "#BATCH" || m == "#BATCHSC") return true;
  return mode_config(mode) != nullptr;
}

const ModeConfig* Node::mode_config(const Name8& mode) const {
  const std::string m = ebcdic_text(mode);
  for (const ModeConfig& mc : config_.modes)
    if (mc.name == m) return &mc;
  return nullptr;
}

bool Node::resolve_partner(size_t lu, const Verb& v, std::string& fq, bool& local, size_t& partner_lu,
                           VerbResult& err) {
  auto local_by_fq = [&](const std::string& name) -> int {
    for (size_t i = 0; i < active_lus_; ++i)
      if (config_.local_lus[i].fq_name == name) return static_cast<int>(i);
    return -1;
  };
  auto by_alias = [&](const std::string& alias) -> bool {
    for (const PartnerLuConfig& p : config_.partners)
      if (p.alias == alias) {
        fq = p.fq_name;
        int l = local_by_fq(p.fq_name);
        local = l >= 0;
        partner_lu = local ? static_cast<size_t>(l) : 0;
        return true;
      }
    for (size_t i = 0; i < active_lus_; ++i)
      if (config_.local_lus[i].alias == alias) {
        fq = config_.local_lus[i].fq_name;
        local = true;
        partner_lu = i;
        return true;
      }
    return false;
  };
  const std::string& dflt = config_.local_lus[lu].default_partner;
  auto use_default = [&]() -> bool {
    if (dflt.empty()) {
      fq = config_.local_lus[lu].fq_name;
      local = true;
      partner_lu = lu;
      return true;
    }
    return by_alias(dflt);
  };
  if (v.partner_lu_alias[0] != 0) {
    const std::string alias = ascii_trim(v.partner_lu_alias.data(), 8);
    if (alias.empty() ? use_default() : by_alias(alias)) return true;
    err = code(rc::kParameterCheck, rc::kBadPartnerLu);
    return false;
  }
  const std::string name = ebcdic_text(v.partner_lu_name);
  if (name.empty()) {
    if (use_default()) return true;
    err = code(rc::kParameterCheck, rc::kBadPartnerLu);
    return false;
  }
  if (!qualified_name_ok(name)) {
    err = code(rc::kParameterCheck, rc::kBadPartnerLu);
    return false;
  }
  const int l = local_by_fq(name);
  if (l >= 0) {
    fq = name;
    local = true;
    partner_lu = static_cast<size_t>(l);
    return true;
  }
  for (const PartnerLuConfig& p : config_.partners)
    if (p.fq_name == name) {
      fq = name;
      local = false;
      return true;
    }
  // No directory beyond the definitions: the search fails.
  err = code(rc::kAllocationError, rc::kAllocNoRetry);
  return false;
}

void Node::do_allocate(ClientId c, uint64_t tag, const Verb& v) {
  if (v.format != 1) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadOpcodeOrFormat));
  const bool sec_ok = v.security == 0 || v.security == 1 || v.security == 2 || v.security == 5;
  if (v.opext > 1 || v.sync_level > 1 || v.return_control > 1 || !sec_ok || v.pip_length != 0)
    return complete(c, tag, v, code(rc::kParameterCheck, rc::kValueOutOfRange));
  Tp* tp = find_tp(c, v.tp_id);
  if (!tp) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadTpId));
  WaitingAllocate w;
  w.client = c;
  w.tag = tag;
  w.verb = v;
  w.local_lu = tp->local_lu;
  w.mode = v.mode_name;
  // A cleared field names the blank mode: one spelling, so that sessions,
  // mode definitions and the partner's accept all see the same name.
  if (std::all_of(w.mode.begin(), w.mode.end(), [](uint8_t b) { return b == 0; })) w.mode.fill(0x40);
  VerbResult err;
  if (!resolve_partner(tp->local_lu, v, w.partner_fq, w.partner_local, w.partner_lu, err))
    return complete(c, tag, v, err);
  bool refused = false;
  if (!mode_defined(v.mode_name, refused))
    return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadMode));
  if (!w.partner_local) {
    for (const PartnerLuConfig& p : config_.partners)
      if (p.fq_name == w.partner_fq && !p.reachable)
        return complete(c, tag, v, code(rc::kAllocationError, rc::kAllocRetry));
  }
  int half = 0;
  if (SessionId s = find_free_session(w.local_lu, w.partner_fq, w.mode, half)) {
    grant_allocate(w, s, half);
    return;
  }
  const ModeConfig* mc = mode_config(w.mode);
  const uint32_t limit = mc ? mc->session_limit : 0;
  if (limit == 0 || session_total(w.local_lu, w.partner_fq, w.mode) < limit) {
    w.binding = start_session(w);
    waiting_allocates_.push_back(std::move(w));
    return;
  }
  if (v.return_control == 1) return complete(c, tag, v, code(rc::kUnsuccessful));
  waiting_allocates_.push_back(std::move(w));
}

SessionId Node::find_free_session(size_t lu, const std::string& partner_fq, const Name8& mode,
                                  int& half) {
  const std::string& mine = config_.local_lus[lu].fq_name;
  for (int pass = 0; pass < 2; ++pass) {  // contention-winner halves first
    const int h = pass;
    for (auto& [id, s] : sessions_) {
      if (!s.bound || s.mode != mode || s.half[0].conv || s.half[1].conv) continue;
      if (s.half[0].bracket_open || s.half[1].bracket_open) continue;
      const HalfSession& me = s.half[h];
      if (!me.here || me.lu != lu) continue;
      const std::string partner = h == 0 ? s.partner_fq : config_.local_lus[s.half[0].lu].fq_name;
      if (partner != partner_fq) continue;
      if (h == 1 && !s.local) continue;  // remote primaries are not ours to judge
      (void)mine;
      half = h;
      return id;
    }
  }
  return 0;
}

size_t Node::session_total(size_t lu, const std::string& partner_fq, const Name8& mode) const {
  const std::string& mine = config_.local_lus[lu].fq_name;
  size_t n = 0;
  for (const auto& [id, s] : sessions_) {
    if (s.mode != mode) continue;
    const std::string primary = config_.local_lus[s.half[0].lu].fq_name;
    if ((s.half[0].lu == lu && s.partner_fq == partner_fq) ||
        (s.local && s.partner_fq == mine && primary == partner_fq))
      ++n;
  }
  return n;
}

SessionId Node::start_session(const WaitingAllocate& w) {
  const SessionId id = next_session_++;
  Session& s = sessions_[id];
  s.id = id;
  s.local = w.partner_local;
  s.partner_fq = w.partner_fq;
  s.mode = w.mode;
  if (const ModeConfig* mc = mode_config(w.mode)) {
    s.max_ru = mc->max_ru_size;
    s.send_buffer = mc->send_buffer_size;
    s.pacing_window = std::max<uint32_t>(mc->pacing_window, kMinPacingWindow);
  }
  s.half[0].here = true;
  s.half[0].lu = w.local_lu;
  s.half[1].here = w.partner_local;
  s.half[1].lu = w.partner_lu;
  Bind b;
  b.max_ru_primary_sends = s.max_ru;
  b.max_ru_secondary_sends = s.max_ru;
  const LocalLuConfig& me = config_.local_lus[w.local_lu];
  b.primary_lu_name = me.fq_name.substr(me.fq_name.find('.') + 1);
  b.primary_fq_name = me.fq_name;
  b.mode_name = ebcdic_text(w.mode);
  b.secondary_lu_name = w.partner_fq.substr(w.partner_fq.find('.') + 1);
  Flow f;
  f.rh.category = RuCategory::kSc;
  f.rh.format = true;
  f.rh.set_response_mode(ResponseMode::kDefinite);
  f.ru = encode_bind(b);
  send_flow(s, 0, f);
  return id;
}

void Node::grant_allocate(WaitingAllocate& w, SessionId sid, int half) {
  Session& s = sessions_.at(sid);
  const uint32_t conv = new_conv_id();
  End& e = ends_[conv];
  e.conv_id = conv;
  e.tp = w.verb.tp_id;
  e.has_tp = true;
  e.type = w.verb.opext == 1 ? ConvType::kMapped : ConvType::kBasic;
  e.sync = w.verb.sync_level;
  e.state = ConvState::kSend;
  e.session = sid;
  e.half = half;
  e.local_lu = w.local_lu;
  e.partner_fq = w.partner_fq;
  e.mode = w.mode;
  s.half[half].conv = conv;
  build_attach(e, w, w.client);
  VerbResult r;
  r.conv_id = conv;
  complete(w.client, w.tag, w.verb, r);
}

void Node::build_attach(End& e, const WaitingAllocate& w, ClientId c) {
  Attach& a = e.attach;
  a.resource = e.type == ConvType::kMapped ? ResourceType::kMapped : ResourceType::kBasic;
  a.sync = e.sync ? AttachSync::kConfirm : AttachSync::kNone;
  a.tp_name = trimmed(w.verb.tp_name.data(), 64);
  if (a.tp_name.empty()) a.tp_name.push_back(0x40);
  if (w.verb.security == 1) {
    const Tp& tp = tps_.at(e.tp);
    if (!tp.attach_user_id.empty()) {
      a.user_id = tp.attach_user_id;
    } else if (login_ok(clients_[c].login)) {
      a.user_id = ebcdic_field(clients_[c].login, clients_[c].login.size());
    }
    a.already_verified = a.user_id.has_value();
  } else if (w.verb.security == 2 || w.verb.security == 5) {
    a.user_id = trimmed(w.verb.user_id.data(), 10);
    a.password = trimmed(w.verb.password.data(), 10);
  }
}

void Node::serve_waiting_allocates() {
  for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
    if (it->binding && sessions_.count(it->binding) && !sessions_.at(it->binding).bound) {
      ++it;
      continue;
    }
    int half = 0;
    SessionId s = find_free_session(it->local_lu, it->partner_fq, it->mode, half);
    if (!s) {
      ++it;
      continue;
    }
    WaitingAllocate w = std::move(*it);
    it = waiting_allocates_.erase(it);
    grant_allocate(w, s, half);
  }
}

const TpDefinition* Node::definition(const Bytes& name) const {
  for (const TpDefinition& d : config_.tp_definitions)
    if (ebcdic_field(d.tp_name, 64) == name) return &d;
  return nullptr;
}

bool Node::name_registered(const Bytes& name) const {
  for (const auto& [id, ci] : clients_)
    if (ci.names.count(name)) return true;
  return false;
}

void Node::route_attach(Session& s, int half, const Attach& a) {
  HalfSession& hs = s.half[half];
  const Bytes name = padded64(a.tp_name);
  auto security_ok = [&]() {
    if (a.already_verified) return true;
    if (!a.user_id && !a.password) return true;
    if (!a.user_id || !a.password) return false;
    const std::string user = ebcdic_text(*a.user_id);
    std::string password = ebcdic_text(*a.password);
    bool ok = false;
    if (!user.empty() && !password.empty()) {
      if (config_.check_password) {
        ok = config_.check_password(user, password);
      } else {
        for (const SecurityUser& u : config_.security_users)
          if (u.user_id == user && u.password == password) ok = true;
      }
    }
    // Short strings keep their characters inside the object: clear them
    // there too before the frame is reused.
    wipe(password.data(), password.size());
    return ok;
  };
  if (!security_ok()) return reject_attach(s, half, sense::kSecurityNotValid);
  Bytes user;
  if (a.user_id) {
    bool keep = true;
    if (a.already_verified && !s.local) {
      keep = false;
      for (const PartnerLuConfig& p : config_.partners)
        if (p.fq_name == s.partner_fq) keep = p.accepts_already_verified;
    }
    if (keep) user = *a.user_id;
  }
  const TpDefinition* def = definition(name);
  if (!def && !name_registered(name)) return reject_attach(s, half, sense::kTpNameNotRecognized);
  if (def) {
    if (def->security_required && user.empty()) return reject_attach(s, half, sense::kSecurityNotValid);
    const bool mapped = a.resource == ResourceType::kMapped;
    if ((def->conversation_type == TypeAllowed::kBasic && mapped) ||
        (def->conversation_type == TypeAllowed::kMapped && !mapped))
      return reject_attach(s, half, sense::kConversationTypeMismatch);
    const bool confirm = a.sync != AttachSync::kNone;
    if ((def->sync_level == SyncAllowed::kNone && confirm) ||
        (def->sync_level == SyncAllowed::kConfirm && !confirm) || a.sync == AttachSync::kSyncPoint)
      return reject_attach(s, half, sense::kSyncLevelNotSupported);
  } else if (a.sync == AttachSync::kSyncPoint) {
    return reject_attach(s, half, sense::kSyncLevelNotSupported);
  }
  const uint32_t conv = new_conv_id();
  End& e = ends_[conv];
  e.conv_id = conv;
  e.has_tp = false;
  e.type = a.resource == ResourceType::kMapped ? ConvType::kMapped : ConvType::kBasic;
  e.sync = a.sync == AttachSync::kConfirm ? 1 : 0;
  e.state = ConvState::kReceive;
  e.session = s.id;
  e.half = half;
  e.attach_sent = true;  // the conversation exists on both sides
  e.attach_tp_name = name;
  e.attach_user_id = user;
  e.local_lu = hs.lu;
  e.partner_fq = half == 1 ? config_.local_lus[s.half[0].lu].fq_name : s.partner_fq;
  e.mode = s.mode;
  hs.conv = conv;
  hs.type = e.type;
  for (auto it = receive_allocates_.begin(); it != receive_allocates_.end(); ++it) {
    if (clients_.count(it->client) && clients_.at(it->client).names.count(name)) {
      WaitingReceiveAllocate w = std::move(*it);
      receive_allocates_.erase(it);
      deliver_queued_attach(conv, w);
      return;
    }
  }
  queued_attaches_[name].push_back(conv);
  if (def) {
    const uint64_t t = next_timer_++;
    e.attach_timer = t;
    attach_timers_[t] = conv;
    emit(StartTimer{t, def->attach_timeout_ms ? def->attach_timeout_ms : config_.default_attach_timeout_ms});
    attach_manager(name);
  }
}

void Node::deliver_queued_attach(uint32_t conv, const WaitingReceiveAllocate& w) {
  End& e = ends_.at(conv);
  TpId id{};
  const uint32_t stamp = config_.tp_id_stamp, n = next_tp_++;
  for (int i = 0; i < 4; ++i) {
    id[i] = static_cast<uint8_t>(stamp >> (24 - 8 * i));
    id[4 + i] = static_cast<uint8_t>(n >> (24 - 8 * i));
  }
  tps_[id] = Tp{w.client, e.local_lu, e.attach_user_id, e.attach_tp_name};
  e.tp = id;
  e.has_tp = true;
  if (e.attach_timer) {
    emit(CancelTimer{e.attach_timer});
    attach_timers_.erase(e.attach_timer);
    e.attach_timer = 0;
  }
  const uint32_t pid = clients_.count(w.client) ? clients_.at(w.client).pid : 0;
  for (auto& [iid, inst] : instances_)
    if (inst.idle && inst.running && pid != 0 && inst.pid == pid) {
      inst.idle = false;
      break;
    }
  VerbResult r;
  r.conv_id = conv;
  r.tp_id = id;
  std::copy_n(e.attach_tp_name.begin(), 64, r.tp_name.begin());
  r.sync_level = e.sync;
  r.conversation_type = e.type == ConvType::kMapped ? 1 : 0;
  r.user_id.fill(0x40);
  std::copy_n(e.attach_user_id.begin(), std::min<size_t>(e.attach_user_id.size(), 10), r.user_id.begin());
  r.local_lu_alias.fill(' ');
  const std::string& alias = config_.local_lus[e.local_lu].alias;
  std::copy_n(alias.begin(), std::min<size_t>(alias.size(), 8), r.local_lu_alias.begin());
  r.mode_name = e.mode;
  Bytes fq = ebcdic_field(e.partner_fq, 17);
  std::copy_n(fq.begin(), 17, r.partner_lu_name.begin());
  complete(w.client, w.tag, w.verb, r);
  // Items that arrived while the attach was queued may complete nothing yet:
  // the new end has no verb outstanding.
}

void Node::do_receive_allocate(ClientId c, uint64_t tag, const Verb& v) {
  if (v.format != 1) return complete(c, tag, v, code(rc::kParameterCheck, rc::kBadOpcodeOrFormat));
  const ClientInfo& ci = clients_[c];
  if (ci.names.empty()) return complete(c, tag, v, code(rc::kStateCheck, rc::kNoRegisteredName));
  // The oldest queued attach for any of the client's names.
  uint32_t best = 0;
  Bytes best_name;
  for (const Bytes& n : ci.names) {
    auto it = queued_attaches_.find(n);
    if (it == queued_attaches_.end() || it->second.empty()) continue;
    if (best == 0 || it->second.front() < best) {
      best = it->second.front();
      best_name = n;
    }
  }
  WaitingReceiveAllocate w{c, tag, v};
  if (best == 0) {
    receive_allocates_.push_back(std::move(w));
    return;
  }
  auto& q = queued_attaches_[best_name];
  q.pop_front();
  if (q.empty()) queued_attaches_.erase(best_name);
  deliver_queued_attach(best, w);
}

void Node::attach_manager(const Bytes& name) {
  const TpDefinition* def = definition(name);
  if (!def) return;
  if (def->only_when_unregistered && name_registered(name)) return;
  auto qit = queued_attaches_.find(name);
  const size_t queued = qit == queued_attaches_.end() ? 0 : qit->second.size();
  size_t idle = 0, running = 0;
  for (const auto& [id, inst] : instances_) {
    if (inst.tp_name != name || !inst.running) continue;
    ++running;
    if (inst.idle) ++idle;
  }
  while (queued > idle && running < def->instance_limit) {
    Instance inst;
    inst.id = next_instance_++;
    inst.tp_name = name;
    instances_[inst.id] = inst;
    // Idle instances serve the oldest attaches; this one is for the next.
    const std::string& alias = config_.local_lus[ends_.at(qit->second[idle]).local_lu].alias;
    ++idle;
    ++running;
    emit(StartProgram{inst.id, service_safe_name(name), alias});
  }
}

void Node::reject_queued(uint32_t conv, uint32_t sense_code) {
  auto it = ends_.find(conv);
  if (it == ends_.end()) return;
  End& e = it->second;
  for (auto& [name, q] : queued_attaches_) q.erase(std::remove(q.begin(), q.end(), conv), q.end());
  if (e.attach_timer) {
    emit(CancelTimer{e.attach_timer});
    attach_timers_.erase(e.attach_timer);
  }
  Session& s = sessions_.at(e.session);
  const int half = e.half;
  clear_incoming(e);
  s.half[half].conv = 0;
  ends_.erase(it);
  reject_attach(s, half, sense_code);
  release_half(s.id, half);
}

Actions Node::timer_expired(uint64_t timer) {
  auto it = attach_timers_.find(timer);
  if (it != attach_timers_.end()) {
    const uint32_t conv = it->second;
    attach_timers_.erase(it);
    if (ends_.count(conv)) ends_.at(conv).attach_timer = 0;
    reject_queued(conv, sense::kTpNotAvailableRetry);
  }
  pump();
  return take();
}

Actions Node::program_started(uint64_t instance, uint32_t pid) {
  auto it = instances_.find(instance);
  if (it != instances_.end()) it->second.pid = pid;
  return take();
}

Actions Node::program_failed(uint64_t instance) {
  auto it = instances_.find(instance);
  if (it != instances_.end()) {
    const Bytes name = it->second.tp_name;
    instances_.erase(it);
    auto q = queued_attaches_.find(name);
    if (q != queued_attaches_.end() && !q->second.empty())
      reject_queued(q->second.front(), sense::kTpNotAvailableNoRetry);
    // Attaches still queued get instances of their own, each with its own try.
    attach_manager(name);
  }
  pump();
  return take();
}

Actions Node::program_exited(uint64_t instance) {
  auto it = instances_.find(instance);
  if (it != instances_.end()) {
    const Bytes name = it->second.tp_name;
    const bool was_idle = it->second.idle;
    instances_.erase(it);
    if (was_idle) {
      size_t idle = 0;
      for (const auto& [id, inst] : instances_)
        if (inst.tp_name == name && inst.running && inst.idle) ++idle;
      auto q = queued_attaches_.find(name);
      if (q != queued_attaches_.end() && q->second.size() > idle)
        reject_queued(q->second.front(), sense::kTpNotAvailableNoRetry);
    } else {
      // A running instance fewer: an attach held back by the instance limit
      // may get one now.
      attach_manager(name);
    }
  }
  pump();
  return take();
}

Actions Node::session_activation_failed(SessionId sid) {
  for (auto it = waiting_allocates_.begin(); it != waiting_allocates_.end();) {
    if (it->binding == sid) {
      complete(it->client, it->tag, it->verb, code(rc::kAllocationError, rc::kAllocRetry));
      it = waiting_allocates_.erase(it);
    } else {
      ++it;
    }
  }
  sessions_.erase(sid);
  pump();
  return take();
}

}  // namespace sna::proto
