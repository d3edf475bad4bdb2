/* Wait objects: auto-reset events that remember a wakeup given before the
 * sleep. Each lives in a handle table so a stale handle is detected instead
 * of touching freed memory. All object state is guarded by one mutex; the
 * process-wide lock is never taken while that mutex is held. */
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include "internal.h"

namespace {

struct WaitObject {
  pthread_cond_t cond;
  bool signalled;
  bool released; /* released while threads still sleep on it */
  uint32_t sleepers;
};

pthread_mutex_t objects_mutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t objects_table = 0;

WaitObject *find_locked(uint32_t handle) {
  if (objects_table == 0 || handle == 0) return nullptr;
  return static_cast<WaitObject *>(vtm_get_pointer(objects_table, handle));
}

void destroy(WaitObject *object) {
  pthread_cond_destroy(&object->cond);
  free(object);
}

void deadline_after(int32_t timeout_ms, timespec *deadline) {
  clock_gettime(CLOCK_MONOTONIC, deadline);
  deadline->tv_sec += timeout_ms / 1000;
  deadline->tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline->tv_nsec >= 1000000000L) {
    deadline->tv_sec += 1;
    deadline->tv_nsec -= 1000000000L;
  }
}

}  // namespace

extern "C" {

SNA_EXPORT uint32_t vpm_allocate_wait_object(void) {
  WaitObject *object = static_cast<WaitObject *>(malloc(sizeof(WaitObject)));
  if (!object) return 0;
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  int rc = pthread_cond_init(&object->cond, &attributes);
  pthread_condattr_destroy(&attributes);
  if (rc != 0) {
    free(object);
    return 0;
  }
  object->signalled = false;
  object->released = false;
  object->sleepers = 0;

  pthread_mutex_lock(&objects_mutex);
  if (objects_table == 0) vtm_table_init(&objects_table, 0);
  uint32_t handle = objects_table ? vtm_get_free_entry(objects_table, object) : 0;
  pthread_mutex_unlock(&objects_mutex);
  if (handle == 0) destroy(object);
  return handle;
}

SNA_EXPORT void vpm_release_wait_object(uint32_t handle) {
  pthread_mutex_lock(&objects_mutex);
  WaitObject *object = find_locked(handle);
  if (object) {
    vtm_release_entry(objects_table, handle);
    if (object->sleepers > 0) {
      /* The last sleeper to leave frees it. */
      object->released = true;
      pthread_cond_broadcast(&object->cond);
    } else {
      destroy(object);
    }
  }
  pthread_mutex_unlock(&objects_mutex);
}

SNA_EXPORT void vpm_wakeup(uint32_t handle) {
  pthread_mutex_lock(&objects_mutex);
  WaitObject *object = find_locked(handle);
  if (object) {
    object->signalled = true;
    pthread_cond_broadcast(&object->cond);
  }
  pthread_mutex_unlock(&objects_mutex);
}

SNA_EXPORT int vpm_sleep(uint32_t handle, int32_t timeout_ms) {
  pthread_mutex_lock(&objects_mutex);
  WaitObject *object = find_locked(handle);
  if (!object) {
    pthread_mutex_unlock(&objects_mutex);
    return -1;
  }
  if (object->signalled) {
    object->signalled = false;
    pthread_mutex_unlock(&objects_mutex);
    return 0;
  }
  if (timeout_ms == 0) {
    pthread_mutex_unlock(&objects_mutex);
    return 1;
  }

  ++object->sleepers;
  /* Monitor semantics: other threads may use the node while this one waits.
   * Releasing while objects_mutex is held is safe: the process lock's own
   * mutex is never held while objects_mutex is taken. */
  uint32_t depth = snanode_lock_release_all();

  timespec deadline;
  if (timeout_ms > 0) deadline_after(timeout_ms, &deadline);
  int result = 1;
  for (;;) {
    if (object->signalled) {
      object->signalled = false;
      result = 0;
      break;
    }
    if (object->released) break;
    int rc = timeout_ms > 0 ? pthread_cond_timedwait(&object->cond, &objects_mutex, &deadline)
                            : pthread_cond_wait(&object->cond, &objects_mutex);
    if (rc == ETIMEDOUT) {
      if (object->signalled) {
        object->signalled = false;
        result = 0;
      }
      break;
    }
  }
  --object->sleepers;
  if (object->released && object->sleepers == 0) destroy(object);
  pthread_mutex_unlock(&objects_mutex);

  snanode_lock_reacquire(depth);
  return result;
}

}  // extern "C"
