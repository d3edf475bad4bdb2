#include "snanoded/daemon.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "snanoded/daemon_log.h"
#include "snanoded/verb_translation.h"

namespace sna::daemon {
namespace {

using Clock = std::chrono::steady_clock;

std::string login_name(uid_t uid) {
  std::vector<char> buf(16384);
  passwd pw{}, *found = nullptr;
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_name)
    return found->pw_name;
  return {};
}

// Whether user `uid` (primary group `gid`) is a member of group `group`.
bool in_group(uid_t uid, gid_t gid, gid_t group) {
  if (gid == group) return true;
  const std::string name = login_name(uid);
  if (name.empty()) return false;
  int count = 64;
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::vector<gid_t> groups(static_cast<size_t>(count));
    int n = count;
    if (getgrouplist(name.c_str(), gid, groups.data(), &n) >= 0) {
      return std::find(groups.begin(), groups.begin() + n, group) != groups.begin() + n;
    }
    count = n > count ? n : count * 2;
  }
  return false;
}

constexpr int kShutdownFlushMs = 1000;
constexpr uint32_t kHelloTimeoutMs = 10000;
constexpr uint32_t kAcceptPauseMs = 200;

}  // namespace

uint32_t random_tp_id_stamp() {
  uint32_t stamp = 0;
  while (stamp == 0) {
    if (getrandom(&stamp, sizeof stamp, 0) != static_cast<ssize_t>(sizeof stamp)) {
      // No entropy source: time and pid still differ between daemons.
      stamp = static_cast<uint32_t>(Clock::now().time_since_epoch().count()) ^
              (static_cast<uint32_t>(getpid()) << 16);
    }
  }
  return stamp;
}

Daemon::Daemon(DaemonSettings s)
    : config_(std::move(s.config)),
      config_path_(std::move(s.config_path)),
      socket_path_(std::move(s.socket_path)),
      state_dir_(std::move(s.state_dir)),
      idle_exit_s_(s.idle_exit_s),
      ready_fd_(s.ready_fd),
      tp_id_stamp_(random_tp_id_stamp()),
      timers_(loop_),
      attach_(loop_, AttachManager::Hooks{
                         [this](uint64_t instance, pid_t pid) {
                           host_->program_started(instance, static_cast<uint32_t>(pid));
                         },
                         [this](uint64_t instance, const std::string& reason) {
                           log_problem(msg::kProgramFailed, static_cast<uint32_t>(instance),
                                       "cannot start program: " + reason);
                           host_->program_failed(instance);
                         },
                         [this](uint64_t instance) { host_->program_exited(instance); }}) {
  side_info_table_.set_file_entries(config_.side_info);
  host_ = std::make_unique<NodeHost>(
      core_config(config_), timers_,
      NodeHost::Hooks{[this](const proto::Completion& c) { deliver(c); },
                      [this](const proto::StartProgram& p) { start_program(p); }});
}

Daemon::~Daemon() {
  clients_.clear();
  if (signal_token_) loop_.remove(signal_token_);
  if (signal_fd_ >= 0) close(signal_fd_);
  if (spare_fd_ >= 0) close(spare_fd_);
}

proto::NodeConfig Daemon::core_config(const config::DaemonConfig& c) const {
  proto::NodeConfig n = c.node;
  n.tp_id_stamp = tp_id_stamp_;
  n.check_password = [this](const std::string& user, const std::string& password) {
    return check_password(user, password);
  };
  return n;
}

bool Daemon::check_password(const std::string& user, const std::string& password) const {
  for (const config::SecurityUser& u : config_.security_users)
    if (u.user_id == user) return config::verify_password(password, u.password_hash);
  return false;
}

// ---- start-up, signals, shutdown -------------------------------------------

bool Daemon::setup_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&set, s);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) return false;
  signal(SIGPIPE, SIG_IGN);
  signal_fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signal_fd_ < 0) return false;
  signal_token_ = loop_.add(signal_fd_, EPOLLIN, [this](uint32_t) { on_signal(); });
  return signal_token_ != 0;
}

