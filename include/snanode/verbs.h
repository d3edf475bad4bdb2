/* snanode/verbs.h - verb control blocks and node-operator records.
 *
 * The byte layouts the CPI-C library and the node exchange. i386 is the
 * reference: every offset below is proved for it with static_assert. On
 * x86_64 the pointer fields are 8 bytes wide and naturally aligned, so the
 * fields after a pointer move; nothing else changes.
 *
 * Primary (offset 4) and secondary (offset 8) return codes are written by
 * the node in big-endian byte order; everything else is host order. */
#ifndef SNANODE_VERBS_H
#define SNANODE_VERBS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opcodes, as they stand in the block (host order). */
#define VERB_ALLOCATE 0x0001u
#define VERB_CONFIRM 0x0003u
#define VERB_CONFIRMED 0x0004u
#define VERB_DEALLOCATE 0x0005u
#define VERB_FLUSH 0x0006u
#define VERB_GET_STATE 0x0009u
#define VERB_PREPARE_TO_RECEIVE 0x000Au
#define VERB_RECEIVE_AND_WAIT 0x000Bu
#define VERB_RECEIVE_IMMEDIATELY 0x000Cu
#define VERB_REQUEST_TO_SEND 0x000Eu
#define VERB_SEND_DATA 0x000Fu
#define VERB_SEND_ERROR 0x0010u
#define VERB_TEST_RTS 0x0012u
#define VERB_TP_ENDED 0x0013u
#define VERB_TP_STARTED 0x0014u
#define VERB_CANCEL_CONVERSATION 0x0072u
#define VERB_RECEIVE_ALLOCATE_CPIC 0xF100u
#define VERB_REGISTER_TP_NAME 0xF101u
#define VERB_WITHDRAW_TP_NAME 0xF102u

#define NOF_OPEN 0xF004u
#define NOF_QUERY_SIDE_INFO 0x2121u
#define NOF_CLOSE 0xF005u

/* Common header of every verb on a conversation (24 bytes). */
typedef struct VCB_HEADER {
  uint16_t opcode;
  uint8_t opext;  /* 0 basic, 1 mapped */
  uint8_t format; /* 1 for ALLOCATE and RECEIVE_ALLOCATE_CPIC */
  uint16_t primary_rc;
  uint16_t reserved;
  uint32_t secondary_rc;
  uint8_t tp_id[8];
  uint32_t conv_id;
} VCB_HEADER;

typedef struct VCB_ALLOCATE {
  VCB_HEADER hdr;
  uint8_t zero24;
  uint8_t sync_level;
  uint8_t reserved26[2];
  uint8_t return_control;
  uint8_t reserved29[11];
  uint8_t partner_lu_alias[8]; /* byte 0 = 0: fq_partner_lu is used */
  uint8_t mode_name[8];
  uint8_t tp_name[64];
  uint8_t security;
  uint8_t reserved121[11];
  uint8_t password[10];
  uint8_t user_id[10];
  uint16_t pip_length;
  uint8_t reserved154[7];
  uint8_t fq_partner_lu[17];
  uint8_t reserved178[22];
} VCB_ALLOCATE;

/* TP_STARTED reuses the header words for its own fields. */
typedef struct VCB_TP_STARTED {
  uint16_t opcode;
  uint8_t opext;
  uint8_t format;
  uint16_t primary_rc;
  uint16_t reserved;
  uint32_t secondary_rc;
  uint8_t lu_alias[8]; /* in and out */
  uint8_t tp_id[8];    /* out */
  uint8_t tp_name[64];
  uint8_t reserved92[108];
} VCB_TP_STARTED;

typedef struct VCB_TP_ENDED {
  uint16_t opcode;
  uint8_t opext;
  uint8_t format;
  uint16_t primary_rc;
  uint16_t reserved;
  uint32_t secondary_rc;
  uint8_t tp_id[8];
  uint8_t type; /* 1 hard, 0 soft */
  uint8_t reserved21[179];
} VCB_TP_ENDED;

typedef struct VCB_CONFIRM {
  VCB_HEADER hdr;
  uint8_t rts_received;
  uint8_t reserved25[175];
} VCB_CONFIRM;

typedef struct VCB_DEALLOCATE {
  VCB_HEADER hdr;
  uint8_t reserved24;
  uint8_t type;
  uint16_t log_length;
  void *log_data;
} VCB_DEALLOCATE;

typedef struct VCB_GET_STATE {
  VCB_HEADER hdr;
  uint8_t state;
} VCB_GET_STATE;

