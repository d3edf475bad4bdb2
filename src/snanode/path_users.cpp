/* The path-user registry: who wants to hear that the node went away.
 *
 * Registrations live in a handle table. Raising an event walks it in handle
 * order under the process-wide lock, without holding the registry's own
 * mutex during a callback, so a callback may terminate path users
 * (including its own) or register new ones. */
#include <pthread.h>
#include <stdlib.h>

#include "internal.h"

namespace {

struct PathUser {
  VPM_PATH_CALLBACK callback;
  void *path;
};

pthread_mutex_t registry_mutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t registry_table = 0;

}  // namespace

extern "C" {

SNA_EXPORT void vpm_init_path_user(void *a, void *b, VPM_PATH_CALLBACK callback, void *path,
                                   uint32_t *path_user_out) {
  (void)a;
  (void)b;
  if (!path_user_out) return;
  *path_user_out = 0;
  PathUser *user = static_cast<PathUser *>(malloc(sizeof(PathUser)));
  if (!user) return;
  user->callback = callback;
  user->path = path;
  pthread_mutex_lock(&registry_mutex);
  if (registry_table == 0) vtm_table_init(&registry_table, 0);
  uint32_t handle = registry_table ? vtm_get_free_entry(registry_table, user) : 0;
  pthread_mutex_unlock(&registry_mutex);
  if (handle == 0) free(user);
  *path_user_out = handle;
}

SNA_EXPORT void vpm_terminate_path_user(uint32_t path_user) {
  pthread_mutex_lock(&registry_mutex);
  PathUser *user = registry_table ? static_cast<PathUser *>(vtm_get_pointer(registry_table, path_user))
                                  : nullptr;
  if (user) vtm_release_entry(registry_table, path_user);
  pthread_mutex_unlock(&registry_mutex);
  free(user);
}

void snanode_raise_path_event(uint16_t code) {
  uint16_t token = vpm_lock();
  uint32_t handle = 0;
  for (;;) {
    pthread_mutex_lock(&registry_mutex);
    void *pointer = nullptr;
    handle = registry_table ? vtm_get_next_used(registry_table, handle, &pointer) : 0;
    PathUser user = {nullptr, nullptr};
    if (handle != 0) user = *static_cast<PathUser *>(pointer);
    pthread_mutex_unlock(&registry_mutex);
    if (handle == 0) break;
    if (user.callback) {
      VPM_PATH_EVENT event = {code, 0};
      user.callback(user.path, &event);
    }
  }
  vpm_unlock(token);
}

}  // extern "C"
