/* The asynchronous-completion event: an eventfd that polling programs watch.
 * Created on first use; it stays open for the life of the process. */
#include <pthread.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "internal.h"

namespace {

pthread_once_t created = PTHREAD_ONCE_INIT;
int event_fd = -1;

void create() { event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

}  // namespace

extern "C" {

SNA_EXPORT int vpm_asm_event_fd(void) {
  pthread_once(&created, create);
  return event_fd;
}

void snanode_asm_event_signal(void) {
  int fd = vpm_asm_event_fd();
  if (fd < 0) return;
  uint64_t one = 1;
  ssize_t written = write(fd, &one, sizeof one);
  (void)written; /* EAGAIN: the counter is saturated, so it is readable anyway */
}

void snanode_asm_event_clear(void) {
  int fd = vpm_asm_event_fd();
  if (fd < 0) return;
  uint64_t value;
  ssize_t got = read(fd, &value, sizeof value);
  (void)got; /* EAGAIN: nothing pending */
}

}  // extern "C"
