/* The problem and audit logs: one text line per record, appended to
 * problems.log and audit.log in the state directory.
 *
 *   <local time> pid=<pid> tid=<tid> msg=<8 hex digits> sub=<sub-code> <data>
 *
 * The data are the variable arguments decoded by the format descriptors and
 * separated by blanks:
 *   b   one byte (passed as int)        two hex digits          41
 *   x   one 16-bit value                four hex digits         00F1
 *   l   one 32-bit value                decimal                 817
 *   lx  one 32-bit value                eight hex digits        10086021
 *   ba  length, pointer                 bytes in hex            C1C2C3  ("-" if empty)
 *   es  length, pointer                 quoted text; bytes outside printable
 *                                       ASCII, '"' and '\' as \xNN   "ab\x0Acd"
 * A null pointer with a non-zero length shows as (null). An unknown
 * descriptor shows as ?<descriptor> and ends the decoding, since the types
 * of the remaining arguments are then unknown. At most 4096 bytes of one ba
 * or es item are shown, followed by "..." when cut.
 *
 * Each line goes out with a single write() on an O_APPEND descriptor, so
 * records of concurrent threads and processes never interleave.
 *
 * v0_assert writes a problem record with message number 0x10000001
 * (SNANODE_MSG_ASSERTION), sub-code 0 and the data: es file, l line,
 * es expression. The runtime's own consistency complaints use the same
 * number with sub-codes 1 and up.
 *
 * Audit records are not written while bit 0x02 of trace-control byte 8 is
 * set. */
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "internal.h"
#include "line_buffer.h"

namespace {

constexpr uint32_t item_limit = 4096;

struct LogFile {
  const char *name;
  pthread_once_t opened;
  int fd;
};

LogFile problem_log = {"problems.log", PTHREAD_ONCE_INIT, -1};
LogFile audit_log = {"audit.log", PTHREAD_ONCE_INIT, -1};

void open_log(LogFile *log) {
  const char *directory = snanode_state_dir();
  if (!directory) return; /* already reported by the state directory */
  char path[4200];
  int n = snprintf(path, sizeof path, "%s/%s", directory, log->name);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof path) return;
  log->fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log->fd < 0) {
    char message[4300];
    n = snprintf(message, sizeof message, "snanode: cannot open %s; records are dropped\n", path);
    if (n > 0) {
      ssize_t written = write(STDERR_FILENO, message, strlen(message));
      (void)written;
    }
  }
}

void open_problem_log() { open_log(&problem_log); }
void open_audit_log() { open_log(&audit_log); }

void append_hex_bytes(snanode::LineBuffer &line, const unsigned char *bytes, uint32_t length) {
  static const char digits[] = "0123456789ABCDEF";
  uint32_t shown = length < item_limit ? length : item_limit;
  if (!line.reserve(shown * 2 + 3)) return;
  for (uint32_t i = 0; i < shown; ++i) {
    line.data[line.length++] = digits[bytes[i] >> 4];
    line.data[line.length++] = digits[bytes[i] & 0x0F];
  }
  line.data[line.length] = '\0';
  if (shown < length) line.append("...");
}

void append_escaped_text(snanode::LineBuffer &line, const unsigned char *bytes, uint32_t length) {
  uint32_t shown = length < item_limit ? length : item_limit;
  line.append_char('"');
  for (uint32_t i = 0; i < shown; ++i) {
    unsigned char c = bytes[i];
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\')
      line.append_char(static_cast<char>(c));
    else
      line.appendf("\\x%02X", c);
  }
  line.append_char('"');
  if (shown < length) line.append("...");
}

/* Decodes the arguments by the descriptors into the line. */
void decode(snanode::LineBuffer &line, const char *format, va_list args) {
  if (!format) return;
  const char *p = format;
  bool first = true;
  while (*p) {
    while (*p == ' ') ++p;
    if (!*p) break;
    const char *start = p;
    while (*p && *p != ' ') ++p;
    size_t length = static_cast<size_t>(p - start);
    if (!first) line.append_char(' ');
    first = false;

    if (length == 1 && start[0] == 'b') {
      line.appendf("%02X", static_cast<unsigned>(va_arg(args, int)) & 0xFFu);
    } else if (length == 1 && start[0] == 'x') {
      line.appendf("%04X", static_cast<unsigned>(va_arg(args, int)) & 0xFFFFu);
    } else if (length == 1 && start[0] == 'l') {
      line.appendf("%u", static_cast<unsigned>(va_arg(args, unsigned int)));
    } else if (length == 2 && start[0] == 'l' && start[1] == 'x') {
      line.appendf("%08X", static_cast<unsigned>(va_arg(args, unsigned int)));
    } else if (length == 2 && ((start[0] == 'b' && start[1] == 'a') || (start[0] == 'e' && start[1] == 's'))) {
      uint32_t count = va_arg(args, unsigned int);
      const unsigned char *bytes = static_cast<const unsigned char *>(va_arg(args, const void *));
      if (count == 0 && start[0] == 'b')
        line.append_char('-');
      else if (!bytes)
        line.append("(null)");
      else if (start[0] == 'b')
        append_hex_bytes(line, bytes, count);
      else
        append_escaped_text(line, bytes, count);
    } else {
      line.append_char('?');
      line.append(start, length);
      return;
    }
  }
}

void write_record(LogFile *log, pthread_once_t *once, void (*opener)(), uint32_t message,
                  uint32_t sub_code, const char *format, va_list args) {
  pthread_once(once, opener);
  if (log->fd < 0) return;
  char when[48];
  snanode_local_time_text(when, sizeof when);
  snanode::LineBuffer line;
  line.appendf("%s pid=%ld tid=%u msg=%08X sub=%u", when, static_cast<long>(getpid()),
               snanode_thread_id(), message, sub_code);
  if (format && *format) {
    line.append_char(' ');
    decode(line, format, args);
  }
  line.append_char('\n');
  if (line.failed) return;
  ssize_t written = write(log->fd, line.data, line.length);
  (void)written; /* a full disk must not stop the application */
}

}  // namespace

extern "C" {

SNA_EXPORT void nba_pd_print_problem(uint32_t message, uint32_t sub_code, const char *format, ...) {
  va_list args;
  va_start(args, format);
  write_record(&problem_log, &problem_log.opened, open_problem_log, message, sub_code, format, args);
  va_end(args);
}

SNA_EXPORT void nba_pd_print_audit(uint32_t message, uint32_t sub_code, const char *format, ...) {
  snanode_trace_apply_env();
  if (ptrc[8] & 0x02) return;
  va_list args;
  va_start(args, format);
  write_record(&audit_log, &audit_log.opened, open_audit_log, message, sub_code, format, args);
  va_end(args);
}

SNA_EXPORT void v0_assert(const char *file, int line, const char *expression) {
  const char *f = file ? file : "";
  const char *e = expression ? expression : "";
  nba_pd_print_problem(SNANODE_MSG_ASSERTION, 0, "es l es", static_cast<unsigned>(strlen(f)), f,
                       static_cast<unsigned>(line), static_cast<unsigned>(strlen(e)), e);
}

}  // extern "C"
