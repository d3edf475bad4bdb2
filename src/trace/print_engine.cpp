// The library's own formatted print engine (t_print_args, t_sprintf) and
// the three thin wrappers over the C library's formatted output.
//
// The engine is self-contained: it knows a restricted set of conversions,
// can stop short of a buffer limit, and reports misuse through v0_assert
// while carrying on formatting. Its results are its own and are kept as
// they are ("%05d" of -12 gives "00-12", "%-05d" of 7 gives "70000").
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "cpic_print.h"
#include "snanode/node.h"

namespace {

// Name under which misuse is reported to the assertion service.
constexpr const char kAssertFile[] = "svmcspnt";

// Room kept free at the end of a limited buffer: once fewer than this many
// characters remain the output is cut with a new line.
constexpr int64_t kLimitReserve = 20;

// Where the argument words come from: an array of words (t_print_args) or
// the caller's variable arguments (t_sprintf). Reading through va_arg with
// the type each conversion wants means t_sprintf touches exactly the
// arguments that the format consumes.
struct WordSource {
  // With neither an array nor a va_list every word reads as zero.
  const t_print_word *words;
  va_list *ap;

  uint32_t next_u32() {
    if (words != nullptr) return static_cast<uint32_t>(*words++);
    if (ap != nullptr) return va_arg(*ap, unsigned int);
    return 0;
  }
  uintptr_t next_pointer() {
    if (words != nullptr) return static_cast<uintptr_t>(*words++);
    if (ap != nullptr) return reinterpret_cast<uintptr_t>(va_arg(*ap, void *));
    return 0;
  }
};

struct Output {
  char *p;
  int count;
  bool limited;
  int64_t cut_after;  // limit - 20; signed so that a small limit still cuts
  bool cut;

  // Writes one character; false once the limit has cut the output (the new
  // line and NUL are then already in place).
  bool put(char c) {
    *p++ = c;
    ++count;
    if (limited && count > cut_after) {
      *p++ = '\n';
      ++count;
      *p = '\0';
      cut = true;
      return false;
    }
    return true;
  }
  bool pad(char c, int n) {
    for (int i = 0; i < n; ++i)
      if (!put(c)) return false;
    return true;
  }
};

struct Spec {
  bool extra;      // "#"
  bool left;       // "-"
  bool precgiven;  // "."
  bool zerofill;   // "0" at the start of the width
  int width;
  int precision;
  bool lng;      // "l"
  bool uselong;  // "L"
};

// Writes one number: sign, zeros up to the precision, digits; padded to
// the width before the whole text (sign included) or after it.
bool put_number(Output &out, const Spec &s, uintptr_t magnitude,
                bool negative, unsigned base) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  char scratch[16];
  int ndigits = 0;
  do {
    scratch[ndigits++] = kDigits[magnitude % base];
    magnitude /= base;
  } while (magnitude != 0 && ndigits < 16);

  int zeros = (s.precgiven && s.precision > ndigits) ? s.precision - ndigits : 0;
  // Wide enough for a sign and the largest precision together.
  int64_t textlen = (negative ? 1 : 0) + int64_t{zeros} + ndigits;
  int padding = s.width > textlen ? static_cast<int>(s.width - textlen) : 0;
  char padchar = s.zerofill ? '0' : ' ';

  if (!s.left && !out.pad(padchar, padding)) return false;
  if (negative && !out.put('-')) return false;
  if (!out.pad('0', zeros)) return false;
  while (ndigits > 0)
    if (!out.put(scratch[--ndigits])) return false;
  if (s.left && !out.pad(padchar, padding)) return false;
  return true;
}

// One more digit of a width or precision (which "*" may have made
// negative); beyond what an int holds it stays at the int's bound, and the
// limit or the buffer ends the output long before.
int add_digit(int value, int digit) {
  const int64_t v = int64_t{value} * 10 + digit;
  return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int>(v);
}

bool put_signed(Output &out, const Spec &s, WordSource &src) {
  int32_t v = static_cast<int32_t>(src.next_u32());
  bool negative = v < 0;
  uint32_t magnitude = negative ? 0u - static_cast<uint32_t>(v)
                                : static_cast<uint32_t>(v);
  return put_number(out, s, magnitude, negative, 10);
}

bool put_string(Output &out, const Spec &s, const char *str) {
  if (str == nullptr) str = "(null)";
  int len = 0;
  while (str[len] != '\0' && (!s.precgiven || len < s.precision)) ++len;
  int padding = s.width > len ? s.width - len : 0;
  if (!s.left && !out.pad(' ', padding)) return false;
  for (int i = 0; i < len; ++i)
    if (!out.put(str[i])) return false;
  if (s.left && !out.pad(' ', padding)) return false;
  return true;
}

