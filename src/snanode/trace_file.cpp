/* The API trace file and its output service.
 *
 * trc_api.file_handle holds the descriptor of the trace file, or TRC_NO_FILE.
 * The file, once open, stays open for the life of the process so that a
 * handle read by a writer never goes stale.
 *
 * trc_lock_file / trc_unlock_file bracket one whole record. The lock is
 * recursive per thread. While there is no trace file the lock takes nothing:
 * a caller that finds no file may return without unlocking, and nothing
 * must then stay held against the other threads.
 *
 * Output layout, every line prefixed by the caller's tag:
 *   separator  <tag>---- <local time> pid=<pid> tid=<tid> ----
 *   line       <tag><text>
 *   dump       <tag>OOOOOOOO  XX XX XX XX XX XX XX XX  XX XX XX XX XX XX XX XX  |ascii...........| |ebcdic..........|
 * A dump line shows 16 bytes: the offset (8 hex digits), the bytes in hex
 * with an extra blank after the eighth, then the bytes read as ASCII and as
 * EBCDIC (code page 037), unprintable ones as '.'. On a short last line the
 * hex column is padded with blanks and the text columns hold only the bytes
 * there are. Each line is built whole and written with one write(). */
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "internal.h"
#include "line_buffer.h"

namespace {

pthread_mutex_t file_mutex = PTHREAD_MUTEX_INITIALIZER;  /* guards opening */
pthread_mutex_t record_mutex = PTHREAD_MUTEX_INITIALIZER; /* one record at a time */
__thread uint32_t record_depth = 0;
char chosen_path[PATH_MAX]; /* set by snanode_trace_use_file; guarded by file_mutex */

void report_unopenable(const char *path) {
  char message[PATH_MAX + 64];
  int n = snprintf(message, sizeof message, "snanode: cannot open trace file %s\n", path);
  if (n > 0) {
    ssize_t written = write(STDERR_FILENO, message, strlen(message));
    (void)written;
  }
}

uint32_t current_handle() { return __atomic_load_n(&trc_api.file_handle, __ATOMIC_ACQUIRE); }

/* Only the runtime's own trace file is written to: a stray handle must not
 * send trace text into one of the application's descriptors. */
bool usable(uint32_t file) { return file != TRC_NO_FILE && file == current_handle(); }

void write_line(uint32_t file, snanode::LineBuffer &line) {
  line.append_char('\n');
  if (line.failed) return;
  ssize_t written = write(static_cast<int>(file), line.data, line.length);
  (void)written;
}

}  // namespace

extern "C" {

SNA_EXPORT TRC_API trc_api = {0, {0, 0, 0}, TRC_NO_FILE};

uint32_t snanode_trace_open_file(void) {
  pthread_mutex_lock(&file_mutex);
  uint32_t handle = current_handle();
  if (handle == TRC_NO_FILE) {
    char path[PATH_MAX];
    const char *named = getenv("SNANODE_TRACE_FILE");
    const char *directory = nullptr;
    bool ok = false;
    if (chosen_path[0]) {
      ok = snprintf(path, sizeof path, "%s", chosen_path) < static_cast<int>(sizeof path);
    } else if (named && *named) {
      ok = snprintf(path, sizeof path, "%s", named) < static_cast<int>(sizeof path);
    } else if ((directory = snanode_state_dir()) != nullptr) {
      ok = snprintf(path, sizeof path, "%s/api.trace", directory) < static_cast<int>(sizeof path);
    }
    int fd = ok ? open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (fd >= 0) {
      handle = static_cast<uint32_t>(fd);
      __atomic_store_n(&trc_api.file_handle, handle, __ATOMIC_RELEASE);
    } else if (ok) {
      report_unopenable(path);
    }
  }
  pthread_mutex_unlock(&file_mutex);
  return handle;
}

int snanode_trace_use_file(const char *path) {
  if (!path || !*path || strlen(path) >= sizeof chosen_path) return -1;
  int rc = 0;
  pthread_mutex_lock(&file_mutex);
  uint32_t handle = current_handle();
  if (handle == TRC_NO_FILE) {
    /* Opened when tracing is switched on. */
    snprintf(chosen_path, sizeof chosen_path, "%s", path);
  } else {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
      report_unopenable(path);
      rc = -1;
    } else {
      /* The new file takes the old one's descriptor number, so the handle
       * writers hold stays valid and now reaches the new file. Each line is
       * one write(), so no line is split between the files. */
      if (dup3(fd, static_cast<int>(handle), O_CLOEXEC) < 0) rc = -1;
      close(fd);
      if (rc == 0) snprintf(chosen_path, sizeof chosen_path, "%s", path);
    }
  }
  pthread_mutex_unlock(&file_mutex);
  return rc;
}

