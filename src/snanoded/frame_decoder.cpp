#include "snanoded/frame_decoder.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "protocol/bytes.h"

namespace sna::daemon {

using wire::Kind;

using wire::kVerbPasswordOffset;
using wire::kVerbPasswordSize;

void wipe_verb_password(uint8_t* body, size_t n) {
  if (n < kVerbPasswordOffset + kVerbPasswordSize) return;
  proto::wipe(body + kVerbPasswordOffset, kVerbPasswordSize);
}

void FrameDecoder::append(const uint8_t* data, size_t n) {
  // A request still arriving may hold a password: moving or growing the
  // buffer clears the place it leaves. Taken frames are cleared in next().
  if (start_ > 0 && start_ >= buf_.size() / 2) {
    const size_t pending = buf_.size() - start_;
    std::memmove(buf_.data(), buf_.data() + start_, pending);
    proto::wipe(buf_.data() + start_, pending);  // start_ >= pending: no overlap
    buf_.resize(pending);
    start_ = 0;
  }
  if (buf_.capacity() - buf_.size() < n && buf_.size() > start_) {
    std::vector<uint8_t> bigger;
    bigger.reserve(std::max(buf_.capacity() * 2, buf_.size() + n));
    bigger.assign(buf_.begin(), buf_.end());
    proto::wipe(buf_.data(), buf_.size());
    buf_.swap(bigger);
  }
  buf_.insert(buf_.end(), data, data + n);
}

bool FrameDecoder::check_header(const wire::FrameHeader& h, std::string& reason) const {
  if (h.length < wire::kHeaderSize) {
    reason = "frame length " + std::to_string(h.length) + " is shorter than the header";
    return false;
  }
  if (h.length > wire::kMaxRequestFrame) {
    reason = "frame length " + std::to_string(h.length) + " exceeds the request limit " +
             std::to_string(wire::kMaxRequestFrame);
    return false;
  }
  const uint16_t k = static_cast<uint16_t>(h.kind);
  switch (h.kind) {
    case Kind::kHello:
      if (hello_seen_) {
        reason = "second HELLO";
        return false;
      }
      return true;
    case Kind::kVerb:
    case Kind::kNof:
    case Kind::kOperator:
      if (!hello_seen_) {
        reason = "frame kind " + std::to_string(k) + " before HELLO";
        return false;
      }
      if (h.kind == Kind::kOperator && !operator_) {
        reason = "operator frame on an application connection";
        return false;
      }
      return true;
    case Kind::kHelloReply:
    case Kind::kVerbReply:
    case Kind::kNofReply:
    case Kind::kOperatorReply:
    case Kind::kTraceControl:
      reason = "frame kind " + std::to_string(k) + " is not a request";
      return false;
  }
  reason = "unknown frame kind " + std::to_string(k);
  return false;
}

bool FrameDecoder::check_body(const wire::FrameHeader& h, const uint8_t* body, size_t n,
                              std::string& reason) const {
  switch (h.kind) {
    case Kind::kHello:
      if (n != wire::kHelloSize) {
        reason = "HELLO body of " + std::to_string(n) + " bytes";
        return false;
      }
      if (wire::decode_hello(body).magic != wire::kMagic) {
        reason = "HELLO with a wrong magic number";
        return false;
      }
      return true;
    case Kind::kVerb: {
      if (n < wire::kVerbFixedSize) {
        reason = "verb body of " + std::to_string(n) + " bytes";
        return false;
      }
      const uint32_t declared = wire::get32(body, 32);
      const size_t expected = wire::kVerbFixedSize + wire::data_carried(declared);
      if (n != expected) {
        reason = "verb declares data length " + std::to_string(declared) + " but carries " +
                 std::to_string(n - wire::kVerbFixedSize) + " bytes";
        return false;
      }
      return true;
    }
    case Kind::kNof:
      if (n != wire::kNofFixedSize) {
        reason = "node-operator body of " + std::to_string(n) + " bytes";
        return false;
      }
      return true;
    default:
      return true;  // operator text: any length within the frame limit
  }
}

FrameDecoder::Status FrameDecoder::next(Frame& frame, std::string& reason) {
  if (broken_) {
    reason = "stream already malformed";
    return Status::kMalformed;
  }
  if (buffered() < wire::kHeaderSize) return Status::kNeedMore;
  const uint8_t* p = buf_.data() + start_;
  const wire::FrameHeader h = wire::decode_header(p);
  // The header alone tells most faults: refuse them before waiting for a
  // body that may never come.
  if (!check_header(h, reason)) {
    broken_ = true;
    return Status::kMalformed;
  }
  if (buffered() < h.length) return Status::kNeedMore;
  const uint8_t* body = p + wire::kHeaderSize;
  const size_t n = h.length - wire::kHeaderSize;
  if (!check_body(h, body, n, reason)) {
    broken_ = true;
    return Status::kMalformed;
  }
  frame.kind = h.kind;
  frame.tag = h.tag;
  frame.body.assign(body, body + n);
  if (h.kind == Kind::kVerb) wipe_verb_password(buf_.data() + start_ + wire::kHeaderSize, n);
  start_ += h.length;
  if (h.kind == Kind::kHello) {
    hello_seen_ = true;
    operator_ = (wire::decode_hello(frame.body.data()).flags & wire::kHelloOperator) != 0;
  }
  if (start_ == buf_.size()) {
    buf_.clear();
    start_ = 0;
  }
  return Status::kFrame;
}

}  // namespace sna::daemon
