// The node's state for status displays, and new definitions taking over
// while conversations go on.
#include <algorithm>
#include <limits>

#include "protocol/node.h"

namespace sna::proto {
namespace {

Bytes display_name(ByteView name) {
  size_t n = name.size();
  while (n > 0 && (name[n - 1] == 0x40 || name[n - 1] == 0)) --n;
  return Bytes(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(n));
}

}  // namespace

NodeSnapshot Node::snapshot() const {
  NodeSnapshot snap;
  for (const auto& [id, e] : ends_) {
    NodeSnapshot::Conversation c{};
    c.conv_id = id;
    c.tp_id = e.tp;
    c.has_tp = e.has_tp;
    c.state = e.state;
    c.verb_outstanding = e.pending.has_value();
    c.type = e.type;
    c.sync_level = e.sync;
    c.local_lu = e.local_lu;
    c.partner_fq = e.partner_fq;
    c.mode = e.mode;
    // The allocating end knows the name from its attach, the target end
    // from the attach it received.
    c.tp_name =
        display_name(e.attach_tp_name.empty() ? ByteView(e.attach.tp_name) : ByteView(e.attach_tp_name));
    c.client = 0;
    if (e.has_tp) {
      auto tp = tps_.find(e.tp);
      if (tp != tps_.end()) c.client = tp->second.client;
    }
    snap.conversations.push_back(std::move(c));
  }
  for (const auto& [id, tp] : tps_)
    snap.tps.push_back(NodeSnapshot::TpInfo{id, tp.client, tp.local_lu, display_name(tp.tp_name)});
  for (const auto& [client, ci] : clients_)
    for (const Bytes& n : ci.names)
      snap.registrations.push_back(NodeSnapshot::Registration{display_name(n), client});
  for (const auto& [name, q] : queued_attaches_)
    for (uint32_t conv : q)
      snap.queued_attaches.push_back(NodeSnapshot::QueuedAttach{display_name(name), conv});
  for (const auto& [id, s] : sessions_) {
    const bool used = s.half[0].conv != 0 || s.half[1].conv != 0;
    snap.sessions.push_back(NodeSnapshot::SessionInfo{id, s.bound, used, s.partner_fq, s.mode});
  }
  return snap;
}

void Node::reconfigure(NodeConfig config) {
  config.tp_id_stamp = config_.tp_id_stamp;  // ids stay unique for the node's life
  if (config.local_lus.empty()) config.local_lus.push_back({"LOCAL", "NETWORK.LOCAL", ""});
  const size_t active = config.local_lus.size();
  // Records that name a local LU by index must keep naming the same LU (the
  // same network name). One that the new list lacks is kept behind it, out
  // of reach of new lookups, for as long as something uses it.
  const std::vector<LocalLuConfig> old = std::move(config_.local_lus);
  constexpr size_t kUnmapped = std::numeric_limits<size_t>::max();
  std::vector<size_t> map(old.size(), kUnmapped);
  auto remap = [&](size_t& index) {
    if (index >= old.size()) return;
    if (map[index] == kUnmapped) {
      for (size_t i = 0; i < active; ++i)
        if (config.local_lus[i].fq_name == old[index].fq_name) {
          map[index] = i;
          break;
        }
      if (map[index] == kUnmapped) {
        config.local_lus.push_back(old[index]);
        map[index] = config.local_lus.size() - 1;
      }
    }
    index = map[index];
  };
  for (auto& [id, tp] : tps_) remap(tp.local_lu);
  for (auto& [id, e] : ends_) remap(e.local_lu);
  for (auto& [id, s] : sessions_)
    for (HalfSession& h : s.half)
      if (h.here) remap(h.lu);
  for (WaitingAllocate& w : waiting_allocates_) {
    remap(w.local_lu);
    if (w.partner_local) remap(w.partner_lu);
  }
  config_ = std::move(config);
  active_lus_ = active;
}

}  // namespace sna::proto