SNA_EXPORT void sepuapi_init(unsigned char *trace_control) {
  snanode_trace_apply_env();
  unsigned char *control = trace_control ? trace_control : ptrc;
  if (control[0] & 0x20) snanode_trace_open_file();
  trc_api.initialised = 1;
}

SNA_EXPORT void trc_lock_file(TRC_API *api) {
  if (record_depth > 0) {
    ++record_depth;
    return;
  }
  TRC_API *target = api ? api : &trc_api;
  if (__atomic_load_n(&target->file_handle, __ATOMIC_ACQUIRE) == TRC_NO_FILE) return;
  pthread_mutex_lock(&record_mutex);
  record_depth = 1;
}

SNA_EXPORT void trc_unlock_file(TRC_API *api) {
  (void)api;
  if (record_depth == 0) return;
  if (--record_depth == 0) pthread_mutex_unlock(&record_mutex);
}

SNA_EXPORT void com_trc_sep(uint32_t file, const char *tag) {
  if (!usable(file)) return;
  char when[48];
  snanode_local_time_text(when, sizeof when);
  snanode::LineBuffer line;
  line.appendf("%s---- %s pid=%ld tid=%u ----", tag ? tag : "", when, static_cast<long>(getpid()),
               snanode_thread_id());
  write_line(file, line);
}

SNA_EXPORT void com_trc_line(uint32_t file, const char *tag, const char *text) {
  if (!usable(file)) return;
  snanode::LineBuffer line;
  line.append(tag ? tag : "");
  line.append(text ? text : "");
  write_line(file, line);
}

SNA_EXPORT void com_trc_dump(uint32_t file, const char *tag, const void *address, uint32_t length) {
  if (!usable(file) || length == 0) return;
  const char *prefix = tag ? tag : "";
  if (!address) {
    snanode::LineBuffer line;
    line.append(prefix);
    line.append("(null address)");
    write_line(file, line);
    return;
  }
  static const char digits[] = "0123456789ABCDEF";
  const unsigned char *bytes = static_cast<const unsigned char *>(address);
  for (uint32_t offset = 0; offset < length; offset += 16) {
    uint32_t count = length - offset < 16 ? length - offset : 16;
    snanode::LineBuffer line;
    line.appendf("%s%08X  ", prefix, offset);
    for (uint32_t i = 0; i < 16; ++i) {
      if (i < count) {
        char hex[3] = {digits[bytes[offset + i] >> 4], digits[bytes[offset + i] & 0x0F], ' '};
        line.append(hex, 3);
      } else {
        line.append("   ");
      }
      if (i == 7) line.append_char(' ');
    }
    line.append(" |");
    for (uint32_t i = 0; i < count; ++i) {
      unsigned char c = bytes[offset + i];
      line.append_char(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.');
    }
    line.append("| |");
    for (uint32_t i = 0; i < count; ++i) line.append_char(snanode_ebcdic_display(bytes[offset + i]));
    line.append_char('|');
    write_line(file, line);
  }
}

}  // extern "C"