int Daemon::run() {
  if (!loop_.ok() || !timers_.ok() || !setup_signals()) {
    std::cerr << "snanoded: cannot set up the event loop: " << std::strerror(errno) << "\n";
    return 1;
  }
  std::string error;
  if (!prepare_socket_directory(socket_path_, error)) {
    std::cerr << "snanoded: " << error << "\n";
    return 1;
  }
  switch (listener_.open(socket_path_, config_.group, error)) {
    case Listener::Outcome::kAlreadyRunning:
      // Another daemon serves this socket: the caller can use it.
      signal_ready(ready_fd_);
      return 0;
    case Listener::Outcome::kFailed:
      std::cerr << "snanoded: " << error << "\n";
      return 1;
    case Listener::Outcome::kListening:
      break;
  }
  listen_token_ = loop_.add(listener_.fd(), EPOLLIN, [this](uint32_t) { accept_clients(); });
  spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  loop_.set_after_event([this] {
    reap_dead_clients();
    track_queued_attaches();
    if (stop_requested_) finish_shutdown();
  });
  log_audit(msg::kStarted, 0,
            "started: config " + config_.source + ", socket " + socket_path_ + ", state " + state_dir_ +
                ", pid " + std::to_string(getpid()) +
                (idle_exit_s_ ? ", idle exit " + std::to_string(idle_exit_s_) + " s" : ""));
  arm_idle_timer();
  signal_ready(ready_fd_);
  ready_fd_ = -1;
  loop_.run();
  if (!loop_.stopping()) {
    // The loop itself failed: nothing can be served any more.
    log_problem(msg::kSystemError, 4, std::string("event loop: ") + std::strerror(errno));
    std::cerr << "snanoded: event loop failed: " << std::strerror(errno) << "\n";
    listener_.close_and_remove();
    return 1;
  }
  return 0;
}

void Daemon::on_signal() {
  signalfd_siginfo info;
  while (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    switch (info.ssi_signo) {
      case SIGTERM:
      case SIGINT:
        begin_shutdown(info.ssi_signo == SIGTERM ? "SIGTERM" : "SIGINT");
        break;
      case SIGHUP:
        reload();
        break;
      case SIGCHLD:
        attach_.reap();
        break;
    }
  }
}

void Daemon::reload() {
  if (config_path_.empty()) {
    log_audit(msg::kReloaded, 0, "reload: running on built-in defaults, nothing to reread");
    return;
  }
  config::ConfigError error;
  std::optional<config::DaemonConfig> fresh = config::load_config(config_path_, error);
  if (!fresh) {
    log_problem(msg::kReloadFailed, 0, "reload refused, old configuration kept: " + error.text());
    return;
  }
  std::string note;
  if (!fresh->socket.empty() && fresh->socket != socket_path_) note += "; new socket applies at restart";
  if (!fresh->state_dir.empty() && fresh->state_dir != state_dir_) note += "; new state_dir applies at restart";
  if (fresh->group != config_.group) note += "; new group applies at restart";
  if (fresh->idle_exit_set && fresh->idle_exit_s != idle_exit_s_) note += "; new idle_exit applies at restart";
  config_ = std::move(*fresh);
  side_info_table_.set_file_entries(config_.side_info);
  host_->reconfigure(core_config(config_));
  log_audit(msg::kReloaded, 0, "reloaded " + config_.source + note);
}

void Daemon::side_info_changed(const std::string& what) { log_audit(msg::kSideInfoChanged, 0, what); }

void Daemon::request_stop() { begin_shutdown("operator command"); }

void Daemon::begin_shutdown(const std::string& why) {
  if (stop_requested_) return;
  stop_requested_ = true;
  stop_reason_ = why;
}

void Daemon::finish_shutdown() {
  stop_requested_ = false;
  shutting_down_ = true;
  // No new clients from here on.
  if (listen_token_) loop_.remove(listen_token_);
  listen_token_ = 0;
  listener_.close_and_remove();
  if (idle_timer_) timers_.cancel(idle_timer_);
  idle_timer_ = 0;
  // Every client ends as if it had closed, in turn, while all connections
  // are still open: the partners' verbs complete with their codes and those
  // replies still reach them.
  std::vector<proto::ClientId> ids;
  for (const auto& [id, c] : clients_) ids.push_back(id);
  for (proto::ClientId id : ids) {
    host_->client_closed(id);
    side_info_service_.client_closed(id);
  }
  // Best effort, bounded: give the replies a moment to leave.
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kShutdownFlushMs);
  for (;;) {
    std::vector<pollfd> waiting;
    for (auto& [id, c] : clients_) {
      if (c->dead || c->queued_bytes() == 0) continue;
      if (c->flush() != ClientConnection::Io::kOk) {
        c->dead = true;
        continue;
      }
      if (c->queued_bytes()) waiting.push_back(pollfd{c->fd(), POLLOUT, 0});
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (waiting.empty() || left <= 0) break;
    poll(waiting.data(), waiting.size(), static_cast<int>(left));
  }
  for (auto& [id, c] : clients_) {
    loop_.remove(c->token);
    if (c->hello_timer) timers_.cancel(c->hello_timer);
  }
  clients_.clear();
  log_audit(msg::kStopped, 0, "stopped: " + stop_reason_);
  loop_.stop();
}

