// The four CPI-C character-set tables and the one conversion routine.
//
// Each table is 512 bytes: ASCII to EBCDIC in the first half, EBCDIC to
// ASCII in the second. Included characters get their code page 037 value;
// everything else translates to 0 in both directions.
#include <array>

#include "internal.h"

namespace cpic {

namespace {

// ASCII to EBCDIC (code page 037) for printable ASCII, 0x20..0x7E.
constexpr uint8_t kCp037Printable[95] = {
    0x40, 0x5A, 0x7F, 0x7B, 0x5B, 0x6C, 0x50, 0x7D, 0x4D, 0x5D, 0x5C, 0x4E,  //  !"#$%&'()*+
    0x6B, 0x60, 0x4B, 0x61, 0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7,  // ,-./01234567
    0xF8, 0xF9, 0x7A, 0x5E, 0x4C, 0x7E, 0x6E, 0x6F, 0x7C, 0xC1, 0xC2, 0xC3,  // 89:;<=>?@ABC
    0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6,  // DEFGHIJKLMNO
    0xD7, 0xD8, 0xD9, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xBA,  // PQRSTUVWXYZ[
    0xE0, 0xBB, 0xB0, 0x6D, 0x79, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87,  // \]^_`abcdefg
    0x88, 0x89, 0x91, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0xA2,  // hijklmnopqrs
    0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xC0, 0x4F, 0xD0, 0xA1,        // tuvwxyz{|}~
};

constexpr uint8_t cp037(uint8_t ascii) { return kCp037Printable[ascii - 0x20]; }

constexpr bool is_upper(uint8_t c) { return c >= 'A' && c <= 'Z'; }
constexpr bool is_lower(uint8_t c) { return c >= 'a' && c <= 'z'; }
constexpr bool is_digit(uint8_t c) { return c >= '0' && c <= '9'; }

constexpr bool in_set_ae(uint8_t c) {
  return c == ' ' || c == '#' || c == '$' || c == '.' || c == '@' || is_digit(c) ||
         is_upper(c) || is_lower(c);
}
constexpr bool in_set_a(uint8_t c) {
  return c == ' ' || c == '#' || c == '$' || c == '@' || is_digit(c) || is_upper(c);
}
constexpr bool in_set_ae640(uint8_t c) {
  if (c < 0x20 || c > 0x7E) return false;
  switch (c) {
    case '!': case '[': case '\\': case ']': case '^':
    case '`': case '{': case '|': case '}': case '~':
      return false;
    default:
      return true;
  }
}
constexpr bool in_set_ae640_ex(uint8_t c) {
  return c >= 0x20 && c <= 0x7E && c != '[' && c != ']' && c != '^';
}

using Table = std::array<uint8_t, 512>;

constexpr void add(Table &t, uint8_t ascii, uint8_t ebcdic) {
  t[ascii] = ebcdic;
  t[256 + ebcdic] = ascii;
}

template <typename InSet>
constexpr Table make_table(InSet in_set) {
  Table t{};
  for (unsigned c = 0x20; c <= 0x7E; ++c) {
    if (in_set(static_cast<uint8_t>(c))) add(t, static_cast<uint8_t>(c), cp037(static_cast<uint8_t>(c)));
  }
  return t;
}

constexpr Table make_cpic_a() {
  Table t = make_table(in_set_a);
  // Lower case is accepted on the way out and folded to upper case; EBCDIC
  // lower case comes back as ASCII upper case.
  for (uint8_t c = 'a'; c <= 'z'; ++c) {
    uint8_t upper = static_cast<uint8_t>(c - 'a' + 'A');
    t[c] = cp037(upper);
    t[256 + cp037(c)] = upper;
  }
  return t;
}

constexpr Table make_cpic_ae640_ex() {
  Table t = make_table(in_set_ae640_ex);
  add(t, 0xA2, 0x4A);  // cent sign
  add(t, 0xA6, 0x6A);  // broken bar
  add(t, 0xAC, 0x5F);  // not sign
  return t;
}

constexpr Table cpic_ae = make_table(in_set_ae);
constexpr Table cpic_a = make_cpic_a();
constexpr Table cpic_ae640 = make_table(in_set_ae640);
constexpr Table cpic_ae640_ex = make_cpic_ae640_ex();

constexpr const Table *kTables[4] = {&cpic_ae, &cpic_a, &cpic_ae640, &cpic_ae640_ex};

constexpr unsigned count_set(const Table &t) {
  unsigned n = 0;
  for (unsigned i = 1; i < 256; ++i) n += t[i] != 0;
  return n;
}
static_assert(count_set(cpic_ae) == 67);
static_assert(count_set(cpic_a) == 66);
static_assert(count_set(cpic_ae640) == 85);
static_assert(count_set(cpic_ae640_ex) == 95);

}  // namespace

void SCC_convert_string(uint8_t direction, uint16_t character_set, int16_t length,
                        uint8_t *destination, const uint8_t *source) {
  unsigned half;
  if (direction == 0) {
    half = 0;
  } else if (direction == 1) {
    half = 256;
  } else {
    v0_assert(SRC_CPICUTIL, 1140, "FALSE");
    return;
  }
  if (character_set > 3) {
    v0_assert(SRC_CPICUTIL, 1174, "FALSE");
    return;
  }
  const Table &table = *kTables[character_set];
  // Read before write at each position, so converting in place is exact.
  for (int16_t i = 0; i < length; ++i) destination[i] = table[half + source[i]];
}

uint16_t SCC_far_len(const uint8_t *string, uint16_t max) {
  uint16_t n = 0;
  while (n < max && string[n] != 0) ++n;
  return n;
}

}  // namespace cpic
