// Everything clients can send on the daemon's socket, without the socket:
// the input is a script of byte chunks for three connections (cut at any
// point), connection closes, program starts and exits, and reloads. Every
// chunk goes through the connection's frame decoder, and every frame is
// handled as the daemon handles it: HELLO, VERB through the verb
// translation into the protocol core, NOF into the side-information
// service, OPERATOR text into the operator commands. Replies are made into
// frames and checked against the wire limits.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "nodeconfig/daemon_config.h"
#include "protocol/ebcdic.h"
#include "snanoded/event_loop.h"
#include "snanoded/frame_decoder.h"
#include "snanoded/node_host.h"
#include "snanoded/operator_commands.h"
#include "snanoded/side_info_service.h"
#include "snanoded/timer_queue.h"
#include "snanoded/verb_translation.h"
#include "wire/wire_protocol.h"

namespace {

using namespace sna;
using namespace sna::daemon;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

std::string state_dir;

// A node with two local LUs, a partner on another node (no link, so its
// sessions fail), a limited mode, TP definitions with and without
// security, side information and one security user.
config::DaemonConfig make_config() {
  config::DaemonConfig c = config::builtin_defaults();
  c.node.local_lus.push_back({"OTHER", "NETWORK.OTHER", "LOCAL"});
  c.node.partners.push_back({"REMOTE", "NETB.REMOTE", true, false});
  c.node.partners.push_back({"TRUSTED", "NETWORK.OTHER", true, true});
  proto::ModeConfig one;
  one.name = "ONE";
  one.session_limit = 1;
  c.node.modes.push_back(one);
  for (const char* name : {"ECHO", "SECURE", "ONLYBAS", "SINGLE"}) {
    proto::TpDefinition d;
    d.tp_name = name;
    if (std::string(name) == "SECURE") d.security_required = true;
    if (std::string(name) == "ONLYBAS") {
      d.conversation_type = proto::TypeAllowed::kBasic;
      d.sync_level = proto::SyncAllowed::kNone;
    }
    if (std::string(name) == "SINGLE") {
      d.instance_limit = 1;
      d.only_when_unregistered = true;
    }
    c.node.tp_definitions.push_back(d);
    config::TpProgram p;
    p.tp_name = name;
    p.program = "/bin/true";
    c.programs.push_back(p);
  }
  c.node.check_password = [](const std::string& user, const std::string& password) {
    return user == "USER1" && password == "SECRET";
  };
  for (const char* name : {"ECHOSYM", "REMSYM", "SVCSYM"}) {
    config::SideInfoEntry e;
    e.sym_dest_name = name;
    e.partner_lu = std::string(name) == "REMSYM" ? "NETB.REMOTE" : "LOCAL";
    e.mode = "#INTER";
    e.tp_name = std::string(name) == "SVCSYM" ? "06F1" : "ECHO";
    e.service_tp = std::string(name) == "SVCSYM";
    e.security = std::string(name) == "ECHOSYM" ? 2 : 0;
    e.user_id = "USER1";
    e.password = "SECRET";
    c.side_info.push_back(e);
  }
  return c;
}

struct Connection {
  proto::ClientId id = 0;
  std::unique_ptr<FrameDecoder> decoder;
  bool hello_done = false;
  bool is_operator = false;
  uint32_t hello_pid = 0;
  uint16_t word_bits = 0;
};

class Harness : private OperatorTarget {
 public:
  Harness() : timers_(loop_), config_(make_config()), side_info_table_(config_.side_info) {
    host_ = std::make_unique<NodeHost>(
        config_.node, timers_,
        NodeHost::Hooks{[this](const proto::Completion& c) { deliver(c); },
                        [this](const proto::StartProgram& p) { starts_.push_back(p.instance); }});
    for (Connection& c : conns_) open(c);
  }
  ~Harness() override {
    for (Connection& c : conns_) close(c);
  }

  void bytes(size_t which, const std::vector<uint8_t>& chunk) {
    Connection& c = conns_[which];
    c.decoder->append(chunk.data(), chunk.size());
    Frame frame;
    std::string reason;
    for (;;) {
      const FrameDecoder::Status st = c.decoder->next(frame, reason);
      if (st == FrameDecoder::Status::kNeedMore) break;
      if (st == FrameDecoder::Status::kMalformed) {
        check(!reason.empty());
        // The daemon drops the connection; the client may connect again.
        close(c);
        open(c);
        break;
      }
      handle(c, frame);
    }
  }

  void reconnect(size_t which) {
    close(conns_[which]);
    open(conns_[which]);
  }

  void program_event(fuzz::Input& in) {
    if (starts_.empty()) return;
    const uint64_t instance = starts_[in.u8() % starts_.size()];
    switch (in.u8() % 3) {
      case 0: host_->program_started(instance, 4242); break;
      case 1: host_->program_failed(instance); break;
      default: host_->program_exited(instance); break;
    }
  }

  // As SIGHUP with an unchanged file: the operator's side-information
  // changes stay on top of the file's entries.
  void reload() {
    host_->reconfigure(config_.node);
    side_info_table_.set_file_entries(config_.side_info);
  }

 private:
  void open(Connection& c) {
    c.id = next_id_++;
    c.decoder = std::make_unique<FrameDecoder>();
    c.hello_done = c.is_operator = false;
  }
  void close(Connection& c) {
    if (c.id == 0) return;
    const proto::ClientId id = c.id;
    c.id = 0;  // replies from here on are dropped, as for a closed socket
    host_->client_closed(id);
    side_info_service_.client_closed(id);
  }
  Connection* find(proto::ClientId id) {
    for (Connection& c : conns_)
      if (c.id == id && id != 0) return &c;
    return nullptr;
  }

