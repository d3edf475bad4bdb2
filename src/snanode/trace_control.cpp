/* The trace-control bytes behind ptrc.
 *
 * ptrc must be usable from the moment the library is loaded, so it points at
 * a statically initialised array and nothing runs at load time. The
 * environment is applied once, lazily, from the first vpm_lock or
 * sepuapi_init: SNANODE_TRACE set to anything but "", "0", "off" or "no"
 * turns API tracing on (byte 0, bit 0x20). */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

namespace {

constexpr unsigned char api_trace_bit = 0x20;

unsigned char trace_control[16] = {0};
pthread_once_t environment_applied = PTHREAD_ONCE_INIT;

bool switched_on(const char *value) {
  return value && *value && strcmp(value, "0") != 0 && strcmp(value, "off") != 0 &&
         strcmp(value, "no") != 0;
}

void apply_environment() {
  if (switched_on(getenv("SNANODE_TRACE")))
    __atomic_or_fetch(&trace_control[0], api_trace_bit, __ATOMIC_RELEASE);
}

}  // namespace

extern "C" {

SNA_EXPORT unsigned char *ptrc = trace_control;

void snanode_trace_apply_env(void) { pthread_once(&environment_applied, apply_environment); }

void snanode_trace_set_api(int on) {
  snanode_trace_apply_env();
  if (on) {
    /* The file first: a caller that sees the bit must find a file to use. */
    snanode_trace_open_file();
    __atomic_or_fetch(&trace_control[0], api_trace_bit, __ATOMIC_RELEASE);
  } else {
    /* The file stays open: a record already under way keeps a valid handle. */
    __atomic_and_fetch(&trace_control[0], static_cast<unsigned char>(~api_trace_bit),
                       __ATOMIC_RELEASE);
  }
}

}  // extern "C"
