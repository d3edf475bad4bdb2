// Owns the protocol core and carries out what it asks for: completions go
// to their clients, timers to the timer queue, program starts to the
// attach manager, partner log data to the problem log. Flows for partners
// on other nodes would go over links; this node has none yet, so such a
// session fails to activate (or is lost) and its allocator is told.
#ifndef SNA_SNANODED_NODE_HOST_H
#define SNA_SNANODED_NODE_HOST_H

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>

#include "protocol/node.h"
#include "snanoded/timer_queue.h"

namespace sna::daemon {

class NodeHost {
 public:
  struct Hooks {
    std::function<void(const proto::Completion&)> completion;
    std::function<void(const proto::StartProgram&)> start_program;
  };

  NodeHost(proto::NodeConfig config, TimerQueue& timers, Hooks hooks);
  ~NodeHost();
  NodeHost(const NodeHost&) = delete;
  NodeHost& operator=(const NodeHost&) = delete;

  void client_connected(proto::ClientId client, uint32_t pid, std::string login);
  void client_closed(proto::ClientId client);
  void issue(proto::ClientId client, uint64_t tag, const proto::Verb& verb);
  void program_started(uint64_t instance, uint32_t pid);
  void program_failed(uint64_t instance);
  void program_exited(uint64_t instance);

  // New definitions for later events; the TP id stamp stays.
  void reconfigure(proto::NodeConfig config) { node_.reconfigure(std::move(config)); }

  const proto::Node& node() const { return node_; }
  // Whether an attach has travelled since the last call: the moment a
  // status view may have a new queued attach to time.
  bool take_attach_seen() {
    const bool seen = attach_seen_;
    attach_seen_ = false;
    return seen;
  }
  size_t core_timers() const { return timers_by_core_.size(); }

 private:
  void carry_out(proto::Actions actions);
  void run_deferred();

  proto::Node node_;
  TimerQueue& timers_;
  Hooks hooks_;
  std::unordered_map<uint64_t, uint64_t> timers_by_core_;  // core id -> queue id
  // Work that must wait until the current list of actions is done, so
  // that every completion of one event goes out before the next event's.
  std::deque<std::function<void()>> deferred_;
  bool running_deferred_ = false;
  bool attach_seen_ = false;
};

}  // namespace sna::daemon

#endif