// ---- clients ----------------------------------------------------------------

bool Daemon::peer_allowed(uid_t uid, gid_t gid) const {
  if (uid == 0 || uid == getuid()) return true;
  return listener_.has_group() && in_group(uid, gid, listener_.group_id());
}

void Daemon::accept_clients() {
  for (;;) {
    const int fd = accept4(listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // Out of descriptors: the pending connection would wake the loop
        // again at once. Stop listening for a moment instead. The spare
        // descriptor lets the problem log open even now.
        if (spare_fd_ >= 0) close(spare_fd_);
        log_problem(msg::kSystemError, 1, std::string("accept: ") + std::strerror(errno) +
                                              "; new connections wait " + std::to_string(kAcceptPauseMs) + " ms");
        spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
        loop_.modify(listen_token_, 0);
        timers_.start(kAcceptPauseMs, [this] {
          if (listen_token_) loop_.modify(listen_token_, EPOLLIN);
        });
      } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
        log_problem(msg::kSystemError, 1, std::string("accept: ") + std::strerror(errno));
      }
      return;
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      log_problem(msg::kSystemError, 2, std::string("SO_PEERCRED: ") + std::strerror(errno));
      close(fd);
      continue;
    }
    if (!peer_allowed(cred.uid, cred.gid)) {
      log_audit(msg::kClientRefused, 0,
                "refused client pid " + std::to_string(cred.pid) + " uid " + std::to_string(cred.uid));
      close(fd);
      continue;
    }
    const proto::ClientId id = next_client_++;
    auto conn = std::make_unique<ClientConnection>(fd, id, cred.pid, cred.uid, login_name(cred.uid));
    conn->events = EPOLLIN;
    conn->token = loop_.add(fd, EPOLLIN, [this, id](uint32_t events) { on_client_event(id, events); });
    if (conn->token == 0) {
      log_problem(msg::kSystemError, 3, std::string("epoll: ") + std::strerror(errno));
      continue;  // the connection closes with `conn`
    }
    conn->hello_timer = timers_.start(kHelloTimeoutMs, [this, id] {
      ClientConnection* c = client(id);
      if (!c) return;
      c->hello_timer = 0;
      if (!c->hello_done && !c->dead)
        disconnect(*c, "no HELLO within " + std::to_string(kHelloTimeoutMs / 1000) + " s");
    });
    clients_[id] = std::move(conn);
    if (idle_timer_) {
      timers_.cancel(idle_timer_);
      idle_timer_ = 0;
    }
  }
}

ClientConnection* Daemon::client(proto::ClientId id) {
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second.get();
}

void Daemon::on_client_event(proto::ClientId id, uint32_t events) {
  ClientConnection* c = client(id);
  if (!c || c->dead) return;
  if (events & EPOLLOUT) {
    if (c->flush() != ClientConnection::Io::kOk) {
      c->dead = true;
      return;
    }
    if (c->paused && c->below_low_water()) {
      c->paused = false;
      process_frames(*c);
    }
    update_interest(*c);
  }
  if (events & (EPOLLHUP | EPOLLERR)) {
    // The peer is gone: take what it sent before it went (a last verb may
    // still matter to its partners), then close. Its replies cannot be
    // delivered, so backpressure no longer applies.
    for (;;) {
      const ClientConnection::Io r = c->read_some();
      c->paused = false;
      process_frames(*c);
      if (r != ClientConnection::Io::kOk || c->dead) break;
    }
    c->dead = true;
    return;
  }
  if ((events & EPOLLIN) && !c->paused) {
    const ClientConnection::Io r = c->read_some();
    process_frames(*c);
    if (r == ClientConnection::Io::kClosed || r == ClientConnection::Io::kError) c->dead = true;
  }
}

