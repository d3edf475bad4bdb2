// Reading a fuzz input from the front: fixed-size little-endian numbers
// and length-prefixed byte strings, zeros once the input is used up. Seed
// inputs are written in the same layout by tests/fuzz/make_seeds.py.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H
#define TESTS_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), n_(size) {}

  size_t left() const { return n_ - at_; }
  bool empty() const { return at_ == n_; }

  uint8_t u8() { return static_cast<uint8_t>(take(1)); }
  uint16_t u16() { return static_cast<uint16_t>(take(2)); }
  uint32_t u32() { return static_cast<uint32_t>(take(4)); }
  uint64_t u64() { return take(8); }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  bool flag() { return (u8() & 1) != 0; }
  // lo..hi inclusive, from one byte when the span fits one, else four.
  uint32_t range(uint32_t lo, uint32_t hi) {
    const uint64_t span = uint64_t{hi} - lo + 1;
    const uint64_t v = span <= 256 ? u8() : u32();
    return static_cast<uint32_t>(lo + v % span);
  }

  // Up to n bytes (fewer at the end of the input).
  std::vector<uint8_t> bytes(size_t n) {
    if (n > left()) n = left();
    std::vector<uint8_t> out(p_ + at_, p_ + at_ + n);
    at_ += n;
    return out;
  }
  // A u16 length (cut to max), then that many bytes.
  std::vector<uint8_t> block(size_t max) {
    size_t n = u16();
    if (n > max) n = n % (max + 1);
    return bytes(n);
  }
  std::string text(size_t max) {
    const std::vector<uint8_t> b = block(max);
    return std::string(b.begin(), b.end());
  }
  std::vector<uint8_t> rest() { return bytes(left()); }

 private:
  uint64_t take(size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width && at_ < n_; ++i) v |= uint64_t{p_[at_++]} << (8 * i);
    return v;
  }

  const uint8_t* p_;
  size_t n_;
  size_t at_ = 0;
};

}  // namespace fuzz

#endif
