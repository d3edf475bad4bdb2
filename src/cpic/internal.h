// Internal routines of the CPI-C library, shared between its files.
// Nothing here is exported.
#ifndef CPIC_INTERNAL_H
#define CPIC_INTERNAL_H

#include <cstdint>

#include "control_blocks.h"
#include "snanode/node.h"
#include "call_trace.h"

namespace cpic {

// ---- Globals (library_state.cpp) ----
extern GCB sGcb;
extern GCB *pGCB;
extern uint16_t fInitCPIC;

// Message numbers of the problem and audit logs.
enum : uint32_t {
  MSG_TP_STARTED = 0x20030000,
  MSG_CONV_ACCEPTED = 0x20030001,
  MSG_CONV_ALLOCATED = 0x20030002,
  MSG_CONV_DEALLOCATED = 0x20030003,
  MSG_UNKNOWN_CONV_ID = 0x20030005,
  MSG_UNKNOWN_SYM_DEST = 0x20030006,
  MSG_LENGTH_OUT_OF_RANGE = 0x20030007,
  MSG_BAD_SIDE_INFO_LENGTH = 0x20030008,
  MSG_GET_STATE_FAILED = 0x20030009,
  MSG_INIT_FAILED = 0x2003000A,
  MSG_RESOURCE_SHORTAGE = 0x2003000B,
  MSG_ACCEPT_FAILED = 0x2003000C,
  MSG_NOF_CONNECT_FAILED = 0x2003000D,
  MSG_TP_NAME_REG_FAILED = 0x2003000E,
  MSG_ALLOCATE_CANCELLED = 0x20030011,
  MSG_LOG_DATA_MISSING = 0x20030012,
  MSG_UNEXPECTED_NOF_RC = 0x20030014,
  MSG_UNMAPPED_APPC_RC = 0x20030016,
};

constexpr uint32_t MEM_TYPE_CPIC = 0x302;
constexpr uint32_t MEM_TYPE_VERB = 0x202;

// Source names the assertion records carry.
constexpr const char *SRC_CPICUTIL = "../../p/vcpic/cpicutil";
constexpr const char *SRC_CPICTERM = "../../p/vcpic/cpicterm";

// Trace-control bits. The runtime may flip them from its own thread while
// a call runs (an operator switching tracing), so they are read atomically.
inline bool trace_control_bit(unsigned index, unsigned char bit) {
  return ptrc != nullptr && (__atomic_load_n(&ptrc[index], __ATOMIC_ACQUIRE) & bit) != 0;
}
inline bool api_trace_on() { return trace_control_bit(0, 0x20); }
inline bool audits_suppressed() { return trace_control_bit(8, 0x02); }

// Reads a 16-bit or 32-bit big-endian return code as the node stored it.
inline uint16_t be16(uint16_t stored) {
  return static_cast<uint16_t>((stored >> 8) | (stored << 8));
}
inline uint32_t be32(uint32_t stored) { return __builtin_bswap32(stored); }

bool all_zero(const uint8_t *p, unsigned n);

// ---- Initialisation (library_init.cpp) ----
void SCC_init();
void SCC_get_lu_alias(uint8_t *alias_out);
void SCC_set_tp_name(uint8_t *tp_name_out);

// ---- Conversation table (conversation_table.cpp) ----
uint16_t SCC_cccb_init(uint8_t *conversation_id_out, CCCB **cccb_out);
uint16_t SCC_find_cccb(const uint8_t *conversation_id, CCCB **cccb_out, GCB *gcb);
void SCC_free_cccb(CCCB *cccb);
// Blanks the conversation's password and the copy in its verb area, so that
// neither memory nor a core keeps it once the allocation needs it no more.
void SCC_forget_password(CCCB *cccb);
void SCC_free_handles_from_table(uint32_t table);
// Looks the conversation up; on failure writes the unknown-ID problem
// record with the given sub-code and sets 24.
CCCB *SCC_find_or_report(const uint8_t *conversation_id, int32_t *return_code,
                         uint32_t sub_code);
// The first steps of a call on a conversation: initialise the library on
// first use (20 when it cannot be), then find the conversation as
// SCC_find_or_report does.
CCCB *SCC_init_and_find(const uint8_t *conversation_id, int32_t *return_code, uint32_t sub_code);

// ---- Return codes (return_code_map.cpp) ----
void SCC_map_return_codes(int32_t *return_code_out, uint16_t primary,
                          uint32_t secondary, uint16_t opcode);

// ---- Character sets (code_tables.cpp) ----
void SCC_convert_string(uint8_t direction, uint16_t character_set, int16_t length,
                        uint8_t *destination, const uint8_t *source);
uint16_t SCC_far_len(const uint8_t *string, uint16_t max);

// ---- Side information (side_info_store.cpp) ----
int32_t SCD_main(uint32_t operation, SIDE_INFO *entry);
int32_t SCD_lookup(SIDE_INFO *entry);
int32_t SCD_set(const SIDE_INFO *entry);
int32_t SCD_delete(const SIDE_INFO *entry);
void SCD_read_nof_response(SIDE_INFO *entry, const NOF_SIDE_INFO_ENTRY *response);
uint16_t SCD_match_sym_dest_name(const uint8_t *name, struct SIDE_INFO_ELEMENT **element_out);

struct SIDE_INFO_ELEMENT {
  uint16_t usState;  // 1 valid, 0 deleted (hides the node's entry)
  SIDE_INFO si;
};

// ---- Verb engine (verb_engine.cpp) ----
// A completion routine is handed to the node as the verb's callback: the
// verb area is the start of the CCCB, and the correlator the library passes
// (1) is the routine's fAsync. Called inline by the worker with fAsync 0.
typedef APPC_CALLBACK COMPLETION;

struct CALL_RECORD {
  uint16_t usTraceIndex;
  const uint8_t *conversation_id;
  void *results[5];
  // Where the engine's NumVerbsWaiting assertion says it stands: the
  // issuing call's own file and line (engine's own when not given).
  const char *assert_file = nullptr;
  int assert_line = 0;
};

// Prepares the verb area for a conversation verb: clears it and fills the
// common header from the conversation.
void SCC_prepare_vcb(CCCB *cccb, uint16_t opcode);
// Issues the verb built in the conversation's verb area. Returns the call's
// return code (35 when the verb is still in progress).
int32_t SCC_issue_verb(CCCB *cccb, const CALL_RECORD &call, COMPLETION completion);
// Common start of a completion routine: maps a failure. Returns true when
// the verb succeeded and the routine should do its own success handling.
bool SCC_completion_begin(CCCB *cccb);
// Common end of a completion routine called from the node's thread.
void SCC_completion_end(CCCB *cccb, uint32_t fAsync);
// Frees the block when the deferred-release conditions hold.
void SCC_release_if_done(CCCB *cccb);
void SCC_null_callback(void *vcb, uint32_t a, uint32_t b, uint32_t correlator);
int SCC_path_callback(void *path, VPM_PATH_EVENT *event);

// ---- Conversation calls (allocate_call.cpp ... context_calls.cpp) ----
// Source names of the conversation calls' assertion records.
constexpr const char *SRC_CPICCAL1 = "../../p/vcpic/cpiccal1";
constexpr const char *SRC_CPICCAL2 = "../../p/vcpic/cpiccal2";
constexpr const char *SRC_CPICCAL3 = "../../p/vcpic/cpiccal3";

void cmallc_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmaccp_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmacci_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmdeal_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmcfm_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmcfmd_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmsend_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmrcv_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmflus_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmptr_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmrts_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmserr_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmtrts_cb(void *vcb, uint32_t a, uint32_t b, uint32_t fAsync);
void cmcanc_cb(void *vcb, uint32_t a, uint32_t b, uint32_t wait_object);

// Incoming allocation (accept_calls.cpp).
int32_t SCC_inbound_get_cccb(CCCB **cccb_out, uint8_t *conversation_id_out);
int32_t SCC_inbound_issue_verb(CCCB *cccb, uint16_t trace_index, COMPLETION completion,
                               uint16_t non_blocking, uint16_t free_on_error,
                               const uint8_t *conversation_id, int32_t *return_code);
void SCC_inbound_process_verb(CCCB *cccb, uint32_t fAsync, uint16_t accept_conversation);

// Contexts (context_calls.cpp): 1 when a conversation or the current
// context holds this TP id.
uint16_t SCC_context_valid(const uint8_t *context_id, CCCB **cccb_out);

// The checks every conversation verb starts with: known conversation (else
// the unknown-ID record with sub_code and 24), nothing outstanding (37), a
// node conversation (25). Null when the call must stop; return_code is set.
CCCB *SCC_conversation_for_verb(const uint8_t *conversation_id, int32_t *return_code,
                                uint32_t sub_code);
// The response record of a call, with the conversation found again (it may
// be gone by now).
void SCC_trace_response(uint32_t verb, const uint8_t *conversation_id, const int32_t *return_code,
                        const void *a5, const void *a6, const void *a7, const void *a8,
                        const void *a9);

// ---- Termination (termination.cpp) ----
void SCC_context_ended(const uint8_t *tp_id, uint8_t end_type, uint16_t *primary_out,
                       uint32_t *secondary_out);
uint32_t SCC_cccbs_using_tpid(const uint8_t *tp_id);

}  // namespace cpic

#endif

