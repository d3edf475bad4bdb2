/* Internal interfaces of the node client runtime.
 *
 * Nothing here is exported: the build hides every symbol that is not marked
 * SNA_EXPORT, so these are visible only inside libsnanode.so (and to the
 * white-box tests, which link the same objects statically). */
#ifndef SNANODE_INTERNAL_H
#define SNANODE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "snanode/node.h"

extern "C" {

/* ---- process lock (process_lock.cpp) ---- */

/* Releases the process-wide lock completely if the calling thread holds it
 * and returns the depth it was held to (0 if it was not held). */
uint32_t snanode_lock_release_all(void);
/* Takes the lock back to the depth returned by snanode_lock_release_all. */
void snanode_lock_reacquire(uint32_t depth);
/* Depth to which the calling thread holds the lock (0: not held). */
uint32_t snanode_lock_depth(void);
/* Reserves the next turn at the lock for another thread, which must then
 * take it with snanode_lock_reacquire_turn: threads woken by verb replies
 * retake the lock in the order their replies arrived, not in the order the
 * scheduler happens to run them. */
uint64_t snanode_lock_reserve_turn(void);
void snanode_lock_reacquire_turn(uint64_t turn, uint32_t depth);
/* Fork handlers: the child keeps the lock only if the forking thread held
 * it, and forgets the turns of threads that do not exist there. */
void snanode_lock_fork_prepare(void);
void snanode_lock_fork_parent(void);
void snanode_lock_fork_child(void);

/* ---- path users (path_users.cpp) ---- */

/* Raises an event to every registered path user, under the process-wide
 * lock. Callbacks may terminate their own (or any) path user meanwhile. */
void snanode_raise_path_event(uint16_t code);

/* ---- asynchronous-completion event (asm_event.cpp) ---- */

/* Makes vpm_asm_event_fd readable. */
void snanode_asm_event_signal(void);
/* Drains it again. */
void snanode_asm_event_clear(void);

/* ---- handle tables (handle_tables.cpp) ---- */

/* Narrows the handle space of a table to 1..max_handle (default: the full
 * 32-bit range). Returns 0 on success. */
int snanode_vtm_set_limit(uint32_t table, uint32_t max_handle);

/* ---- state directory (state_dir.cpp) ---- */

/* The directory for logs and the default trace file, created with mode 0700
 * on first call. NULL when it cannot be created (reported on stderr once). */
const char *snanode_state_dir(void);

/* ---- time and thread identification (clock_text.cpp) ---- */

/* ISO-8601 local time with milliseconds and UTC offset, e.g.
 * "2024-05-01T12:34:56.789+02:00". buf must hold 40 bytes. */
void snanode_local_time_text(char *buf, size_t size);
uint32_t snanode_thread_id(void);

/* ---- trace control (trace_control.cpp) ---- */

/* Applies SNANODE_TRACE once per process; cheap after the first call. */
void snanode_trace_apply_env(void);
/* Switches API tracing on or off while the process runs. Switching on opens
 * the trace file if none is open. */
void snanode_trace_set_api(int on);

/* ---- trace file (trace_file.cpp) ---- */

/* Opens the trace file (the one named by snanode_trace_use_file, else
 * SNANODE_TRACE_FILE, else api.trace in the state directory) if it is not
 * open yet and publishes it in trc_api. Returns the file handle or
 * TRC_NO_FILE. */
uint32_t snanode_trace_open_file(void);
/* Names the trace file from now on. An open trace file is switched to it
 * under the same handle, so writers never hold a stale one. Returns 0, or
 * -1 when the file cannot be opened (the current one is kept). */
int snanode_trace_use_file(const char *path);

/* ---- EBCDIC display (ebcdic_display.cpp) ---- */

/* The printable ASCII character for a code page 037 byte, or '.' */
char snanode_ebcdic_display(unsigned char byte);

/* ---- logs (log_writer.cpp) ---- */

/* Message number of the problem records written by v0_assert. */
#define SNANODE_MSG_ASSERTION 0x10000001u

}

#endif