  void handle(Connection& c, const Frame& f) {
    switch (f.kind) {
      case wire::Kind::kHello: {
        check(f.body.size() == wire::kHelloSize);
        const wire::Hello h = wire::decode_hello(f.body.data());
        if (h.version != wire::kVersion) {
          close(c);
          open(c);
          return;
        }
        c.hello_done = true;
        c.is_operator = (h.flags & wire::kHelloOperator) != 0;
        c.hello_pid = h.pid;
        c.word_bits = h.word_bits;
        host_->client_connected(c.id, 1000 + static_cast<uint32_t>(c.id), "fuzzer");
        return;
      }
      case wire::Kind::kVerb:
        check(c.hello_done);
        host_->issue(c.id, f.tag, verb_from_wire(f.body.data(), f.body.size()));
        return;
      case wire::Kind::kNof: {
        check(c.hello_done && f.body.size() == wire::kNofFixedSize);
        const std::vector<uint8_t> reply = side_info_service_.handle(c.id, f.body.data(),
                                                                        side_info_table_.entries());
        check(reply.size() >= wire::kNofReplyFixedSize);
        const wire::NofReply r = wire::decode_nof_reply(reply.data());
        check(reply.size() == wire::kNofReplyFixedSize + size_t{r.entries} * wire::kSideInfoEntrySize);
        const wire::Nof n = wire::decode_nof(f.body.data());
        if (n.opcode == nof::kQuerySideInfo && r.primary == nof::kOk)
          check(size_t{r.entries} * wire::kSideInfoEntrySize <= n.buffer_size);
        frame_ok(make_frame(wire::Kind::kNofReply, f.tag, reply));
        return;
      }
      case wire::Kind::kOperator: {
        check(c.hello_done && c.is_operator);
        const std::string text(f.body.begin(), f.body.end());
        const std::string answer = operator_reply(text, *this);
        check(!answer.empty());
        // Whatever was asked, the answer is JSON.
        check(!nlohmann::json::parse(answer, nullptr, false).is_discarded());
        return;
      }
      default:
        check(false);  // the decoder lets no other kind through
    }
  }

  void deliver(const proto::Completion& completion) {
    Connection* c = find(completion.client);
    if (c == nullptr) return;  // its client has gone
    check(c->hello_done);
    const std::vector<uint8_t> body = reply_body(completion);
    check(body.size() >= wire::kVerbReplyFixedSize);
    const wire::VerbReply r = wire::decode_verb_reply(body.data());
    check(body.size() == wire::kVerbReplyFixedSize + r.data_length);
    check(r.data_length <= wire::kMaxData);
    frame_ok(make_frame(wire::Kind::kVerbReply, completion.tag, body));
  }

  static void frame_ok(const std::vector<uint8_t>& frame) {
    check(frame.size() >= wire::kHeaderSize && frame.size() <= wire::kMaxReplyFrame);
    check(wire::decode_header(frame.data()).length == frame.size());
  }

  // ---- the operator interface's view of this node
  StatusInput status_input() override {
    StatusInput in;
    in.node_name = config_.node_name;
    in.pid = getpid();
    in.socket = "/fuzz/socket";
    in.state_dir = state_dir;
    in.config_source = config_.source;
    in.local_lus = config_.node.local_lus;
    in.all_lus = host_->node().config().local_lus;
    in.snapshot = host_->node().snapshot();
    for (const Connection& c : conns_) {
      if (c.id == 0) continue;
      in.clients.push_back(ClientView{c.id, 1000 + static_cast<pid_t>(c.id), getuid(), "fuzzer",
                                      c.is_operator, c.word_bits});
    }
    for (const auto& q : in.snapshot.queued_attaches) in.queued_ms[q.conv_id] = 5;
    return in;
  }
  size_t push_trace(bool, const std::string& file) override {
    check(file.size() <= wire::kMaxRequestFrame);
    size_t told = 0;
    for (const Connection& c : conns_)
      if (c.id != 0 && c.hello_done && !c.is_operator) ++told;
    return told;
  }
  void request_stop() override { stop_requested_ = true; }
  const config::DaemonConfig& configuration() const override { return config_; }
  SideInfoTable& side_info() override { return side_info_table_; }
  void side_info_changed(const std::string& what) override { check(!what.empty()); }

  EventLoop loop_;
  TimerQueue timers_;
  config::DaemonConfig config_;
  std::unique_ptr<NodeHost> host_;
  SideInfoTable side_info_table_;
  SideInfoService side_info_service_;
  Connection conns_[3];
  proto::ClientId next_id_ = 1;
  std::vector<uint64_t> starts_;
  bool stop_requested_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The node's problem and audit logs go to a scratch directory.
  const char* tmp = std::getenv("TMPDIR");
  std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/fuzz_daemon.XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) std::abort();
  state_dir = templ;
  setenv("SNANODE_STATE_DIR", state_dir.c_str(), 1);
  std::atexit([] {
    unlink((state_dir + "/problems.log").c_str());
    unlink((state_dir + "/audit.log").c_str());
    rmdir(state_dir.c_str());
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Logs would grow for as long as the fuzzer runs.
  truncate((state_dir + "/problems.log").c_str(), 0);
  truncate((state_dir + "/audit.log").c_str(), 0);
  fuzz::Input in(data, size);
  Harness h;
  while (!in.empty()) {
    const uint8_t op = in.u8();
    // Bits 0-1: the connection (3 means 0); bits 2-4: the action.
    const size_t which = (op & 3) % 3;
    switch ((op >> 2) & 7) {
      case 6:
        h.reconnect(which);
        break;
      case 7:
        if (op & 0x80) h.reload();
        else h.program_event(in);
        break;
      default: {
        h.bytes(which, in.block(65535));
        break;
      }
    }
  }
  return 0;
}