void Daemon::process_frames(ClientConnection& c) {
  Frame frame;
  std::string reason;
  while (!c.dead && !c.paused) {
    const FrameDecoder::Status st = c.decoder().next(frame, reason);
    if (st == FrameDecoder::Status::kNeedMore) break;
    if (st == FrameDecoder::Status::kMalformed) {
      disconnect(c, "malformed frame: " + reason);
      break;
    }
    handle_frame(c, frame);
    if (c.over_high_water()) {
      c.paused = true;
      update_interest(c);
    }
  }
}

void Daemon::disconnect(ClientConnection& c, const std::string& reason) {
  log_problem(msg::kMalformedFrame, static_cast<uint32_t>(c.pid()),
              "client pid " + std::to_string(c.pid()) + " disconnected: " + reason);
  c.dead = true;
}

void Daemon::handle_frame(ClientConnection& c, Frame& f) {
  switch (f.kind) {
    case wire::Kind::kHello:
      handle_hello(c, f);
      return;
    case wire::Kind::kVerb: {
      proto::Verb v = verb_from_wire(f.body.data(), f.body.size());
      host_->issue(c.id(), f.tag, v);
      // The node has taken what it needs of an allocation's password.
      proto::wipe(v.password.data(), v.password.size());
      wipe_verb_password(f.body.data(), f.body.size());
      return;
    }
    case wire::Kind::kNof:
      send(c, make_frame(wire::Kind::kNofReply, f.tag,
                         side_info_service_.handle(c.id(), f.body.data(), side_info_table_.entries())));
      return;
    case wire::Kind::kOperator: {
      const std::string text(f.body.begin(), f.body.end());
      std::string answer = operator_reply(text, *this);
      if (answer.size() > wire::kMaxReplyFrame - wire::kHeaderSize)
        answer = R"({"error":"answer too long for one frame"})";
      send(c, make_frame(wire::Kind::kOperatorReply, f.tag,
                         reinterpret_cast<const uint8_t*>(answer.data()), answer.size()));
      return;
    }
    default:
      disconnect(c, "malformed frame: unexpected kind");  // the decoder lets none through
  }
}

void Daemon::handle_hello(ClientConnection& c, const Frame& f) {
  const wire::Hello h = wire::decode_hello(f.body.data());
  wire::HelloReply r;
  r.daemon_pid = static_cast<uint32_t>(getpid());
  if (h.version != wire::kVersion) {
    r.status = 1;
    uint8_t body[wire::kHelloSize];
    wire::encode_hello_reply(body, r);
    send(c, make_frame(wire::Kind::kHelloReply, f.tag, body, sizeof body));
    log_problem(msg::kVersionRefused, h.version,
                "client pid " + std::to_string(c.pid()) + " speaks protocol version " +
                    std::to_string(h.version) + ", this node " + std::to_string(wire::kVersion));
    c.flush();
    c.dead = true;
    return;
  }
  c.hello_done = true;
  if (c.hello_timer) timers_.cancel(c.hello_timer);
  c.hello_timer = 0;
  c.is_operator = (h.flags & wire::kHelloOperator) != 0;
  c.hello_pid = h.pid;
  c.word_bits = h.word_bits;
  host_->client_connected(c.id(), static_cast<uint32_t>(c.pid()), c.login());
  uint8_t body[wire::kHelloSize];
  wire::encode_hello_reply(body, r);
  send(c, make_frame(wire::Kind::kHelloReply, f.tag, body, sizeof body));
}

void Daemon::send(ClientConnection& c, std::vector<uint8_t> frame) {
  if (c.dead) return;
  c.queue(std::move(frame));
  if (c.flush() != ClientConnection::Io::kOk) {
    c.dead = true;
    return;
  }
  update_interest(c);
}

void Daemon::update_interest(ClientConnection& c) {
  if (c.dead) return;
  uint32_t want = 0;
  if (!c.paused) want |= EPOLLIN;
  if (c.queued_bytes()) want |= EPOLLOUT;
  if (want != c.events && loop_.modify(c.token, want)) c.events = want;
}

