// The node's LU 6.2 engine: conversation ends, sessions, TP names and
// attach routing. Deterministic: the host calls in with events (verbs,
// flows from remote partners, timer expiries, program and client events)
// and carries out the actions it gets back.
#ifndef SNA_PROTO_NODE_H
#define SNA_PROTO_NODE_H

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "protocol/actions.h"
#include "protocol/config.h"
#include "protocol/flow.h"
#include "protocol/node_types.h"
#include "protocol/verbs.h"

namespace sna::proto {

// What the node holds at one moment, for the operator's status view. Names
// in Bytes are EBCDIC with trailing blanks (and zero bytes) removed; LU
// indices point into the local LUs of the configuration in force.
struct NodeSnapshot {
  struct Conversation {
    uint32_t conv_id;
    TpId tp_id;
    bool has_tp;  // false while an attach waits for RECEIVE_ALLOCATE_CPIC
    ConvState state;
    bool verb_outstanding;
    ConvType type;
    uint8_t sync_level;
    size_t local_lu;
    std::string partner_fq;
    Name8 mode;
    Bytes tp_name;    // the TP the conversation was allocated to
    ClientId client;  // owner of the end's TP; 0 without a TP
  };
  struct TpInfo {
    TpId id;
    ClientId client;
    size_t local_lu;
    Bytes tp_name;
  };
  struct Registration {
    Bytes name;
    ClientId client;
  };
  struct QueuedAttach {
    Bytes tp_name;
    uint32_t conv_id;
  };
  struct SessionInfo {
    SessionId id;
    bool bound;
    bool in_use;
    std::string partner_fq;
    Name8 mode;
  };
  std::vector<Conversation> conversations;
  std::vector<TpInfo> tps;
  std::vector<Registration> registrations;
  std::vector<QueuedAttach> queued_attaches;
  std::vector<SessionInfo> sessions;
};

class Node {
 public:
  explicit Node(NodeConfig config);

  // A client connection (an application process) arrives or goes away.
  void client_connected(ClientId client, uint32_t pid, std::string login_name);
  Actions client_closed(ClientId client);

  // A verb from a client. `tag` identifies it in its completion.
  Actions issue(ClientId client, uint64_t tag, const Verb& verb);

  // A flow for a half-session of this node from a remote partner.
  Actions flow_in(SessionId session, ByteView bytes);
  // The host could not activate the session (partner unreachable).
  Actions session_activation_failed(SessionId session);
  // The session or its link is gone; `retry` tells whether a new session
  // may work (link failure) or not (protocol error, partner deactivated).
  Actions session_lost(SessionId session, bool retry, uint32_t sense);
  // Ends a session with UNBIND; its conversation fails.
  Actions unbind_session(SessionId session);

  Actions timer_expired(uint64_t timer);
  // Attach manager feedback.
  Actions program_started(uint64_t instance, uint32_t pid);
  Actions program_failed(uint64_t instance);
  Actions program_exited(uint64_t instance);

  // Inspection for the host's status displays and for tests.
  size_t session_count() const { return sessions_.size(); }
  size_t live_conversations() const { return ends_.size(); }
  std::vector<SessionId> sessions() const;
  bool session_bound(SessionId s) const;
  bool session_in_use(SessionId s) const;
  NodeSnapshot snapshot() const;
  const NodeConfig& config() const { return config_; }

  // New definitions for later events. Live conversations, TPs, sessions and
  // the TP id stamp stay; a local LU that is gone from the new list but
  // still in use keeps serving what uses it and takes nothing new.
  void reconfigure(NodeConfig config);

 private:
  // --- plumbing
  void emit(Action a) { out_.push_back(std::move(a)); }
  Actions take();
  void complete(ClientId client, uint64_t tag, const Verb& v, VerbResult r);
  void complete_pending(End& e, VerbResult r);
  VerbResult code(uint16_t primary, uint32_t secondary = 0) const;

  // --- lookups
  int find_local_lu_by_alias(const Name8& alias) const;
  Tp* find_tp(ClientId client, const TpId& id);
  End* find_end(ClientId client, const Verb& v, VerbResult& err);

  // --- TPs and names (node_tps.cpp)
  void do_tp_started(ClientId c, uint64_t tag, const Verb& v);
  void do_tp_ended(ClientId c, uint64_t tag, const Verb& v);
  void end_tp(const TpId& id, bool hard);
  void do_register(ClientId c, uint64_t tag, const Verb& v);
  void do_withdraw(ClientId c, uint64_t tag, const Verb& v);
  void name_unregistered(const Bytes& name);
  void do_cancel(ClientId c, uint64_t tag, const Verb& v);