typedef struct VCB_PREPARE_TO_RECEIVE {
  VCB_HEADER hdr;
  uint8_t type; /* 1 flush, 0 sync level */
  uint8_t locks;
} VCB_PREPARE_TO_RECEIVE;

typedef struct VCB_RECEIVE {
  VCB_HEADER hdr;
  uint16_t what_received;
  uint8_t return_status_with_data;
  uint8_t fill; /* 1 logical record, 0 buffer */
  uint8_t rts_received;
  uint8_t reserved29;
  uint16_t max_length;
  uint16_t data_length;
  uint16_t reserved34;
  void *buffer;
} VCB_RECEIVE;

typedef struct VCB_SEND_DATA {
  VCB_HEADER hdr;
  uint8_t rts_received;
  uint8_t reserved25;
  uint16_t data_length;
  void *data;
  uint8_t send_type;
} VCB_SEND_DATA;

typedef struct VCB_SEND_ERROR {
  VCB_HEADER hdr;
  uint8_t rts_received;
  uint8_t error_type; /* 0 program, 1 service */
  uint8_t direction;  /* 0 receive error, 1 send error */
  uint8_t reserved27;
  uint16_t log_length;
  uint16_t reserved30;
  void *log_data;
} VCB_SEND_ERROR;

typedef struct VCB_RECEIVE_ALLOCATE {
  uint16_t opcode;
  uint8_t opext;
  uint8_t format;
  uint16_t primary_rc;
  uint16_t reserved;
  uint32_t secondary_rc;
  uint8_t tp_name[64];
  uint8_t tp_id[8];
  uint32_t conv_id; /* in: correlator; out: conversation id */
  uint8_t sync_level;
  uint8_t conversation_type;
  uint8_t user_id[10];
  uint8_t local_lu_alias[8];
  uint8_t reserved108[8];
  uint8_t mode_name[8];
  uint8_t reserved124[8];
  uint8_t fq_partner_lu[17];
  uint8_t reserved149[43];
  uint16_t name_count;
  uint16_t reserved194;
  const uint8_t *name_list; /* name_count names of 64 bytes */
} VCB_RECEIVE_ALLOCATE;

/* Register (0xF101) and withdraw (0xF102) a local TP name: 76 bytes. */
typedef struct VCB_TP_NAME {
  uint16_t opcode;
  uint8_t opext;
  uint8_t format;
  uint16_t primary_rc;
  uint16_t reserved;
  uint32_t secondary_rc;
  uint8_t tp_name[64];
} VCB_TP_NAME;

/* The conversation's verb area holds any of the blocks above. */
typedef union VCB_AREA {
  uint8_t bytes[200];
  VCB_HEADER hdr;
  VCB_ALLOCATE allocate;
  VCB_TP_STARTED tp_started;
  VCB_CONFIRM confirm;
  VCB_DEALLOCATE deallocate;
  VCB_GET_STATE get_state;
  VCB_PREPARE_TO_RECEIVE prepare_to_receive;
  VCB_RECEIVE receive;
  VCB_SEND_DATA send_data;
  VCB_SEND_ERROR send_error;
  VCB_RECEIVE_ALLOCATE receive_allocate;
} VCB_AREA;

/* ---- Node-operator records (nof_version) ----------------------------- */

typedef struct NOF_OPEN_RECORD {
  uint16_t opcode; /* NOF_OPEN */
  uint16_t reserved2;
  uint16_t primary_rc;
  uint16_t reserved6;
  uint32_t secondary_rc;
  uint8_t kind; /* 2 */
  uint8_t reserved13[211];
  uint32_t target_handle; /* out */
  uint8_t reserved228[4];
} NOF_OPEN_RECORD;

typedef struct NOF_QUERY_RECORD {
  uint16_t opcode; /* NOF_QUERY_SIDE_INFO */
  uint8_t reserved2;
  uint8_t kind; /* 1 */
  uint16_t primary_rc;
  uint16_t reserved6;
  uint32_t secondary_rc;
  void *buffer;         /* NOF_SIDE_INFO_ENTRY responses */
  uint32_t buffer_size; /* 212 */
  uint32_t reserved20;
  uint16_t num_entries; /* 1 */
  uint16_t reserved26;
  uint8_t list_option; /* 4 */
  uint8_t reserved29;
  uint8_t sym_dest_name[8];
} NOF_QUERY_RECORD;

