#include "protocol/rh.h"

namespace sna::proto {
namespace {

constexpr uint8_t kRri = 0x80, kFi = 0x08, kSdi = 0x04, kBci = 0x02, kEci = 0x01;
constexpr uint8_t kByte0Reserved = 0x10;
constexpr uint8_t kDr1 = 0x80, kLcci = 0x40, kDr2 = 0x20, kEri = 0x10, kRlwi = 0x04,
                  kQri = 0x02, kPi = 0x01;
constexpr uint8_t kByte1Reserved = 0x08;
constexpr uint8_t kBbi = 0x80, kEbi = 0x40, kCdi = 0x20, kCsi = 0x08, kEdi = 0x04,
                  kPdi = 0x02, kCebi = 0x01;
constexpr uint8_t kByte2Reserved = 0x10;

uint8_t bit(bool on, uint8_t mask) { return on ? mask : 0; }

}  // namespace

ResponseMode Rh::response_mode() const {
  if (!dr1 && !dr2) return ResponseMode::kNone;
  return eri ? ResponseMode::kException : ResponseMode::kDefinite;
}

void Rh::set_response_mode(ResponseMode m) {
  dr1 = m != ResponseMode::kNone;
  dr2 = false;
  eri = m == ResponseMode::kException;
}

std::array<uint8_t, kRhSize> encode_rh(const Rh& rh) {
  std::array<uint8_t, kRhSize> b{};
  b[0] = static_cast<uint8_t>(bit(rh.response, kRri) |
                              (static_cast<uint8_t>(rh.category) << 5) |
                              bit(rh.format, kFi) | bit(rh.sense, kSdi) |
                              bit(rh.begin_chain, kBci) | bit(rh.end_chain, kEci));
  b[1] = static_cast<uint8_t>(bit(rh.dr1, kDr1) | bit(rh.lcci, kLcci) | bit(rh.dr2, kDr2) |
                              bit(rh.eri, kEri) | bit(rh.rlwi, kRlwi) |
                              bit(rh.queued, kQri) | bit(rh.pacing, kPi));
  if (!rh.response)
    b[2] = static_cast<uint8_t>(
        bit(rh.begin_bracket, kBbi) | bit(rh.end_bracket, kEbi) |
        bit(rh.change_direction, kCdi) | bit(rh.code_select, kCsi) |
        bit(rh.enciphered, kEdi) | bit(rh.padded, kPdi) |
        bit(rh.conditional_end_bracket, kCebi));
  return b;
}

Decoded<Rh> decode_rh(ByteView bytes) {
  if (bytes.size() < kRhSize) return fail("RH shorter than 3 bytes", bytes.size());
  const uint8_t b0 = bytes[0], b1 = bytes[1], b2 = bytes[2];
  if (b0 & kByte0Reserved) return fail("RH byte 0 reserved bit set", 0);
  if (b1 & kByte1Reserved) return fail("RH byte 1 reserved bit set", 1);
  if (b2 & kByte2Reserved) return fail("RH byte 2 reserved bit set", 2);
  Rh rh;
  rh.response = b0 & kRri;
  rh.category = static_cast<RuCategory>((b0 >> 5) & 0x03);
  rh.format = b0 & kFi;
  rh.sense = b0 & kSdi;
  rh.begin_chain = b0 & kBci;
  rh.end_chain = b0 & kEci;
  rh.dr1 = b1 & kDr1;
  rh.lcci = b1 & kLcci;
  rh.dr2 = b1 & kDr2;
  rh.eri = b1 & kEri;
  rh.rlwi = b1 & kRlwi;
  rh.queued = b1 & kQri;
  rh.pacing = b1 & kPi;
  if (rh.response) {
    if (!rh.begin_chain || !rh.end_chain)
      return fail("response RH must be only-in-chain", 0);
    if (b2 != 0) return fail("response RH byte 2 must be zero", 2);
    if (rh.sense != rh.eri)
      return fail("response RH: sense data indicator must match negative response", 0);
    return rh;
  }
  rh.begin_bracket = b2 & kBbi;
  rh.end_bracket = b2 & kEbi;
  rh.change_direction = b2 & kCdi;
  rh.code_select = b2 & kCsi;
  rh.enciphered = b2 & kEdi;
  rh.padded = b2 & kPdi;
  rh.conditional_end_bracket = b2 & kCebi;
  if (rh.eri && !rh.dr1 && !rh.dr2)
    return fail("request RH asks for an exception response without DR1 or DR2", 1);
  return rh;
}

Rh response_rh(const Rh& request, bool negative) {
  Rh r;
  r.response = true;
  r.category = request.category;
  // Control responses are formatted; function-management ones are not.
  r.format = request.category != RuCategory::kFmd;
  r.sense = negative;
  r.begin_chain = true;
  r.end_chain = true;
  r.dr1 = request.dr1;
  r.dr2 = request.dr2;
  r.eri = negative;
  return r;
}

}  // namespace sna::proto
