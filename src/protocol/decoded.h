// Outcome of decoding untrusted bytes: a value, or the reason and offset
// at which the input was refused.
#ifndef SNA_PROTO_DECODED_H
#define SNA_PROTO_DECODED_H

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace sna::proto {

struct DecodeError {
  std::string reason;
  size_t offset = 0;
};

template <class T>
class Decoded {
 public:
  Decoded(T value) : value_(std::move(value)) {}  // NOLINT: implicit by design
  Decoded(DecodeError error) : error_(std::move(error)) {}  // NOLINT

  explicit operator bool() const { return value_.has_value(); }
  const T& value() const { return *value_; }
  T& value() { return *value_; }
  const T* operator->() const { return &*value_; }
  const DecodeError& error() const { return error_; }

 private:
  std::optional<T> value_;
  DecodeError error_;
};

inline DecodeError fail(std::string reason, size_t offset) {
  return DecodeError{std::move(reason), offset};
}

}  // namespace sna::proto

#endif