/* One side-information entry as the node returns it: ASCII, blank-padded. */
typedef struct NOF_SIDE_INFO_ENTRY {
  uint8_t reserved0[2];
  uint8_t sym_dest_name[8];
  uint8_t reserved10[50];
  uint8_t partner_lu_name[17];
  uint8_t reserved77[3];
  uint32_t tp_name_type; /* 1: service TP, name in 8 hex digits */
  uint8_t tp_name[64];
  uint8_t mode_name[8];
  uint32_t security_type;
  uint8_t user_id[10];
  uint8_t password[10];
  uint8_t local_lu_alias[8];
  uint8_t reserved188[24];
} NOF_SIDE_INFO_ENTRY;

typedef struct NOF_CLOSE_RECORD {
  uint16_t opcode; /* NOF_CLOSE */
  uint16_t reserved2;
  uint16_t primary_rc;
  uint16_t reserved6;
  uint32_t secondary_rc;
} NOF_CLOSE_RECORD;

#ifdef __cplusplus
}

/* Layout proofs. The offsets are the i386 ones; on x86_64 only the fields
 * at or after a pointer move. */
#define SNA_OFF(T, f, off) static_assert(offsetof(T, f) == (off), #T "." #f)
#if defined(__i386__)
#define SNA_PTR_OFF(T, f, i386, x64) SNA_OFF(T, f, i386)
#else
#define SNA_PTR_OFF(T, f, i386, x64) SNA_OFF(T, f, x64)
#endif

SNA_OFF(VCB_HEADER, opcode, 0);
SNA_OFF(VCB_HEADER, opext, 2);
SNA_OFF(VCB_HEADER, format, 3);
SNA_OFF(VCB_HEADER, primary_rc, 4);
SNA_OFF(VCB_HEADER, secondary_rc, 8);
SNA_OFF(VCB_HEADER, tp_id, 12);
SNA_OFF(VCB_HEADER, conv_id, 20);
static_assert(sizeof(VCB_HEADER) == 24, "VCB_HEADER size");

SNA_OFF(VCB_ALLOCATE, zero24, 24);
SNA_OFF(VCB_ALLOCATE, sync_level, 25);
SNA_OFF(VCB_ALLOCATE, return_control, 28);
SNA_OFF(VCB_ALLOCATE, partner_lu_alias, 40);
SNA_OFF(VCB_ALLOCATE, mode_name, 48);
SNA_OFF(VCB_ALLOCATE, tp_name, 56);
SNA_OFF(VCB_ALLOCATE, security, 120);
SNA_OFF(VCB_ALLOCATE, password, 132);
SNA_OFF(VCB_ALLOCATE, user_id, 142);
SNA_OFF(VCB_ALLOCATE, pip_length, 152);
SNA_OFF(VCB_ALLOCATE, fq_partner_lu, 161);
static_assert(sizeof(VCB_ALLOCATE) == 200, "VCB_ALLOCATE size");

SNA_OFF(VCB_TP_STARTED, lu_alias, 12);
SNA_OFF(VCB_TP_STARTED, tp_id, 20);
SNA_OFF(VCB_TP_STARTED, tp_name, 28);
static_assert(sizeof(VCB_TP_STARTED) == 200, "VCB_TP_STARTED size");

SNA_OFF(VCB_TP_ENDED, tp_id, 12);
SNA_OFF(VCB_TP_ENDED, type, 20);
static_assert(sizeof(VCB_TP_ENDED) == 200, "VCB_TP_ENDED size");

SNA_OFF(VCB_CONFIRM, rts_received, 24);

SNA_OFF(VCB_DEALLOCATE, type, 25);
SNA_OFF(VCB_DEALLOCATE, log_length, 26);
SNA_PTR_OFF(VCB_DEALLOCATE, log_data, 28, 32);

SNA_OFF(VCB_GET_STATE, state, 24);

SNA_OFF(VCB_PREPARE_TO_RECEIVE, type, 24);
SNA_OFF(VCB_PREPARE_TO_RECEIVE, locks, 25);

SNA_OFF(VCB_RECEIVE, what_received, 24);
SNA_OFF(VCB_RECEIVE, return_status_with_data, 26);
SNA_OFF(VCB_RECEIVE, fill, 27);
SNA_OFF(VCB_RECEIVE, rts_received, 28);
SNA_OFF(VCB_RECEIVE, max_length, 30);
SNA_OFF(VCB_RECEIVE, data_length, 32);
SNA_PTR_OFF(VCB_RECEIVE, buffer, 36, 40);

