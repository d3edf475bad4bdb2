// Internal records of the node: conversation ends, half-sessions,
// sessions, TPs and waiting verbs. Not part of the host interface.
#ifndef SNA_PROTO_NODE_TYPES_H
#define SNA_PROTO_NODE_TYPES_H

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "protocol/actions.h"
#include "protocol/bytes.h"
#include "protocol/fmh.h"
#include "protocol/gds.h"
#include "protocol/rh.h"
#include "protocol/verbs.h"

namespace sna::proto {

// Something that reaches an end from its partner and is not data.
struct Report {
  enum class Kind : uint8_t { kDeallocNormal, kAbend, kError, kAllocError };
  Kind kind = Kind::kDeallocNormal;
  uint32_t sense = 0;
  bool purging = false;  // an ERROR that cut off this end's sending
};

enum class StatusKind : uint8_t { kSend = 1, kConfirm = 2, kConfirmSend = 3, kConfirmDeallocate = 4 };

struct InItem {
  enum class Kind : uint8_t { kData, kStatus, kReport };
  Kind kind = Kind::kData;
  Bytes data;
  bool unit_end = false;  // this data ends a mapped or logical record
  StatusKind status = StatusKind::kSend;
  Report report;
};

// What the send buffer holds, in order.
struct OutItem {
  enum class Kind : uint8_t { kData, kError };
  Kind kind = Kind::kData;
  Bytes bytes;          // data as it goes on the session (GDS for mapped)
  uint32_t sense = 0;   // kError: FMH-7 sense
  bool purging = false; // kError: preceded by a negative response
};

// How the chain that a flush sends is ended.
enum class ChainEnd : uint8_t {
  kNone,               // flush only: the chain stays open
  kSend,               // EC + CD
  kConfirm,            // EC + RQD
  kConfirmSend,        // EC + CD + RQD
  kConfirmDeallocate,  // EC + CEB + RQD
  kDeallocate,         // EC + CEB
};

struct PendingVerb {
  ClientId client = 0;
  uint64_t tag = 0;
  Verb verb;
  // kPacing: the verb has done its work and is held until the partner has
  // received enough of what this end transmitted (paced_result is its
  // answer then).
  enum class Wait : uint8_t { kReply, kReceive, kPacing } wait = Wait::kReply;
  ConvState issued_state = ConvState::kSend;
  // On a positive reply, or on release from pacing:
  bool delete_on_ok = false;
  ConvState ok_state = ConvState::kSend;
  VerbResult paced_result;
};

struct End {
  uint32_t conv_id = 0;
  TpId tp{};
  bool has_tp = false;  // false while an accepted attach waits in a queue
  ConvType type = ConvType::kMapped;
  uint8_t sync = 0;
  ConvState state = ConvState::kSend;
  SessionId session = 0;
  int half = 0;  // 0 primary, 1 secondary half of the session
  bool attach_sent = false;
  Attach attach;
  std::vector<OutItem> send_buf;
  size_t send_bytes = 0;
  LogicalRecordScanner out_lr;
  std::deque<InItem> in_q;
  size_t in_bytes = 0;       // data bytes in in_q: transmitted to this end, not yet received
  size_t flushed_bytes = 0;  // bytes this end transmitted during the current verb
  bool deallocated = false;  // its bracket has ended; it only waits for pacing
  bool failed = false;
  uint16_t failure_code = 0;
  uint32_t failure_sense = 0;
  bool rts = false;
  std::optional<PendingVerb> pending;
  // Target side: what the attach carried.
  Bytes attach_tp_name;
  Bytes attach_user_id;  // empty when none was accepted
  size_t local_lu = 0;
  std::string partner_fq;
  Name8 mode{};
  uint64_t attach_timer = 0;
};

struct HalfSession {
  size_t lu = 0;        // local LU index (meaningful when this half is here)
  bool here = false;    // this half-session is on this node
  uint32_t conv = 0;    // end using this half; 0 when none
  bool bracket_open = false;
  bool chain_open = false;   // sending: BC sent, EC not yet
  // Receiving:
  Rh last_request{};
  bool have_request = false;
  bool in_chain = false;
  bool neg_rsp_seen = false;
  bool chain_had_fmh7_end = false;  // an abend or allocation error ends this chain
  bool discard_bracket = false;     // attach refused: drop the rest
  GdsAssembler gds;
  LogicalRecordScanner lr;
  ConvType type = ConvType::kMapped;
};

struct Session {
  SessionId id = 0;
  bool bound = false;
  bool local = true;   // both halves on this node
  std::string partner_fq;  // of the secondary, seen from the primary's LU
  Name8 mode{};
  uint32_t max_ru = 1024;
  uint32_t send_buffer = 4096;
  uint32_t pacing_window = 65536;  // W: unreceived bytes that hold a sender's flush
  HalfSession half[2];  // 0: primary (contention winner), 1: secondary
};

struct Tp {
  ClientId client = 0;
  size_t local_lu = 0;
  Bytes attach_user_id;  // set for TPs created by RECEIVE_ALLOCATE_CPIC
  Bytes tp_name;         // 64 bytes EBCDIC, for display: TP_STARTED's, or the attach's
};

struct ClientInfo {
  uint32_t pid = 0;
  std::string login;
  std::set<Bytes> names;  // registered TP names (64-byte EBCDIC)
};

struct WaitingAllocate {
  ClientId client = 0;
  uint64_t tag = 0;
  Verb verb;
  size_t local_lu = 0;
  std::string partner_fq;
  bool partner_local = true;
  size_t partner_lu = 0;
  Name8 mode{};
  SessionId binding = 0;  // a session whose BIND is under way for it

  WaitingAllocate() = default;
  WaitingAllocate(const WaitingAllocate&) = default;
  WaitingAllocate(WaitingAllocate&&) = default;
  WaitingAllocate& operator=(const WaitingAllocate&) = default;
  WaitingAllocate& operator=(WaitingAllocate&&) = default;
  // Moving an array copies it: every copy, queued or moved from, clears
  // the program's password when it goes.
  ~WaitingAllocate() { wipe(verb.password.data(), verb.password.size()); }
};

struct WaitingReceiveAllocate {
  ClientId client = 0;
  uint64_t tag = 0;
  Verb verb;
};

struct Instance {
  uint64_t id = 0;
  Bytes tp_name;
  uint32_t pid = 0;
  bool idle = true;
  bool running = true;
};

}  // namespace sna::proto

#endif
