// Request/response header: the three RH bytes that precede every RU.
#ifndef SNA_PROTO_RH_H
#define SNA_PROTO_RH_H

#include <array>
#include <cstdint>

#include "protocol/bytes.h"
#include "protocol/decoded.h"

namespace sna::proto {

enum class RuCategory : uint8_t { kFmd = 0, kNc = 1, kDfc = 2, kSc = 3 };

// Response modes a request asks for, from the DR1, DR2 and ERI bits.
enum class ResponseMode : uint8_t {
  kNone,        // RQN: no response
  kException,   // RQE1: a response only if negative
  kDefinite,    // RQD1: always a response
};

struct Rh {
  bool response = false;  // RRI
  RuCategory category = RuCategory::kFmd;
  bool format = false;     // FI: FM header present (FMD) / formatted (others)
  bool sense = false;      // SDI: four bytes of sense data begin the RU
  bool begin_chain = true;   // BCI
  bool end_chain = true;     // ECI
  // Byte 1
  bool dr1 = false;
  bool lcci = false;  // length-checked compression
  bool dr2 = false;
  bool eri = false;   // request: exception response; response: RTI (negative)
  bool rlwi = false;  // request larger window
  bool queued = false;  // QRI
  bool pacing = false;  // PI
  // Byte 2 (requests only)
  bool begin_bracket = false;
  bool end_bracket = false;
  bool change_direction = false;
  bool code_select = false;
  bool enciphered = false;
  bool padded = false;
  bool conditional_end_bracket = false;

  bool negative() const { return response && eri; }
  ResponseMode response_mode() const;
  void set_response_mode(ResponseMode m);

  friend bool operator==(const Rh&, const Rh&) = default;
};

inline constexpr size_t kRhSize = 3;

std::array<uint8_t, kRhSize> encode_rh(const Rh& rh);
// Refuses fewer than three bytes, reserved bits that are set, and
// responses that are not a single-RU chain or carry request-only bits.
Decoded<Rh> decode_rh(ByteView bytes);

// The RH of a response to the given request: same category, same DR bits.
Rh response_rh(const Rh& request, bool negative);

}  // namespace sna::proto

#endif
