#include "protocol/ebcdic.h"

#include <array>

namespace sna::proto {
namespace {

struct Pair {
  char a;
  uint8_t e;
};

// Code page 037 for the printable ASCII characters that are not letters
// or digits, so that any printable name converts as applications convert it.
constexpr Pair kSpecials[] = {
    {' ', 0x40}, {'.', 0x4B}, {'<', 0x4C}, {'(', 0x4D}, {'+', 0x4E},
    {'|', 0x4F}, {'&', 0x50}, {'!', 0x5A}, {'$', 0x5B}, {'*', 0x5C},
    {')', 0x5D}, {';', 0x5E}, {'-', 0x60}, {'/', 0x61}, {',', 0x6B},
    {'%', 0x6C}, {'_', 0x6D}, {'>', 0x6E}, {'?', 0x6F}, {'`', 0x79},
    {':', 0x7A}, {'#', 0x7B}, {'@', 0x7C}, {'\'', 0x7D}, {'=', 0x7E},
    {'"', 0x7F}, {'~', 0xA1}, {'^', 0xB0}, {'[', 0xBA}, {']', 0xBB},
    {'{', 0xC0}, {'}', 0xD0}, {'\\', 0xE0},
};

}  // namespace

uint8_t to_ebcdic(char c) {
  if (c >= 'A' && c <= 'I') return static_cast<uint8_t>(0xC1 + (c - 'A'));
  if (c >= 'J' && c <= 'R') return static_cast<uint8_t>(0xD1 + (c - 'J'));
  if (c >= 'S' && c <= 'Z') return static_cast<uint8_t>(0xE2 + (c - 'S'));
  if (c >= 'a' && c <= 'i') return static_cast<uint8_t>(0x81 + (c - 'a'));
  if (c >= 'j' && c <= 'r') return static_cast<uint8_t>(0x91 + (c - 'j'));
  if (c >= 's' && c <= 'z') return static_cast<uint8_t>(0xA2 + (c - 's'));
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(0xF0 + (c - '0'));
  for (const Pair& p : kSpecials)
    if (p.a == c) return p.e;
  return 0x6F;
}

char from_ebcdic(uint8_t b) {
  if (b >= 0xC1 && b <= 0xC9) return static_cast<char>('A' + (b - 0xC1));
  if (b >= 0xD1 && b <= 0xD9) return static_cast<char>('J' + (b - 0xD1));
  if (b >= 0xE2 && b <= 0xE9) return static_cast<char>('S' + (b - 0xE2));
  if (b >= 0x81 && b <= 0x89) return static_cast<char>('a' + (b - 0x81));
  if (b >= 0x91 && b <= 0x99) return static_cast<char>('j' + (b - 0x91));
  if (b >= 0xA2 && b <= 0xA9) return static_cast<char>('s' + (b - 0xA2));
  if (b >= 0xF0 && b <= 0xF9) return static_cast<char>('0' + (b - 0xF0));
  for (const Pair& p : kSpecials)
    if (p.e == b) return p.a;
  return '?';
}

Bytes ebcdic_field(std::string_view ascii, size_t width) {
  Bytes out(width, 0x40);
  for (size_t i = 0; i < ascii.size() && i < width; ++i) out[i] = to_ebcdic(ascii[i]);
  return out;
}

size_t ebcdic_trimmed_length(ByteView e) {
  size_t n = e.size();
  while (n > 0 && e[n - 1] == 0x40) --n;
  return n;
}

std::string ebcdic_text(ByteView e) {
  std::string s;
  size_t n = ebcdic_trimmed_length(e);
  for (size_t i = 0; i < n; ++i) s.push_back(from_ebcdic(e[i]));
  return s;
}

}  // namespace sna::proto