  // --- allocation and attach routing (node_allocate.cpp)
  void do_allocate(ClientId c, uint64_t tag, const Verb& v);
  bool resolve_partner(size_t lu, const Verb& v, std::string& fq, bool& local, size_t& partner_lu,
                       VerbResult& err);
  bool mode_defined(const Name8& mode, bool& refused) const;
  const ModeConfig* mode_config(const Name8& mode) const;
  uint32_t new_conv_id();
  SessionId find_free_session(size_t lu, const std::string& partner_fq, const Name8& mode, int& half);
  size_t session_total(size_t lu, const std::string& partner_fq, const Name8& mode) const;
  SessionId start_session(const WaitingAllocate& w);
  void grant_allocate(WaitingAllocate& w, SessionId s, int half);
  void serve_waiting_allocates();
  void build_attach(End& e, const WaitingAllocate& w, ClientId c);
  void route_attach(Session& s, int half, const Attach& a);
  void reject_attach(Session& s, int half, uint32_t sense);
  void deliver_queued_attach(uint32_t conv, const WaitingReceiveAllocate& w);
  void do_receive_allocate(ClientId c, uint64_t tag, const Verb& v);
  void attach_manager(const Bytes& name);
  const TpDefinition* definition(const Bytes& name) const;
  bool name_registered(const Bytes& name) const;
  void reject_queued(uint32_t conv, uint32_t sense);

  // --- conversation verbs (node_conversation.cpp)
  void do_conversation_verb(ClientId c, uint64_t tag, const Verb& v);
  void verb_send_data(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_flush(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_confirm(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_confirmed(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_prepare_to_receive(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_receive(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_send_error(End& e, ClientId c, uint64_t tag, const Verb& v);
  void verb_deallocate(End& e, ClientId c, uint64_t tag, const Verb& v);
  bool report_waiting(const End& e) const;
  VerbResult take_report(End& e);
  // Completes a verb with the report waiting for this end, deleting the end
  // when that report ended the conversation.
  void complete_with_report(End& e, ClientId c, uint64_t tag, const Verb& v);
  void wait_for_reply(End& e, ClientId c, uint64_t tag, const Verb& v, bool delete_on_ok,
                      ConvState ok_state);
  // Pacing: a verb that flushed completes now, or is held while the partner
  // end holds W or more unreceived bytes (node_flows.cpp).
  void finish_flush(End& e, ClientId c, uint64_t tag, const Verb& v, VerbResult r, bool delete_after);
  void answer_flush(End& e, ClientId c, uint64_t tag, const Verb& v, VerbResult r, bool delete_after);
  size_t unreceived(const End& e);
  size_t pacing_window(const End& e) const;
  void release_paced(End& e);
  bool release_due_paced();
  void clear_incoming(End& e);
  uint8_t take_rts(End& e);

  // --- receiving (node_receive.cpp)
  bool try_receive(End& e, const Verb& v, bool wait, VerbResult& r);
  void retry_pending_receive(End& e);
  void deliver_report(End& e, const Report& rep);
  VerbResult report_result(const End& e, const Report& rep) const;
  void fail_end(End& e, uint16_t primary, uint32_t sense);

  // --- half-session flows (node_flows.cpp)
  void buffer_data(End& e, ByteView data);
  void buffer_data(End& e, Bytes&& data);
  void maybe_flush_full(End& e);
  void transmit(End& e, ChainEnd how);
  // secret: the flow carries a password; its copies are cleared after use.
  void send_flow(Session& s, int from_half, const Flow& f, bool secret = false);
  void send_negative_then_fmh7(End& e, uint32_t rsp_sense, uint32_t fmh7_sense, ByteView log,
                               bool end_bracket);
  void send_positive_reply(End& e);
  void send_signal(End& e);
  void abend_end(End& e, uint32_t sense, ByteView log, bool flush_first);
  void delete_end(uint32_t conv);
  void release_half(SessionId s, int half);
  void pump();
  void receive_flow(Session& s, int half, ByteView bytes, bool secret = false);
  void receive_fmd(Session& s, int half, const Flow& f);
  void receive_data_bytes(Session& s, int half, End* e, ByteView data, bool retry);
  void end_of_chain(Session& s, int half, End* e, const Rh& rh);
  void receive_response(Session& s, int half, const Flow& f);
  void receive_control(Session& s, int half, const Flow& f);
  void session_failed(Session& s, uint16_t primary, uint32_t sense);
  End* end_of(Session& s, int half);

  NodeConfig config_;
  size_t active_lus_ = 0;  // local LUs [0, active_lus_) are configured; the rest retired
  Actions out_;
  std::map<ClientId, ClientInfo> clients_;
  std::map<TpId, Tp> tps_;
  std::map<uint32_t, End> ends_;
  std::map<SessionId, Session> sessions_;
  std::list<WaitingAllocate> waiting_allocates_;
  std::list<WaitingReceiveAllocate> receive_allocates_;
  std::map<Bytes, std::deque<uint32_t>> queued_attaches_;
  std::map<uint64_t, uint32_t> attach_timers_;  // timer -> queued conversation
  std::map<uint64_t, Instance> instances_;
  struct Delivery {
    SessionId session;
    int to_half;
    Bytes bytes;
    bool secret = false;  // cleared once received
  };
  std::deque<Delivery> deliveries_;
  bool pumping_ = false;
  std::set<uint32_t> paced_;  // ends with a verb held by pacing
  uint32_t next_tp_ = 1;
  uint32_t next_conv_ = 1;
  SessionId next_session_ = 1;
  uint64_t next_timer_ = 1;
  uint64_t next_instance_ = 1;
};

}  // namespace sna::proto

#endif
