// Generalized data stream variables and basic-conversation logical
// records: the LL-prefixed units that carry conversation data.
#ifndef SNA_PROTO_GDS_H
#define SNA_PROTO_GDS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/bytes.h"
#include "protocol/decoded.h"

namespace sna::proto {

inline constexpr uint16_t kGdsApplicationData = 0x12FF;
inline constexpr uint16_t kGdsErrorLog = 0x12E1;
inline constexpr uint16_t kLlContinuation = 0x8000;
inline constexpr uint16_t kMaxLl = 0x7FFF;

// Appends one GDS variable, split into LL segments of at most 32767 bytes;
// every segment but the last has the continuation bit set, and only the
// first carries the ID.
void append_gds(uint16_t id, ByteView data, Bytes& out);

// Incremental parser of a GDS byte stream that may arrive in pieces.
class GdsAssembler {
 public:
  struct Piece {
    uint16_t id = 0;
    Bytes data;
    bool starts_variable = false;
    bool ends_variable = false;
  };
  // Parses what it can; pieces of a variable are handed out as soon as
  // they arrive. A bad LL makes the whole stream invalid.
  Decoded<std::vector<Piece>> feed(ByteView bytes);
  // True between variables: no LL, ID or data is pending.
  bool at_boundary() const { return phase_ == Phase::kHeader && have_ == 0 && !more_; }

 private:
  enum class Phase { kHeader, kData };
  Phase phase_ = Phase::kHeader;
  uint8_t hdr_[4] = {};
  size_t have_ = 0;          // header bytes collected
  size_t seg_left_ = 0;      // data bytes still due in this segment
  bool more_ = false;        // this segment has the continuation bit
  bool in_variable_ = false; // a continued variable is open
  uint16_t id_ = 0;
  size_t consumed_ = 0;
};

// Tracks the logical-record structure of a basic conversation's byte
// stream: a 2-byte LL (high bit passed on as data) whose low 15 bits give
// the record length including the LL. 0x0000, 0x0001, 0x8000 and 0x8001
// are invalid.
class LogicalRecordScanner {
 public:
  // Validates bytes appended to the stream. On success, `ends` receives the
  // offsets (within `bytes`, exclusive) at which records end. On failure the
  // scanner is left unchanged.
  bool feed(ByteView bytes, std::vector<size_t>* ends = nullptr);
  // Inside a record: after its first LL byte and before its last byte.
  bool incomplete() const { return ll_have_ != 0 || left_ != 0; }
  // SEND_ERROR and abends end the current record.
  void reset() { *this = LogicalRecordScanner(); }

 private:
  uint8_t ll_first_ = 0;
  size_t ll_have_ = 0;  // 0 or 1 LL bytes of the next record seen
  size_t left_ = 0;     // data bytes of the current record still due
};

bool ll_valid(uint16_t ll);

}  // namespace sna::proto

#endif
