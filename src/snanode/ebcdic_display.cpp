/* Code page 037 read for display: the printable ASCII character a byte
 * stands for, '.' for everything else (controls, accented letters and other
 * characters outside ASCII). */
#include "internal.h"

namespace {

struct DisplayTable {
  char to_ascii[256];
};

constexpr DisplayTable build() {
  DisplayTable table{};
  for (int i = 0; i < 256; ++i) table.to_ascii[i] = '.';
  auto run = [&table](int first, const char *chars) {
    for (int i = 0; chars[i]; ++i) table.to_ascii[first + i] = chars[i];
  };
  table.to_ascii[0x40] = ' ';
  run(0x4B, ".<(+|");
  table.to_ascii[0x50] = '&';
  run(0x5A, "!$*);");
  run(0x60, "-/");
  run(0x6B, ",%_>?");
  run(0x79, "`:#@'=\"");
  run(0x81, "abcdefghi");
  run(0x91, "jklmnopqr");
  run(0xA1, "~stuvwxyz");
  table.to_ascii[0xB0] = '^';
  run(0xBA, "[]");
  table.to_ascii[0xC0] = '{';
  run(0xC1, "ABCDEFGHI");
  table.to_ascii[0xD0] = '}';
  run(0xD1, "JKLMNOPQR");
  table.to_ascii[0xE0] = '\\';
  run(0xE2, "STUVWXYZ");
  run(0xF0, "0123456789");
  return table;
}

constexpr DisplayTable display = build();

static_assert(display.to_ascii[0xC1] == 'A' && display.to_ascii[0xE9] == 'Z');
static_assert(display.to_ascii[0x81] == 'a' && display.to_ascii[0xA9] == 'z');
static_assert(display.to_ascii[0xF0] == '0' && display.to_ascii[0x7F] == '"');

}  // namespace

extern "C" char snanode_ebcdic_display(unsigned char byte) { return display.to_ascii[byte]; }
