// The node daemon: one event loop that serves every client connection, the
// protocol core's timers, the attach manager's children and the signals.
#ifndef SNA_SNANODED_DAEMON_H
#define SNA_SNANODED_DAEMON_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "nodeconfig/daemon_config.h"
#include "snanoded/attach_manager.h"
#include "snanoded/client_connection.h"
#include "snanoded/event_loop.h"
#include "snanoded/listener.h"
#include "snanoded/node_host.h"
#include "snanoded/operator_commands.h"
#include "snanoded/side_info_service.h"
#include "snanoded/timer_queue.h"

namespace sna::daemon {

struct DaemonSettings {
  config::DaemonConfig config;
  std::string config_path;  // empty: built-in defaults
  std::string socket_path;
  std::string state_dir;
  uint32_t idle_exit_s = 0;  // 0: never
  int ready_fd = -1;
};

class Daemon : private OperatorTarget {
 public:
  explicit Daemon(DaemonSettings settings);
  ~Daemon() override;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Binds, serves until told to stop, cleans up. Returns the exit status:
  // 0 after a stop or when another daemon already serves the socket, 1 when
  // the daemon could not start.
  int run();

 private:
  // --- start-up and signals
  bool setup_signals();
  void on_signal();
  void reload();
  void begin_shutdown(const std::string& why);
  void finish_shutdown();

  // --- clients
  void accept_clients();
  bool peer_allowed(uid_t uid, gid_t gid) const;
  void on_client_event(proto::ClientId id, uint32_t events);
  void process_frames(ClientConnection& c);
  void handle_frame(ClientConnection& c, Frame& frame);
  void handle_hello(ClientConnection& c, const Frame& frame);
  // Logs why and closes the connection (as if the client had closed it).
  void disconnect(ClientConnection& c, const std::string& reason);
  void send(ClientConnection& c, std::vector<uint8_t> frame);
  void update_interest(ClientConnection& c);
  void reap_dead_clients();
  void arm_idle_timer();
  ClientConnection* client(proto::ClientId id);

  // --- core hooks
  void deliver(const proto::Completion& completion);
  void start_program(const proto::StartProgram& start);
  void track_queued_attaches();

  // --- operator interface
  StatusInput status_input() override;
  size_t push_trace(bool api, const std::string& file) override;
  void request_stop() override;
  const config::DaemonConfig& configuration() const override { return config_; }
  SideInfoTable& side_info() override { return side_info_table_; }
  void side_info_changed(const std::string& what) override;

  bool check_password(const std::string& user, const std::string& password) const;
  proto::NodeConfig core_config(const config::DaemonConfig& c) const;

  config::DaemonConfig config_;
  std::string config_path_;
  std::string socket_path_;
  std::string state_dir_;
  uint32_t idle_exit_s_;
  int ready_fd_;
  uint32_t tp_id_stamp_;

  EventLoop loop_;
  TimerQueue timers_;
  Listener listener_;
  std::unique_ptr<NodeHost> host_;
  AttachManager attach_;
  SideInfoService side_info_service_;
  SideInfoTable side_info_table_;  // the file's entries and the operator's changes

  int signal_fd_ = -1;
  int spare_fd_ = -1;  // released when descriptors run out
  uint64_t signal_token_ = 0;
  uint64_t listen_token_ = 0;
  uint64_t idle_timer_ = 0;
  proto::ClientId next_client_ = 1;
  std::map<proto::ClientId, std::unique_ptr<ClientConnection>> clients_;
  bool reaping_ = false;
  bool stop_requested_ = false;
  bool shutting_down_ = false;
  std::string stop_reason_;
  // When each queued attach was first seen, for the status view.
  std::unordered_map<uint32_t, std::chrono::steady_clock::time_point> queued_since_;
  size_t last_live_conversations_ = 0;
};

// A random TP id stamp (never 0).
uint32_t random_tp_id_stamp();

}  // namespace sna::daemon

#endif
