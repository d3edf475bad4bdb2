// The protocol between the node client runtime (libsnanode.so, inside
// application processes of either word size) and the node daemon.
//
// Every frame is a sequence of explicit little-endian fields written and
// read byte by byte, so nothing depends on the word size, the alignment or
// the struct layout of either side: an i386 program and an x86_64 program
// talk to the same daemon. No pointer ever crosses the socket; the bytes
// behind the pointer fields of a verb block travel after the fixed part.
//
// Header-only and free of the C++ library, so that the runtime (which links
// against libc only) and the daemon share the one definition.
#ifndef SNA_WIRE_PROTOCOL_H
#define SNA_WIRE_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace sna::wire {

inline constexpr uint32_t kMagic = 0x57414E53;  // "SNAW"
inline constexpr uint16_t kVersion = 1;

// ---- frame header -------------------------------------------------------
//  0 u32 length of the whole frame, header included
//  4 u16 kind
//  6 u16 reserved, 0
//  8 u64 tag: the client's number for a request; a reply carries the tag of
//        its request; pushes from the daemon carry 0
inline constexpr size_t kHeaderSize = 16;

// A client never needs more than one verb's fixed part and 32767 data
// bytes; anything longer is malformed. Replies may carry many side
// information entries or a long operator answer.
inline constexpr uint32_t kMaxRequestFrame = 48 * 1024;
inline constexpr uint32_t kMaxReplyFrame = 4 * 1024 * 1024;

// The largest data part a verb or its reply may carry.
inline constexpr uint32_t kMaxData = 32767;

enum class Kind : uint16_t {
  kHello = 1,           // client -> daemon, first frame of a connection
  kHelloReply = 2,      // daemon -> client
  kVerb = 3,            // client -> daemon: a verb block
  kVerbReply = 4,       // daemon -> client: its results
  kNof = 5,             // client -> daemon: a node-operator record
  kNofReply = 6,        // daemon -> client
  kOperator = 7,        // operator tool -> daemon: a command (text)
  kOperatorReply = 8,   // daemon -> operator tool: the answer (text)
  kTraceControl = 9,    // daemon -> client, unsolicited: switch API tracing
};

