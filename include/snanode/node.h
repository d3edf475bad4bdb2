/* snanode/node.h - the node interface.
 *
 * What the node client runtime (libsnanode.so) gives to the CPI-C library
 * inside an application process: process services, handle tables, memory,
 * problem and audit logs, assertions, trace output and the verb entries.
 * Any library that exports these names can stand in for the node.
 *
 * Handles are 32-bit; 0 is never a valid handle. Primary and secondary
 * return codes in verb control blocks and node-operator records are written
 * big-endian; every other integer in them is in host order. */
#ifndef SNANODE_NODE_H
#define SNANODE_NODE_H

#include <stdint.h>

#include "snanode/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Process services ------------------------------------------------ */

/* Recursive process-wide lock. The token returned is handed back to
 * vpm_unlock. */
SNA_EXPORT uint16_t vpm_lock(void);
SNA_EXPORT void vpm_unlock(uint16_t token);

/* Wait objects. A wakeup that arrives before the sleep is not lost.
 * vpm_sleep releases the process-wide lock while it waits and retakes it
 * before returning. timeout_ms -1 waits without limit. Returns 0 when woken,
 * non-zero on time-out. */
SNA_EXPORT uint32_t vpm_allocate_wait_object(void);
SNA_EXPORT void vpm_release_wait_object(uint32_t wait_object);
SNA_EXPORT int vpm_sleep(uint32_t wait_object, int32_t timeout_ms);
SNA_EXPORT void vpm_wakeup(uint32_t wait_object);

typedef struct VPM_PATH_EVENT {
  uint16_t code;   /* 0x8001: the connection to the node was lost */
  uint16_t result; /* set by the callback */
} VPM_PATH_EVENT;

typedef int (*VPM_PATH_CALLBACK)(void *path, VPM_PATH_EVENT *event);

#define VPM_EVENT_NODE_LOST 0x8001u

SNA_EXPORT void vpm_init_path_user(void *a, void *b, VPM_PATH_CALLBACK callback,
                                   void *path, uint32_t *path_user_out);
SNA_EXPORT void vpm_terminate_path_user(uint32_t path_user);

/* Readable when an asynchronous verb has completed, for programs that poll. */
SNA_EXPORT int vpm_asm_event_fd(void);

/* ---- Handle tables --------------------------------------------------- */

SNA_EXPORT void vtm_table_init(uint32_t *table_out, uint32_t flags);
SNA_EXPORT void vtm_table_terminate(uint32_t table);
SNA_EXPORT uint32_t vtm_get_free_entry(uint32_t table, void *pointer);
SNA_EXPORT void *vtm_get_pointer(uint32_t table, uint32_t handle);
SNA_EXPORT void vtm_release_entry(uint32_t table, uint32_t handle);
SNA_EXPORT uint32_t vtm_get_next_used(uint32_t table, uint32_t after,
                                      void **pointer_out);

/* ---- Memory, logs, assertions ---------------------------------------- */

SNA_EXPORT extern const char nba_blank_name[];
SNA_EXPORT void *nba_mm_alloc(uint32_t size, uint32_t type, const char *owner,
                              uint32_t a, uint32_t b);
SNA_EXPORT void nba_mm_free(void *block);

/* format: blank-separated descriptors, each taking its data from the
 * variable arguments: b (byte), x (16-bit hex), l (32-bit decimal),
 * lx (32-bit hex), ba (length, pointer: bytes in hex), es (length, pointer:
 * text with unprintable bytes escaped). */
SNA_EXPORT void nba_pd_print_problem(uint32_t message, uint32_t sub_code,
                                     const char *format, ...);
SNA_EXPORT void nba_pd_print_audit(uint32_t message, uint32_t sub_code,
                                   const char *format, ...);
SNA_EXPORT void v0_assert(const char *file, int line, const char *expression);

/* ---- Trace ----------------------------------------------------------- */

/* Trace-control bytes (at least 16). Byte 0 bit 0x20: API trace on.
 * Byte 8 bit 0x02: audit records suppressed. */
SNA_EXPORT extern unsigned char *ptrc;

#define TRC_NO_FILE 0xFFFFFFFFu

typedef struct TRC_API {
  uint8_t initialised;
  uint8_t reserved[3];
  uint32_t file_handle; /* TRC_NO_FILE: no trace file */
} TRC_API;

SNA_EXPORT extern TRC_API trc_api;
SNA_EXPORT void sepuapi_init(unsigned char *trace_control);
SNA_EXPORT void trc_lock_file(TRC_API *api);
SNA_EXPORT void trc_unlock_file(TRC_API *api);
SNA_EXPORT void com_trc_sep(uint32_t file, const char *tag);
SNA_EXPORT void com_trc_line(uint32_t file, const char *tag, const char *text);
SNA_EXPORT void com_trc_dump(uint32_t file, const char *tag,
                             const void *address, uint32_t length);

/* ---- Verbs ----------------------------------------------------------- */

#define APPC_VERB_IN_PROGRESS 6128u /* 0x17F0: callback comes later */
#define APPC_VERB_DONE 6384u        /* 0x18F0: results stand in the block */

typedef void (*APPC_CALLBACK)(void *vcb, uint32_t a, uint32_t b,
                              uint32_t correlator);

SNA_EXPORT uint16_t appc_c_async_version(uint16_t version, void *vcb,
                                         APPC_CALLBACK callback,
                                         uint32_t correlator);
SNA_EXPORT void appc_c_version(uint16_t version, void *vcb);
SNA_EXPORT void nof_version(uint16_t version, uint32_t target_handle,
                            void *record);

#ifdef __cplusplus
}
#endif

#endif
