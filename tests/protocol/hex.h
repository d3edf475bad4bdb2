// Test helper: bytes from a hex string ("6B 80 00") and back.
#ifndef SNA_PROTO_TEST_HEX_H
#define SNA_PROTO_TEST_HEX_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sna::proto::test {

inline std::vector<uint8_t> hex(std::string_view s) {
  std::vector<uint8_t> out;
  int nib = -1;
  for (char c : s) {
    int v;
    if (c >= '0' && c <= '9') v = c - '0';
    else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
    else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
    else continue;
    if (nib < 0) nib = v;
    else { out.push_back(static_cast<uint8_t>(nib * 16 + v)); nib = -1; }
  }
  return out;
}

inline std::string to_hex(const std::vector<uint8_t>& b) {
  static const char* d = "0123456789ABCDEF";
  std::string s;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i) s.push_back(' ');
    s.push_back(d[b[i] >> 4]);
    s.push_back(d[b[i] & 15]);
  }
  return s;
}

}  // namespace sna::proto::test

#endif
