#include "snanoded/node_host.h"

#include <algorithm>
#include <type_traits>
#include <variant>

#include "protocol/rh.h"
#include "snanoded/daemon_log.h"

namespace sna::daemon {
namespace {

// A request that begins a bracket with an FM header: an attach.
bool is_attach(const proto::Bytes& flow) {
  const proto::Decoded<proto::Rh> rh = proto::decode_rh(flow);
  return rh && !rh->response && rh->category == proto::RuCategory::kFmd && rh->format &&
         rh->begin_bracket;
}

}  // namespace

NodeHost::NodeHost(proto::NodeConfig config, TimerQueue& timers, Hooks hooks)
    : node_(std::move(config)), timers_(timers), hooks_(std::move(hooks)) {}

NodeHost::~NodeHost() {
  for (const auto& [core, queued] : timers_by_core_) timers_.cancel(queued);
}

void NodeHost::client_connected(proto::ClientId client, uint32_t pid, std::string login) {
  node_.client_connected(client, pid, std::move(login));
}

void NodeHost::client_closed(proto::ClientId client) { carry_out(node_.client_closed(client)); }

void NodeHost::issue(proto::ClientId client, uint64_t tag, const proto::Verb& verb) {
  carry_out(node_.issue(client, tag, verb));
}

void NodeHost::program_started(uint64_t instance, uint32_t pid) {
  carry_out(node_.program_started(instance, pid));
}

void NodeHost::program_failed(uint64_t instance) { carry_out(node_.program_failed(instance)); }

void NodeHost::program_exited(uint64_t instance) { carry_out(node_.program_exited(instance)); }

void NodeHost::carry_out(proto::Actions actions) {
  for (proto::Action& action : actions) {
    std::visit(
        [this](auto& a) {
          using T = std::decay_t<decltype(a)>;
          if constexpr (std::is_same_v<T, proto::Completion>) {
            hooks_.completion(a);
          } else if constexpr (std::is_same_v<T, proto::FlowOut>) {
            if (is_attach(a.bytes)) attach_seen_ = true;
            if (a.secret) proto::wipe(a.bytes);
            if (!a.delivered_locally) {
              const proto::SessionId s = a.session;
              deferred_.push_back([this, s] {
                const std::vector<proto::SessionId> live = node_.sessions();
                if (std::find(live.begin(), live.end(), s) == live.end()) return;  // already gone
                log_problem(msg::kNoLink, s, "no link to the partner of session " + std::to_string(s));
                if (node_.session_bound(s))
                  carry_out(node_.session_lost(s, false, 0));
                else
                  carry_out(node_.session_activation_failed(s));
              });
            }
          } else if constexpr (std::is_same_v<T, proto::StartTimer>) {
            const uint64_t core = a.timer;
            const uint64_t queued = timers_.start(a.milliseconds, [this, core] {
              timers_by_core_.erase(core);
              carry_out(node_.timer_expired(core));
            });
            timers_by_core_[core] = queued;
          } else if constexpr (std::is_same_v<T, proto::CancelTimer>) {
            auto it = timers_by_core_.find(a.timer);
            if (it != timers_by_core_.end()) {
              timers_.cancel(it->second);
              timers_by_core_.erase(it);
            }
          } else if constexpr (std::is_same_v<T, proto::StartProgram>) {
            proto::StartProgram start = std::move(a);
            deferred_.push_back([this, start] { hooks_.start_program(start); });
          } else if constexpr (std::is_same_v<T, proto::ProblemLog>) {
            log_partner_data(a.sense, a.data);
          }
        },
        action);
  }
  run_deferred();
}

void NodeHost::run_deferred() {
  if (running_deferred_) return;  // the outer call drains the queue
  running_deferred_ = true;
  while (!deferred_.empty()) {
    std::function<void()> work = std::move(deferred_.front());
    deferred_.pop_front();
    work();
  }
  running_deferred_ = false;
}

}  // namespace sna::daemon
