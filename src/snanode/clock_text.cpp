/* Time stamps and thread ids for log and trace lines. */
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "internal.h"

extern "C" {

void snanode_local_time_text(char *buf, size_t size) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  time_t seconds = now.tv_sec;
  struct tm local;
  localtime_r(&seconds, &local);
  long offset = local.tm_gmtoff;
  char sign = offset < 0 ? '-' : '+';
  if (offset < 0) offset = -offset;
  snprintf(buf, size, "%04d-%02d-%02dT%02d:%02d:%02d.%03ld%c%02ld:%02ld", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long>(now.tv_nsec / 1000000L), sign, offset / 3600, (offset % 3600) / 60);
}

uint32_t snanode_thread_id(void) { return static_cast<uint32_t>(syscall(SYS_gettid)); }

}  // extern "C"
