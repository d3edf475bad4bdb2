// Bounded big-endian byte reading and writing for the SNA codecs.
// A Reader never moves past its buffer: every read checks first and
// reports failure instead.
#ifndef SNA_PROTO_BYTES_H
#define SNA_PROTO_BYTES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <string.h>  // explicit_bzero

namespace sna::proto {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// Clears memory that held a secret (a password) before it is reused or
// freed; unlike a plain fill, the compiler may not drop it as a dead store.
inline void wipe(void* p, size_t n) {
  if (n != 0) explicit_bzero(p, n);
}
inline void wipe(Bytes& b) { wipe(b.data(), b.size()); }

class Reader {
 public:
  explicit Reader(ByteView data) : data_(data) {}

  size_t offset() const { return pos_; }
  size_t remaining() const { return data_.size() - pos_; }
  bool empty() const { return pos_ == data_.size(); }

  bool u8(uint8_t& out) {
    if (remaining() < 1) return false;
    out = data_[pos_++];
    return true;
  }
  bool u16(uint16_t& out) {
    if (remaining() < 2) return false;
    out = static_cast<uint16_t>((data_[pos_] << 8) | data_[pos_ + 1]);
    pos_ += 2;
    return true;
  }
  bool u32(uint32_t& out) {
    if (remaining() < 4) return false;
    out = (uint32_t{data_[pos_]} << 24) | (uint32_t{data_[pos_ + 1]} << 16) |
          (uint32_t{data_[pos_ + 2]} << 8) | uint32_t{data_[pos_ + 3]};
    pos_ += 4;
    return true;
  }
  bool take(size_t n, ByteView& out) {
    if (remaining() < n) return false;
    out = data_.subspan(pos_, n);
    pos_ += n;
    return true;
  }
  ByteView rest() {
    ByteView r = data_.subspan(pos_);
    pos_ = data_.size();
    return r;
  }

 private:
  ByteView data_;
  size_t pos_ = 0;
};

class Writer {
 public:
  explicit Writer(Bytes& out) : out_(out) {}
  void u8(uint8_t v) { out_.push_back(v); }
  void u16(uint16_t v) {
    out_.push_back(static_cast<uint8_t>(v >> 8));
    out_.push_back(static_cast<uint8_t>(v));
  }
  void u32(uint32_t v) {
    u16(static_cast<uint16_t>(v >> 16));
    u16(static_cast<uint16_t>(v));
  }
  void bytes(ByteView b) { out_.insert(out_.end(), b.begin(), b.end()); }
  size_t size() const { return out_.size(); }
  // Overwrites a byte written earlier (length fields known only at the end).
  void patch_u8(size_t at, uint8_t v) { out_[at] = v; }

 private:
  Bytes& out_;
};

}  // namespace sna::proto

#endif
