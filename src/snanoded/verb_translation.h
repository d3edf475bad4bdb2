// Verbs between their wire form and the protocol core's records, and the
// rule that says which outputs a reply carries: the node writes only the
// outputs a verb defines for its result, so the runtime leaves every other
// field of the program's block as it was.
#ifndef SNA_SNANODED_VERB_TRANSLATION_H
#define SNA_SNANODED_VERB_TRANSLATION_H

#include <cstdint>
#include <vector>

#include "protocol/actions.h"
#include "protocol/verbs.h"
#include "wire/wire_protocol.h"

namespace sna::daemon {

// A VERB frame's body (fixed part and the data it carries) as the core's
// verb. The body has been checked by the FrameDecoder.
proto::Verb verb_from_wire(const uint8_t* body, size_t length);

// The wire::Output bits for a verb that completed with `primary`.
uint32_t outputs_for(proto::Opcode opcode, uint16_t primary);

// The reply for a completion, as a VERB_REPLY body: the outputs the rule
// allows, zeros elsewhere, and the received data when it is an output.
std::vector<uint8_t> reply_body(const proto::Completion& completion);

// The whole VERB_REPLY frame for a completion (the same bytes as make_frame
// of reply_body), built in one buffer.
std::vector<uint8_t> verb_reply_frame(const proto::Completion& completion);

// A whole frame: header, then the body.
std::vector<uint8_t> make_frame(wire::Kind kind, uint64_t tag, const uint8_t* body, size_t length);
inline std::vector<uint8_t> make_frame(wire::Kind kind, uint64_t tag, const std::vector<uint8_t>& body) {
  return make_frame(kind, tag, body.data(), body.size());
}

}  // namespace sna::daemon

#endif
