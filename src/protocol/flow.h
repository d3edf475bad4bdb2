// A session flow: RH plus RU, and the small control RUs of LU 6.2
// (SIGNAL, responses).
#ifndef SNA_PROTO_FLOW_H
#define SNA_PROTO_FLOW_H

#include <cstdint>

#include "protocol/bytes.h"
#include "protocol/decoded.h"
#include "protocol/rh.h"

namespace sna::proto {

struct Flow {
  Rh rh;
  Bytes ru;
  friend bool operator==(const Flow&, const Flow&) = default;
};

inline constexpr uint8_t kSignalRequestCode = 0xC9;
inline constexpr uint32_t kSignalRequestToSend = 0x00010000;

Bytes encode_flow(const Flow& f);
// Checks the RH and that the RU fits it: a negative response carries four
// bytes of sense, a control request (DFC, SC) has its request code.
Decoded<Flow> decode_flow(ByteView bytes);

// Sense code of a negative response (0 for a positive one).
uint32_t response_sense(const Flow& rsp);

Flow signal_flow(uint32_t code);
Decoded<uint32_t> decode_signal(ByteView ru);

// A response to `request`. Control responses echo the request code;
// a negative response puts the sense first.
Flow positive_response(const Flow& request);
Flow negative_response(const Flow& request, uint32_t sense);

}  // namespace sna::proto

#endif
