/* The daemon client inside the node client runtime.
 *
 * verb_codec.cpp   verb blocks and node-operator records <-> wire frames
 * daemon_link.cpp  finding, starting and greeting the daemon
 * verb_client.cpp  the connection, the runtime thread and the verb entries
 *
 * Nothing here is exported; the white-box tests reach it through the
 * static archive. */
#ifndef SNANODE_CLIENT_H
#define SNANODE_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "internal.h"
#include "snanode/verbs.h"
#include "wire/wire_protocol.h"

namespace snanode {

/* Primary codes the runtime gives itself (host values). */
constexpr uint16_t kPrimaryParameterCheck = 0x0001;
constexpr uint32_t kSecondaryBadValue = 0x00000102;
constexpr uint16_t kPrimaryNoNode = 0xF002;
constexpr uint16_t kPrimaryNodeLost = 0xF003;
constexpr uint16_t kPrimaryNotCarried = 0xF004;

/* Problem-log message numbers of the client. */
constexpr uint32_t kMsgNodeLost = 0x10000010u;      /* sub-code: errno (0: closed by the node) */
constexpr uint32_t kMsgProtocolError = 0x10000011u; /* sub-code: ProtocolFault */
constexpr uint32_t kMsgAutostart = 0x10000012u;     /* sub-code: errno */

enum ProtocolFault : uint32_t {
  kFaultFrameLength = 1, /* frame shorter than its kind needs, or too long */
  kFaultUnknownTag = 2,  /* a reply for no outstanding request */
  kFaultWrongKind = 3,   /* a verb reply for a node-operator request or back */
};

/* Primary and secondary return codes, stored big-endian at offsets 4 and 8. */
void write_codes(void *block, uint16_t primary, uint32_t secondary);

enum class Translation { kOk, kUnknownOpcode, kNullPointer };

/* One verb as it goes out: the wire fields, the bytes behind the block's
 * pointer field, and where received data is to go. */
struct VerbRequest {
  sna::wire::Verb verb;
  const void *data;         /* send data or log data; null when none */
  uint32_t data_carried;    /* bytes of data that travel */
  uint8_t *receive_buffer;  /* RECEIVE_*: the program's buffer */
  uint16_t receive_max;     /* RECEIVE_*: its maximum length */
};

Translation translate_verb(const void *block, VerbRequest *request);

/* Writes the reply's codes and the outputs its mask names that the opcode
 * has. `copied` received bytes already stand in the program's buffer. */
void apply_verb_reply(void *block, uint16_t opcode, const sna::wire::VerbReply &reply,
                      uint32_t copied);

/* Node-operator records. */
struct NofRequest {
  sna::wire::Nof nof;
  uint8_t *buffer;      /* query: the program's response buffer */
  uint32_t buffer_size; /* query: its size */
};

Translation translate_nof(uint32_t target_handle, const void *record, NofRequest *request);

/* Turns `count` entries just read into the program's buffer from wire order
 * (little-endian integers) to host order. */
void side_info_entries_to_host(uint8_t *entries, uint32_t count);

/* Writes the codes and, on success, the handle (open) or the number of
 * entries copied (query). */
void apply_nof_reply(void *record, uint16_t opcode, const sna::wire::NofReply &reply,
                     uint16_t copied);

/* ---- daemon_link.cpp ---- */

/* The socket path: $SNANODE_SOCKET, else $XDG_RUNTIME_DIR/snanode/socket,
 * else /tmp/snanode-<uid>/socket. Returns false if it does not fit. */
bool socket_path(char *out, size_t size);

/* Whether a missing daemon may be started (SNANODE_AUTOSTART is not "0"). */
bool autostart_allowed();

/* The daemon program: `named` if set; else ../bin/snanoded beside the
 * directory of `library_file`; else `install_path`; else snanoded in the
 * directories of `search_path`. The candidates after `named` count only if
 * executable. Returns false when there is none. */
bool find_daemon(const char *named, const char *library_file, const char *install_path,
                 const char *search_path, char *out, size_t size);
/* The same, with the directories to look in beside the library given by
 * `library_relative`: a colon-separated list of directories relative to
 * the library's own (say "../../bin" for lib/<multiarch>), tried in order. */
bool find_daemon(const char *named, const char *library_file, const char *library_relative,
                 const char *install_path, const char *search_path, char *out, size_t size);
/* What autostart passes as `library_relative`: the install's bin directory
 * from its library directory, then the build tree's ../bin. */
const char *daemon_dirs_beside_library();

/* Connects to the daemon, starting one if nothing answers and autostart is
 * allowed, and exchanges HELLO. Returns 0 and the connected socket, or an
 * errno value. */
int connect_daemon(int *fd_out);

/* ---- verb_client.cpp ---- */

enum class LinkState { kDisconnected, kConnected, kLost };

/* For tests: waits up to timeout_ms for the connection to reach `state`.
 * Returns true if it did. */
bool client_wait_state(LinkState state, int timeout_ms);

}  // namespace snanode

#endif