// ---- little-endian field access ----------------------------------------
inline void put8(uint8_t* p, size_t off, uint8_t v) { p[off] = v; }
inline void put16(uint8_t* p, size_t off, uint16_t v) {
  p[off] = static_cast<uint8_t>(v);
  p[off + 1] = static_cast<uint8_t>(v >> 8);
}
inline void put32(uint8_t* p, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void put64(uint8_t* p, size_t off, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[off + i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void put_bytes(uint8_t* p, size_t off, const uint8_t* src, size_t n) {
  std::memcpy(p + off, src, n);
}
inline uint8_t get8(const uint8_t* p, size_t off) { return p[off]; }
inline uint16_t get16(const uint8_t* p, size_t off) {
  return static_cast<uint16_t>(p[off] | (p[off + 1] << 8));
}
inline uint32_t get32(const uint8_t* p, size_t off) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | p[off + i];
  return v;
}
inline uint64_t get64(const uint8_t* p, size_t off) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[off + i];
  return v;
}
inline void get_bytes(const uint8_t* p, size_t off, uint8_t* dst, size_t n) {
  std::memcpy(dst, p + off, n);
}

struct FrameHeader {
  uint32_t length = 0;
  Kind kind = Kind::kHello;
  uint64_t tag = 0;
};

inline void encode_header(uint8_t* p, const FrameHeader& h) {
  put32(p, 0, h.length);
  put16(p, 4, static_cast<uint16_t>(h.kind));
  put16(p, 6, 0);
  put64(p, 8, h.tag);
}
inline FrameHeader decode_header(const uint8_t* p) {
  FrameHeader h;
  h.length = get32(p, 0);
  h.kind = static_cast<Kind>(get16(p, 4));
  h.tag = get64(p, 8);
  return h;
}

// ---- HELLO / HELLO_REPLY -----------------------------------------------
//  HELLO body (16): 0 u32 magic; 4 u16 version; 6 u16 word bits (32, 64);
//                   8 u32 pid; 12 u32 flags (bit 0: operator connection)
//  HELLO_REPLY body (16): 0 u32 magic; 4 u16 version; 6 u16 status
//                   (0 accepted, 1 version refused); 8 u32 daemon pid;
//                   12 u32 reserved
inline constexpr size_t kHelloSize = 16;
inline constexpr uint32_t kHelloOperator = 1;
struct Hello {
  uint32_t magic = kMagic;
  uint16_t version = kVersion;
  uint16_t word_bits = 0;
  uint32_t pid = 0;
  uint32_t flags = 0;
};
inline void encode_hello(uint8_t* p, const Hello& h) {
  put32(p, 0, h.magic);
  put16(p, 4, h.version);
  put16(p, 6, h.word_bits);
  put32(p, 8, h.pid);
  put32(p, 12, h.flags);
}
inline Hello decode_hello(const uint8_t* p) {
  Hello h;
  h.magic = get32(p, 0);
  h.version = get16(p, 4);
  h.word_bits = get16(p, 6);
  h.pid = get32(p, 8);
  h.flags = get32(p, 12);
  return h;
}
struct HelloReply {
  uint32_t magic = kMagic;
  uint16_t version = kVersion;
  uint16_t status = 0;
  uint32_t daemon_pid = 0;
};
inline void encode_hello_reply(uint8_t* p, const HelloReply& h) {
  put32(p, 0, h.magic);
  put16(p, 4, h.version);
  put16(p, 6, h.status);
  put32(p, 8, h.daemon_pid);
  put32(p, 12, 0);
}
inline HelloReply decode_hello_reply(const uint8_t* p) {
  HelloReply h;
  h.magic = get32(p, 0);
  h.version = get16(p, 4);
  h.status = get16(p, 6);
  h.daemon_pid = get32(p, 8);
  return h;
}

// ---- VERB ---------------------------------------------------------------
// The fields of every verb block, whatever the opcode; each verb uses the
// ones its block has and leaves the rest zero. After the fixed part come
// `data_carried` bytes: the send data, or the log data of DEALLOCATE and
// SEND_ERROR. A length above kMaxData is passed on (the node refuses it)
// but its bytes are not carried.
inline constexpr size_t kVerbFixedSize = 192;
struct Verb {
  uint16_t opcode = 0;
  uint8_t opext = 0;
  uint8_t format = 0;
  uint8_t tp_id[8] = {};
  uint32_t conv_id = 0;           // TP_ENDED / CANCEL: as in the block
  uint8_t sync_level = 0;         // ALLOCATE
  uint8_t return_control = 0;     // ALLOCATE
  uint8_t security = 0;           // ALLOCATE
  uint8_t type = 0;               // DEALLOCATE, PREPARE_TO_RECEIVE, TP_ENDED
  uint8_t locks = 0;              // PREPARE_TO_RECEIVE
  uint8_t return_status_with_data = 0;  // RECEIVE_*
  uint8_t fill = 0;               // RECEIVE_*
  uint8_t send_type = 0;          // SEND_DATA
  uint8_t error_type = 0;         // SEND_ERROR
  uint8_t direction = 0;          // SEND_ERROR
  uint16_t max_length = 0;        // RECEIVE_*
  uint16_t pip_length = 0;        // ALLOCATE
  uint32_t data_length = 0;       // as the program gave it
  uint32_t correlator = 0;        // RECEIVE_ALLOCATE_CPIC offset 84 on input
  uint8_t partner_lu_alias[8] = {};
  uint8_t mode_name[8] = {};
  uint8_t tp_name[64] = {};
  uint8_t password[10] = {};
  uint8_t user_id[10] = {};
  uint8_t partner_lu_name[17] = {};
  uint8_t local_lu_alias[8] = {};  // TP_STARTED
};

// The number of data bytes that travel with a verb of this length.
inline uint32_t data_carried(uint32_t data_length) {
  return data_length <= kMaxData ? data_length : 0;
}

// Where a verb body carries the conversation password. The daemon clears
// those bytes in place once it has read them, so it needs them by name.
inline constexpr size_t kVerbPasswordOffset = 120;
inline constexpr size_t kVerbPasswordSize = 10;
static_assert(sizeof(Verb::password) == kVerbPasswordSize);

inline void encode_verb(uint8_t* p, const Verb& v) {
  std::memset(p, 0, kVerbFixedSize);
  put16(p, 0, v.opcode);
  put8(p, 2, v.opext);
  put8(p, 3, v.format);
  put_bytes(p, 4, v.tp_id, 8);
  put32(p, 12, v.conv_id);
  put8(p, 16, v.sync_level);
  put8(p, 17, v.return_control);
  put8(p, 18, v.security);
  put8(p, 19, v.type);
  put8(p, 20, v.locks);
  put8(p, 21, v.return_status_with_data);
  put8(p, 22, v.fill);
  put8(p, 23, v.send_type);
  put8(p, 24, v.error_type);
  put8(p, 25, v.direction);
  put16(p, 26, v.max_length);
  put16(p, 28, v.pip_length);
  put32(p, 32, v.data_length);
  put32(p, 36, v.correlator);
  put_bytes(p, 40, v.partner_lu_alias, 8);
  put_bytes(p, 48, v.mode_name, 8);
  put_bytes(p, 56, v.tp_name, 64);
  put_bytes(p, kVerbPasswordOffset, v.password, kVerbPasswordSize);
  put_bytes(p, 130, v.user_id, 10);
  put_bytes(p, 140, v.partner_lu_name, 17);
  put_bytes(p, 157, v.local_lu_alias, 8);
}
inline Verb decode_verb(const uint8_t* p) {
  Verb v;
  v.opcode = get16(p, 0);
  v.opext = get8(p, 2);
  v.format = get8(p, 3);
  get_bytes(p, 4, v.tp_id, 8);
  v.conv_id = get32(p, 12);
  v.sync_level = get8(p, 16);
  v.return_control = get8(p, 17);
  v.security = get8(p, 18);
  v.type = get8(p, 19);
  v.locks = get8(p, 20);
  v.return_status_with_data = get8(p, 21);
  v.fill = get8(p, 22);
  v.send_type = get8(p, 23);
  v.error_type = get8(p, 24);
  v.direction = get8(p, 25);
  v.max_length = get16(p, 26);
  v.pip_length = get16(p, 28);
  v.data_length = get32(p, 32);
  v.correlator = get32(p, 36);
  get_bytes(p, 40, v.partner_lu_alias, 8);
  get_bytes(p, 48, v.mode_name, 8);
  get_bytes(p, 56, v.tp_name, 64);
  get_bytes(p, kVerbPasswordOffset, v.password, kVerbPasswordSize);
  get_bytes(p, 130, v.user_id, 10);
  get_bytes(p, 140, v.partner_lu_name, 17);
  get_bytes(p, 157, v.local_lu_alias, 8);
  return v;
}

// ---- VERB_REPLY ---------------------------------------------------------
// The results of one verb. `outputs` says which output fields the runtime
// writes into the program's block: the node writes only the outputs a verb
// defines for its result, and leaves the others as they were. After the
// fixed part come `data_length` received bytes (RECEIVE_*), which the
// runtime copies into the program's buffer.
inline constexpr size_t kVerbReplyFixedSize = 144;
enum Output : uint32_t {
  kOutConvId = 1u << 0,        // ALLOCATE conv_id; RECEIVE_ALLOCATE conv_id
  kOutRts = 1u << 1,           // request-to-send received
  kOutState = 1u << 2,         // GET_STATE
  kOutReceive = 1u << 3,       // what-received, received length, the data
  kOutTpId = 1u << 4,          // TP_STARTED, RECEIVE_ALLOCATE
  kOutLocalLuAlias = 1u << 5,  // TP_STARTED, RECEIVE_ALLOCATE
  kOutAttach = 1u << 6,        // RECEIVE_ALLOCATE: TP name, sync level,
                               // conversation type, user ID, mode, partner
};
struct VerbReply {
  uint16_t primary = 0;  // host values here; the runtime stores them
  uint32_t secondary = 0;  // big-endian in the block
  uint32_t outputs = 0;
  uint16_t what_received = 0;
  uint32_t conv_id = 0;
  uint8_t rts_received = 0;
  uint8_t state = 0;
  uint8_t sync_level = 0;
  uint8_t conversation_type = 0;
  uint8_t tp_id[8] = {};
  uint8_t local_lu_alias[8] = {};
  uint8_t tp_name[64] = {};
  uint8_t user_id[10] = {};
  uint8_t mode_name[8] = {};
  uint8_t partner_lu_name[17] = {};
  uint32_t data_length = 0;
};
inline void encode_verb_reply(uint8_t* p, const VerbReply& r) {
  std::memset(p, 0, kVerbReplyFixedSize);
  put16(p, 0, r.primary);
  put16(p, 2, r.what_received);
  put32(p, 4, r.secondary);
  put32(p, 8, r.conv_id);
  put8(p, 12, r.rts_received);
  put8(p, 13, r.state);
  put8(p, 14, r.sync_level);
  put8(p, 15, r.conversation_type);
  put_bytes(p, 16, r.tp_id, 8);
  put_bytes(p, 24, r.local_lu_alias, 8);
  put_bytes(p, 32, r.tp_name, 64);
  put_bytes(p, 96, r.user_id, 10);
  put_bytes(p, 106, r.mode_name, 8);
  put_bytes(p, 114, r.partner_lu_name, 17);
  put32(p, 136, r.data_length);
  put32(p, 140, r.outputs);
}
inline VerbReply decode_verb_reply(const uint8_t* p) {
  VerbReply r;
  r.primary = get16(p, 0);
  r.what_received = get16(p, 2);
  r.secondary = get32(p, 4);
  r.conv_id = get32(p, 8);
  r.rts_received = get8(p, 12);
  r.state = get8(p, 13);
  r.sync_level = get8(p, 14);
  r.conversation_type = get8(p, 15);
  get_bytes(p, 16, r.tp_id, 8);
  get_bytes(p, 24, r.local_lu_alias, 8);
  get_bytes(p, 32, r.tp_name, 64);
  get_bytes(p, 96, r.user_id, 10);
  get_bytes(p, 106, r.mode_name, 8);
  get_bytes(p, 114, r.partner_lu_name, 17);
  r.data_length = get32(p, 136);
  r.outputs = get32(p, 140);
  return r;
}

// ---- NOF / NOF_REPLY ----------------------------------------------------
//  NOF body (32): 0 u16 opcode; 2 u8 access (open byte 12); 3 u8 format;
//    4 u32 target handle; 8 u32 buffer size; 12 u16 entries wanted;
//    14 u8 list option; 15 u8 reserved; 16 u8[8] symbolic destination name;
//    24 reserved
//  NOF_REPLY body (16 + entries): 0 u16 primary; 2 u16 entries returned;
//    4 u32 secondary; 8 u32 target handle (open); 12 reserved; then the
//    entries, kSideInfoEntrySize bytes each, integers little-endian
inline constexpr size_t kNofFixedSize = 32;
inline constexpr size_t kNofReplyFixedSize = 16;
inline constexpr size_t kSideInfoEntrySize = 212;
struct Nof {
  uint16_t opcode = 0;
  uint8_t access = 0;
  uint8_t format = 0;
  uint32_t target_handle = 0;
  uint32_t buffer_size = 0;
  uint16_t entries_wanted = 0;
  uint8_t list_option = 0;
  uint8_t sym_dest_name[8] = {};
};
inline void encode_nof(uint8_t* p, const Nof& n) {
  std::memset(p, 0, kNofFixedSize);
  put16(p, 0, n.opcode);
  put8(p, 2, n.access);
  put8(p, 3, n.format);
  put32(p, 4, n.target_handle);
  put32(p, 8, n.buffer_size);
  put16(p, 12, n.entries_wanted);
  put8(p, 14, n.list_option);
  put_bytes(p, 16, n.sym_dest_name, 8);
}
inline Nof decode_nof(const uint8_t* p) {
  Nof n;
  n.opcode = get16(p, 0);
  n.access = get8(p, 2);
  n.format = get8(p, 3);
  n.target_handle = get32(p, 4);
  n.buffer_size = get32(p, 8);
  n.entries_wanted = get16(p, 12);
  n.list_option = get8(p, 14);
  get_bytes(p, 16, n.sym_dest_name, 8);
  return n;
}
struct NofReply {
  uint16_t primary = 0;
  uint16_t entries = 0;
  uint32_t secondary = 0;
  uint32_t target_handle = 0;
};
inline void encode_nof_reply(uint8_t* p, const NofReply& r) {
  std::memset(p, 0, kNofReplyFixedSize);
  put16(p, 0, r.primary);
  put16(p, 2, r.entries);
  put32(p, 4, r.secondary);
  put32(p, 8, r.target_handle);
}
inline NofReply decode_nof_reply(const uint8_t* p) {
  NofReply r;
  r.primary = get16(p, 0);
  r.entries = get16(p, 2);
  r.secondary = get32(p, 4);
  r.target_handle = get32(p, 8);
  return r;
}

// ---- TRACE_CONTROL (push) -----------------------------------------------
//  body: 0 u8 API trace on (0/1); 1 u8 reserved; 2 u16 path length; then
//  the trace file path (no terminator; length 0 keeps the current file)
inline constexpr size_t kTraceControlFixedSize = 4;
inline constexpr uint16_t kMaxTracePath = 1024;

// ---- OPERATOR / OPERATOR_REPLY -------------------------------------------
// The body is UTF-8 text (JSON) of at most kMaxRequestFrame - kHeaderSize
// bytes; the daemon's operator interface defines its contents.

}  // namespace sna::wire

#endif