SNA_OFF(VCB_SEND_DATA, rts_received, 24);
SNA_OFF(VCB_SEND_DATA, data_length, 26);
SNA_PTR_OFF(VCB_SEND_DATA, data, 28, 32);
SNA_PTR_OFF(VCB_SEND_DATA, send_type, 32, 40);

SNA_OFF(VCB_SEND_ERROR, rts_received, 24);
SNA_OFF(VCB_SEND_ERROR, error_type, 25);
SNA_OFF(VCB_SEND_ERROR, direction, 26);
SNA_OFF(VCB_SEND_ERROR, log_length, 28);
SNA_OFF(VCB_SEND_ERROR, log_data, 32);

SNA_OFF(VCB_RECEIVE_ALLOCATE, tp_name, 12);
SNA_OFF(VCB_RECEIVE_ALLOCATE, tp_id, 76);
SNA_OFF(VCB_RECEIVE_ALLOCATE, conv_id, 84);
SNA_OFF(VCB_RECEIVE_ALLOCATE, sync_level, 88);
SNA_OFF(VCB_RECEIVE_ALLOCATE, conversation_type, 89);
SNA_OFF(VCB_RECEIVE_ALLOCATE, user_id, 90);
SNA_OFF(VCB_RECEIVE_ALLOCATE, local_lu_alias, 100);
SNA_OFF(VCB_RECEIVE_ALLOCATE, mode_name, 116);
SNA_OFF(VCB_RECEIVE_ALLOCATE, fq_partner_lu, 132);
SNA_OFF(VCB_RECEIVE_ALLOCATE, name_count, 192);
SNA_PTR_OFF(VCB_RECEIVE_ALLOCATE, name_list, 196, 200);

SNA_OFF(VCB_TP_NAME, tp_name, 12);
static_assert(sizeof(VCB_TP_NAME) == 76, "VCB_TP_NAME size");

#if defined(__i386__)
static_assert(sizeof(VCB_AREA) == 200, "verb area");
#endif

SNA_OFF(NOF_OPEN_RECORD, primary_rc, 4);
SNA_OFF(NOF_OPEN_RECORD, kind, 12);
SNA_OFF(NOF_OPEN_RECORD, target_handle, 224);
static_assert(sizeof(NOF_OPEN_RECORD) == 232, "NOF_OPEN_RECORD size");

SNA_OFF(NOF_QUERY_RECORD, kind, 3);
SNA_OFF(NOF_QUERY_RECORD, primary_rc, 4);
SNA_OFF(NOF_QUERY_RECORD, secondary_rc, 8);
SNA_PTR_OFF(NOF_QUERY_RECORD, buffer, 12, 16);
SNA_PTR_OFF(NOF_QUERY_RECORD, buffer_size, 16, 24);
SNA_PTR_OFF(NOF_QUERY_RECORD, num_entries, 24, 32);
SNA_PTR_OFF(NOF_QUERY_RECORD, list_option, 28, 36);
SNA_PTR_OFF(NOF_QUERY_RECORD, sym_dest_name, 30, 38);
#if defined(__i386__)
static_assert(sizeof(NOF_QUERY_RECORD) == 40, "NOF_QUERY_RECORD size");
#endif

SNA_OFF(NOF_SIDE_INFO_ENTRY, sym_dest_name, 2);
SNA_OFF(NOF_SIDE_INFO_ENTRY, partner_lu_name, 60);
SNA_OFF(NOF_SIDE_INFO_ENTRY, tp_name_type, 80);
SNA_OFF(NOF_SIDE_INFO_ENTRY, tp_name, 84);
SNA_OFF(NOF_SIDE_INFO_ENTRY, mode_name, 148);
SNA_OFF(NOF_SIDE_INFO_ENTRY, security_type, 156);
SNA_OFF(NOF_SIDE_INFO_ENTRY, user_id, 160);
SNA_OFF(NOF_SIDE_INFO_ENTRY, password, 170);
SNA_OFF(NOF_SIDE_INFO_ENTRY, local_lu_alias, 180);
static_assert(sizeof(NOF_SIDE_INFO_ENTRY) == 212, "NOF_SIDE_INFO_ENTRY size");

static_assert(sizeof(NOF_CLOSE_RECORD) == 12, "NOF_CLOSE_RECORD size");

#undef SNA_PTR_OFF
#undef SNA_OFF
#endif /* __cplusplus */

#endif