int run_engine(char *dest, uint32_t limit, const char *fmt, WordSource src) {
  Output out{dest, 0, limit != 0, static_cast<int64_t>(limit) - kLimitReserve,
             false};
  if (dest == nullptr) return 0;
  if (fmt == nullptr) fmt = "";

  while (*fmt != '\0') {
    if (*fmt != '%') {
      if (!out.put(*fmt++)) return out.count;
      continue;
    }
    ++fmt;
    Spec s{};
    bool done = false;
    while (!done) {
      unsigned char c = static_cast<unsigned char>(*fmt);
      if (c == '\0') {
        // The format ends inside a conversion; the end is not consumed.
        if (s.lng || s.uselong) {
          if (!put_signed(out, s, src)) return out.count;
        } else {
          v0_assert(kAssertFile, __LINE__, "0");
        }
        break;
      }
      ++fmt;
      switch (c) {
        case '#':
          s.extra = true;
          break;
        case '-':
          s.left = true;
          break;
        case '.':
          s.precgiven = true;
          break;
        case '*': {
          int v = static_cast<int32_t>(src.next_u32());
          if (s.precgiven)
            s.precision = v;
          else
            s.width = v;
          break;
        }
        case 'l':
          s.lng = true;
          break;
        case 'L':
          s.uselong = true;
          break;
        case '0':
          if (!s.precgiven && s.width == 0) {
            s.zerofill = true;
            break;
          }
          [[fallthrough]];
        case '1': case '2': case '3': case '4': case '5':
        case '6': case '7': case '8': case '9':
          if (s.precgiven)
            s.precision = add_digit(s.precision, c - '0');
          else
            s.width = add_digit(s.width, c - '0');
          break;
        case '%':
          if (!out.put('%')) return out.count;
          done = true;
          break;
        case 'c':
          if (!(s.uselong == 0 && s.extra == 0))
            v0_assert(kAssertFile, __LINE__, "(uselong == 0) && (extra == 0)");
          if (!out.put(static_cast<char>(src.next_u32() & 0xFF)))
            return out.count;
          done = true;
          break;
        case 's': {
          if (!(s.uselong == 0 && s.extra == 0))
            v0_assert(kAssertFile, __LINE__, "(uselong == 0) && (extra == 0)");
          const char *str = reinterpret_cast<const char *>(src.next_pointer());
          if (!put_string(out, s, str)) return out.count;
          done = true;
          break;
        }
        case 'd':
        case 'i':
        case 'w':  // the engine's own synonym of "d"
          if (!put_signed(out, s, src)) return out.count;
          done = true;
          break;
        case 'u':
          if (!put_number(out, s, src.next_u32(), false, 10)) return out.count;
          done = true;
          break;
        case 'o':
          if (!put_number(out, s, src.next_u32(), false, 8)) return out.count;
          done = true;
          break;
        case 'x':
        case 'X':
          if (!put_number(out, s, src.next_u32(), false, 16)) return out.count;
          done = true;
          break;
        case 'p':
          if (!put_number(out, s, src.next_pointer(), false, 16))
            return out.count;
          done = true;
          break;
        default:
          // Unknown conversion: with "l" or "L" it reads as a signed
          // decimal, otherwise it is misuse and the character stands.
          if (s.lng || s.uselong) {
            if (!put_signed(out, s, src)) return out.count;
          } else {
            v0_assert(kAssertFile, __LINE__, "0");
            if (!out.put(static_cast<char>(c))) return out.count;
          }
          done = true;
          break;
      }
    }
  }
  *out.p = '\0';
  return out.count;
}

}  // namespace

extern "C" {

SNA_EXPORT int nb_fprintf(FILE *stream, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vfprintf(stream, fmt, ap);
  va_end(ap);
  return n;
}

SNA_EXPORT int nb_printf(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vfprintf(stdout, fmt, ap);
  va_end(ap);
  return n;
}

SNA_EXPORT int nb_sprintf(char *destination, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = vsprintf(destination, fmt, ap);
  va_end(ap);
  return n;
}

SNA_EXPORT int t_sprintf(char *destination, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = run_engine(destination, 0, fmt, WordSource{nullptr, &ap});
  va_end(ap);
  return n;
}

SNA_EXPORT int t_print_args(char *destination, uint32_t limit, const char *fmt,
                            const t_print_word *args) {
  return run_engine(destination, limit, fmt, WordSource{args, nullptr});
}

}  // extern "C"
