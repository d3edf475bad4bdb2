/* A growable text buffer on malloc, for building one whole line before it is
 * written with a single write(). No exceptions: a failed allocation marks
 * the buffer and the line is dropped by the writer. */
#ifndef SNANODE_LINE_BUFFER_H
#define SNANODE_LINE_BUFFER_H

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace snanode {

struct LineBuffer {
  char *data = nullptr;
  size_t length = 0;
  size_t capacity = 0;
  bool failed = false;

  LineBuffer() = default;
  LineBuffer(const LineBuffer &) = delete;
  LineBuffer &operator=(const LineBuffer &) = delete;
  ~LineBuffer() { free(data); }

  bool reserve(size_t extra) {
    if (failed) return false;
    if (length + extra + 1 <= capacity) return true;
    size_t wanted = capacity ? capacity : 128;
    while (wanted < length + extra + 1) wanted *= 2;
    char *grown = static_cast<char *>(realloc(data, wanted));
    if (!grown) {
      failed = true;
      return false;
    }
    data = grown;
    capacity = wanted;
    return true;
  }

  void append(const char *text, size_t n) {
    if (!reserve(n)) return;
    memcpy(data + length, text, n);
    length += n;
    data[length] = '\0';
  }

  void append(const char *text) { append(text, strlen(text)); }

  void append_char(char c) { append(&c, 1); }

  __attribute__((format(printf, 2, 3))) void appendf(const char *format, ...) {
    char small[128];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) {
      failed = true;
      return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
      append(small, static_cast<size_t>(n));
      return;
    }
    if (!reserve(static_cast<size_t>(n))) return;
    va_start(args, format);
    vsnprintf(data + length, static_cast<size_t>(n) + 1, format, args);
    va_end(args);
    length += static_cast<size_t>(n);
  }
};

}  // namespace snanode

#endif