void Daemon::reap_dead_clients() {
  if (reaping_) return;
  reaping_ = true;
  for (;;) {
    auto it = std::find_if(clients_.begin(), clients_.end(), [](const auto& e) { return e.second->dead; });
    if (it == clients_.end()) break;
    const proto::ClientId id = it->first;
    loop_.remove(it->second->token);
    if (it->second->hello_timer) timers_.cancel(it->second->hello_timer);
    clients_.erase(it);  // closes the socket: replies for it are dropped from here on
    // Closing may complete other clients' verbs, and a failed write to one
    // of them marks it dead in turn: the loop looks again.
    host_->client_closed(id);
    side_info_service_.client_closed(id);
  }
  reaping_ = false;
  arm_idle_timer();
}

void Daemon::arm_idle_timer() {
  if (idle_exit_s_ == 0 || !clients_.empty() || idle_timer_ || stop_requested_ || !listen_token_) return;
  idle_timer_ = timers_.start(idle_exit_s_ * 1000, [this] {
    idle_timer_ = 0;
    if (clients_.empty()) begin_shutdown("idle for " + std::to_string(idle_exit_s_) + " s");
  });
}

// ---- core hooks ---------------------------------------------------------------

void Daemon::deliver(const proto::Completion& completion) {
  ClientConnection* c = client(completion.client);
  if (!c || c->dead) return;  // its client has gone
  send(*c, verb_reply_frame(completion));
}

void Daemon::start_program(const proto::StartProgram& start) {
  if (shutting_down_) {
    // Attaches cannot be served any more: start nothing.
    host_->program_failed(start.instance);
    return;
  }
  const config::TpProgram* program = nullptr;
  for (const config::TpProgram& p : config_.programs)
    if (p.tp_name == start.tp_name) {
      program = &p;
      break;
    }
  if (!program) {
    log_problem(msg::kProgramFailed, static_cast<uint32_t>(start.instance),
                "no program is defined for TP " + start.tp_name);
    host_->program_failed(start.instance);
    return;
  }
  ProgramSpec spec{program->program, program->arguments, program->directory, program->environment,
                   program->log_file};
  log_audit(msg::kProgramStarted, static_cast<uint32_t>(start.instance),
            "starting " + program->program + " for TP " + start.tp_name + " on " + start.local_lu_alias);
  attach_.start(start.instance, spec, start.tp_name, start.local_lu_alias, socket_path_);
}

void Daemon::track_queued_attaches() {
  if (!host_->take_attach_seen()) return;
  const proto::NodeSnapshot snap = host_->node().snapshot();
  const Clock::time_point now = Clock::now();
  std::unordered_map<uint32_t, Clock::time_point> still;
  for (const auto& q : snap.queued_attaches) {
    auto it = queued_since_.find(q.conv_id);
    still[q.conv_id] = it == queued_since_.end() ? now : it->second;
  }
  queued_since_ = std::move(still);
}

// ---- operator interface ---------------------------------------------------------

StatusInput Daemon::status_input() {
  StatusInput in;
  in.node_name = config_.node_name;
  in.pid = getpid();
  in.socket = socket_path_;
  in.state_dir = state_dir_;
  in.config_source = config_.source;
  in.local_lus = config_.node.local_lus;
  in.all_lus = host_->node().config().local_lus;
  in.snapshot = host_->node().snapshot();
  for (const auto& [id, c] : clients_) {
    if (c->dead) continue;
    in.clients.push_back(ClientView{id, c->pid(), c->uid(), c->login(), c->is_operator, c->word_bits});
  }
  const Clock::time_point now = Clock::now();
  for (const auto& q : in.snapshot.queued_attaches) {
    auto it = queued_since_.find(q.conv_id);
    if (it != queued_since_.end())
      in.queued_ms[q.conv_id] =
          static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now - it->second).count());
  }
  return in;
}

size_t Daemon::push_trace(bool api, const std::string& file) {
  std::vector<uint8_t> body(wire::kTraceControlFixedSize + file.size());
  body[0] = api ? 1 : 0;
  wire::put16(body.data(), 2, static_cast<uint16_t>(file.size()));
  std::memcpy(body.data() + wire::kTraceControlFixedSize, file.data(), file.size());
  size_t told = 0;
  for (auto& [id, c] : clients_) {
    if (c->dead || !c->hello_done || c->is_operator) continue;
    send(*c, make_frame(wire::Kind::kTraceControl, 0, body));
    ++told;
  }
  return told;
}

}  // namespace sna::daemon
