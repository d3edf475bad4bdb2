/* The process-wide lock: recursive, and fair.
 *
 * Waiters are served in arrival order (a ticket lock on a condition
 * variable), so threads that give the lock up in vpm_sleep take it back in
 * the order they ask for it. Waits release the lock completely and restore
 * the caller's depth afterwards (see snanode_lock_release_all). */
#include <pthread.h>

#include "internal.h"

namespace {

pthread_mutex_t state_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t state_changed = PTHREAD_COND_INITIALIZER;
pthread_t owner;
bool owned = false;
uint32_t depth = 0;
uint64_t next_ticket = 0;
uint64_t now_serving = 0;

bool held_by_caller() { return owned && pthread_equal(owner, pthread_self()); }

/* Waits for the given turn and takes the lock to the given depth.
 * state_mutex held. */
void acquire_turn_locked(uint64_t ticket, uint32_t to_depth) {
  while (owned || now_serving != ticket) pthread_cond_wait(&state_changed, &state_mutex);
  ++now_serving;
  owned = true;
  owner = pthread_self();
  depth = to_depth;
}

/* Waits for a turn and takes the lock to the given depth. state_mutex held. */
void acquire_locked(uint32_t to_depth) { acquire_turn_locked(next_ticket++, to_depth); }

void release_locked() {
  owned = false;
  depth = 0;
  pthread_cond_broadcast(&state_changed);
}

}  // namespace

extern "C" {

SNA_EXPORT uint16_t vpm_lock(void) {
  snanode_trace_apply_env();
  pthread_mutex_lock(&state_mutex);
  if (held_by_caller()) {
    ++depth;
  } else {
    acquire_locked(1);
  }
  /* The token is the depth reached; deeper than 16 bits still works, the
   * token is only checked for the common case. */
  uint16_t token = depth <= 0xFFFFu ? static_cast<uint16_t>(depth) : 0xFFFFu;
  pthread_mutex_unlock(&state_mutex);
  return token;
}

SNA_EXPORT void vpm_unlock(uint16_t token) {
  pthread_mutex_lock(&state_mutex);
  if (!held_by_caller()) {
    pthread_mutex_unlock(&state_mutex);
    nba_pd_print_problem(SNANODE_MSG_ASSERTION, 1, "l", static_cast<uint32_t>(token));
    return;
  }
  bool mismatch = depth <= 0xFFFFu && token != depth;
  uint32_t held = depth;
  if (--depth == 0) release_locked();
  pthread_mutex_unlock(&state_mutex);
  if (mismatch)
    nba_pd_print_problem(SNANODE_MSG_ASSERTION, 2, "l l", static_cast<uint32_t>(token), held);
}

uint32_t snanode_lock_release_all(void) {
  pthread_mutex_lock(&state_mutex);
  uint32_t held = 0;
  if (held_by_caller()) {
    held = depth;
    release_locked();
  }
  pthread_mutex_unlock(&state_mutex);
  return held;
}

void snanode_lock_reacquire(uint32_t to_depth) {
  if (to_depth == 0) return;
  pthread_mutex_lock(&state_mutex);
  if (held_by_caller())
    depth += to_depth;
  else
    acquire_locked(to_depth);
  pthread_mutex_unlock(&state_mutex);
}

uint64_t snanode_lock_reserve_turn(void) {
  pthread_mutex_lock(&state_mutex);
  uint64_t ticket = next_ticket++;
  pthread_mutex_unlock(&state_mutex);
  return ticket;
}

void snanode_lock_reacquire_turn(uint64_t turn, uint32_t to_depth) {
  pthread_mutex_lock(&state_mutex);
  acquire_turn_locked(turn, to_depth);
  pthread_mutex_unlock(&state_mutex);
}

void snanode_lock_fork_prepare(void) { pthread_mutex_lock(&state_mutex); }

void snanode_lock_fork_parent(void) { pthread_mutex_unlock(&state_mutex); }

void snanode_lock_fork_child(void) {
  /* Only the forking thread exists here: every turn handed out to another
   * thread would stop the queue for good. */
  if (owned && !pthread_equal(owner, pthread_self())) {
    owned = false;
    depth = 0;
  }
  now_serving = next_ticket;
  pthread_cond_init(&state_changed, nullptr);
  pthread_mutex_unlock(&state_mutex);
}

uint32_t snanode_lock_depth(void) {
  pthread_mutex_lock(&state_mutex);
  uint32_t result = held_by_caller() ? depth : 0;
  pthread_mutex_unlock(&state_mutex);
  return result;
}

}  // extern "C"
