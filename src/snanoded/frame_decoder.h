// Cuts a client's byte stream into request frames and refuses malformed
// input: a bad length, a kind a client may not send, a body whose length
// does not match what it declares, anything before HELLO or a second HELLO.
// Pure bookkeeping, no I/O, so the rules can be tested on byte strings.
#ifndef SNA_SNANODED_FRAME_DECODER_H
#define SNA_SNANODED_FRAME_DECODER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wire/wire_protocol.h"

namespace sna::daemon {

// Clears the password field of a verb body (an ALLOCATE with program
// security carries one), once the frame's bytes are no longer needed.
void wipe_verb_password(uint8_t* body, size_t n);

struct Frame {
  wire::Kind kind = wire::Kind::kHello;
  uint64_t tag = 0;
  std::vector<uint8_t> body;  // the bytes after the header
};

class FrameDecoder {
 public:
  enum class Status { kFrame, kNeedMore, kMalformed };

  void append(const uint8_t* data, size_t n);
  // The next complete frame, kNeedMore when it has not all arrived, or
  // kMalformed with the reason (the stream cannot be trusted afterwards).
  Status next(Frame& frame, std::string& reason);

  size_t buffered() const { return buf_.size() - start_; }
  bool hello_seen() const { return hello_seen_; }
  bool operator_connection() const { return operator_; }

 private:
  bool check_header(const wire::FrameHeader& h, std::string& reason) const;
  bool check_body(const wire::FrameHeader& h, const uint8_t* body, size_t n,
                  std::string& reason) const;

  std::vector<uint8_t> buf_;
  size_t start_ = 0;
  bool hello_seen_ = false;
  bool operator_ = false;
  bool broken_ = false;
};

}  // namespace sna::daemon

#endif
